#pragma once

// With which bytes of a stream descriptors came, so that it can be seen whether each is handed out with a
// message that these bytes belong to.

#include <cstddef>
#include <deque>

namespace kelvane::fuzz {

/// Where in a stream something stands.
struct Stretch {
  std::size_t begin;
  std::size_t end;
};

/// Descriptors that were sent and not yet handed out, in their order.
class DescriptorOrigins {
 public:
  void add(const Stretch& bytes, std::size_t count);

  /// Requires that the next `count` may belong to this message.
  void handOut(const Stretch& message, std::size_t count);

  /// Whether all that wait came with bytes beyond this position, of a message that is still to be handed out.
  [[nodiscard]] bool allReachBeyond(std::size_t position) const;

 private:
  std::deque<Stretch> waiting_;
};

}  // namespace kelvane::fuzz
