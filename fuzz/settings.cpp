// A file of user settings, and a setting in each of its forms.

#include <QELNetworkKit/UserSettings.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "Fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const int file = memfd_create("settings", MFD_CLOEXEC);
  if (file < 0 || write(file, data, size) != ssize_t(size)) std::abort();
  qelnk::UserSettings settings("/proc/self/fd/" + std::to_string(file));
  close(file);
  const std::string text(fuzz::textOf({data, size}));
  settings.set("text", text);
  for (const char *key : {"text", "debug", "level", "name", ""}) {
    const auto number = settings.integerForKey(key);
    const auto string = settings.stringForKey(key);
    settings.boolForKey(key);
    if (string && *string == std::to_string(number)) {
      settings.set("number", number);
      fuzz::require(settings.integerForKey("number") == number, "a number is what its text says");
    }
  }
  fuzz::require(settings.stringForKey("text") == text, "a text is kept");
  settings.remove("text");
  fuzz::require(!settings.stringForKey("text") && settings.integerForKey("text") == 0, "what was removed is gone");
  return 0;
}
