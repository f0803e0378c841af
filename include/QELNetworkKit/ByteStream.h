#pragma once

#include <QELNetworkKit/Export.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <system_error>
#include <utility>

namespace qelnk {

class RunLoop;

/// What a byte stream tells its event target.
enum class StreamEvent : uint8_t {
  none,
  opened,          ///< connected; reading or writing may begin
  bytesAvailable,  ///< there is something to read; told again only after a read
  spaceAvailable,  ///< there is room to write; told again only after a write
  error,           ///< the connection failed, see ByteStream::error(); the last event
  end              ///< the other side has sent all it had; the last event
};

/// One direction of a connection. It is made closed, is scheduled on a run loop, opened, and tells its event target
/// there what happens; each event once, for as long as it is scheduled. Letting the last reference go closes it.
///
/// Threads: any; an event that has begun may still be under way when another thread takes the target away, closes the
/// stream or takes it off its loop, so do that on the loop's own thread where it matters.
class QELNK_EXPORT ByteStream {
 public:
  /// What is called for an event.
  using EventTarget = std::function<void(StreamEvent)>;

  virtual ~ByteStream() = default;

  /// Called for each event, on the loop's thread with no lock held. An empty function takes it away.
  virtual void setEventTarget(EventTarget target) = 0;
  /// Has events told on `loop`.
  virtual void schedule(const std::shared_ptr<RunLoop> &loop) = 0;
  /// Takes it off its run loop: no event is told until it is scheduled anew.
  virtual void unschedule() = 0;
  /// Begins; `opened` or `error` follows, told on the loop. Never waits.
  virtual void open() = 0;
  /// Ends this direction; the other side hears of the end of an output behind what was written. What the connection
  /// holds of the system goes back once both directions are closed. No event after it.
  virtual void close() = 0;
  /// Why it failed; no error unless the error event was told or a read or write returned -1.
  virtual std::error_code error() const = 0;
};

/// The direction that is read from.
class QELNK_EXPORT InputStream : public ByteStream {
 public:
  /// Whether read() has something to give now. While a `bytesAvailable` event is being told it turns false once this
  /// stream has had its fair share of the thread; the event then comes again.
  virtual bool hasBytesAvailable() = 0;
  /// Reads what there is, at most `room.size()` bytes. Returns their number, 0 when there is nothing, -1 when the
  /// stream is not open or has failed. Never waits.
  virtual ssize_t read(std::span<uint8_t> room) = 0;
};

/// The direction that is written to.
class QELNK_EXPORT OutputStream : public ByteStream {
 public:
  /// Writes what there is room for. Returns the number of bytes taken, 0 when there is no room now, -1 when the stream
  /// is not open or has failed. Never waits.
  virtual ssize_t write(std::span<const uint8_t> bytes) = 0;
};

/// Both directions of one end of a connection.
struct StreamPair {
  /// What comes from the other end.
  std::shared_ptr<InputStream> input;
  /// What goes to the other end.
  std::shared_ptr<OutputStream> output;
  /// Whether there is a connection to use: both directions.
  explicit operator bool() const { return input && output; }
};

/// Streams that connect by TCP to a host (a name, or an address, "fe80::1%eth0" included) when the first is opened. All
/// addresses of a name are tried, IPv6 first, the next one while one does not answer. Empty for an empty host or a port
/// outside 1 to 65535.
QELNK_EXPORT StreamPair streamsToHost(const std::string &host, uint64_t port);

/// Streams on a connected socket, which they own and close.
QELNK_EXPORT StreamPair streamsWithSocket(int socket);

/// Two ends of a connection in memory; each direction holds up to `capacity` bytes on their way.
QELNK_EXPORT std::pair<StreamPair, StreamPair> streamsInMemory(size_t capacity = 65536);

}  // namespace qelnk
