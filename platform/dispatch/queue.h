#pragma once

// Queues: the only way in which work moves between threads.
//
// The rules, which everything above relies on:
//
//  * A serial queue runs its items one at a time, in the order in which they were submitted, asynchronous and
//    synchronous ones alike. Which thread runs an item is nobody's business; what one item wrote, the next
//    item of the same queue sees.
//  * `dispatch_async` never blocks and never runs the item before it returns. `dispatch_sync` returns when
//    the item has run; on an idle queue it runs on the calling thread, without a hand-over.
//  * Waiting synchronously for a queue that the calling thread is running already can never end. It is fatal,
//    and says which queue.
//  * A suspended queue starts no item; the item that runs when it is suspended is finished. Suspensions nest:
//    the queue goes on when each has been taken back. Taking back one too many is fatal.
//  * The global queue runs its items at the same time, in no order that anyone may rely on. Its items, and
//    those of serial queues, may block: the pool of threads grows, so that no item ever waits for a thread.
//  * An item keeps what it captured until it has run, and drops it on the thread that ran it. A queue stays
//    alive while it has items.
//  * Nothing may be thrown out of an item.

#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "platform/dispatch/block.h"

namespace kelvane {

namespace dispatch {
class Queue;
}
using dispatch_queue_t = std::shared_ptr<dispatch::Queue>;

/// A new serial queue. The label is for messages only; two queues may share one.
[[nodiscard]] dispatch_queue_t dispatch_queue_create(std::string label);

/// The concurrent queue of default priority. Both arguments must be 0: there is only this one.
[[nodiscard]] const dispatch_queue_t& dispatch_get_global_queue(long priority, unsigned long flags);

[[nodiscard]] const std::string& dispatch_queue_get_label(const dispatch_queue_t& queue);

void dispatch_async(const dispatch_queue_t& queue, Block item);

/// Runs `item` on the queue and returns what it returns.
template <class F>
std::invoke_result_t<F&> dispatch_sync(const dispatch_queue_t& queue, F&& item);

/// The global queue cannot be suspended.
void dispatch_suspend(const dispatch_queue_t& queue);
void dispatch_resume(const dispatch_queue_t& queue);
/// The same, but `next` runs before all waiting items.
void dispatch_resume_with(const dispatch_queue_t& queue, Block next);

/// True when the calling thread is running an item of the queue, also when that item has since gone
/// synchronously to other queues.
[[nodiscard]] bool dispatch_queue_is_current(const dispatch_queue_t& queue);
/// Fatal unless `dispatch_queue_is_current`.
void dispatch_assert_queue(const dispatch_queue_t& queue);

/// Parks the calling thread for good. Work goes on in the pool.
[[noreturn]] void dispatch_main();

// --- implementation of the template ---

namespace dispatch {
/// Calls `function(context)` on the queue and returns when it has run.
void syncCall(const dispatch_queue_t& queue, void (*function)(void*), void* context) noexcept;
}  // namespace dispatch

template <class F>
std::invoke_result_t<F&> dispatch_sync(const dispatch_queue_t& queue, F&& item) {
  using Result = std::invoke_result_t<F&>;
  if constexpr (std::is_void_v<Result>) {
    dispatch::syncCall(
        queue, [](void* context) { (*static_cast<std::remove_reference_t<F>*>(context))(); },
        const_cast<void*>(static_cast<const void*>(&item)));
  } else {
    std::optional<Result> result;
    auto call = [&] { result.emplace(item()); };
    dispatch::syncCall(
        queue, [](void* context) { (*static_cast<decltype(call)*>(context))(); }, &call);
    return std::move(*result);
  }
}

}  // namespace kelvane
