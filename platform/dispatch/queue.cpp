#include "platform/dispatch/queue.h"

#include <unistd.h>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/dispatch/executor.h"
#include "platform/dispatch/fatal.h"

namespace kelvane {
namespace dispatch {
namespace {

constexpr unsigned items_in_one_go = 64;
constexpr auto longest_go = std::chrono::milliseconds(1);

/// One item in a serial queue's list: asynchronous work, or a thread that waits for its turn.
struct Turn {
  std::condition_variable granted_wakeup;
  std::mutex mutex;
  bool granted = false;  // guarded by mutex
};

struct Item {
  Block block;
  Turn* turn = nullptr;  // owned by the waiting thread
  std::unique_ptr<Item> next;
};

/// The queues whose items the calling thread is running, innermost first.
struct Frame {
  explicit Frame(const Queue* running) : queue(running), outer(innermost) { innermost = this; }
  ~Frame() { innermost = outer; }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;

  const Queue* queue;
  Frame* outer;
  static thread_local Frame* innermost;
};
thread_local Frame* Frame::innermost = nullptr;

bool isCurrent(const Queue* queue) {
  for (const Frame* frame = Frame::innermost; frame != nullptr; frame = frame->outer) {
    if (frame->queue == queue) return true;
  }
  return false;
}

}  // namespace

class Queue : public Runnable, public std::enable_shared_from_this<Queue> {
 public:
  explicit Queue(std::string label) : label_(std::move(label)) {}

  [[nodiscard]] const std::string& label() const { return label_; }
  virtual void async(Block block) = 0;
  virtual void sync(void (*function)(void*), void* context) = 0;
  virtual void suspend() = 0;
  virtual void resume() = 0;
  virtual void resumeWith(Block next) = 0;

 private:
  const std::string label_;
};

namespace {

/// At any time a serial queue is owned by nobody, or by one thread that runs its items, or it stands in the
/// executor's ready list on its way to one. Ownership passes from a thread directly to the next synchronous
/// waiter in the list.
class SerialQueue final : public Queue {
 public:
  using Queue::Queue;

  ~SerialQueue() override {
    // Unlink one by one: a long list would otherwise be destroyed recursively.
    while (first_ != nullptr) first_ = std::move(first_->next);
  }

  void async(Block block) override {
    auto item = std::make_unique<Item>();
    item->block = std::move(block);
    std::unique_lock lock(mutex_);
    append(std::move(item));
    if (!acquire()) return;
    lock.unlock();
    Executor::shared().submit(shared_from_this());
  }

  void sync(void (*function)(void*), void* context) override {
    if (isCurrent(this)) fatal("waiting synchronously for a queue from one of its own items", label());
    {
      std::unique_lock lock(mutex_);
      const bool idle = first_ == nullptr && acquire();
      if (!idle) awaitTurn(lock);
    }
    {
      const Frame frame(this);
      function(context);
    }
    std::unique_lock lock(mutex_);
    if (release() || passToWaiter()) return;
    lock.unlock();
    Executor::shared().submit(shared_from_this());
  }

  void suspend() override {
    const std::scoped_lock lock(mutex_);
    ++suspensions_;
  }

  void resume() override {
    std::unique_lock lock(mutex_);
    endSuspension(lock);
  }

  void resumeWith(Block next) override {
    auto item = std::make_unique<Item>();
    item->block = std::move(next);
    std::unique_lock lock(mutex_);
    prepend(std::move(item));
    endSuspension(lock);
  }

  /// A few items; then others have their turn, and the poll.
  void run() noexcept override {
    std::chrono::steady_clock::time_point end;
    std::unique_lock lock(mutex_);
    for (unsigned left = items_in_one_go; !release() && !passToWaiter(); --left) {
      if (left == items_in_one_go) {
        end = std::chrono::steady_clock::now() + longest_go;
      } else if (left == 0 || std::chrono::steady_clock::now() >= end) {
        lock.unlock();
        Executor::shared().submit(shared_from_this());
        return;
      }
      const std::unique_ptr<Item> item = removeFirst();
      lock.unlock();
      {
        const Frame frame(this);
        item->block();
        item->block = Block();
      }
      lock.lock();
    }
  }

 private:
  // All with mutex_ held.

