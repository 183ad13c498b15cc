#include "platform/xpc/launch.h"

#include <map>
#include <mutex>
#include <utility>

#include "platform/xpc/connection.h"
#include "platform/xpc/held_order.h"
#include "platform/xpc/listener.h"
#include "platform/xpc/transaction.h"

namespace kelvane {
namespace xpc {
namespace {

struct RegisteredActivity {
  dispatch_queue_t queue;  // of its runs
  std::function<void(const xpc_activity_t&)> handler;
};

struct Stream {
  dispatch_queue_t queue;
  EventHandler handler;
};

/// What has been registered in this process.
struct Registry {
  std::mutex mutex;
  std::map<std::string, RegisteredActivity> activities;  // guarded by mutex
  std::map<std::string, Stream> streams;                 // guarded by mutex
};

Registry& registry() {
  static Registry& it = *new Registry;
  return it;
}

constexpr const char* error_unknown_name = "com.orvel.Launch.Error.UnknownName";

class LaunchProtocol {
 public:
  virtual ~LaunchProtocol() = default;
  virtual void RunActivity(std::string name, Reply<Outcome> reply) = 0;
  virtual void PostEvent(std::string stream, Dictionary event, Reply<Outcome> reply) = 0;
};

/// A connection's calls are answered in order, each when the work that it started is done.
class LaunchSocket final : public LaunchProtocol {
 public:
  void RunActivity(std::string name, Reply<Outcome> reply) override {
    if (!xpc_run_activity(name, [order = HeldOrder(), reply] { reply({}); }))
      reply({error_unknown_name, "no activity is registered as \"" + name + "\""});
  }
  void PostEvent(std::string stream, Dictionary event, Reply<Outcome> reply) override {
    if (!xpc_post_event(stream, event, [order = HeldOrder(), reply] { reply({}); }))
      reply({error_unknown_name, "nobody handles the stream \"" + stream + "\""});
  }
};

}  // namespace

template <>
struct RemoteInterface<LaunchProtocol> {
  static const InterfaceDescription& description() {
    static const InterfaceDescription it{
        "/com/orvel/launch",
        "com.orvel.Launch",
        {method<&LaunchProtocol::RunActivity>("RunActivity", {"name"}),
         method<&LaunchProtocol::PostEvent>("PostEvent", {"stream", "event"})},
        {{"Transactions", xpc_transaction_count}}};
    return it;
  }
};

std::shared_ptr<Listener> serveLaunchSocket(const std::string& path, std::string& reason) {
  auto listener = Listener::initWithSocketPath(path, 0600, reason);
  if (listener == nullptr) return nullptr;
  listener->setConnectionHandler([](const std::shared_ptr<Connection>& connection) {
    connection->setExportedObject<LaunchProtocol>(std::make_shared<LaunchSocket>());
    connection->resume();
  });
  listener->resume();
  return listener;
}

}  // namespace xpc

void xpc_activity_register(const std::string& name, const Dictionary& /*criteria*/,
                           std::function<void(const xpc_activity_t&)> handler) {
  {
    const std::scoped_lock lock(xpc::registry().mutex);
    xpc::registry().activities.insert_or_assign(
        name, xpc::RegisteredActivity{dispatch_queue_create("xpc.activity"), handler});
  }
  dispatch_async(dispatch_get_global_queue(0, 0), [handler = std::move(handler)] {
    handler(std::make_shared<xpc::Activity>(XPC_ACTIVITY_STATE_CHECK_IN));
  });
}

long xpc_activity_get_state(const xpc_activity_t& activity) { return activity->state(); }

bool xpc_run_activity(const std::string& name, Block over) {
  xpc::RegisteredActivity found;
  {
    const std::scoped_lock lock(xpc::registry().mutex);
    const auto known = xpc::registry().activities.find(name);
    if (known == xpc::registry().activities.end()) return false;
    found = known->second;
  }
  dispatch_async(found.queue, [handler = std::move(found.handler), over = std::move(over)]() mutable {
    handler(std::make_shared<xpc::Activity>(XPC_ACTIVITY_STATE_RUN));
    if (over) over();
  });
  return true;
}

void xpc_set_event_stream_handler(const std::string& stream, const dispatch_queue_t& queue,
                                  EventHandler handler) {
  const std::scoped_lock lock(xpc::registry().mutex);
  xpc::registry().streams.insert_or_assign(stream, xpc::Stream{queue, std::move(handler)});
}

bool xpc_post_event(const std::string& stream, const Dictionary& event, Block handled) {
  xpc::Stream found;
  {
    const std::scoped_lock lock(xpc::registry().mutex);
    const auto known = xpc::registry().streams.find(stream);
    if (known == xpc::registry().streams.end()) return false;
    found = known->second;
  }
  dispatch_async(found.queue,
                 [handler = std::move(found.handler), event, handled = std::move(handled)]() mutable {
                   handler(event, std::move(handled));
                 });
  return true;
}

}  // namespace kelvane
