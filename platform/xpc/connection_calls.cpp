#include <systemd/sd-bus.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/xpc/connection_internal.h"

namespace kelvane::xpc {
namespace {

thread_local const std::shared_ptr<Connection>* delivering = nullptr;

/// Marks the connection whose message the thread is handling.
class Delivery {
 public:
  explicit Delivery(const std::shared_ptr<Connection>& connection)
      : outer_(std::exchange(delivering, &connection)) {}
  ~Delivery() { delivering = outer_; }
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;

 private:
  const std::shared_ptr<Connection>* const outer_;
};

Error errorOf(sd_bus_message* message) {
  const sd_bus_error* const error = sd_bus_message_get_error(message);
  if (error == nullptr || error->name == nullptr)
    return {error_failed, "the peer sent an error without a name"};
  return {error->name, error->message != nullptr ? error->message : ""};
}

}  // namespace

class Connection::Incoming final : public IncomingCall {
 public:
  Incoming(std::weak_ptr<Connection> connection, std::uint64_t call)
      : connection_(std::move(connection)), call_(call) {}
  ~Incoming() override {
    if (call_ == 0) return;
    if (const auto connection = connection_.lock()) connection->forget(call_);
  }
  void reply(const std::function<int(sd_bus_message*)>& write) override {
    if (const auto connection = connection_.lock()) connection->answer(call_, write);
  }
  void replyError(const std::string& name, const std::string& message) override {
    if (const auto connection = connection_.lock()) connection->answerError(call_, name, message);
  }
  /// The connection has dealt with the call itself.
  void disown() { call_ = 0; }

