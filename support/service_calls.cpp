#include "support/service_calls.h"

#include <atomic>
#include <utility>

#include "platform/xpc/connection.h"
#include "support/paths.h"

namespace kelvane {
namespace {

using xpc::Connection;

std::shared_ptr<Connection> connectionTo(const KVService& service) {
  const xpc::Endpoint endpoint = service.endpoint();
  return endpoint ? Connection::initWithListenerEndpoint(endpoint)
                  : Connection::initWithSocketPath(declaredServiceSocket(service.ID()));
}

/// Calls the invalidation handler when two things have happened, whichever comes last: the request handler
/// has returned, and the connection has ended.
class CallEnd {
 public:
  explicit CallEnd(Block invalidated) : invalidated_(std::move(invalidated)) {}

  /// On the connection's queue. An interrupted connection that is then invalidated says so twice.
  void connectionEnded() {
    if (!ended_.exchange(true) && isLast()) run();
  }
  /// Whether the connection has ended already, and `run` is left to the caller.
  [[nodiscard]] bool requestReturned() { return isLast(); }

  void run() {
    if (invalidated_) invalidated_();
    invalidated_ = Block();
  }

 private:
  bool isLast() { return awaited_.fetch_sub(1) == 1; }

  std::atomic<bool> ended_{false};
  std::atomic<int> awaited_{2};
  Block invalidated_;  // touched by whoever was last
};

void endWith(Connection& connection, const std::shared_ptr<CallEnd>& end) {
  connection.setInvalidationHandler([end] { end->connectionEnded(); });
  connection.setInterruptionHandler([end, weak = connection.weak_from_this()] {
    if (const auto interrupted = weak.lock()) interrupted->invalidate();
    end->connectionEnded();
  });
}

/// Shared by the copies of one Done.
class DoneState {
 public:
  explicit DoneState(std::shared_ptr<Connection> connection) : connection_(std::move(connection)) {}
  DoneState(const DoneState&) = delete;
  DoneState& operator=(const DoneState&) = delete;
  ~DoneState() { done(); }
  void done() const { connection_->invalidate(); }

 private:
  const std::shared_ptr<Connection> connection_;
};

}  // namespace

void CallServiceAsync(const std::shared_ptr<KVService>& service, const RequestHandler& request,
                      Block invalidated) {
  const std::shared_ptr<Connection> connection = connectionTo(*service);
  const auto end = std::make_shared<CallEnd>(std::move(invalidated));
  endWith(*connection, end);
  connection->resume();
  const auto proxy = connection->remoteObjectProxyWithErrorHandler<KelvaneServiceProtocol>(
      [weak = connection->weak_from_this()](const xpc::Error& /*error*/) {
        if (const auto failed = weak.lock()) failed->invalidate();
      });
  request(proxy, [state = std::make_shared<DoneState>(connection)] { state->done(); });
  if (end->requestReturned()) dispatch_async(connection->queue(), [end] { end->run(); });
}

void CallService(const std::shared_ptr<KVService>& service, const RequestHandler& proxyHandler,
                 Block errorHandler) {
  CallServiceAsync(service, proxyHandler, std::move(errorHandler));
}

}  // namespace kelvane
