#include "platform/wire/shared_buffer.h"

#include <utility>

namespace kelvane::wire {

namespace {

std::unique_ptr<std::byte[]>& idleBuffer() {
  thread_local std::unique_ptr<std::byte[]> buffer;
  return buffer;
}

}  // namespace

SharedBuffer::SharedBuffer() : memory_(std::move(idleBuffer())) {
  // Not set to zero: only what arrives makes the kernel provide pages.
  if (!memory_) memory_ = std::make_unique_for_overwrite<std::byte[]>(size);
}

SharedBuffer::~SharedBuffer() { idleBuffer() = std::move(memory_); }

}  // namespace kelvane::wire
