#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/ZMQContext.h>
#include <QELNetworkKit/ZMQException.h>

#include <cstdlib>

using qelnk::Queue;

namespace {

constexpr const char *queueLabel = "com.kestrova.qelnetworkkit.networkcontext";

struct Shared {
  qelnk::Mutex mutex;
  std::shared_ptr<QELNKContext> context QELNK_GUARDED_BY(mutex);
  bool terminated QELNK_GUARDED_BY(mutex) = false;
};

Shared &shared();

// At the process's exit a context that nobody uses any longer ends in good order, so that what was sent last leaves.
// One that clients still use stays as it is: exit must wait for no io thread.
void endUnused() {
  std::shared_ptr<QELNKContext> context;  // goes after the lock
  Shared &state = shared();
  const qelnk::Lock lock(state.mutex);
  if (state.context && state.context.use_count() == 1 && state.context->zmqContext()->sockets().empty())
    context.swap(state.context);
}

// Never destroyed: threads may look at it to the very end.
Shared &shared() {
  static Shared &shared = *[] {
    std::atexit(endUnused);
    return new Shared;
  }();
  return shared;
}

}  // namespace

std::shared_ptr<QELNKContext> QELNKContext::sharedContext() {
  Shared &state = shared();
  const qelnk::Lock lock(state.mutex);
  if (!state.context && !state.terminated)
    state.context =
        std::make_shared<QELNKContext>(std::make_shared<ZMQContext>(1), Queue::serial(queueLabel), Queue::main());
  return state.context;
}

std::shared_ptr<QELNKContext> QELNKContext::contextWithBackgroundQueue() {
  const auto queue = Queue::serial(queueLabel);
  return std::make_shared<QELNKContext>(std::make_shared<ZMQContext>(1), queue, queue);
}

void QELNKContext::terminateSharedContext() {
  Shared &state = shared();
  std::shared_ptr<QELNKContext> context;  // goes after the lock
  const qelnk::Lock lock(state.mutex);
  context.swap(state.context);
  state.terminated = true;
}

QELNKContext::QELNKContext(std::shared_ptr<ZMQContext> zmqContext, std::shared_ptr<Queue> networkQueue,
                           std::shared_ptr<Queue> responseQueue)
    : zmqContext_(std::move(zmqContext)),
      networkQueue_(std::move(networkQueue)),
      responseQueue_(std::move(responseQueue)) {}

QELNKContext::~QELNKContext() {
  if (!zmqContext_) return;
  try {
    zmqContext_->closeSockets();
  } catch (const ZMQException &) {
    // Its log line is written; termination still has to be tried.
  }
  zmqContext_->terminate();
}
