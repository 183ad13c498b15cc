#include "tests/caches/moved_time.h"

#include "client/cache_clock.h"

namespace kelvane::caches::tests {
namespace {

const bool moved = (client::advanceCacheTime(ahead), true);

}  // namespace
}  // namespace kelvane::caches::tests
