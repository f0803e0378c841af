#pragma once

#include <filesystem>
#include <string>

namespace qelnk {

/// The folder beside which a host's companions lie: the one that holds its application bundle, where `program` lies in
/// one (X.app/Contents/...), else the program file's own.
std::filesystem::path folderOfHost(const std::filesystem::path &program);

/// The bundle of the daemon for the shared spawner, unless `given` names one: the user setting "orlinDaemonPath", the
/// environment variable QELNK_ORLIN_DAEMON, or its place beside the host.
std::string daemonBundle(const std::string &given);

/// The library's own project without content. The path may name no file, which is told on the log.
std::string emptyProject();

}  // namespace qelnk
