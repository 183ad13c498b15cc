#include "platform/wire/send_queue.h"

#include <fcntl.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace kelvane::wire {

namespace {

// Small messages share a segment up to this size, so that many of them cost little more than their bytes.
constexpr std::size_t largest_shared_segment = 64U << 10;
constexpr std::size_t most_segments_at_once = 8;

/// 0, or an errno.
int duplicate(std::span<const int> descriptors, std::vector<FileDescriptor>& made) {
  for (const int descriptor : descriptors) {
    made.emplace_back(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
    if (!made.back()) return errno;
  }
  return 0;
}

}  // namespace

Charge SendQueue::reserve(std::size_t bytes) const {
  return Charge::of(account_, Resource::queued_bytes, bytes + sizeof(Segment));
}

int SendQueue::push(std::span<const std::byte> bytes, std::span<const int> descriptors, Charge room) {
  if (descriptors.empty() && extendLast(bytes)) return 0;
  Segment segment;
  segment.bytes_charge = room ? std::move(room) : reserve(bytes.size());
  if (!segment.bytes_charge) return ENOBUFS;
  segment.bytes_charge.shrink(segment.bytes_charge.amount() - bytes.size() - sizeof(Segment));
  if (!descriptors.empty()) {
    segment.descriptor_charge = Charge::of(account_, Resource::descriptors, descriptors.size());
    if (!segment.descriptor_charge) return ENOBUFS;
    if (const int error = duplicate(descriptors, segment.descriptors); error != 0) return error;
  }
  segment.bytes.assign(bytes.begin(), bytes.end());
  segments_.push_back(std::move(segment));
  bytes_ += bytes.size();
  return 0;
}

bool SendQueue::carriesDescriptors() const {
  return std::any_of(segments_.begin(), segments_.end(),
                     [](const Segment& segment) { return !segment.descriptors.empty(); });
}

bool SendQueue::extendLast(std::span<const std::byte> bytes) {
  if (segments_.empty()) return false;
  Segment& last = segments_.back();
  const std::size_t needed = last.bytes.size() + bytes.size();
  if (needed > largest_shared_segment) return false;
  if (needed > last.bytes.capacity()) {
    const std::size_t capacity =
        std::min(largest_shared_segment, std::max(needed, 2 * last.bytes.capacity()));
    if (!last.bytes_charge.grow(capacity - last.bytes.capacity())) return false;
    last.bytes.reserve(capacity);
  }
  last.bytes.insert(last.bytes.end(), bytes.begin(), bytes.end());
  bytes_ += bytes.size();
  return true;
}

WriteResult SendQueue::writeTo(int socket, bool with_descriptors) {
  std::array<std::span<const std::byte>, most_segments_at_once> parts;
  std::size_t count = 0;
  std::vector<int> descriptors;
  for (const Segment& segment : segments_) {
    const bool carries = !segment.descriptors.empty();
    if (count == parts.size() || (carries && (count > 0 || !with_descriptors))) break;
    parts.at(count) = std::span(segment.bytes).subspan(count == 0 ? sent_ : 0);
    ++count;
    if (!carries) continue;
    for (const FileDescriptor& descriptor : segment.descriptors) descriptors.push_back(descriptor.get());
    break;
  }
  const WriteResult result = writeSocket(socket, std::span(parts).first(count), descriptors);
  taken(result.bytes);
  return result;
}

void SendQueue::taken(std::size_t count) {
  bytes_ -= count;
  while (count > 0) {
    Segment& first = segments_.front();
    first.descriptors.clear();
    first.descriptor_charge.reset();
    const std::size_t here = std::min(count, first.bytes.size() - sent_);
    sent_ += here;
    count -= here;
    if (sent_ < first.bytes.size()) return;
    segments_.pop_front();
    sent_ = 0;
  }
}

void SendQueue::clear() {
  segments_.clear();
  sent_ = bytes_ = 0;
}

}  // namespace kelvane::wire
