// A daemon to test the library against, as a process of its own so that it can die like one. It registers
// services as the daemon does, and purges by asking each registered service in turn, once.
//
//   stand_in_daemon SOCKET [accept-nobody]
//
// Writes "ready", "checked-in ID" and the answers to its commands, a line each. Commands, a line each:
//   ping ID | purge ID URGENCY AMOUNT | hang-up-purge ID | cancel ID | purgeable ID URGENCY | notify ID NAME
//   periodic ID
//   VERB ID URGENCY AMOUNT KEY=VALUE...   with these entries in the request; the volume is "/volume" unless
//   said drop ID                  forgets the service serve PATH               the next commands with the ID
//   "-" go to the declared service that listens there
// Check-ins with an ID that begins with "declared" are answered with nothing, "unentitled" not at all.

#include <atomic>
#include <cstdio>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>

#include "common/keys.h"
#include "platform/dispatch/group.h"
#include "platform/dispatch/queue.h"
#include "platform/xpc/listener.h"
#include "support/protocols.h"

namespace kelvane::tests {
namespace {

void say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

struct Registered {
  xpc::Endpoint endpoint;
  std::shared_ptr<xpc::Connection> connection;
};

/// One call of a service over a connection of its own. `ask` gets the proxy and what to call with the answer.
template <class Ask>
std::string callService(const std::shared_ptr<xpc::Connection>& connection, const Ask& ask) {
  struct Answer {
    std::atomic<bool> given{false};  // what comes later, such as the end of another call, is no answer
    std::string text;
    dispatch_semaphore_t ready = dispatch_semaphore_create(0);
  };
  const auto answer = std::make_shared<Answer>();
  const auto finish = [answer](const std::string& text) {
    if (answer->given.exchange(true)) return;
    answer->text = text;
    dispatch_semaphore_signal(answer->ready);
  };
  connection->resume();
  ask(*connection->remoteObjectProxyWithErrorHandler<KelvaneServiceProtocol>(
          [finish](const xpc::Error&) { finish("failed"); }),
      finish);
  static_cast<void>(dispatch_semaphore_wait(answer->ready, DISPATCH_TIME_FOREVER));
  connection->invalidate();
  return answer->text;
}

std::string amountIn(const std::optional<Dictionary>& answer) {
  return answer ? std::to_string((*answer)[KELVANE_AMOUNT].unsignedLongLongValue()) : "nothing";
}

class StandIn final : public KelvaneClientProtocol, public std::enable_shared_from_this<StandIn> {
 public:
  void clientCheckin(std::string id, xpc::Endpoint endpoint, Dictionary info,
                     Reply<std::optional<Dictionary>> reply) override {
    if (id.starts_with("unentitled")) return;
    if (id.starts_with("declared")) {
      reply(std::nullopt);
      return;
    }
    const bool fresh = add(id, endpoint);
    say((fresh ? "checked-in " : "kept ") + id + (info["PURGE"].boolValue() ? " PURGE" : "") +
        (info["PERIODIC"].boolValue() ? " PERIODIC" : ""));
    reply(Dictionary{{KELVANE_ID, id}, {checkin_reply_anonymous, true}});
  }

  void clientPurgeableSpace(Dictionary info, Reply<std::optional<Dictionary>> reply) override {
    reply(Dictionary{{"asked", info}, {KELVANE_TOTAL_AVAILABLE, 7}});
  }
  void clientItemizedPurgeableSpace(Dictionary /*info*/, Reply<std::optional<Dictionary>> reply) override {
    reply(std::nullopt);
  }
  /// Refuses a request without a volume, complains about one without an amount, never answers one for
  /// "/never".
  void clientPurge(Dictionary info, Reply<std::optional<Dictionary>> reply) override {
    if (!info.contains(KELVANE_VOLUME)) {
      reply(std::nullopt);
    } else if (info[KELVANE_VOLUME] == Value("/never")) {
      const std::lock_guard lock(mutex_);
      unanswered_.push_back(std::move(reply));
      say("purging");
    } else if (!info.contains(KELVANE_AMOUNT)) {
      reply(Dictionary{{KELVANE_ERROR, "Parameter error, no Amount key in info dict"}});
    } else {
      reply(info);
    }
  }
  void clientCancelPurge(Dictionary info, Reply<> reply) override {
    say("cancel " + info[KELVANE_TOKEN].description());
    reply();
  }
  void clientSetState(Value value, std::string key, Reply<> reply) override {
    state_.set(key, std::move(value));
    reply();
  }
  void clientGetState(xpc::Anything key, Reply<Value> reply) override {
    reply(key.value.isString() ? state_[*key.value.string()] : Value());
  }

