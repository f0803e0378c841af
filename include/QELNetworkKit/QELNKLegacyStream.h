#pragma once

#include <QELNetworkKit/ByteStream.h>
#include <QELNetworkKit/QELNKLegacyStreamThread.h>
#include <QELNetworkKit/QELProjectTimecode.h>
#include <QELNetworkKit/Value.h>

#include <any>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

class QELNKLegacyStream;

/// What a legacy stream tells its owner.
///
/// Threads: with the option "delegateOnMainThread" the main thread: strings, blocks and heartbeats are queued there,
/// the stream thread waits for the other two to return. Without it, the stream's thread. No lock is held; whatever
/// leaves a call as an exception is reported on the log.
class QELNK_EXPORT QELNKLegacyStreamDelegate {
 public:
  virtual ~QELNKLegacyStreamDelegate();
  /// A string arrived that is no message of the protocol.
  virtual void networkStream(const std::shared_ptr<QELNKLegacyStream> &stream, const std::string &receivedString) = 0;
  /// A binary block is complete. Optional.
  virtual void networkStream(const std::shared_ptr<QELNKLegacyStream> &stream, const qelnk::Data &receivedBinaryData,
                             const std::string &contentType);
  /// A heartbeat arrived.
  virtual void networkStream(const std::shared_ptr<QELNKLegacyStream> &stream,
                             const QELProjectTimecode &receivedHeartbeatAtTimecode,
                             const std::optional<std::string> &withExtendedInformation) = 0;
  /// Both sides have shaken hands: from now on strings and blocks may be written.
  virtual void networkStreamIsReady(const std::shared_ptr<QELNKLegacyStream> &stream) = 0;
  /// The connection failed or the other side ended it.
  virtual void networkStreamWasTerminated(const std::shared_ptr<QELNKLegacyStream> &stream) = 0;
};

/// One end of a legacy connection: sends and receives strings, binary blocks, the handshake and heartbeats over a pair
/// of byte streams. docs/legacy-protocol.md has the bytes.
///
/// Options (a map; a key that is missing, or whose value is of another kind, changes nothing):
///
///     "writeSize"               number: maximumWriteSize(); nothing is ever written while that is 0
///     "multiThreaded"           boolean: a thread of its own, or the shared one; without it no event is ever told
///     "delegateOnMainThread"    boolean: callDelegateOnMainThread()
///     "testFullyConfigured"     integer: the stream is ready once its status under this mask
///     "compareFullyConfigured"  integer: equals this
///     "appID"                   string: the application ID for the handshake
///     "maximumStringLength"     number of bytes, 0 for any: a peer that sends a longer string, or
///     "maximumBinaryLength"     announces a longer block, loses the connection, with a line on the log
///     "maximumOutgoingLength"   number of bytes, 0 for any: where more than that waits to be written, the next message
///                               is refused and the connection ends, with a line on the log
///     "handshakeTimeout"        seconds, 0 for ever: a connection that is not ready by then ends, with a line on the
///     log
///
/// While many received messages wait for the main thread nothing more is read, so that the peer has to wait as well.
///
/// Threads: every operation may be called from any thread unless it says otherwise. Closing waits until the stream's
/// thread has let go of the connection. The last reference may go anywhere, in a delegate's call too.
class QELNK_EXPORT QELNKLegacyStream : public std::enable_shared_from_this<QELNKLegacyStream> {
 public:
  /// Bits of streamStatus().
  enum Status : uint64_t {
    inputOpen = 1,
    outputOpen = 2,
    hasSpace = 4,
    sentHandshake = 8,
    receivedHandshake = 16,
    receivedHost = 32,
    receivedIPv4 = 64,
    receivedAppID = 128,
    ready = 256
  };
  /// Bits of loggingMask().
  enum Logging : uint64_t {
    logIncoming = 1,
    logOutgoing = 2,
    logFiles = 4,
    logDiagnostics = 8,  ///< a client watches the state of its network connection
    logFlushes = 16,
    logFlushedBytes = 32,
    logStatus = 64,
    logHeartbeatMonitor = uint64_t(1) << 63
  };

  /// Without byte streams yet, see setInputStream().
  static std::shared_ptr<QELNKLegacyStream> create(const qelnk::Value &options);
  /// With the two directions of a connection, which are opened at once.
  static std::shared_ptr<QELNKLegacyStream> networkStreamWithInputStream(
      std::shared_ptr<qelnk::InputStream> inputStream, std::shared_ptr<qelnk::OutputStream> outputStream,
      const qelnk::Value &options);
  virtual ~QELNKLegacyStream();
  QELNKLegacyStream(const QELNKLegacyStream &) = delete;
  QELNKLegacyStream &operator=(const QELNKLegacyStream &) = delete;

