#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/UserSettings.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>

#include "platform/LogFormat.h"
#include "platform/Simdjson.h"

namespace qelnk {

namespace fs = std::filesystem;
using Settings = std::map<std::string, UserSettings::Setting, std::less<>>;

namespace {

std::optional<UserSettings::Setting> settingOf(simdjson::dom::element element) {
  if (bool flag; !element.get_bool().get(flag)) return flag;
  if (int64_t number; !element.get_int64().get(number)) return number;
  if (double number; !element.get_double().get(number)) return number;
  if (std::string_view text; !element.get_string().get(text)) return std::string(text);
  return std::nullopt;  // null, a list or a map is no setting
}

Settings readSettings(const fs::path &file) {
  std::error_code failure;
  if (file.empty() || !fs::exists(file, failure)) {
    if (failure) logError("UserSettings could not read {}: {}", file.string(), failure.message());
    return {};
  }
  const auto parser = makeParser();
  simdjson::dom::object object;
  if (const auto error = parser->load(file.string()).get_object().get(object)) {
    logError("UserSettings could not read {}: {}", file.string(), simdjson::error_message(error));
    return {};
  }
  Settings settings;
  for (const auto [key, element] : object)
    if (auto setting = settingOf(element)) settings.insert_or_assign(std::string(key), *std::move(setting));
  return settings;
}

int64_t towardsZero(double number) {
  constexpr double limit = 9223372036854775808.0;
  if (std::isnan(number)) return 0;
  if (number >= limit) return std::numeric_limits<int64_t>::max();
  return number < -limit ? std::numeric_limits<int64_t>::min() : int64_t(number);
}

int64_t leadingNumber(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
  if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
  int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc::result_out_of_range) return number;
  return text.front() == '-' ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
}

bool readsAsTrue(std::string_view text) {
  return !text.empty() && std::string_view("YyTt123456789").find(text.front()) != std::string_view::npos;
}

fs::path configurationFolder() {
  if (const char *folder = std::getenv("XDG_CONFIG_HOME"); folder && *folder == '/') return folder;
  if (const char *home = std::getenv("HOME"); home && *home) return fs::path(home) / ".config";
  return {};
}

std::string programName() {
  std::error_code failure;
  std::string name = fs::read_symlink("/proc/self/exe", failure).filename().string();
  constexpr std::string_view replaced =
      " (deleted)";  // behind the name once another file has taken the program's place
  if (name.ends_with(replaced)) name.resize(name.size() - replaced.size());
  return name;
}

fs::path settingsFile(const std::string &application) {
  const fs::path folder = configurationFolder();
  return folder.empty() ? fs::path() : folder / application / "settings.json";
}

/// What names the settings of this application until they are read.
struct Application {
  Mutex mutex;
  std::string name QELNK_GUARDED_BY(mutex);
  bool used QELNK_GUARDED_BY(mutex) = false;

  std::string use() {
    const Lock lock(mutex);
    used = true;
    return name.empty() ? programName() : name;
  }
};

Application &application() {
  static Application &immortal = *new Application;
  return immortal;
}

}  // namespace

struct QELNK_HIDDEN UserSettings::State {
  mutable Mutex mutex;
  Settings settings QELNK_GUARDED_BY(mutex);

  std::optional<Setting> find(std::string_view key) const {
    const Lock lock(mutex);
    const auto found = settings.find(key);
    return found == settings.end() ? std::nullopt : std::optional(found->second);
  }
};

UserSettings &UserSettings::standard() {
  static UserSettings &immortal = *new UserSettings(settingsFile(application().use()));
  return immortal;
}

void UserSettings::setApplicationName(std::string name) {
  Application &mine = application();
  const Lock lock(mine.mutex);
  if (mine.used) logError("UserSettings were read already: the application name {} comes too late", name);
  mine.name = std::move(name);
}

UserSettings::UserSettings(const fs::path &file) : state_(std::make_unique<State>()) {
  state_->settings = readSettings(file);
}

UserSettings::~UserSettings() = default;

int64_t UserSettings::integerForKey(std::string_view key) const {
  const auto setting = state_->find(key);
  if (!setting) return 0;
  if (const auto *flag = std::get_if<bool>(&*setting)) return *flag;
  if (const auto *number = std::get_if<int64_t>(&*setting)) return *number;
  if (const auto *number = std::get_if<double>(&*setting)) return towardsZero(*number);
  return leadingNumber(std::get<std::string>(*setting));
}

bool UserSettings::boolForKey(std::string_view key) const {
  const auto setting = state_->find(key);
  if (!setting) return false;
  if (const auto *flag = std::get_if<bool>(&*setting)) return *flag;
  if (const auto *number = std::get_if<int64_t>(&*setting)) return *number != 0;
  if (const auto *number = std::get_if<double>(&*setting)) return *number != 0;
  return readsAsTrue(std::get<std::string>(*setting));
}

std::optional<std::string> UserSettings::stringForKey(std::string_view key) const {
  const auto setting = state_->find(key);
  const auto *text = setting ? std::get_if<std::string>(&*setting) : nullptr;
  return text ? std::optional(*text) : std::nullopt;
}

void UserSettings::set(std::string key, Setting value) {
  const Lock lock(state_->mutex);
  state_->settings.insert_or_assign(std::move(key), std::move(value));
}

void UserSettings::remove(std::string_view key) {
  const Lock lock(state_->mutex);
  if (const auto found = state_->settings.find(key); found != state_->settings.end()) state_->settings.erase(found);
}

}  // namespace qelnk
