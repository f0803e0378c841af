// WebSockets: round trips of short texts, and binary messages of 1 MiB, one way and echoed. Beside bare Beast with the
// same settings, against the same server: on one thread, and handing each message to another thread, as a host with a
// queue must. All of it on all cores and on one: where threads wake each other across cores, most of the time goes
// there, and how much differs with where the kernel puts them; on one core it goes to the work.

#include <QELNetworkKit/Log.h>
#include <QELNetworkKit/QELNKWebSocket.h>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket.hpp>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <thread>
#include <variant>

#include "Contest.h"

namespace {

namespace asio = boost::asio;
namespace websocket = boost::beast::websocket;
using boost::system::error_code;
using qelnk::Data;
using tcp = asio::ip::tcp;
using Socket = asio::basic_stream_socket<tcp, asio::io_context::executor_type>;
using Stream = websocket::stream<Socket, false>;

constexpr size_t blockSize = size_t(1) << 20;
constexpr size_t writeBufferSize = size_t(256) << 10;
const std::string question(64, 'q');

void tune(Stream &stream) {
  stream.auto_fragment(false);
  stream.write_buffer_bytes(writeBufferSize);
  stream.next_layer().set_option(tcp::no_delay(true));
}

/// An io context with a thread.
struct Loop {
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> work = asio::make_work_guard(context);
  std::thread thread{[this] { context.run(); }};
  ~Loop() { end(); }
  void end() {
    context.stop();
    if (thread.joinable()) thread.join();
  }
};

/// Sends back each text, and each binary message where the path is "/echo".
class Server {
 public:
  Server() { accept(); }
  std::string address() const { return "127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port()); }
  tcp::endpoint endpoint() const { return acceptor_.local_endpoint(); }

 private:
  struct Connection : std::enable_shared_from_this<Connection> {
    explicit Connection(Socket socket) : stream(std::move(socket)) {}
    void begin() {
      boost::beast::http::async_read(stream.next_layer(), message, request,
                                     [self = shared_from_this()](error_code, size_t) {
                                       self->echoesBinary = self->request.target() == "/echo";
                                       self->stream.async_accept(self->request, [self](error_code error) {
                                         bench::require(!error, "accept");
                                         tune(self->stream);
                                         self->read();
                                       });
                                     });
    }
    void read() {
      message.clear();
      stream.async_read(message, [self = shared_from_this()](error_code error, size_t) {
        if (error) return;
        if (!self->stream.got_text() && !self->echoesBinary) return self->read();
        self->stream.text(self->stream.got_text());
        self->stream.async_write(self->message.data(), [self](error_code failure, size_t) {
          if (!failure) self->read();
        });
      });
    }
    Stream stream;
    boost::beast::flat_buffer message;
    boost::beast::http::request<boost::beast::http::empty_body> request;
    bool echoesBinary = false;
  };

  void accept() {
    acceptor_.async_accept([this](error_code error, Socket socket) {
      if (error) return;
      std::make_shared<Connection>(std::move(socket))->begin();
      accept();
    });
  }

  Loop loop_;
  asio::basic_socket_acceptor<tcp, asio::io_context::executor_type> acceptor_{
      loop_.context, tcp::endpoint(asio::ip::address_v4::loopback(), 0)};
};

/// A client. What is received is told to `onText`, which may send.
class Client {
 public:
  virtual ~Client() = default;
  virtual void sendText(const std::string &text) = 0;
  virtual void sendBlock() = 0;

  /// So many questions, each one sent when the last has been answered.
  void roundTrips(int64_t count) {
    left_ = count;
    sendText(question);
    await();
  }
  /// So many blocks, and the answer to what is sent behind them.
  void blocks(int64_t count) {
    left_ = 1;
    for (int64_t i = 0; i < count; ++i) sendBlock();
    sendText(question);
    await();
  }

 protected:
  void onText(const std::string &text) {
    bench::require(text.size() == question.size(), "answer");
    --left_ > 0 ? sendText(question) : done_.open();
  }

 private:
  void await() { bench::require(done_.pass(), "not everything was answered"); }
  int64_t left_ = 0;
  bench::Gate done_;
};

/// A host's queue that hands nothing over: callbacks are made on the WebSockets' io thread.
struct NoQueue final : qelnk::Queue {
  void async(qelnk::Task task) override { task(); }
  bool isCurrent() const override { return true; }
  const std::string &label() const override { return name; }
  const std::string name = "none";
};

class Ours final : public Client {
 public:
  Ours(const std::string &url, std::shared_ptr<qelnk::Queue> queue) : observer_(std::make_shared<Observer>(*this)) {
    QELNKWebSocketOptions options;
    options.queue = std::move(queue);
    options.maximumBufferedAmount = SIZE_MAX;
    webSocket_ = QELNKWebSocket::create(url, observer_, options);
    bench::require(observer_->opened.pass(), "open");
  }
  void sendText(const std::string &text) override { webSocket_->sendString(text); }
  void sendBlock() override { webSocket_->sendData(block_); }

