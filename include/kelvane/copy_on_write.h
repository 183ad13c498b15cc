#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace kelvane::foundation {

/// One reference to a T that several values share. Copying the reference shares the T; `mutate` gives a T
/// that nobody else refers to, copying it first where needed. An empty reference stands for a T() that
/// nobody has paid for yet.
///
/// References may be copied and dropped on any thread; one reference object belongs to one thread at a time.
template <class T>
class CopyOnWrite {
 public:
  CopyOnWrite() noexcept = default;
  explicit CopyOnWrite(T value) : box_(new Box(std::move(value))) {}
  CopyOnWrite(const CopyOnWrite& other) noexcept : box_(other.box_) {
    if (box_ != nullptr) box_->references.fetch_add(1, std::memory_order_relaxed);
  }
  CopyOnWrite(CopyOnWrite&& other) noexcept : box_(std::exchange(other.box_, nullptr)) {}
  CopyOnWrite& operator=(CopyOnWrite other) noexcept {
    std::swap(box_, other.box_);
    return *this;
  }
  ~CopyOnWrite() { drop(); }

  [[nodiscard]] const T& operator*() const noexcept { return box_ != nullptr ? box_->value : nothing(); }
  [[nodiscard]] const T* operator->() const noexcept { return &**this; }

  [[nodiscard]] T& mutate() {
    if (box_ == nullptr) {
      box_ = new Box(T());
    } else if (box_->references.load(std::memory_order_acquire) != 1) {
      Box* const mine = new Box(box_->value);
      drop();
      box_ = mine;
    }
    return box_->value;
  }

  /// True when both refer to the very same T; equal values need not.
  [[nodiscard]] bool shares(const CopyOnWrite& other) const noexcept { return box_ == other.box_; }

 private:
  struct Box {
    explicit Box(T v) : value(std::move(v)) {}
    std::atomic<std::uint32_t> references{1};
    T value;
  };

  static const T& nothing() noexcept {
    static const T empty{};
    return empty;
  }

  void drop() noexcept {
    if (box_ != nullptr && box_->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete box_;
  }

  Box* box_ = nullptr;
};

}  // namespace kelvane::foundation
