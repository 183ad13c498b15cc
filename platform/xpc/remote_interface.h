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
//       {method<&Greeter::greet>("greet")}}; return it;
//     }
//     using Proxy = GreeterProxy;  // implements Greeter by ProxyBase::send
//   };
//
// The object that serves a connection and the proxy that stands for it at the other end are both a Greeter.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/dispatch/block.h"
#include "platform/xpc/wire.h"

struct sd_bus_message;

namespace kelvane::xpc {

/// How a method answers: called at most once, on any thread. A Reply that is dropped without being called
/// leaves the caller without an answer, which is a way to answer. It may be called after the connection has
/// ended, and then does nothing.
template <class... Results>
using Reply = std::function<void(Results...)>;

/// A method call that came in and is not yet answered. Any thread.
class IncomingCall {
 public:
  virtual ~IncomingCall() = default;
  /// `write` appends the results; called before this returns, or not at all.
  virtual void reply(const std::function<int(sd_bus_message*)>& write) = 0;
  virtual void replyError(const std::string& name, const std::string& message) = 0;
};

struct MethodDescription {
  const char* name;
  std::string in;  // D-Bus signatures
  std::string out;
  /// Reads the arguments and makes the block that calls the object; negative when the arguments are not such
  /// as the method takes.
  int (*prepare)(const std::shared_ptr<void>& object, sd_bus_message* message,
                 std::shared_ptr<IncomingCall> call, Block& made);
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
MethodDescription method(const char* name);

// --- implementation ---

namespace details {

template <class Function>
struct ReplyTraits;
template <class... Results>
struct ReplyTraits<std::function<void(Results...)>> {
  static std::string signature() { return (std::string() + ... + Wire<std::decay_t<Results>>::signature); }

  static std::function<void(Results...)> answering(std::shared_ptr<IncomingCall> call) {
    return [call = std::move(call)](const Results&... results) {
      call->reply([&]([[maybe_unused]] sd_bus_message* message) {
        int r = 0;
        ((r = r < 0 ? r : Wire<std::decay_t<Results>>::write(message, results)), ...);
        return r;
      });
    };
  }

  /// Reads the results and makes the block that calls `reply` with them.
  static int read([[maybe_unused]] sd_bus_message* message, std::function<void(Results...)> reply,
                  Block& made) {
    std::tuple<std::decay_t<Results>...> results;
    int r = 0;
    std::apply(
        [&](auto&... each) {
          ((r = r < 0 ? r : Wire<std::decay_t<decltype(each)>>::read(message, each)), ...);
        },
        results);
    if (r < 0) return r;
    made = [reply = std::move(reply), results = std::move(results)]() mutable {
      if (reply) std::apply(reply, std::move(results));
    };
    return r;
  }
};

template <>
inline std::function<void(Outcome)> ReplyTraits<std::function<void(Outcome)>>::answering(
    std::shared_ptr<IncomingCall> call) {
  return [call = std::move(call)](const Outcome& outcome) {
    if (outcome.error_name.empty()) {
      call->reply([](sd_bus_message*) { return 0; });
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
  using Replies = ReplyTraits<std::tuple_element_t<count, All>>;
  using ReplyFunction = std::tuple_element_t<count, All>;

  template <std::size_t... I>
  static std::string signature(std::index_sequence<I...>) {
    return (std::string() + ... + Wire<std::tuple_element_t<I, All>>::signature);
  }

  template <auto Method, std::size_t... I>
  static int prepare(const std::shared_ptr<void>& object, [[maybe_unused]] sd_bus_message* message,
                     std::shared_ptr<IncomingCall> call, Block& made, std::index_sequence<I...>) {
    std::tuple<std::tuple_element_t<I, All>...> arguments;
    int r = 0;
    ((r = r < 0 ? r : Wire<std::tuple_element_t<I, All>>::read(message, std::get<I>(arguments))), ...);
    if (r < 0) return r;
    made = [object = std::static_pointer_cast<P>(object), arguments = std::move(arguments),
            call = std::move(call)]() mutable {
      ((*object).*Method)(std::move(std::get<I>(arguments))..., Replies::answering(std::move(call)));
    };
    return r;
  }
};

}  // namespace details

template <auto Method>
MethodDescription method(const char* name) {
  using Traits = details::MethodTraits<decltype(Method)>;
  using Indices = std::make_index_sequence<Traits::count>;
  return {name, Traits::signature(Indices()), Traits::Replies::signature(),
          [](const std::shared_ptr<void>& object, sd_bus_message* message, std::shared_ptr<IncomingCall> call,
             Block& made) {
            return Traits::template prepare<Method>(object, message, std::move(call), made, Indices());
          }};
}

}  // namespace kelvane::xpc
