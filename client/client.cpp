#include "kelvane/client.h"

#include <atomic>
#include <list>
#include <mutex>
#include <type_traits>
#include <utility>

#include "client/daemon_socket.h"
#include "platform/dispatch/fatal.h"
#include "platform/dispatch/group.h"
#include "platform/dispatch/queue.h"
#include "platform/xpc/connection.h"
#include "support/protocols.h"

namespace kelvane::client {
namespace {

Error errorOf(xpc::Connection& connection, const xpc::Error& error) {
  if (!connection.credentials()) return {Failure::noDaemon, "nobody listens on the daemon's socket"};
  if (error.name != xpc::error_disconnected) return {Failure::badRequest, error.description()};
  if (error.message == xpc::handshake_took_too_long)
    return {Failure::connectionLost, "the daemon does not answer"};
  if (!connection.wasEstablished()) {
    return {Failure::refused,
            "the daemon does not accept connections from this process: no CLIENT_ENTITLEMENT"};
  }
  return {Failure::connectionLost, "the daemon went away before it answered"};
}

Result<Dictionary> readAnswer(std::optional<Dictionary> answer) {
  if (!answer) {
    return Error{
        Failure::refused,
        "the daemon refused: the request is not granted to this process, or the volume is not served"};
  }
  const Value& error = (*answer)[KELVANE_ERROR];
  if (error.isString()) return Error{Failure::badRequest, *error.string()};
  return std::move(*answer);
}

}  // namespace

Dictionary purgeRequest(const std::string& volume, std::uint64_t bytes, int urgency_limit,
                        std::uint64_t pass_seconds) {
  Dictionary request{
      {KELVANE_VOLUME, volume}, {KELVANE_AMOUNT, bytes}, {KELVANE_URGENCY_LIMIT, urgency_limit}};
  if (pass_seconds != 0) request.set(KELVANE_PURGE_TIMEOUT, pass_seconds);
  return request;
}

/// The requests under way. Each holds this; it ends with the last of them.
struct Client::Calls : std::enable_shared_from_this<Client::Calls> {
  using Connections = std::list<std::shared_ptr<xpc::Connection>>;

  /// One request: finished once, by its answer or its connection's end, whichever is first.
  template <class T>
  struct Call {
    Call(std::shared_ptr<Calls> all, Completion<T> completion)
        : calls(std::move(all)), done(std::move(completion)) {}

    /// With a result, or what one is made of.
    template <class Outcome>
    void finish(Outcome outcome) {
      if (finished.exchange(true)) return;
      done(std::move(outcome));
      calls->remove(place);
    }

    const std::shared_ptr<Calls> calls;
    const Completion<T> done;
    Connections::iterator place;  // constant once the connection is resumed
    std::atomic<bool> finished{false};
  };

  explicit Calls(const ClientOptions& options) : socket(daemonSocket(options.daemon_socket)) {}

  /// Opens a connection and has `send` call the daemon's object through it. `done` is called on the
  /// connection's queue.
  template <class T, class Send>
  void begin(const Send& send, Completion<T> done) {
    const auto connection = xpc::Connection::initWithSocketPath(socket);
    const auto call = std::make_shared<Call<T>>(shared_from_this(), std::move(done));
    call->place = add(connection);
    connection->resume();
    const std::weak_ptr<xpc::Connection> weak = connection;
    const auto proxy = connection->remoteObjectProxyWithErrorHandler<
        KelvaneClientProtocol>([weak, call](const xpc::Error& error) {
      const auto failed = weak.lock();
      call->finish(failed ? errorOf(*failed, error) : Error{Failure::connectionLost, error.description()});
    });
    send(*proxy, call);
  }

  template <class T, class Send>
  Result<T> wait(const Send& send) {
    std::optional<Result<T>> result;
    const dispatch_semaphore_t finished = dispatch_semaphore_create(0);
    begin<T>(send, [&result, finished](Result<T> got) {
      result.emplace(std::move(got));
      dispatch_semaphore_signal(finished);
    });
    static_cast<void>(dispatch_semaphore_wait(finished, DISPATCH_TIME_FOREVER));
    return std::move(*result);
  }

  template <class T, class Send>
  void post(const Send& send, Completion<T> completion) {
    dispatch_group_enter(called);
    begin<T>(send, [self = shared_from_this(), completion = std::move(completion)](Result<T> got) mutable {
      dispatch_async(self->queue, [self, completion = std::move(completion), got = std::move(got)]() mutable {
        completion(std::move(got));
        completion = nullptr;
        dispatch_group_leave(self->called);
      });
    });
  }

