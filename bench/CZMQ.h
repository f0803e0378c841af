#pragma once

#include <czmq.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "HandWritten.h"

/// The same with CZMQ: actors that poll their pipe and a socket, and messages of frames.
namespace bench {

/// To be called before anything else of CZMQ, whose sockets have one context: with as many io threads as two contexts,
/// and without handlers of signals.
inline void prepareCZMQ() {
  zsys_handler_set(nullptr);
  zsys_set_io_threads(2);
  zsys_set_linger(0);
}

inline std::string_view bytesOf(zframe_t *frame) {
  return {reinterpret_cast<const char *>(zframe_data(frame)), zframe_size(frame)};
}

/// An actor that serves a socket. What it is given is called on its thread.
class CZMQActor {
 public:
  struct Calls {
    std::function<void(zsock_t *socket, zmsg_t *message)> handedOver;  // through the pipe; owns the message
    std::function<void(zframe_t *frame)> received;
    std::function<void()> drained = [] {};  // what there was has been received, or 256 messages
  };

  CZMQActor(zsock_t *socket, Calls calls) : calls_(std::move(calls)), socket_(socket), actor_(zactor_new(run, this)) {}
  ~CZMQActor() {
    zactor_destroy(&actor_);
    zsock_destroy(&socket_);
  }
  CZMQActor(const CZMQActor &) = delete;
  CZMQActor &operator=(const CZMQActor &) = delete;

  /// From one thread at a time.
  void handOver(zmsg_t *message) { zmsg_send(&message, actor_); }

 private:
  static bool isReady(zsock_t *socket) { return zsock_events(socket) & ZMQ_POLLIN; }

  static void run(zsock_t *pipe, void *self) {
    auto &actor = *static_cast<CZMQActor *>(self);
    zsock_signal(pipe, 0);
    zpoller_t *poller = zpoller_new(pipe, actor.socket_, nullptr);
    for (bool ended = false; !ended;) {
      if (zpoller_wait(poller, -1) == pipe)
        ended = !actor.take(pipe);
      else
        actor.receive();
    }
    zpoller_destroy(&poller);
  }

  /// Returns false when the actor is to end.
  bool take(zsock_t *pipe) {
    for (int i = 0; i < 256 && isReady(pipe); ++i) {
      zmsg_t *message = zmsg_recv(pipe);
      if (message && !zframe_streq(zmsg_first(message), "$TERM")) {
        calls_.handedOver(socket_, message);
        continue;
      }
      zmsg_destroy(&message);
      return false;
    }
    return true;
  }

  void receive() {
    for (int i = 0; i < 256 && isReady(socket_); ++i) {
      zmsg_t *message = zmsg_recv(socket_);
      calls_.received(zmsg_first(message));
      zmsg_destroy(&message);
    }
    calls_.drained();
  }

  const Calls calls_;
  zsock_t *socket_;
  zactor_t *actor_;  // last: its thread uses the others
};

inline std::string loopback(int port) { return ">tcp://127.0.0.1:" + std::to_string(port); }

/// One request at a time on a request socket.
class CZMQRequestClient {
 public:
  explicit CZMQRequestClient(int port)
      : actor_(zsock_new_req(loopback(port).c_str()),
               {.handedOver = [this](zsock_t *socket, zmsg_t *message) { send(socket, message); },
                .received = [this](zframe_t *frame) { receive(std::string(bytesOf(frame))); }}) {}

  void send(Request request) {
    zmsg_t *message = zmsg_new();
    zmsg_addmem(message, request.body.data(), request.body.size());
    auto *kept = new Request(std::move(request));
    zmsg_pushmem(message, &kept, sizeof(kept));
    actor_.handOver(message);
  }

 private:
  void send(zsock_t *socket, zmsg_t *message) {
    zframe_t *first = zmsg_pop(message);
    request_.reset(*reinterpret_cast<Request **>(zframe_data(first)));
    zframe_destroy(&first);
    zmsg_send(&message, socket);
  }
  void receive(std::string body) {
    const std::unique_ptr<Request> request = std::move(request_);
    if (request->onCallbackThread)
      callbacks_.post([body, reply = std::move(request->onCallbackThread)] { reply(body); });
    if (request->onIOThread) request->onIOThread(std::move(body));
  }

  std::unique_ptr<Request> request_;
  CallbackThread<std::function<void()>> callbacks_;
  CZMQActor actor_;  // last: it calls the others
};

}  // namespace bench
