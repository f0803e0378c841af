#pragma once

#include <QELNetworkKit/QELNKLegacyClient.h>

#include <optional>
#include <string>
#include <utility>

#include "Output.h"

namespace tool {

/// Runs `task` on the main thread, and waits for it: a peer that sends faster than it is printed has to wait.
inline void onMainThread(qelnk::Task task) { QELNKLegacyStream::dispatchToMainThreadAsync(false, std::move(task)); }

// What the commands show of legacy connections: an event each, or a line of text.

/// A connection with its peer, as that has told in its handshake.
void showReady(Output &output, const QELNKLegacyStream &stream);
void showString(Output &output, const std::string &text);
void showBinary(Output &output, const qelnk::Data &data, const std::string &contentType);
void showHeartbeat(Output &output, const QELProjectTimecode &timecode, const std::optional<std::string> &information);
/// Only a client knows whether it will reconnect.
void showTerminated(Output &output, std::optional<bool> willReconnect = std::nullopt);
void showConnectError(Output &output, int64_t code, bool willRetry);
void showLostHeartbeat(Output &output, bool lost);
void showTXT(Output &output, const qelnk::TXTRecordDictionary &record);
void showDropped(Output &output, const std::string &contentType);

/// What a client's connect error means.
std::string connectErrorText(int64_t code);

}  // namespace tool
