#pragma once

// The received bytes that a transport keeps: part of a message, or messages that its owner does not take yet.
// Memory grows with what has arrived. Large amounts are mapped as separate pages, which grow without a copy
// and are returned to the kernel at once.

#include <algorithm>
#include <cstddef>
#include <span>

namespace kelvane::wire {

class KeptBytes {
 public:
  /// The capacity never exceeds this, or 1.25 times what has arrived if that is larger.
  static constexpr std::size_t least_room = 64U << 10;

  KeptBytes() = default;
  KeptBytes(const KeptBytes&) = delete;
  KeptBytes& operator=(const KeptBytes&) = delete;
  ~KeptBytes() { clear(); }

  [[nodiscard]] bool empty() const { return begin_ == end_; }
  [[nodiscard]] std::size_t size() const { return end_ - begin_; }
  [[nodiscard]] std::size_t capacity() const { return capacity_; }
  [[nodiscard]] std::span<const std::byte> bytes() const { return {memory_ + begin_, size()}; }

  /// Returns room after the kept bytes, for a message that claims `claimed` bytes in total; then report with
  /// `added` how much was filled.
  [[nodiscard]] std::span<std::byte> room(std::size_t claimed);
  void added(std::size_t count) { end_ += count; }
  void append(std::span<const std::byte> bytes, std::size_t claimed);
  /// Frees memory once half of it is unused.
  void removeFront(std::size_t count);
  void clear();

 private:
  void compact();
  void resize(std::size_t capacity);

  std::byte* memory_ = nullptr;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace kelvane::wire
