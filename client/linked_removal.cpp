#include "client/linked_removal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <mutex>
#include <string>
#include <vector>

#include "client/cache_walk.h"

namespace kelvane::client {
namespace {

constexpr std::size_t most_name_bytes = std::size_t{2} << 20;
constexpr std::size_t longest_path = 4000;  // below PATH_MAX

// Values of LinkedFile::here in this file.
constexpr std::uint32_t untouched = 0;
constexpr std::uint32_t collected = 1;
constexpr std::uint32_t settled = 2;

struct Name {
  LinkedFile* file;
  std::string path;
};

/// Reports nothing, because the walk before has reported what stays.
class Silent final : public CacheAccount {
 public:
  explicit Silent(CacheProgress& progress) : progress_(progress) {}
  [[nodiscard]] bool done() override { return progress_.done(); }
  void stay(CacheStay /*reason*/, std::uint64_t /*bytes*/, std::uint64_t /*items*/) override {}
  void failed(int /*error*/) override {}

 private:
  CacheProgress& progress_;
};

class NamesWalk final : public CacheWalk {
 public:
  NamesWalk(const LinkedRemovalParts& parts, Silent& silent, HardLinks& links)
      : CacheWalk(parts.setup, silent, parts.locks, parts.open, parts.terms.newest), links_(links) {}

  std::vector<Name> names;

 private:
  void found(int /*directory*/, const char* name, const struct statx& status) override {
    const std::lock_guard lock(mutex_);
    if (status.stx_nlink < 2) return;
    LinkedFile* const file = links_.known(deviceOf(status), status.stx_ino);
    if (file == nullptr || !file->closed() || file->here == settled) return;
    std::string path = pathOf(name);
    const std::size_t bytes = path.size() + sizeof(Name);
    if (file->here == untouched && !begins(bytes * file->names)) return;
    if (path.size() > longest_path || bytes_ + bytes > 2 * most_name_bytes) {
      file->here = settled;  // stays
      return;
    }
    file->here = collected;
    bytes_ += bytes;
    names.push_back({file, std::move(path)});
  }
  /// Whether all names of a file fit, if they are as long as the first.
  bool begins(std::size_t bytes) {
    if (expected_ > 0 && expected_ + bytes > most_name_bytes) return false;
    expected_ += bytes;
    return true;
  }

  HardLinks& links_;
  std::mutex mutex_;
  std::size_t expected_ = 0;
  std::size_t bytes_ = 0;
};

class LinkedRemoval {
 public:
  LinkedRemoval(const LinkedRemovalParts& parts, HardLinks& links) : parts_(parts), links_(links) {}

  void run() {
    bool any = false;
    for (LinkedFile& file : links_.files()) any = settleAtOnce(file) || any;
    while (any && !parts_.progress.done()) any = removeSome();
  }

 private:
  using Names = std::vector<Name>::const_iterator;

  /// Whether it is to go.
  bool settleAtOnce(LinkedFile& file) const {
    if (file.closed() && !parts_.terms.floor.keeps(file.newest)) return true;
    file.here = settled;
    parts_.progress.stay(file.closed() ? CacheStay::floor : CacheStay::linkedElsewhere, file.bytes,
                         file.seen);
    return false;
  }
  bool removeSome() {
    Silent silent(parts_.progress);
    NamesWalk walk(parts_, silent, links_);
    if (!walk.run()) {
      parts_.progress.fail(errno);
      return false;
    }
    std::vector<Name>& names = walk.names;
    std::sort(names.begin(), names.end(), [](const Name& a, const Name& b) {
      return std::tie(a.file->device, a.file->number) < std::tie(b.file->device, b.file->number);
    });
    for (auto first = names.cbegin(); first != names.cend() && !parts_.progress.done();) {
      const auto last =
          std::find_if(first, names.cend(), [&](const Name& name) { return name.file != first->file; });
      remove(first, last);
      first = last;
    }
    return !names.empty();
  }
  void remove(Names first, Names last) {
    LinkedFile& file = *first->file;
    const bool whole = file.here == collected && last - first == static_cast<std::ptrdiff_t>(file.names);
    file.here = settled;
    const auto isThere = [&](const Name& name) { return isSame(name); };
    if (!whole || !std::all_of(first, last, isThere))
      return parts_.progress.stay(CacheStay::linkedElsewhere, file.bytes, file.seen);
    if (!parts_.progress.begin(file.bytes)) return;
    FileDeletion sum;
    for (auto name = first; name != last && sum.error == 0; ++name) {
      const FileDeletion gone = parts_.sink == nullptr ? deleteName(*name) : tell(*name, name + 1 == last);
      parts_.progress.end(name + 1 == last ? file.bytes : 0, gone, 1);
      sum.error = gone.error;
      if (gone.error != 0 && name + 1 != last) parts_.progress.end(file.bytes, {}, 0);
    }
  }
  [[nodiscard]] FileDescriptor directoryOf(const Name& name) const {
    const std::size_t slash = name.path.rfind('/');
    return openBelow(parts_.setup.root.get(),
                     slash == std::string::npos ? "." : name.path.substr(0, slash).c_str());
  }
  static const char* lastOf(const Name& name) {
    return name.path.c_str() + (name.path.rfind('/') + 1);  // npos + 1 is 0
  }
  [[nodiscard]] bool isSame(const Name& name) const {
    const FileDescriptor directory = directoryOf(name);
    struct statx now {};
    return directory &&
           ::statx(directory.get(), lastOf(name), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &now) == 0 &&
           S_ISREG(now.stx_mode) && now.stx_ino == name.file->number && deviceOf(now) == name.file->device &&
           now.stx_nlink == name.file->names && ageOf(now).seconds <= parts_.terms.newest;
  }
  /// Does not check the age, because deleting the other names has changed the file's status.
  [[nodiscard]] FileDeletion deleteName(const Name& name) const {
    const FileDescriptor directory = directoryOf(name);
    struct statx now {};
    if (!directory ||
        ::statx(directory.get(), lastOf(name), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &now) != 0 ||
        now.stx_ino != name.file->number || deviceOf(now) != name.file->device) {
      return {false, 0, 0, 0, ESTALE};
    }
    return deleteFileAsking(directory.get(), lastOf(name), now.stx_nlink == 1 ? name.file->bytes : 0,
                            parts_.setup.extents);
  }
  [[nodiscard]] FileDeletion tell(const Name& name, bool last) const {
    const std::uint64_t bytes = last ? name.file->bytes : 0;
    if (!(*parts_.sink)({name.path, bytes, name.file->newest.seconds})) parts_.progress.cancel();
    return {true, bytes, 0, 0, 0};
  }

  const LinkedRemovalParts& parts_;
  HardLinks& links_;
};

}  // namespace

void removeLinked(const LinkedRemovalParts& parts, HardLinks& links) { LinkedRemoval(parts, links).run(); }

}  // namespace kelvane::client
