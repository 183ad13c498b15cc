#include "examples/urgency.h"

#include <algorithm>
#include <limits>

namespace kelvane::examples {
namespace {

constexpr int most_urgent = 4;

}  // namespace

Seconds givenUpAt(int urgency, Seconds now, Seconds lifetime) {
  if (urgency >= most_urgent) return std::numeric_limits<Seconds>::max();
  const Seconds quarters = most_urgent - std::max(urgency, 1);
  return now - lifetime / most_urgent * quarters;
}

}  // namespace kelvane::examples
