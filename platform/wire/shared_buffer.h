#pragma once

#include <cstddef>
#include <memory>
#include <span>

namespace kelvane::wire {

/// Borrows the buffer that all transports of a thread read into. If a handler reads from another transport
/// meanwhile, that read gets a separate buffer.
class SharedBuffer {
 public:
  static constexpr std::size_t size = 64U << 10;

  SharedBuffer();
  SharedBuffer(const SharedBuffer&) = delete;
  SharedBuffer& operator=(const SharedBuffer&) = delete;
  ~SharedBuffer();

  [[nodiscard]] std::span<std::byte> bytes() const { return {memory_.get(), size}; }

 private:
  std::unique_ptr<std::byte[]> memory_;
};

}  // namespace kelvane::wire
