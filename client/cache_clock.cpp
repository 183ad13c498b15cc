#include "client/cache_clock.h"

#include <atomic>
#include <ctime>

namespace kelvane::client {
namespace {

std::atomic<std::int64_t> ahead = 0;

}  // namespace

std::int64_t cacheTime() { return static_cast<std::int64_t>(::time(nullptr)) + ahead; }

void advanceCacheTime(std::int64_t seconds) { ahead += seconds; }

}  // namespace kelvane::client
