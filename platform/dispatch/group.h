#pragma once

#include <memory>

#include "platform/dispatch/block.h"
#include "platform/dispatch/queue.h"
#include "platform/dispatch/time.h"

namespace kelvane {

namespace dispatch {
class Group;
class Semaphore;
}  // namespace dispatch

/// Counts what is outstanding. It is empty when it has been left as often as it was entered. Leaving it once
/// more is fatal. May be used on any thread, and used again after it was empty.
using dispatch_group_t = std::shared_ptr<dispatch::Group>;

[[nodiscard]] dispatch_group_t dispatch_group_create();
void dispatch_group_enter(const dispatch_group_t& group);
void dispatch_group_leave(const dispatch_group_t& group);
/// Submits an item that the group counts until it has run and has been destroyed.
void dispatch_group_async(const dispatch_group_t& group, const dispatch_queue_t& queue, Block item);
/// Blocks until the group is empty. 0 when it is; not 0 when `deadline` came first.
[[nodiscard]] long dispatch_group_wait(const dispatch_group_t& group, dispatch_time_t deadline);
/// Submits `item` to `queue` once, when the group is next empty; at once when it is now.
void dispatch_group_notify(const dispatch_group_t& group, const dispatch_queue_t& queue, Block item);

/// A count that can be waited for. May be used on any thread.
using dispatch_semaphore_t = std::shared_ptr<dispatch::Semaphore>;

/// Null when `value` is negative.
[[nodiscard]] dispatch_semaphore_t dispatch_semaphore_create(long value);
/// Takes one from the count, blocking while it is 0. 0 when it did; not 0 when `deadline` came first.
[[nodiscard]] long dispatch_semaphore_wait(const dispatch_semaphore_t& semaphore, dispatch_time_t deadline);
/// Adds one to the count and wakes one waiter.
void dispatch_semaphore_signal(const dispatch_semaphore_t& semaphore);

}  // namespace kelvane
