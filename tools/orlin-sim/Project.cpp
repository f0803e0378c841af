#include "Project.h"

#include <QELNetworkKit/JSON.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <set>

namespace sim {

using qelnk::Value;

namespace {

constexpr std::array<std::string_view, 13> valueTypes = {"bool", "int_", "long", "indx", "doub", "str_", "arry",
                                                         "colr", "imag", "tico", "strc", "bytb", "trig"};

bool isInteger(std::string_view type) { return type == "int_" || type == "long" || type == "indx"; }
bool isTruth(std::string_view type) { return type == "bool" || type == "trig"; }

Value initialValue(std::string_view type) {
  if (isTruth(type)) return false;
  if (isInteger(type)) return int64_t(0);
  if (type == "doub") return 0.0;
  if (type == "str_") return "";
  if (type == "arry") return Value::list();
  return nullptr;
}

std::string requiredText(const Value &description, std::string_view key, std::string_view what) {
  const Value &text = description[key];
  if (!text.isString() || text.string().empty())
    throw ProjectError(std::string(what) + " without \"" + std::string(key) + "\"");
  return std::string(text.string());
}

Port portOf(const Value &description) {
  Port port;
  port.id = requiredText(description, "id", "a port");
  port.name = requiredText(description, "name", "a port");
  const std::string direction = requiredText(description, "portType", "a port");
  if (direction != "input" && direction != "output") throw ProjectError("a port's portType is input or output");
  port.output = direction == "output";
  port.valueType = requiredText(description, "portValueType", "a port");
  if (std::find(valueTypes.begin(), valueTypes.end(), port.valueType) == valueTypes.end())
    throw ProjectError("there is no portValueType " + port.valueType);
  port.value = initialValue(port.valueType);
  if (const Value *value = description.find("value")) {
    const auto converted = port.converted(*value);
    if (!converted) throw ProjectError("the value of port " + port.id + " does not fit its type");
    port.value = *converted;
  }
  port.follow = description["follow"].string();
  port.every = std::chrono::milliseconds(description["every"].integerValue());
  if (port.every.count() < 0 || port.every > std::chrono::hours(24))
    throw ProjectError("\"every\" is a number of milliseconds, a day at most");
  if (port.every.count() > 0 && !isInteger(port.valueType) && port.valueType != "doub")
    throw ProjectError("the port " + port.id + " cannot count: it holds no number");
  if (!port.output && (port.every.count() > 0 || !port.follow.empty()))
    throw ProjectError("the input port " + port.id + " can neither follow nor count");
  return port;
}

Workflow workflowOf(const Value &description) {
  Workflow workflow;
  workflow.id = requiredText(description, "id", "a workflow");
  workflow.name = requiredText(description, "name", "a workflow");
  workflow.execute = description["execute"].boolValue();
  for (const Value &port : description["ports"].items()) workflow.ports.push_back(portOf(port));
  return workflow;
}

}  // namespace

std::optional<Value> Port::converted(const Value &given) const {
  const bool scalar = given.isNumber() || given.isBool() || given.isString();
  if (isTruth(valueType)) return scalar ? std::optional<Value>(given.boolValue()) : std::nullopt;
  if (valueType == "int_" || valueType == "indx") return scalar ? std::optional<Value>(given.intValue()) : std::nullopt;
  if (valueType == "long") return scalar ? std::optional<Value>(given.integerValue()) : std::nullopt;
  if (valueType == "doub") return scalar ? std::optional<Value>(given.doubleValue()) : std::nullopt;
  if (valueType == "str_") {
    if (given.isString()) return given;
    return scalar ? std::optional<Value>(given.description()) : std::nullopt;
  }
  if (valueType == "arry") return given.isList() ? std::optional<Value>(given) : std::nullopt;
  return given;
}

Value Port::next() const {
  if (valueType == "doub") return value.doubleValue() + 1;
  if (valueType == "long") return int64_t(uint64_t(value.integerValue()) + 1);
  return int32_t(uint32_t(value.intValue()) + 1);
}

Value Port::description() const {
  return Value::map({{"id", id},
                     {"name", name},
                     {"portType", output ? "output" : "input"},
                     {"portValueType", valueType},
                     {"value", value}});
}

Value Workflow::description() const {
  return Value::map({{"id", id}, {"name", name}, {"status", executing}, {"execute", execute}});
}

Value Workflow::portDescriptions() const {
  Value list = Value::list();
  for (const Port &port : ports) list.append(port.description());
  return list;
}

Project Project::open(const std::filesystem::path &file) {
  std::error_code ignored;
  std::ifstream stream(file, std::ios::binary);
  if (!std::filesystem::is_regular_file(file, ignored) || !stream)
    throw ProjectError("there is no project file " + file.string());
  const std::string text(std::istreambuf_iterator<char>(stream), {});
  qelnk::Error error;
  const auto document = qelnk::jsonObject(text, &error);
  if (!document) throw ProjectError(file.string() + " is not JSON: " + error.description);
  Project project;
  project.document_ = *document;
  project.file_ = std::filesystem::absolute(file).lexically_normal();
  try {
    project.name_ = requiredText(*document, "name", "a project");
    for (const Value &workflow : (*document)["workflows"].items()) project.workflows_.push_back(workflowOf(workflow));
    project.check();
  } catch (const ProjectError &problem) {
    throw ProjectError(file.string() + ": " + problem.what());
  }
  return project;
}

/// Identifiers are unique, and who follows has whom to follow.
void Project::check() {
  std::set<std::string_view> ids;
  for (const Workflow &workflow : workflows_) {
    if (!ids.insert(workflow.id).second) throw ProjectError("the identifier " + workflow.id + " is there twice");
    for (const Port &port : workflow.ports)
      if (!ids.insert(port.id).second) throw ProjectError("the identifier " + port.id + " is there twice");
  }
  for (const Workflow &workflow : workflows_)
    for (const Port &port : workflow.ports) {
      const Port *followed = port.follow.empty() ? nullptr : this->port(port.follow);
      if (!port.follow.empty() && (!followed || followed->output))
        throw ProjectError("the port " + port.id + " follows " + port.follow + ", which is no input port");
    }
}

void Project::save(const std::filesystem::path &file) {
  Value document = document_;
  for (size_t w = 0; w < workflows_.size(); ++w)
    for (size_t p = 0; p < workflows_[w].ports.size(); ++p)
      document.at("workflows").at(w).at("ports").at(p).set("value", workflows_[w].ports[p].value);
  qelnk::Error error;
  const auto text = qelnk::jsonData(document, &error);
  if (!text) throw ProjectError("the project cannot be written: " + error.description);
  const std::filesystem::path draft = file.string() + ".draft-" + std::to_string(getpid());
  std::error_code problem;
  std::ofstream stream(draft, std::ios::binary);
  stream << text->text() << '\n';
  stream.close();
  if (stream.fail())
    problem = std::make_error_code(std::errc::io_error);
  else
    std::filesystem::rename(draft, file, problem);
  if (problem) {
    std::error_code ignored;
    std::filesystem::remove(draft, ignored);
    throw ProjectError("the project cannot be written to " + file.string());
  }
  document_ = std::move(document);
  file_ = file;
}

std::filesystem::path Project::fileNamed(std::string_view name) const {
  return name.empty() ? file_ : (file_.parent_path() / name).lexically_normal();
}

void Project::start() {
  running_ = true;
  for (Workflow &workflow : workflows_) workflow.executing = workflow.executing || workflow.execute;
}

void Project::stop() {
  running_ = false;
  for (Workflow &workflow : workflows_) workflow.executing = false;
}

Workflow *Project::workflow(std::string_view id) {
  const auto found = std::find_if(workflows_.begin(), workflows_.end(), [&](auto &w) { return w.id == id; });
  return found == workflows_.end() ? nullptr : &*found;
}

Port *Project::port(std::string_view id) {
  for (Workflow &workflow : workflows_)
    for (Port &port : workflow.ports)
      if (port.id == id) return &port;
  return nullptr;
}

Value Project::description() const {
  return Value::map({{"name", name_}, {"file", file_.string()}, {"status", running_}});
}

}  // namespace sim
