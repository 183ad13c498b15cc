#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace kelvane {

/// Refers to a callable that must outlive it: for parameters that are called before the function returns.
/// Unlike std::function it never allocates.
template <class Signature>
class FunctionRef;

template <class Result, class... Arguments>
class FunctionRef<Result(Arguments...)> {
 public:
  template <class F>
  requires(!std::is_same_v<std::remove_cvref_t<F>, FunctionRef> &&
           std::is_invocable_r_v<Result, F&, Arguments...>)
      FunctionRef(F&& callable)  // NOLINT(bugprone-forwarding-reference-overload): constrained above
      : callable_(const_cast<void*>(static_cast<const void*>(std::addressof(callable)))),
        call_([](void* callable_address, Arguments... arguments) -> Result {
          return (*static_cast<std::remove_reference_t<F>*>(callable_address))(
              std::forward<Arguments>(arguments)...);
        }) {}

  Result operator()(Arguments... arguments) const {
    return call_(callable_, std::forward<Arguments>(arguments)...);
  }

 private:
  void* callable_;
  Result (*call_)(void*, Arguments...);
};

}  // namespace kelvane
