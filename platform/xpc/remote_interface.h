#pragma once

// Remote interfaces: an abstract C++ class whose methods end in a Reply, and one description that names them.
//
//   class Greeter {
//    public:
//     virtual ~Greeter() = default;
//     virtual void greet(std::string name, Reply<std::optional<Dictionary>> reply) = 0;
//   };
//   template <> struct RemoteInterface<Greeter> {
//     static const InterfaceDescription& description() {
//       static const InterfaceDescription it{"/example", "org.example.Greeter",
//       {method<&Greeter::greet>("greet", {"name"}, {"greeting"})}}; return it;
//     }
//     using Proxy = GreeterProxy;  // implements Greeter by ProxyBase::send
//   };
//
// The object that serves a connection and the proxy that stands for it at the other end are both a Greeter.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/wire/reader.h"
#include "platform/wire/writer.h"
#include "platform/xpc/incoming_call.h"
#include "platform/xpc/outgoing_call.h"
#include "platform/xpc/wire.h"

namespace kelvane::xpc {

/// How a method answers: called at most once, on any thread. A Reply may be dropped
/// without being called; the caller then gets no answer. It may be called after the
/// connection has ended, and then does nothing.
template <class... Results>
using Reply = std::function<void(Results...)>;

struct MethodDescription {
  const char* name;
  std::string in;  // D-Bus signatures
  std::string out;
  /// Reads the arguments and creates the call of the object. Invalid if the reader has a fault afterwards.
  std::shared_ptr<IncomingCall> (*prepare)(const std::shared_ptr<void>& object, wire::Reader& arguments);
  // For introspection; as many as there are arguments and results, or none.
  std::vector<const char*> in_names;
  std::vector<const char*> out_names;
};

struct PropertyDescription {
  const char* name;
  std::uint32_t (*read)();
};

struct InterfaceDescription {
  const char* path;
  const char* name;
  std::vector<MethodDescription> methods;
  std::vector<PropertyDescription> properties = {};
};

template <class Protocol>
struct RemoteInterface;

template <auto Method>
MethodDescription method(const char* name, std::vector<const char*> in_names = {},
                         std::vector<const char*> out_names = {});

// --- implementation ---

namespace details {

template <class... Types>
const std::string& signatureOf() {
  static const std::string it = (std::string() + ... + Wire<Types>::signature);
  return it;
}

template <class Function>
struct ReplyTraits;
template <class... Results>
struct ReplyTraits<std::function<void(Results...)>> {
  using Values = std::tuple<std::decay_t<Results>...>;
  static const std::string& signature() { return signatureOf<std::decay_t<Results>...>(); }

  static std::function<void(Results...)> answering(std::shared_ptr<IncomingCall> call) {
    return [call = std::move(call)](const Results&... results) {
      call->reply(signature(), [&]([[maybe_unused]] wire::Writer& out) {
        (Wire<std::decay_t<Results>>::write(out, results), ...);
      });
    };
  }
};

template <>
inline std::function<void(Outcome)> ReplyTraits<std::function<void(Outcome)>>::answering(
    std::shared_ptr<IncomingCall> call) {
  return [call = std::move(call)](const Outcome& outcome) {
    if (outcome.error_name.empty()) {
      call->reply("", [](wire::Writer&) {});
    } else {
      call->replyError(outcome.error_name, outcome.error_message);
    }
  };
}

template <class Pointer>
struct MethodTraits;
template <class P, class... Arguments>
struct MethodTraits<void (P::*)(Arguments...)> {
  using Protocol = P;
  using All = std::tuple<std::decay_t<Arguments>...>;
  static constexpr std::size_t count = sizeof...(Arguments) - 1;  // the last is the reply
  using ReplyFunction = std::tuple_element_t<count, All>;
  using Replies = ReplyTraits<ReplyFunction>;
  using Indices = std::make_index_sequence<count>;

  template <std::size_t... I>
  static auto valuesOf(std::index_sequence<I...>) -> std::tuple<std::tuple_element_t<I, All>...>;
  using Values = decltype(valuesOf(Indices()));

  template <std::size_t... I>
  static const std::string& signature(std::index_sequence<I...>) {
    return signatureOf<std::tuple_element_t<I, All>...>();
  }
  static const std::string& signature() { return signature(Indices()); }
};

template <class Values>
void readValues([[maybe_unused]] wire::Reader& in, Values& values) {
  std::apply([&](auto&... each) { (Wire<std::decay_t<decltype(each)>>::read(in, each), ...); }, values);
}

/// A call of one method, with its arguments.
template <auto Method>
class TypedCall final : public IncomingCall {
  using Traits = MethodTraits<decltype(Method)>;
  using Protocol = typename Traits::Protocol;

 public:
  TypedCall(std::shared_ptr<Protocol> object, wire::Reader& in) : object_(std::move(object)) {
    readValues(in, arguments_);
  }
  void run() override { run(typename Traits::Indices()); }

 private:
  template <std::size_t... I>
  void run(std::index_sequence<I...>) {
    // Neither outlives the call of the method, even if the reply is kept.
    const std::shared_ptr<Protocol> object = std::move(object_);
    [[maybe_unused]] auto arguments = std::move(arguments_);
    ((*object).*Method)(std::move(std::get<I>(arguments))..., Traits::Replies::answering(shared_from_this()));
  }

  std::shared_ptr<Protocol> object_;
  typename Traits::Values arguments_;
};

/// The reply to an outgoing call.
template <class ReplyFunction>
class TypedReply final : public OutgoingCall {
  using Traits = ReplyTraits<ReplyFunction>;

 public:
  TypedReply(const char* member, std::shared_ptr<const ErrorHandler> on_error, ReplyFunction reply)
      : OutgoingCall(member, Traits::signature(), std::move(on_error)), reply_(std::move(reply)) {}
  void read(wire::Reader& in) override { readValues(in, results_); }
  void deliver() override {
    if (reply_) std::apply(reply_, std::move(results_));
  }

 private:
  ReplyFunction reply_;
  typename Traits::Values results_;
};

}  // namespace details

template <auto Method>
MethodDescription method(const char* name, std::vector<const char*> in_names,
                         std::vector<const char*> out_names) {
  using Traits = details::MethodTraits<decltype(Method)>;
  return {name,
          Traits::signature(),
          Traits::Replies::signature(),
          [](const std::shared_ptr<void>& object, wire::Reader& arguments) -> std::shared_ptr<IncomingCall> {
            return std::make_shared<details::TypedCall<Method>>(
                std::static_pointer_cast<typename Traits::Protocol>(object), arguments);
          },
          std::move(in_names),
          std::move(out_names)};
}

}  // namespace kelvane::xpc
