#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/xpc/answer.h"
#include "platform/xpc/connection_internal.h"
#include "platform/xpc/decoding.h"
#include "platform/xpc/delivery.h"
#include "platform/xpc/standard_interfaces.h"

namespace kelvane::xpc {
namespace {

constexpr const char* malformed_body = "the peer sent a message whose body is not what its signature says";

/// After reading: whether the body violates the protocol, including parts that were not read.
bool isMalformed(const wire::Reader& reader, const wire::Transport::Received& received) {
  if (reader.fault() == wire::Fault::none) return false;
  return reader.fault() == wire::Fault::malformed ||
         !wire::isBodyValid(received.message, received.descriptors.size());
}

Error errorOf(const wire::Message& message) {
  Error error{std::string(message.header.error_name), ""};
  wire::Reader reader(message, {});
  if (reader.nextType() == 's') error.message = reader.readString();
  return error;
}

const char* textOf(wire::Fault fault) {
  return fault == wire::Fault::excessive ? "it takes more memory than its user has left, or too many values"
                                         : "it holds something that has no place there";
}

}  // namespace

// --- messages that come in ---

/// Returns whether to go on with the next message.
bool Connection::take(Round& round, Received& received) {
  round.took_message = true;
  switch (received.message.header.type) {
    case wire::MessageType::method_call:
      takeCall(round, received);
      break;
    case wire::MessageType::method_return:
    case wire::MessageType::error:
      takeReply(round, received);
      break;
    default:
      if (!wire::isBodyValid(received.message, received.descriptors.size())) round.broken = malformed_body;
  }
  const bool next_is_paid = exported_interface_ == nullptr || round.next_call;
  return round.broken.empty() && next_is_paid && !peerMustWait();
}

void Connection::takeCall(Round& round, Received& received) {
  const wire::Header& header = received.message.header;
  const MethodDescription* const method =
      exportedMethod({exported_interface_, side_ == wire::Transport::Side::server}, header);
  if (method != nullptr && header.signature == method->in) {
    prepareCall(round, received, *method);
  } else if (!wire::isBodyValid(received.message, received.descriptors.size())) {
    round.broken = malformed_body;
  } else if (!header.expectsReply()) {
    return;
  } else if (method != nullptr) {
    makeError(scratchMessage(), header.serial, error_invalid_arguments, wrongArguments(header, method->in));
    if (!sendAnswerOrRefusal(scratchMessage(), header.serial)) round.broken = "no answer can be sent";
  } else {
    answerStandardCall(round, received);
  }
}

void Connection::answerStandardCall(Round& round, const Received& received) {
  wire::Outgoing& answer = scratchMessage();
  xpc::answerStandardCall({exported_interface_, side_ == wire::Transport::Side::server}, received.message,
                          answer);
  if (!sendAnswerOrRefusal(answer, received.message.header.serial)) round.broken = "no answer can be sent";
}

void Connection::prepareCall(Round& round, Received& received, const MethodDescription& method) {
  const wire::Header& header = received.message.header;
  Decoding decoding(account_, received.message.body.size());
  wire::Reader reader(received.message, received.descriptors);
  std::shared_ptr<IncomingCall> call = method.prepare(exported_object_, reader);
  if (reader.finish()) {
    call->account_ = account_;
    call->return_address_ = {weak_from_this(), header.expectsReply() ? header.serial : 0};
    call->cost_ = {std::move(round.next_call), std::move(received.bytes), decoding.takeCharge(),
                   std::move(received.descriptor_charge)};
    round.next_call = wire::Charge::of(account_, wire::Resource::calls, 1);
    deliver(std::move(call));
    return;
  }
  if (isMalformed(reader, received)) {
    round.broken = malformed_body;
  } else if (header.expectsReply()) {
    const bool excessive = reader.fault() == wire::Fault::excessive;
    makeError(scratchMessage(), header.serial, excessive ? error_limits_exceeded : error_invalid_arguments,
              std::string("the call of ").append(header.member).append(" cannot be used: ") +
                  textOf(reader.fault()));
    if (!sendAnswerOrRefusal(scratchMessage(), header.serial)) round.broken = "no answer can be sent";
  }
}

void Connection::takeReply(Round& round, Received& received) {
  const wire::Header& header = received.message.header;
  const auto found = outstanding_.find(header.reply_serial);
  Decoding decoding(account_, received.message.body.size());
  wire::Reader reader(received.message, received.descriptors);
  if (found == outstanding_.end() || header.type == wire::MessageType::error ||
      header.signature != found->second->replySignature()) {
    if (!wire::isBodyValid(received.message, received.descriptors.size())) {
      round.broken = malformed_body;
      return;
    }
    if (found == outstanding_.end()) return;
  }
  OutgoingCall& call = *found->second;
  if (header.type == wire::MessageType::error) {
    call.fail(errorOf(received.message));
  } else if (header.signature != call.replySignature()) {
    call.fail({error_invalid_arguments, "the reply has another signature than " + call.replySignature()});
  } else {
    call.read(reader);
    if (!reader.finish()) {
      if (isMalformed(reader, received)) {
        round.broken = malformed_body;
        return;
      }
      call.fail({reader.fault() == wire::Fault::excessive ? error_limits_exceeded : error_invalid_arguments,
                 std::string("the reply cannot be used: ") + textOf(reader.fault())});
    }
  }
  call.hold(std::move(received.bytes), decoding.takeCharge());
  std::unique_ptr<OutgoingCall> answered = std::move(found->second);
  outstanding_.erase(found);
  deliver(std::move(answered));
}

// --- what runs on the queue ---

void Connection::deliver(std::shared_ptr<IncomingCall> call) {
  ++waiting_calls_;
  dispatch_async(queue_, [self = shared_from_this(), call = std::move(call)]() mutable {
    {
      const Delivery delivery(self, call);
      call->run();
    }
    call.reset();
    self->noteHandled();
  });
}

void Connection::deliver(std::unique_ptr<OutgoingCall> answered) {
  dispatch_async(queue_, [self = shared_from_this(), answered = std::move(answered)]() mutable {
    static const std::shared_ptr<IncomingCall> no_call;
    const Delivery delivery(self, no_call);
    answered->finish();
    answered.reset();
  });
}

/// Goes on reading when that had stopped for calls that waited.
void Connection::noteHandled() {
  const Lock lock(mutex_);
  const bool waited = peerMustWait();
  --waiting_calls_;
  if (waited && !peerMustWait()) source_.again();
}

// --- answers ---

void Connection::sendAnswer(wire::Outgoing& answer, std::uint32_t serial) {
  const Lock lock(mutex_);
  if (!transport_) return;
  if (sendAnswerOrRefusal(answer, serial)) {
    watchForWriting();
    if (peerMustWait()) deadline_.cancel();
  } else {
    finish(Cause::interruption, "the peer does not read its answers");
  }
}

/// An answer for which the account has no room becomes an error. False when there is no room for that either.
bool Connection::sendAnswerOrRefusal(wire::Outgoing& answer, std::uint32_t serial) {
  int error = 0;
  const auto send = [&] {
    const std::size_t bytes = answer.bytes.size();
    if (transport_->send(answer, error) != 0) {
      unread_replies_.noteSent(bytes, true, transport_->queuedBytes());
    }
  };
  send();
  if (error == 0 || error == EPIPE) return true;  // the socket reports the end
  makeError(answer, serial, error_limits_exceeded,
            std::string("the answer cannot be sent: ") + std::strerror(error));
  send();
  return error == 0 || error == EPIPE;
}

// --- calls that go out ---

void Connection::call(const InterfaceDescription& interface, const std::string& signature,
                      FunctionRef<void(wire::Writer&)> write, std::unique_ptr<OutgoingCall> call) {
  const ScratchUse use;
  wire::Outgoing& message = scratchMessage();
  wire::Header header;
  header.path = interface.path;
  header.interface = interface.name;
  header.member = call->member();
  header.signature = signature;
  wire::Writer out(message, header);
  write(out);
  const wire::Writer::Fault fault = out.finish();
  const auto cannotBeSent = [&](const char* name, std::string_view why) {
    call->fail({name, std::string(call->member()).append(" cannot be sent: ").append(why)});
    deliver(std::move(call));
  };

  const Lock lock(mutex_);
  if (!transport_) return cannotBeSent(error_disconnected, "the connection has ended");
  if (fault != wire::Writer::Fault::none) return cannotBeSent(error_limits_exceeded, textOf(fault));
  if (std::any_of(message.descriptors.begin(), message.descriptors.end(),
                  [](int descriptor) { return descriptor < 0; })) {
    return cannotBeSent(error_invalid_arguments, "an endpoint is empty");
  }
  int error = 0;
  const std::size_t bytes = message.bytes.size();
  const std::uint32_t serial = transport_->send(message, error);
  if (serial == 0) {
    return cannotBeSent(error == EPIPE ? error_disconnected : error_limits_exceeded, std::strerror(error));
  }
  unread_replies_.noteSent(bytes, false, transport_->queuedBytes());
  outstanding_.emplace_hint(outstanding_.end(), serial, std::move(call));
  watchForWriting();
  passTheirEnd();
}

}  // namespace kelvane::xpc