 private:
  struct Observer final : QELNKWebSocketDelegate {
    explicit Observer(Ours &ours) : owner(ours) {}
    void webSocketDidOpen(const std::shared_ptr<QELNKWebSocket> &) override { opened.open(); }
    void webSocketDidClose(const std::shared_ptr<QELNKWebSocket> &) override { bench::require(false, "failed"); }
    void webSocket(const std::shared_ptr<QELNKWebSocket> &, const std::string &text) override { owner.onText(text); }
    Ours &owner;
    bench::Gate opened;
  };
  const Data block_{std::string(blockSize, '\7')};
  const std::shared_ptr<Observer> observer_;
  std::shared_ptr<QELNKWebSocket> webSocket_;
};

/// Beast by hand, on one thread or with a second one that is handed what comes.
class Bare final : public Client {
 public:
  Bare(const Server &server, const std::string &path, bool handsOver)
      : handsOver_(handsOver), stream_(Socket(loop_.context)) {
    stream_.next_layer().connect(server.endpoint());
    stream_.handshake(server.address(), path);
    tune(stream_);
    asio::post(loop_.context, [this] { read(); });
    if (handsOver_) host_ = std::thread([this] { serve(); });
  }
  ~Bare() override {
    loop_.end();  // before what it serves goes
    if (!handsOver_) return;
    {
      const std::lock_guard lock(mutex_);
      isOver_ = true;
    }
    arrived_.notify_one();
    host_.join();
  }
  void sendText(const std::string &text) override { send(text); }
  void sendBlock() override { send(block_); }

 private:
  using Block = std::shared_ptr<const std::string>;
  using Payload = std::variant<std::string, Block>;

  void send(Payload payload) {
    if (std::this_thread::get_id() == loop_.thread.get_id()) return queue(std::move(payload));
    asio::post(loop_.context, [this, own = std::move(payload)]() mutable { queue(std::move(own)); });
  }
  void queue(Payload payload) {
    queued_.push_back(std::move(payload));
    if (queued_.size() == 1) write();
  }
  void write() {
    const auto *text = std::get_if<std::string>(&queued_.front());
    stream_.text(text != nullptr);
    const std::string &bytes = text ? *text : *std::get<Block>(queued_.front());
    stream_.async_write(asio::buffer(bytes), [this](error_code error, size_t) {
      if (error) return;
      queued_.pop_front();
      if (!queued_.empty()) write();
    });
  }
  void read() {
    message_.clear();
    stream_.async_read(message_, [this](error_code error, size_t) {
      if (error) return;
      if (stream_.got_text()) {
        const auto bytes = message_.cdata();
        std::string text(static_cast<const char *>(bytes.data()), bytes.size());
        handsOver_ ? handOver(std::move(text)) : onText(text);
      }
      read();
    });
  }
  void handOver(std::string text) {
    {
      const std::lock_guard lock(mutex_);
      received_.push_back(std::move(text));
    }
    arrived_.notify_one();
  }
  void serve() {
    for (std::unique_lock lock(mutex_);;) {
      arrived_.wait(lock, [this] { return isOver_ || !received_.empty(); });
      if (isOver_) return;
      const std::string text = std::move(received_.front());
      received_.pop_front();
      lock.unlock();
      onText(text);
      lock.lock();
    }
  }

  const bool handsOver_;
  const Block block_ = std::make_shared<const std::string>(blockSize, '\7');
  std::deque<Payload> queued_;
  boost::beast::flat_buffer message_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<std::string> received_;
  bool isOver_ = false;
  std::thread host_;
  Loop loop_;
  Stream stream_;
};

void contest(const Server &server, const std::string &name, const std::string &path, int64_t count,
             void (Client::*exchange)(int64_t)) {
  const auto entry = [&](const char *peer, std::shared_ptr<Client> client, size_t reference) {
    return bench::RatedEntry{peer, [client, exchange](int64_t n) { (client.get()->*exchange)(n); }, {reference}};
  };
  const std::string url = "ws://" + server.address() + path;
  bench::contestOfRates(name,
                        {entry("ours", std::make_shared<Ours>(url, qelnk::Queue::serial("bench")), 1),
                         entry("beast-handing-over", std::make_shared<Bare>(server, path, true), 1),
                         entry("ours-one-thread", std::make_shared<Ours>(url, std::make_shared<NoQueue>()), 3),
                         entry("beast-one-thread", std::make_shared<Bare>(server, path, false), 3)},
                        15, count);
}

void contests(const std::string &only, const std::string &cores) {
  const auto wants = [&](const char *part) { return only.empty() || only == part; };
  const Server server;
  if (wants("round-trips")) contest(server, "websocket/round-trips/" + cores, "/", 10'000, &Client::roundTrips);
  if (wants("one-way")) contest(server, "websocket/one-way/" + cores, "/", 200, &Client::blocks);
  if (wants("echo")) contest(server, "websocket/echo/" + cores, "/echo", 200, &Client::blocks);
}

/// In a process of its own, for threads stay where they were allowed to be when they were made.
void contestsOnOneCore(const std::string &only) {
  const pid_t child = fork();
  if (child == 0) {
    cpu_set_t core;
    CPU_ZERO(&core);
    CPU_SET(sched_getcpu(), &core);
    bench::require(sched_setaffinity(0, sizeof core, &core) == 0, "one core");
    contests(only, "one-core");
    std::fflush(stdout);
    _exit(0);
  }
  int status = -1;
  bench::require(waitpid(child, &status, 0) == child && status == 0, "the contests on one core");
}

}  // namespace

int main(int count, char **arguments) {
  QLGetHandle().setLevel(qelnk::LogLevel::off);
  const std::string only = count > 1 ? arguments[1] : "";
  contestsOnOneCore(only);
  contests(only, "all-cores");
}
