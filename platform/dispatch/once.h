#pragma once

#include <mutex>
#include <utility>

namespace kelvane {

/// Must have static storage duration or live as long as what it guards.
using dispatch_once_t = std::once_flag;

/// Calls `function` the first time; every caller returns after that call has finished.
template <class F>
void dispatch_once(dispatch_once_t& once, F&& function) {
  std::call_once(once, std::forward<F>(function));
}

}  // namespace kelvane
