#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Support.h"

/// The parts of a client that somebody would write by hand, with the thread hops of ours: a caller hands over to an io
/// thread, which hands replies to a callback thread. On raw ZeroMQ, or on what has the same names in `Library`.
namespace bench {

/// From any thread to one that waits in a poll.
template <class Item>
class Inbox {
 public:
  Inbox() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  ~Inbox() { close(descriptor_); }

  void put(Item item) {
    bool first;
    {
      const std::lock_guard lock(mutex_);
      first = items_.empty();
      items_.push_back(std::move(item));
    }
    if (first) eventfd_write(descriptor_, 1);
  }
  /// Appends what has come to `taken`.
  void take(std::vector<Item> &taken) {
    eventfd_t count;
    eventfd_read(descriptor_, &count);
    const std::lock_guard lock(mutex_);
    if (taken.empty()) {
      taken.swap(items_);
    } else {
      std::move(items_.begin(), items_.end(), std::back_inserter(taken));
      items_.clear();
    }
  }
  int descriptor() const { return descriptor_; }

 private:
  std::mutex mutex_;
  std::vector<Item> items_;
  const int descriptor_;
};

/// A thread that calls what it is given, in order.
template <class Call>
class CallbackThread {
 public:
  CallbackThread() : thread_([this] { run(); }) {}
  ~CallbackThread() {
    {
      const std::lock_guard lock(mutex_);
      stopped_ = true;
    }
    arrived_.notify_one();
    thread_.join();
  }

  void post(Call call) {
    {
      const std::lock_guard lock(mutex_);
      calls_.push_back(std::move(call));
    }
    arrived_.notify_one();
  }

 private:
  void run() {
    std::vector<Call> taken;
    std::unique_lock lock(mutex_);
    while (true) {
      arrived_.wait(lock, [this] { return stopped_ || !calls_.empty(); });
      if (calls_.empty()) return;
      taken.swap(calls_);
      lock.unlock();
      for (Call &call : taken) call();
      taken.clear();
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Call> calls_;
  bool stopped_ = false;
  std::thread thread_;  // last: it uses the others
};

struct Request {
  using Reply = std::function<void(std::string)>;
  std::string body;
  Reply onIOThread, onCallbackThread;  // either may be empty
};

/// One request at a time on a request socket, from any thread.
template <class Library = RawZMQ>
class RequestClient {
 public:
  explicit RequestClient(int port) : thread_([this, port] { run(port); }) {}
  ~RequestClient() {
    stopped_ = true;
    thread_.join();
  }
  void send(Request request) { inbox_.put(std::move(request)); }

 private:
  void run(int port) {
    typename Library::Socket socket(context_, ZMQ_REQ);
    socket.connectToLoopback(port);
    zmq_pollitem_t items[] = {{socket.get(), 0, ZMQ_POLLIN, 0}, {nullptr, inbox_.descriptor(), ZMQ_POLLIN, 0}};
    while (!stopped_) {
      Library::poll(items, 2, 20);
      if (items[1].revents) take();
      if (items[0].revents) receive(socket);
      if (!replyAwaited_ && !queue_.empty()) {
        typename Library::Frame(queue_.front().body).send(socket);
        replyAwaited_ = true;
      }
    }
  }
  void take() {
    std::vector<Request> taken;
    inbox_.take(taken);
    for (Request &request : taken) queue_.push_back(std::move(request));
  }
  void receive(typename Library::Socket &socket) {
    typename Library::Frame frame;
    if (!frame.receive(socket, ZMQ_DONTWAIT)) return;
    std::string body(frame.bytes());
    Request request = std::move(queue_.front());
    queue_.pop_front();
    replyAwaited_ = false;
    if (request.onCallbackThread) callbacks_.post([body, reply = std::move(request.onCallbackThread)] { reply(body); });
    if (request.onIOThread) request.onIOThread(std::move(body));
  }

  typename Library::Context context_;
  Inbox<Request> inbox_;
  std::deque<Request> queue_;
  bool replyAwaited_ = false;
  CallbackThread<std::function<void()>> callbacks_;
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

}  // namespace bench
