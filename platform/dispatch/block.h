#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace kelvane {

/// A piece of work: something callable without arguments, movable, called at most once or many times as its
/// owner sees fit. Unlike std::function it holds captures that cannot be copied, and keeps most captures in
/// itself. What it captured is destroyed with it.
class Block {
 public:
  Block() noexcept = default;
  template <class F>
  requires(!std::is_same_v<std::decay_t<F>, Block> && std::is_invocable_v<std::decay_t<F>&>)
      Block(F&& callable) {  // NOLINT(bugprone-forwarding-reference-overload): constrained above
    using Held = std::decay_t<F>;
    if constexpr (fitsInside<Held>()) {
      new (storage_) Held(std::forward<F>(callable));
      operations_ = &inside<Held>;
    } else {
      *reinterpret_cast<Held**>(storage_) = new Held(std::forward<F>(callable));
      operations_ = &outside<Held>;
    }
  }
  Block(Block&& other) noexcept { take(other); }
  Block& operator=(Block&& other) noexcept {
    if (this != &other) {
      reset();
      take(other);
    }
    return *this;
  }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  ~Block() { reset(); }

  void operator()() { operations_->call(storage_); }
  explicit operator bool() const noexcept { return operations_ != nullptr; }

 private:
  struct Operations {
    void (*call)(void*);
    void (*move)(void* to, void* from) noexcept;
    void (*destroy)(void*) noexcept;
  };
  static constexpr std::size_t room = 6 * sizeof(void*);

  template <class Held>
  static constexpr bool fitsInside() {
    return sizeof(Held) <= room && alignof(Held) <= alignof(std::max_align_t) &&
           std::is_nothrow_move_constructible_v<Held>;
  }
  template <class Held>
  static Held& at(void* storage) {
    return *std::launder(static_cast<Held*>(storage));
  }
  template <class Held>
  static constexpr Operations inside = {[](void* storage) { at<Held>(storage)(); },
                                        [](void* to, void* from) noexcept {
                                          new (to) Held(std::move(at<Held>(from)));
                                          at<Held>(from).~Held();
                                        },
                                        [](void* storage) noexcept { at<Held>(storage).~Held(); }};
  template <class Held>
  static constexpr Operations outside = {
      [](void* storage) { (*at<Held*>(storage))(); },
      [](void* to, void* from) noexcept { *static_cast<Held**>(to) = at<Held*>(from); },
      [](void* storage) noexcept { delete at<Held*>(storage); }};

  void take(Block& other) noexcept {
    operations_ = std::exchange(other.operations_, nullptr);
    if (operations_ != nullptr) operations_->move(storage_, other.storage_);
  }
  void reset() noexcept {
    if (operations_ != nullptr) std::exchange(operations_, nullptr)->destroy(storage_);
  }

  const Operations* operations_ = nullptr;
  alignas(std::max_align_t) std::byte storage_[room];
};

}  // namespace kelvane