  void endSuspension(std::unique_lock<std::mutex>& lock) {
    if (suspensions_ == 0) fatal("resuming a queue that is not suspended", label());
    --suspensions_;
    if (first_ == nullptr || !acquire()) return;
    lock.unlock();
    Executor::shared().submit(shared_from_this());
  }
  bool acquire() {
    if (owned_ || suspensions_ > 0) return false;
    owned_ = true;
    return true;
  }
  /// Gives the queue up when there is nothing to run now; otherwise it stays with the caller.
  bool release() {
    if (first_ != nullptr && suspensions_ == 0) return false;
    owned_ = false;
    return true;
  }
  void append(std::unique_ptr<Item> item) {
    Item* const added = item.get();
    (last_ != nullptr ? last_->next : first_) = std::move(item);
    last_ = added;
  }
  void prepend(std::unique_ptr<Item> item) {
    if (last_ == nullptr) last_ = item.get();
    item->next = std::move(first_);
    first_ = std::move(item);
  }
  std::unique_ptr<Item> removeFirst() {
    std::unique_ptr<Item> item = std::move(first_);
    first_ = std::move(item->next);
    if (first_ == nullptr) last_ = nullptr;
    return item;
  }
  void awaitTurn(std::unique_lock<std::mutex>& lock) {
    Turn turn;
    auto item = std::make_unique<Item>();
    item->turn = &turn;
    append(std::move(item));
    lock.unlock();
    const BlockingRegion blocking;
    std::unique_lock turn_lock(turn.mutex);
    turn.granted_wakeup.wait(turn_lock, [&] { return turn.granted; });
  }
  /// Makes the thread whose turn is next the owner, if a thread is what comes next.
  bool passToWaiter() {
    if (first_->turn == nullptr) return false;
    Turn& turn = *removeFirst()->turn;
    // Notified under its lock: the waiter destroys the turn as soon as it sees the grant.
    const std::scoped_lock lock(turn.mutex);
    turn.granted = true;
    turn.granted_wakeup.notify_one();
    return true;
  }

  std::mutex mutex_;  // guards all below
  std::unique_ptr<Item> first_;
  Item* last_ = nullptr;
  unsigned suspensions_ = 0;
  bool owned_ = false;
};

class GlobalQueue final : public Queue {
 public:
  using Queue::Queue;

  void async(Block block) override {
    struct Work final : Runnable {
      Work(Block work, const Queue* on) : block(std::move(work)), queue(on) {}
      void run() noexcept override {
        const Frame frame(queue);
        block();
        block = Block();
      }
      Block block;
      const Queue* queue;
    };
    Executor::shared().submit(std::make_shared<Work>(std::move(block), this));
  }
  void sync(void (*function)(void*), void* context) override {
    const Frame frame(this);
    function(context);
  }
  void suspend() override { fatal("suspending the global queue"); }
  void resume() override { fatal("resuming the global queue"); }
  void resumeWith(Block /*next*/) override { resume(); }
  void run() noexcept override {}
};

}  // namespace

void syncCall(const dispatch_queue_t& queue, void (*function)(void*), void* context) noexcept {
  // The item may drop the caller's reference.
  const dispatch_queue_t kept = queue;  // NOLINT(performance-unnecessary-copy-initialization)
  kept->sync(function, context);
}

}  // namespace dispatch

dispatch_queue_t dispatch_queue_create(std::string label) {
  return std::make_shared<dispatch::SerialQueue>(std::move(label));
}

const dispatch_queue_t& dispatch_get_global_queue(long priority, unsigned long flags) {
  if (priority != 0 || flags != 0) fatal("the global queue has the default priority and no flags");
  static const dispatch_queue_t& queue =
      *new dispatch_queue_t(std::make_shared<dispatch::GlobalQueue>("com.orvel.root.default-priority"));
  return queue;
}

const std::string& dispatch_queue_get_label(const dispatch_queue_t& queue) { return queue->label(); }

void dispatch_async(const dispatch_queue_t& queue, Block item) { queue->async(std::move(item)); }

void dispatch_suspend(const dispatch_queue_t& queue) { queue->suspend(); }
void dispatch_resume(const dispatch_queue_t& queue) { queue->resume(); }
void dispatch_resume_with(const dispatch_queue_t& queue, Block next) { queue->resumeWith(std::move(next)); }

bool dispatch_queue_is_current(const dispatch_queue_t& queue) { return dispatch::isCurrent(queue.get()); }

void dispatch_assert_queue(const dispatch_queue_t& queue) {
  if (!dispatch_queue_is_current(queue)) fatal("running outside the queue that this needs", queue->label());
}

void dispatch_main() {
  for (;;) ::pause();
}

}  // namespace kelvane
