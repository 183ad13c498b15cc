#pragma once

// What a transport keeps of what has come: part of a message, or messages that nobody wanted yet. Memory
// follows what arrived. Large ones get pages of their own, which grow without a copy and go back to the
// kernel at once.

#include <algorithm>
#include <cstddef>
#include <span>

namespace kelvane::wire {

class KeptBytes {
 public:
  /// Never has room for more than this, or for a quarter more than what came where that is larger.
  static constexpr std::size_t least_room = 64U << 10;

  KeptBytes() = default;
  KeptBytes(const KeptBytes&) = delete;
  KeptBytes& operator=(const KeptBytes&) = delete;
  ~KeptBytes() { clear(); }

  [[nodiscard]] bool empty() const { return begin_ == end_; }
  [[nodiscard]] std::size_t size() const { return end_ - begin_; }
  [[nodiscard]] std::size_t capacity() const { return capacity_; }
  [[nodiscard]] std::span<const std::byte> bytes() const { return {memory_ + begin_, size()}; }

  /// Room behind what is kept, for a message that claims `claimed` bytes in all; `added` of it was filled.
  [[nodiscard]] std::span<std::byte> room(std::size_t claimed);
  void added(std::size_t count) { end_ += count; }
  void append(std::span<const std::byte> bytes, std::size_t claimed);
  /// Gives memory back as soon as half of it is not needed.
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