  /// The shared thread, delegate on the main thread, 4,096 bytes a write. No application ID: set "appID".
  static qelnk::Value defaultPlayoutOptions();
  /// The same with an application ID.
  static qelnk::Value defaultPlayoutOptionsForAppID(const std::string &appID);
  /// A thread of its own, delegate called there, 8,192 bytes a write, the ingest application's ID.
  static qelnk::Value defaultIngestOptions();

  /// "com.kestrova.ingest"
  static std::string ingestAppID();
  /// "com.kestrova.playout"
  static std::string playoutAppID();
  /// "com.kestrova.player"
  static std::string playerAppID();
  /// "com.kestrova.live"
  static std::string liveAppID();
  /// "com.kestrova.connect"
  static std::string connectAppID();

  /// Which groups of messages all streams write to the log; none at first.
  static uint64_t loggingMask();
  static void setLoggingMask(uint64_t mask);

  /// The options last set. "multiThreaded" takes effect with the next connection.
  qelnk::Value options() const;
  virtual void setOptions(const qelnk::Value &options);

  /// Begins anew with these streams, which are opened on thread(). Those held before are dropped.
  void setInputStream(std::shared_ptr<qelnk::InputStream> inputStream,
                      std::shared_ptr<qelnk::OutputStream> outputStream);
  /// Has a byte stream's events told to this stream, on thread().
  void scheduleStream(const std::shared_ptr<qelnk::ByteStream> &stream);
  /// Closes `stream` on thread(). Returns null.
  std::nullptr_t closeStream(const std::shared_ptr<qelnk::ByteStream> &stream);
  /// Ends the connection; what was queued and not written is dropped. The delegate is not told.
  virtual void disconnect();

  // Writing. Each returns whether the bytes were queued: not before the stream is ready, nor once it has ended.

  /// Queues bytes as they are, and a zero byte behind them if asked. With `ignoringStatus` before it is ready too.
  bool writeBytes(const void *bytes, size_t length, bool appendingZeroTerminator, bool ignoringStatus);
  /// Queues a string; one that holds a zero byte or is not UTF-8 is refused.
  bool writeString(const std::string &string);
  /// Whether `string` may be written; says so on the log if not.
  static bool isWritable(const std::string &string);
  /// Queues the bytes and a zero byte.
  bool writeData(const qelnk::Data &data);
  /// Queues a binary block, of up to 2,147,483,647 bytes. A fenced one is dropped, and refused, while an earlier fenced
  /// one is still to be written.
  bool writeBinaryData(const qelnk::Data &data, const std::string &contentType, bool fenced);
  /// Hands some of the queued bytes to the connection. Returns false when there are none, or no room.
  bool flushOutput();
  /// How many bytes are queued and not yet handed to the connection.
  uint64_t outgoingLength() const;
  /// How many queued bytes went with connections that ended, since the stream was made.
  uint64_t droppedLength() const;

  /// Why the last connection, or the last attempt at one, failed; none if it did not, or only took too long.
  std::error_code connectionError() const;

  /// The sum of the Status bits that are set.
  uint64_t streamStatus() const;
  /// Whether both sides have shaken hands: strings and blocks may be written.
  bool isReady() const;
  /// Sets a bit of the status if `condition` holds, and does what is due then: sends the handshake, or announces that
  /// the stream is ready. On thread().
  void setStatus(uint64_t bit, bool condition);
  /// An event of one of the two byte streams. On thread(), but for an end that is fed in from outside.
  void stream(const std::shared_ptr<qelnk::ByteStream> &stream, qelnk::StreamEvent handleEvent);

  /// How many bytes are handed to the connection at once, at most; 0 stops writing.
  uint64_t maximumWriteSize() const;
  void setMaximumWriteSize(uint64_t size);
  /// Whether the delegate is called on the main thread.
  bool callDelegateOnMainThread() const;
  void setCallDelegateOnMainThread(bool flag);
  /// The observer, which is not kept alive; null once it has gone.
  std::shared_ptr<QELNKLegacyStreamDelegate> delegate() const;
  void setDelegate(std::weak_ptr<QELNKLegacyStreamDelegate> delegate);
  /// For the owner's use.
  std::any context() const;
  void setContext(std::any context);
  /// The application ID that the handshake tells; from the options.
  std::string appID() const;
  /// The thread that serves the connection; null before there is one.
  std::shared_ptr<QELNKLegacyStreamThread> thread() const;
  /// What is read from; null without a connection.
  std::shared_ptr<qelnk::InputStream> inputStream() const;
  /// What is written to; null without a connection.
  std::shared_ptr<qelnk::OutputStream> outputStream() const;

  // The peer, as its socket and its handshake tell.

