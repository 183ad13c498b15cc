#include "kelvane/cache_rules.h"

namespace kelvane::client {

const char* describe(CacheStay reason) {
  switch (reason) {
    case CacheStay::notDirectory:
      return "not a directory";
    case CacheStay::otherVolume:
      return "on another volume";
    case CacheStay::pinned:
      return "pinned by .kelvane-keep";
    case CacheStay::locked:
      return "locked by another process";
    case CacheStay::open:
      return "open in a process";
    case CacheStay::excluded:
      return "excluded by the rules";
    case CacheStay::tooYoung:
      return "too young";
    case CacheStay::floor:
      return "among the newest, which stay";
    case CacheStay::linkedElsewhere:
      return "linked from elsewhere";
    case CacheStay::foreign:
      return "another user's, or not a regular file";
    case CacheStay::unreadable:
      return "cannot be read or deleted";
  }
  return "unknown reason";
}

}  // namespace kelvane::client
