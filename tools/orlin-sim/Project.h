#pragma once

#include <QELNetworkKit/Value.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

/// Thrown where a project cannot be opened or saved; the text says why.
class ProjectError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One port of a workflow.
struct Port {
  std::string id, name;
  std::string valueType;  ///< the four characters of the protocol
  bool output = false;
  qelnk::Value value;
  std::string follow;                  ///< the input port whose value this one takes over; empty for none
  std::chrono::milliseconds every{0};  ///< how often this one counts up while its workflow executes; 0 for never

  /// The value as this port's type has it; none where it does not fit.
  std::optional<qelnk::Value> converted(const qelnk::Value &value) const;
  /// The value of one that counts, one further; behind its type's last number comes the first.
  qelnk::Value next() const;
  qelnk::Value description() const;
};

struct Workflow {
  std::string id, name;
  bool execute = false;  ///< executes when the project is started
  bool executing = false;
  std::vector<Port> ports;

  qelnk::Value description() const;
  qelnk::Value portDescriptions() const;
};

/// A project: what its file says, and what has become of it.
class Project {
 public:
  /// Reads a project file.
  static Project open(const std::filesystem::path &file);
  /// Writes the project with its present values to `file`, whole or not at all; that is its file from then on.
  void save(const std::filesystem::path &file);

  /// A file of that name, where a relative one lies in this project's folder.
  std::filesystem::path fileNamed(std::string_view name) const;

  void start();
  void stop();

  Workflow *workflow(std::string_view id);
  Port *port(std::string_view id);
  std::vector<Workflow> &workflows() { return workflows_; }
  qelnk::Value description() const;

 private:
  void check();

  qelnk::Value document_;  // as read, with what this program does not know about
  std::filesystem::path file_;
  std::string name_;
  bool running_ = false;
  std::vector<Workflow> workflows_;
};

}  // namespace sim