  /// Carries out a command and returns what to write; empty for nothing.
  std::string command(const std::string& line) {
    std::istringstream words(line);
    std::string verb;
    std::string id;
    words >> verb >> id;
    if (verb == "serve") {
      declared_ = id;
      return "ok";
    }
    if (verb == "drop") return drop(id);
    std::string name;
    int urgency = 0;
    std::uint64_t amount = 0;
    if (verb == "notify") {
      words >> name;
    } else {
      words >> urgency >> amount;
    }
    Dictionary info{{KELVANE_VOLUME, "/volume"}, {KELVANE_AMOUNT, amount}};
    for (std::string entry; words >> entry;) setEntry(info, entry);
    return ask(verb, id, name, urgency, info);
  }

 private:
  /// False when the ID is registered already: that record stays as it is.
  bool add(const std::string& id, const xpc::Endpoint& endpoint) {
    {
      const std::lock_guard lock(mutex_);
      if (services_.contains(id)) return false;
    }
    const auto connection = xpc::Connection::initWithListenerEndpoint(endpoint);
    const auto gone = [weak = weak_from_this(), id, raw = connection.get()] {
      const auto self = weak.lock();
      const std::lock_guard lock(self->mutex_);
      const auto found = self->services_.find(id);
      if (found != self->services_.end() && found->second.connection.get() == raw)
        self->services_.erase(found);
    };
    connection->setInterruptionHandler(gone);
    connection->setInvalidationHandler(gone);
    {
      const std::lock_guard lock(mutex_);
      services_[id] = {endpoint, connection};
    }
    connection->resume();
    const dispatch_semaphore_t pong = dispatch_semaphore_create(0);
    connection
        ->remoteObjectProxyWithErrorHandler<KelvaneServiceProtocol>(
            [pong](const xpc::Error&) { dispatch_semaphore_signal(pong); })
        ->servicePing([pong] { dispatch_semaphore_signal(pong); });
    static_cast<void>(dispatch_semaphore_wait(pong, DISPATCH_TIME_FOREVER));
    return true;
  }

  std::string drop(const std::string& id) {
    std::shared_ptr<xpc::Connection> connection;
    {
      const std::lock_guard lock(mutex_);
      connection = services_[id].connection;
      services_.erase(id);
    }
    if (connection) connection->invalidate();
    return "";  // the next check-in is what is waited for
  }

  std::shared_ptr<xpc::Connection> connect(const std::string& id) {
    const std::lock_guard lock(mutex_);
    return id == "-" ? xpc::Connection::initWithSocketPath(declared_)
                     : xpc::Connection::initWithListenerEndpoint(services_[id].endpoint);
  }

  /// "KEY=VALUE"; a value of digits is a number.
  static void setEntry(Dictionary& info, const std::string& entry) {
    const std::size_t sign = entry.find('=');
    const std::string value = entry.substr(sign + 1);
    const bool number = value.find_first_not_of("0123456789") == std::string::npos;
    info.set(entry.substr(0, sign), number ? Value(std::stoull(value)) : Value(value));
  }

  std::string ask(const std::string& verb, const std::string& id, const std::string& name, int urgency,
                  const Dictionary& info) {
    return callService(connect(id), [&](KelvaneServiceProtocol& service, const auto& finish) {
      const auto answered = [finish](const std::optional<Dictionary>& answer) { finish(amountIn(answer)); };
      const auto done = [finish] { finish("ok"); };
      if (verb == "ping") service.servicePing(done);
      if (verb == "cancel") service.serviceCancelPurge(done);
      if (verb == "notify") service.serviceNotify({{name, true}}, done);
      if (verb == "purge") service.servicePurge(urgency, info, answered);
      if (verb == "purgeable") service.servicePurgeable(urgency, info, answered);
      if (verb == "periodic") service.servicePeriodic(3, info, answered);
      if (verb == "hang-up-purge") {
        service.servicePurge(urgency, info, nullptr);
        service.servicePing(done);  // the purge was received before this was answered
      }
    });
  }

  std::mutex mutex_;  // guards all below
  std::map<std::string, Registered> services_;
  std::vector<Reply<std::optional<Dictionary>>> unanswered_;
  Dictionary state_;      // one client at a time
  std::string declared_;  // commands only
};

int serve(const std::string& path, bool accept) {
  std::string reason;
  const auto listener = xpc::Listener::initWithSocketPath(path, 0666, reason);
  if (listener == nullptr) {
    say(reason);
    return 2;
  }
  const auto daemon = std::make_shared<StandIn>();
  listener->setAcceptHandler([accept](const xpc::PeerCredentials&) { return accept; });
  listener->setConnectionHandler([daemon](const std::shared_ptr<xpc::Connection>& connection) {
    connection->setExportedObject<KelvaneClientProtocol>(daemon);
    connection->resume();
  });
  listener->resume();
  say("ready");
  for (std::string line; std::getline(std::cin, line);) {
    dispatch_async(dispatch_get_global_queue(0, 0), [daemon, line] {
      const std::string answer = daemon->command(line);
      if (!answer.empty()) say(std::string(line).append(": ").append(answer));
    });
  }
  std::_Exit(0);
}

}  // namespace
}  // namespace kelvane::tests

int main(int argc, char** argv) { return kelvane::tests::serve(argv[1], argc == 2); }
