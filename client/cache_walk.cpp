#include "client/cache_walk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "client/unit_removal.h"

namespace kelvane::client {
namespace {

constexpr const char* pin = ".kelvane-keep";
constexpr const char* tag = "CACHEDIR.TAG";
constexpr std::string_view tag_signature = "Signature: 8a477f597d28d172789f06886806bc55";
constexpr std::uint64_t cannot_change = STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND;

bool isPinned(int directory) {
  struct stat status {};
  return ::fstatat(directory, pin, &status, AT_SYMLINK_NOFOLLOW) == 0 || (errno != ENOENT && errno != EACCES);
}

bool isTagged(int directory) {
  const FileDescriptor file(
      ::openat(directory, tag, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  std::array<char, tag_signature.size()> text{};
  const ssize_t length = ::read(file.get(), text.data(), text.size());
  return length == static_cast<ssize_t>(text.size()) &&
         std::string_view(text.data(), text.size()) == tag_signature;
}

bool mayWrite(int directory) {
  return ::syscall(SYS_faccessat2, directory, "", W_OK | X_OK, AT_EACCESS | AT_EMPTY_PATH) == 0;
}

}  // namespace

CachePlace placeOf(int directory, bool look_for_tag) {
  CachePlace place;
  struct statx status {};
  const bool known = ::statx(directory, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &status) == 0;
  place.pinned = isPinned(directory);
  place.writable = known && (status.stx_attributes & cannot_change) == 0 && mayWrite(directory);
  place.owner = status.stx_uid;
  place.bytes = bytesOf(status);
  place.own = known && (status.stx_attributes & cannot_change) == 0 && status.stx_uid == ::geteuid();
  place.sticky = (status.stx_mode & S_ISVTX) != 0 && ::geteuid() != 0 && status.stx_uid != ::geteuid();
  place.tagged = look_for_tag && isTagged(directory);
  return place;
}

std::optional<CacheStay> obstacleTo(const CacheSetup& setup, const CachePlace& place,
                                    const struct statx& status) {
  if (!setup.trusts(status.stx_uid)) return CacheStay::foreign;
  if (!place.writable || (status.stx_attributes & cannot_change) != 0 ||
      (place.sticky && status.stx_uid != ::geteuid())) {
    return CacheStay::unreadable;
  }
  return std::nullopt;
}

PatternPath::PatternPath(const CachePatterns& patterns) : patterns_(patterns), states_(patterns.size()) {
  patterns_.begin(states_.data());
}

PatternPath::PatternPath(const CachePatterns& patterns, const CachePatterns::State* states)
    : patterns_(patterns), states_(states, states + patterns.size()) {}

void PatternPath::enter(const char* name) {
  states_.resize(states_.size() + patterns_.size());
  CachePatterns::State* const to = states_.data() + (states_.size() - patterns_.size());
  patterns_.enter(to - patterns_.size(), name, to);
}

CacheWalk::CacheWalk(const CacheSetup& setup, CacheAccount& account, const CacheLocks& locks, OpenFiles* open,
                     std::int64_t newest)
    : setup_(setup),
      account_(account),
      locks_(locks),
      open_(open),
      newest_(newest),
      include_(setup.include),
      exclude_(setup.exclude) {}

bool CacheWalk::run() {
  const CachePlace root = placeOf(setup_.root.get(), setup_.rules.tagged_only);
  levels_.push_back({0, root});
  if (root.pinned) {
    stay(CacheStay::pinned);
    return true;
  }
  // One thread at a time looks up open files.
  const auto threads = open_ == nullptr ? FolderWalk::Threads::two : FolderWalk::Threads::one;
  return FolderWalk(*this, threads, !setup_.isUnits()).run(setup_.root.get());
}

void CacheWalk::file(int directory, const char* name, const struct statx& status) {
  if (setup_.isUnits()) return;
  if (!included(name) || locks_.have(deviceOf(status), status.stx_ino))
    return stay(CacheStay::excluded, bytesOf(status));
  if (isOpen(status)) return stay(CacheStay::open, bytesOf(status));
  const auto obstacle = obstacleTo(setup_, levels_.back().place, status);
  if (ageOf(status).seconds > newest_) {
    stay(CacheStay::tooYoung, bytesOf(status));
    if (!obstacle) foundYoung(status);
  } else if (obstacle) {
    stay(*obstacle, bytesOf(status));
  } else {
    found(directory, name, status);
  }
}

void CacheWalk::other(int /*directory*/, const char* name) {
  if (!setup_.isUnits()) stay(included(name) ? CacheStay::foreign : CacheStay::excluded);
}

bool CacheWalk::included(const char* name) const {
  if (setup_.rules.tagged_only && (!levels_.back().place.tagged || std::strcmp(name, tag) == 0)) return false;
  return (setup_.include.size() == 0 || setup_.include.match(include_.here(), name)) &&
         !setup_.exclude.match(exclude_.here(), name);
}

bool CacheWalk::isOpen(const struct statx& status) {
  if (open_ == nullptr) return false;
  open_->refreshWhenOld();
  return open_->have(deviceOf(status), status.stx_ino);
}

bool CacheWalk::isLeftover(const std::string& name) const {
  return setup_.isUnits() && isLeftoverName(name) && setup_.include.canMatchHere(include_.here());
}

bool CacheWalk::wants(const std::string& name) {
  if (levels_.size() >= deepest) {
    failed(ENAMETOOLONG);
    return false;
  }
  if (setup_.exclude.match(exclude_.here(), name.c_str())) {
    stay(CacheStay::excluded);
    return false;
  }
  if (setup_.include.size() == 0 || isLeftover(name)) return true;
  include_.enter(name.c_str());
  const bool wanted = setup_.include.canMatchBelow(include_.here()) ||
                      (setup_.isUnits() && setup_.include.match(include_.here()));
  include_.leave();
  if (!wanted) stay(CacheStay::excluded);
  return wanted;
}

bool CacheWalk::entered(int parent, int directory, const std::string& name) {
  const bool above = levels_.back().place.tagged;
  CachePlace place = placeOf(directory, setup_.rules.tagged_only && !above);
  place.tagged = place.tagged || above;
  if (place.pinned) {
    stay(CacheStay::pinned);
    return false;
  }
  const std::size_t path_bytes = path_.size();
  path_ += name;
  if (!walksOn(parent, directory, name, place)) {
    path_.resize(path_bytes);
    return false;
  }
  path_ += '/';
  include_.enter(name.c_str());
  exclude_.enter(name.c_str());
  levels_.push_back({path_bytes, place});
  return true;
}

bool CacheWalk::walksOn(int parent, int directory, const std::string& name, const CachePlace& place) {
  const bool leftover = isLeftover(name);
  if (!leftover) {
    if (!setup_.isUnits() || (setup_.rules.tagged_only && !place.tagged)) return true;
    if (!setup_.include.match(include_.here(), name.c_str())) return true;
  }
  exclude_.enter(name.c_str());
  foundUnit({parent, directory, name, path_, levels_.back().place, leftover, exclude_.here()});
  exclude_.leave();
  return false;
}

void CacheWalk::left(int /*parent*/, const std::string& /*name*/) {
  path_.resize(levels_.back().path_bytes);
  levels_.pop_back();
  include_.leave();
  exclude_.leave();
}

void CacheWalk::notEntered(const std::string& name, int error) {
  if (error == EXDEV) return stay(CacheStay::foreign);
  Visitor::notEntered(name, error);
}

void CacheWalk::failed(int error) {
  stay(CacheStay::unreadable);
  account_.failed(error);
}

std::string CacheWalk::pathOf(const char* name) const { return path_ + name; }

}  // namespace kelvane::client