  /// What is asked for after the end, by a completion that the end waits for, fails at once.
  Connections::iterator add(const std::shared_ptr<xpc::Connection>& connection) {
    const std::lock_guard lock(mutex);
    if (ended) connection->invalidate();
    return connections.insert(connections.end(), connection);
  }
  void remove(Connections::iterator place) {
    std::shared_ptr<xpc::Connection> connection;
    {
      const std::lock_guard lock(mutex);
      connection = std::move(*place);
      connections.erase(place);
    }
    connection->invalidate();
  }
  void end() {
    if (dispatch_queue_is_current(queue)) fatal("a Client is destroyed in one of its completions");
    Connections open;
    {
      const std::lock_guard lock(mutex);
      ended = true;
      open = connections;
    }
    for (const auto& connection : open) connection->invalidate();
    static_cast<void>(dispatch_group_wait(called, DISPATCH_TIME_FOREVER));
  }

  const std::string socket;
  const dispatch_queue_t queue = dispatch_queue_create("com.orvel.kelvane_client");  // completions
  const dispatch_group_t called = dispatch_group_create();                           // completions to come
  std::mutex mutex;
  Connections connections;  // guarded by mutex
  bool ended = false;       // guarded by mutex
};

Client::Client(const ClientOptions& options) : calls_(std::make_shared<Calls>(options)) {}
Client::~Client() { calls_->end(); }

namespace {

// What each request sends, given the daemon's object and the call to be finished with the answer.

template <class Method>
auto asking(Method method, const Dictionary& request) {
  return [method, request](KelvaneClientProtocol& daemon, const auto& call) {
    (daemon.*method)(
        request, [call](std::optional<Dictionary> answer) { call->finish(readAnswer(std::move(answer))); });
  };
}

auto purging(const Dictionary& request) { return asking(&KelvaneClientProtocol::clientPurge, request); }
auto askingForSpace(const Dictionary& request) {
  return asking(&KelvaneClientProtocol::clientPurgeableSpace, request);
}
auto askingForItems(const Dictionary& request) {
  return asking(&KelvaneClientProtocol::clientItemizedPurgeableSpace, request);
}
auto cancelling(const Value& token) {
  return [info = Dictionary{{KELVANE_TOKEN, token}}](KelvaneClientProtocol& daemon, const auto& call) {
    daemon.clientCancelPurge(info, [call] { call->finish(Done()); });
  };
}
auto setting(const Value& value, const std::string& key) {
  return [value, key](KelvaneClientProtocol& daemon, const auto& call) {
    daemon.clientSetState(value, key, [call] { call->finish(Done()); });
  };
}
auto getting(const std::string& key) {
  return [key](KelvaneClientProtocol& daemon, const auto& call) {
    daemon.clientGetState(xpc::Anything{key}, [call](Value value) { call->finish(std::move(value)); });
  };
}

}  // namespace

Result<Dictionary> Client::purge(const Dictionary& request) {
  return calls_->wait<Dictionary>(purging(request));
}
Result<Done> Client::cancelPurge(const Value& token) { return calls_->wait<Done>(cancelling(token)); }
Result<Dictionary> Client::purgeableSpace(const Dictionary& request) {
  return calls_->wait<Dictionary>(askingForSpace(request));
}
Result<Dictionary> Client::itemizedPurgeableSpace(const Dictionary& request) {
  return calls_->wait<Dictionary>(askingForItems(request));
}
Result<Done> Client::setState(const Value& value, const std::string& key) {
  return calls_->wait<Done>(setting(value, key));
}
Result<Value> Client::getState(const std::string& key) { return calls_->wait<Value>(getting(key)); }

void Client::purge(const Dictionary& request, Completion<Dictionary> completion) {
  calls_->post<Dictionary>(purging(request), std::move(completion));
}
void Client::cancelPurge(const Value& token, Completion<Done> completion) {
  calls_->post<Done>(cancelling(token), std::move(completion));
}
void Client::purgeableSpace(const Dictionary& request, Completion<Dictionary> completion) {
  calls_->post<Dictionary>(askingForSpace(request), std::move(completion));
}
void Client::itemizedPurgeableSpace(const Dictionary& request, Completion<Dictionary> completion) {
  calls_->post<Dictionary>(askingForItems(request), std::move(completion));
}
void Client::setState(const Value& value, const std::string& key, Completion<Done> completion) {
  calls_->post<Done>(setting(value, key), std::move(completion));
}
void Client::getState(const std::string& key, Completion<Value> completion) {
  calls_->post<Value>(getting(key), std::move(completion));
}

}  // namespace kelvane::client
