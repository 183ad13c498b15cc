#include "examples/urgency.h"

namespace kelvane::examples {

client::CacheRules rulesFor(std::chrono::seconds lifetime, std::chrono::seconds youngest) {
  client::CacheRules rules;
  for (int urgency = 1; urgency <= client::most_urgent; ++urgency)
    rules.ages[static_cast<std::size_t>(urgency) - 1] =
        lifetime / client::most_urgent * (client::most_urgent - urgency);
  rules.youngest = youngest;
  return rules;
}

}  // namespace kelvane::examples