  /// The socket's address in text, IPv6 or IPv4.
  std::optional<std::string> peerAddress() const;
  /// The address it announced, else its socket's if that is IPv4.
  std::optional<std::string> peerIPv4Address() const;
  /// The socket's port in network byte order, as it is stored.
  uint16_t peerPort() const;
  /// The host name that it announced; none before.
  std::optional<std::string> peerHostName() const;
  /// The application ID that it announced; none before.
  std::optional<std::string> peerAppID() const;
  /// Takes a socket address of 28 bytes, the size of an IPv6 one; of another size it is ignored.
  void setPeerAddressFromData(const qelnk::Data &address);

  // This machine.

  /// The IPv4 address, in network byte order, of the first interface that is up and no loopback; 0 when there is none.
  static uint32_t rawLocalAddress();
  /// Dotted decimal, the octets in the order in which they lie in memory.
  static std::string stringFromIPv4Address(uint32_t address);
  /// rawLocalAddress() in text.
  static std::string localHostIPv4();
  /// The handshake's message that tells the host name.
  static std::string hostMessage();
  /// The handshake's message that tells the IPv4 address.
  static std::string ipv4Message();

  /// A name for a log file in the application's log folder under the user's "Library/Logs", which is made if need be;
  /// none unless logFiles is in loggingMask().
  static std::optional<std::string> logFilenameForApp(const std::string &appID, const std::string &prefix,
                                                      const std::string &extension);
  /// The same for appID().
  std::optional<std::string> logFilenameWithPrefix(const std::string &prefix, const std::string &extension) const;

  /// Runs `block` on the main thread: queued, or, not `async`, at once when this is the main thread and waiting for it
  /// otherwise.
  static void dispatchToMainThreadAsync(bool async, qelnk::Task block);

  /// "CLASS ADDRESS", as log lines name it.
  virtual std::string description() const;

 protected:
  QELNKLegacyStream();
  /// For create(): hands out `stream`. Delegates are called as long as somebody holds what is handed out; the stream
  /// itself, which its events hold as well, ends after that, with dealloc().
  template <class Stream>
  static std::shared_ptr<Stream> own(Stream *stream) {
    return std::shared_ptr<Stream>(stream, [held = hold(stream)](Stream *) mutable { held.reset(); });
  }
  /// This stream for as long as it exists; null while it ends.
  std::shared_ptr<QELNKLegacyStream> held() const;
  /// The last reference is gone.
  virtual void dealloc();
  /// Ends the connection: what disconnect() does.
  void _disconnect();
  /// The same, and what every end of a connection comes to; only where it still has this number, if one is given.
  /// Returns whether it had.
  virtual bool endConnection(std::optional<uint64_t> connection);

  // What the stream has to tell. Subclasses put theirs before it, and do not end the connection there: what has been
  // ended has no end to tell of any more.
  /// Calls the delegate's operation of the same meaning.
  virtual void informDelegateOfReceivedString(const std::string &string);
  /// Calls the delegate's operation of the same meaning.
  virtual void informDelegateOfReceivedBinaryData(const qelnk::Data &data, const std::string &contentType);
  /// Calls the delegate's operation of the same meaning.
  virtual void informDelegateOfHeartbeatAtTimecode(const QELProjectTimecode &timecode,
                                                   const std::optional<std::string> &extendedInformation);
  /// Calls the delegate's operation of the same meaning.
  virtual void informDelegateStreamIsReady();
  /// Calls the delegate's operation of the same meaning.
  virtual void informDelegateStreamWasTerminated();

  // Hooks.
  /// Nobody listens at the address; does nothing here.
  virtual void informDelegateConnectionRefused();
  /// Each byte stream of a connection that has become ready; does nothing here.
  virtual void configureSocketForStream(const std::shared_ptr<qelnk::ByteStream> &stream);
  /// The address cannot be used on this machine; here the same as a connection that ended.
  virtual void handleAddressNotAvailableForStream(const std::shared_ptr<qelnk::ByteStream> &stream);

  struct State;

 private:
  friend class QELNKLegacyClient;
  friend class QELNKLegacyServer;
  static std::shared_ptr<void> hold(QELNKLegacyStream *stream);

  bool queue(const void *bytes, size_t length, const qelnk::Data *shared, bool terminated, bool ignoringStatus);
  void queueHandshake();
  void setStatus(uint64_t bit, bool condition, std::optional<uint64_t> connection);
  void readIncoming(const std::shared_ptr<qelnk::InputStream> &input);
  void terminate(uint64_t connection);
  uint64_t begin(const std::shared_ptr<qelnk::InputStream> &input, const std::shared_ptr<qelnk::OutputStream> &output);

  const std::unique_ptr<State> state_;
};
