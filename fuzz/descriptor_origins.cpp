#include "fuzz/descriptor_origins.h"

#include <algorithm>

#include "fuzz/target.h"

namespace kelvane::fuzz {

void DescriptorOrigins::add(const Stretch& bytes, std::size_t count) {
  waiting_.insert(waiting_.end(), count, bytes);
}

void DescriptorOrigins::handOut(const Stretch& message, std::size_t count) {
  require(count <= waiting_.size(), "no descriptor is handed out that was not sent");
  for (; count > 0; --count) {
    const Stretch& bytes = waiting_.front();
    require(bytes.begin < message.end && message.begin < bytes.end,
            "a descriptor is handed out with a message whose bytes it came with");
    waiting_.pop_front();
  }
}

bool DescriptorOrigins::allReachBeyond(std::size_t position) const {
  return std::all_of(waiting_.begin(), waiting_.end(),
                     [position](const Stretch& bytes) { return position < bytes.end; });
}

}  // namespace kelvane::fuzz
