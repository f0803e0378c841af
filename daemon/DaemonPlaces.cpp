#include "daemon/DaemonPlaces.h"

#include <QELNetworkKit/UserSettings.h>
#include <dlfcn.h>

#include <array>
#include <cstdlib>
#include <optional>

#include "platform/LogFormat.h"

namespace qelnk {

namespace fs = std::filesystem;

static fs::path ownProgram() {
  std::error_code ignored;
  return fs::read_symlink("/proc/self/exe", ignored);
}

fs::path folderOfHost(const fs::path &program) {
  for (fs::path folder = program.parent_path(); folder.has_relative_path(); folder = folder.parent_path())
    if (folder.filename() == "Contents" && folder.parent_path().extension() == ".app")
      return folder.parent_path().parent_path();
  return program.parent_path();
}

std::string daemonBundle(const std::string &given) {
  if (!given.empty()) return given;
  if (const auto setting = UserSettings::standard().stringForKey("orlinDaemonPath"); setting && !setting->empty())
    return *setting;
  if (const char *variable = std::getenv("QELNK_ORLIN_DAEMON"); variable && *variable) return variable;
  return folderOfHost(ownProgram()) / "Orlin Daemon" / "orlin Daemon.app";
}

// The file that this code was loaded from: the shared library, or the program where it was linked in.
static fs::path ownLibrary() {
  Dl_info info;
  std::error_code ignored;
  return dladdr(reinterpret_cast<void *>(&emptyProject), &info) && info.dli_fname
             ? fs::absolute(info.dli_fname, ignored)
             : fs::path();
}

std::string emptyProject() {
  const fs::path file = fs::path(QELNK_RESOURCES) / "Empty.prj";
  const fs::path beside = ownLibrary().parent_path() / file;
  const fs::path program = ownProgram().parent_path();
  for (const fs::path &place : {beside, program / file, program.parent_path() / "lib" / file}) {
    std::error_code ignored;
    if (fs::exists(place, ignored)) return place;
  }
  logError("QELNKOrlinDaemonSpawner could not find its empty project at {}", beside.string());
  return beside;
}

}  // namespace qelnk