 private:
  const std::weak_ptr<Connection> connection_;
  std::uint64_t call_;
};

int BusCallbacks::call(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
  return static_cast<Connection*>(userdata)->acceptCall(message);
}

int BusCallbacks::anything(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
  static_cast<Connection*>(userdata)->noteTaken(message);
  return 0;
}

int BusCallbacks::read(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/, const char* name,
                       sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/) {
  for (const PropertyDescription& known :
       static_cast<Connection*>(userdata)->exported_interface_->properties) {
    if (std::strcmp(known.name, name) == 0) return sd_bus_message_append(reply, "u", known.read());
  }
  return -ENOENT;
}

int BusCallbacks::reply(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
  auto& pending = *static_cast<Connection::PendingCall*>(userdata);
  pending.connection->noteTaken(message);
  return pending.connection->acceptReply(pending, message);
}

std::shared_ptr<Connection> Connection::current() { return delivering != nullptr ? *delivering : nullptr; }

/// Runs `block` as the handling of a message that the peer sent.
void Connection::deliver(Block block) {
  dispatch_async(queue_, [self = shared_from_this(), block = std::move(block)]() mutable {
    const Delivery delivery(self);
    block();
    block = Block();
  });
}

void Connection::deliverError(ErrorHandler handler, Error error) {
  if (!handler) return;
  dispatch_async(queue_, [handler = std::move(handler), error = std::move(error)] { handler(error); });
}

// --- calls that come in ---

int Connection::acceptCall(sd_bus_message* message) {
  const char* const member = sd_bus_message_get_member(message);
  const auto& methods = exported_interface_->methods;
  const auto method = std::find_if(methods.begin(), methods.end(), [&](const MethodDescription& known) {
    return std::strcmp(known.name, member) == 0;
  });
  if (method == methods.end()) return 0;
  const std::uint64_t call = next_call_++;
  const auto incoming = std::make_shared<Incoming>(weak_from_this(), call);
  Block made;
  const int r = method->prepare(exported_object_, message, incoming, made);
  if (r < 0) {
    incoming->disown();
    return sd_bus_reply_method_errorf(message, error_invalid_arguments, "%s: an argument cannot be used: %s",
                                      member, std::strerror(-r));
  }
  unanswered_.emplace(call, sd_bus_message_ref(message));
  const std::uint64_t bytes = intake_.claimed();
  ++waiting_calls_;
  waiting_bytes_ += bytes;
  deliver([this, bytes, made = std::move(made)]() mutable {
    made();
    made = Block();
    noteHandled(bytes);
  });
  return 1;
}

/// Goes on reading when that had stopped for calls that waited.
void Connection::noteHandled(std::uint64_t bytes) {
  const Lock lock(mutex_);
  const bool waited = peerMustWait();
  --waiting_calls_;
  waiting_bytes_ -= bytes;
  if (waited && !peerMustWait()) source_.again();
}

void Connection::answer(std::uint64_t call, const std::function<int(sd_bus_message*)>& write) {
  const Lock lock(mutex_);
  const auto found = unanswered_.find(call);
  if (found == unanswered_.end()) return;
  sd_bus_message* const question = found->second;
  unanswered_.erase(found);
  sd_bus_message* answer = nullptr;
  int r = sd_bus_message_new_method_return(question, &answer);
  if (r >= 0) r = write(answer);
  if (r >= 0) r = sd_bus_send(bus_, answer, nullptr);
  if (r < 0) {
    sd_bus_reply_method_errorf(question, error_limits_exceeded, "the answer cannot be sent: %s",
                               std::strerror(-r));
  }
  sd_bus_message_unref(answer);
  sd_bus_message_unref(question);
  watchForWriting();
}

void Connection::answerError(std::uint64_t call, const std::string& name, const std::string& message) {
  const Lock lock(mutex_);
  const auto found = unanswered_.find(call);
  if (found == unanswered_.end()) return;
  sd_bus_reply_method_errorf(found->second, name.c_str(), "%s", message.c_str());
  sd_bus_message_unref(found->second);
  unanswered_.erase(found);
  watchForWriting();
}

void Connection::forget(std::uint64_t call) {
  const Lock lock(mutex_);
  const auto found = unanswered_.find(call);
  if (found == unanswered_.end()) return;
  sd_bus_message_unref(found->second);
  unanswered_.erase(found);
}

// --- calls that go out ---

void Connection::call(const InterfaceDescription& interface, const char* member, const char* reply_signature,
                      const Write& write, Read read, ErrorHandler on_error) {
  const Lock lock(mutex_);
  if (bus_ == nullptr) {
    deliverError(std::move(on_error), {error_disconnected, "the connection has ended"});
    return;
  }
  std::list<PendingCall> made(1);
  PendingCall& pending = made.front();
  pending.connection = this;
  pending.place = made.begin();
  pending.reply_signature = reply_signature;
  pending.read = std::move(read);
  pending.on_error = std::move(on_error);
  sd_bus_message* message = nullptr;
  int r = sd_bus_message_new_method_call(bus_, &message, nullptr, interface.path, interface.name, member);
  if (r >= 0) r = write(message);
  if (r >= 0) r = sd_bus_call_async(bus_, &pending.slot, message, BusCallbacks::reply, &pending, UINT64_MAX);
  sd_bus_message_unref(message);
  if (r < 0) {
    const bool gone = r == -EPIPE || r == -ECONNRESET || r == -ENOTCONN;
    Error error{gone ? error_disconnected : error_limits_exceeded,
                std::string(member) + " cannot be sent: " + std::strerror(-r)};
    // The reply goes with the error, to be destroyed on the queue.
    dispatch_async(queue_, [made = std::move(made), error = std::move(error)] {
      if (made.front().on_error) made.front().on_error(error);
    });
    return;
  }
  outstanding_.splice(outstanding_.end(), made);
  watchForWriting();
}

int Connection::acceptReply(PendingCall& pending, sd_bus_message* message) {
  std::list<PendingCall> answered;
  answered.splice(answered.end(), outstanding_, pending.place);
  sd_bus_slot_unref(std::exchange(pending.slot, nullptr));
  Error error;
  if (sd_bus_message_is_method_error(message, nullptr) > 0) {
    error = errorOf(message);
  } else if (sd_bus_message_has_signature(message, pending.reply_signature.c_str()) <= 0) {
    error = {error_invalid_arguments, "the reply has another signature than " + pending.reply_signature};
  } else if (const int r = pending.read(message, pending.answered); r < 0) {
    error = {error_invalid_arguments, std::string("the reply cannot be used: ") + std::strerror(-r)};
  }
  if (!pending.answered && pending.on_error) {
    pending.answered = [on_error = std::move(pending.on_error), error = std::move(error)] {
      on_error(error);
    };
  }
  dispatch_async(queue_, [self = shared_from_this(), answered = std::move(answered)]() mutable {
    const Delivery delivery(self);
    if (answered.front().answered) answered.front().answered();
    answered.clear();
  });
  return 1;
}

}  // namespace kelvane::xpc
