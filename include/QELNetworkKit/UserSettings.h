#pragma once

#include <QELNetworkKit/Export.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace qelnk {

/// Settings of the user for one application: numbers, booleans and strings under keys.
///
/// They come from `settings.json` (one JSON object) in the application's folder below the XDG configuration folder
/// (`$XDG_CONFIG_HOME`, else `~/.config`), read once, and from what the host sets, which wins and lives as long as the
/// process. A file that is missing or cannot be read counts as empty; the second is told on the log.
///
/// Threads: any.
class QELNK_EXPORT UserSettings {
 public:
  /// What a setting may be.
  using Setting = std::variant<bool, int64_t, double, std::string>;

  /// The settings of this application, whose name is the name of the program file unless setApplicationName() was
  /// called before first use.
  static UserSettings &standard();
  /// Names the application; after the first use of standard() it comes too late, which the log says.
  static void setApplicationName(std::string name);

  /// The settings of a file of the host's choice, read here.
  explicit UserSettings(const std::filesystem::path &file);
  ~UserSettings();

  /// The number under `key`, rounded towards zero; the leading decimal number of a string; 1 for true; else 0.
  int64_t integerForKey(std::string_view key) const;
  /// Whether the setting is true, a number other than 0, or a string that begins with a letter of "YyTt" or a digit of
  /// 1 to 9.
  bool boolForKey(std::string_view key) const;
  /// The string under `key`, or none.
  std::optional<std::string> stringForKey(std::string_view key) const;

  /// Sets a value for this process; it is not written to the file.
  void set(std::string key, Setting value);
  /// Forgets a value, for this process; the file is left as it is.
  void remove(std::string_view key);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace qelnk
