#include "platform/wire/kept_bytes.h"

#include <sys/mman.h>
#include <cstdlib>
#include <cstring>
#include <new>

namespace kelvane::wire {

namespace {

// At this size and above, memory is mapped: malloc might not return it to the kernel, or copy it while it
// grows.
constexpr std::size_t mapped_from = 128U << 10;
constexpr std::size_t least_worth_a_read = 4U << 10;

std::byte* mapped(void* memory) {
  if (memory == MAP_FAILED) throw std::bad_alloc();
  return static_cast<std::byte*>(memory);
}

std::byte* map(std::size_t size) {
  return mapped(::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
}

std::byte* reallocated(std::byte* memory, std::size_t size) {
  void* const moved = std::realloc(memory, size);
  if (moved == nullptr) throw std::bad_alloc();
  return static_cast<std::byte*>(moved);
}

}  // namespace

std::span<std::byte> KeptBytes::room(std::size_t claimed) {
  compact();
  const std::size_t most = std::min(claimed, std::max(least_room, end_ + end_ / 4));
  if (capacity_ < most && capacity_ - end_ < least_worth_a_read) resize(most);
  return {memory_ + end_, capacity_ - end_};
}

void KeptBytes::append(std::span<const std::byte> bytes, std::size_t claimed) {
  if (bytes.empty()) return;
  compact();
  const std::size_t needed = end_ + bytes.size();
  if (needed > capacity_) resize(std::max(needed, std::min(claimed, capacity_ + capacity_ / 4)));
  std::memcpy(memory_ + end_, bytes.data(), bytes.size());
  end_ += bytes.size();
}

void KeptBytes::removeFront(std::size_t count) {
  begin_ += count;
  if (begin_ == end_) return clear();
  if (size() <= capacity_ / 2) compact();
}

void KeptBytes::compact() {
  if (begin_ == 0) return;
  std::memmove(memory_, memory_ + begin_, size());
  end_ -= begin_;
  begin_ = 0;
  resize(end_);
}

void KeptBytes::clear() {
  if (capacity_ < mapped_from) {
    std::free(memory_);
  } else {
    ::munmap(memory_, capacity_);
  }
  memory_ = nullptr;
  capacity_ = begin_ = end_ = 0;
}

// Keeps what is in [0, end_).
void KeptBytes::resize(std::size_t capacity) {
  if (capacity < mapped_from && capacity_ < mapped_from) {
    memory_ = reallocated(memory_, capacity);
  } else if (capacity >= mapped_from && capacity_ >= mapped_from) {
    memory_ = mapped(::mremap(memory_, capacity_, capacity, MREMAP_MAYMOVE));
  } else {
    std::byte* const fresh = capacity >= mapped_from ? map(capacity) : reallocated(nullptr, capacity);
    if (end_ > 0) std::memcpy(fresh, memory_, end_);
    const std::size_t kept = end_;
    clear();
    memory_ = fresh;
    end_ = kept;
  }
  capacity_ = capacity;
}

}  // namespace kelvane::wire
