#include "examples/urgency.h"

namespace kelvane::examples {

client::CacheRules rulesFor(std::chrono::seconds lifetime, std::chrono::seconds youngest) {
  client::CacheRules rules;
  int quarters = client::most_urgent;
  for (auto& age : rules.ages) age = lifetime / client::most_urgent * --quarters;
  rules.youngest = youngest;
  return rules;
}

}  // namespace kelvane::examples
