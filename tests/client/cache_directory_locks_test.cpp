// Locks of programs that are using a cache, and files that they have open.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/foundation/file_descriptor.h"
#include "tests/client/cache_tree.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;
using client::CacheLock;
using client::CacheStay;
using testing::ElementsAre;

/// Another process that holds a lock or a file until this object is destroyed.
class Holder {
 public:
  explicit Holder(const std::function<bool()>& hold) {
    int ready[2];
    EXPECT_EQ(::pipe(ready), 0);
    process_ = ::fork();
    if (process_ == 0) {
      const char answer = hold() ? 'y' : 'n';
      static_cast<void>(::write(ready[1], &answer, 1));
      while (true) ::pause();
    }
    char answer = 'n';
    EXPECT_EQ(::read(ready[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    ::close(ready[0]);
    ::close(ready[1]);
  }
  ~Holder() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

 private:
  pid_t process_ = -1;
};

int openFile(const std::string& path) { return ::open(path.c_str(), O_RDWR); }

bool canFlock(const std::string& path) {
  const FileDescriptor file(openFile(path));
  return ::flock(file.get(), LOCK_EX | LOCK_NB) == 0;
}

bool flockIt(const std::string& path, int how) { return ::flock(openFile(path), how | LOCK_NB) == 0; }

bool recordLockIt(const std::string& path) {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  return ::fcntl(openFile(path), F_SETLK, &whole) == 0;
}

class ALockedCache : public testing::Test {
 protected:
  ALockedCache() {
    cache_.add("old");
    cache_.directory().write("lock", "");
  }
  [[nodiscard]] std::uint64_t goes(CacheLock::Kind kind, const std::string& path = "../lock") const {
    auto rules = rulesOfDays({-1, -1, -1, 0});
    rules.locks = {{kind, path}};
    const auto survey = cache_.survey(rules);
    EXPECT_EQ(stays(survey, CacheStay::locked).items, survey.at_urgency[3].items == 0 ? 1U : 0U);
    EXPECT_EQ(cache_.list(rules).size(), survey.at_urgency[3].items);
    return survey.at_urgency[3].items;
  }

  const CacheTree cache_;
};

TEST_F(ALockedCache, StaysWhileAnotherProcessHasTheFlock) {
  EXPECT_EQ(goes(CacheLock::Kind::flock), 1U);
  for (const int how : {LOCK_SH, LOCK_EX}) {
    const Holder holder([&] { return flockIt(cache_.outside("lock"), how); });
    EXPECT_EQ(goes(CacheLock::Kind::flock), 0U);
    EXPECT_EQ(goes(CacheLock::Kind::flock, cache_.outside("lock")), 0U) << "an absolute path";
    EXPECT_EQ(goes(CacheLock::Kind::record), 1U) << "another kind of lock";
  }
  EXPECT_EQ(goes(CacheLock::Kind::flock), 1U);
}

TEST_F(ALockedCache, StaysWhileAnotherProcessHasTheRecordLock) {
  const Holder holder([&] { return recordLockIt(cache_.outside("lock")); });
  EXPECT_EQ(goes(CacheLock::Kind::record), 0U);
  EXPECT_EQ(goes(CacheLock::Kind::flock), 1U) << "another kind of lock";
}

TEST_F(ALockedCache, StaysWhileTheFileOfThatNameIsThere) {
  EXPECT_EQ(goes(CacheLock::Kind::exists), 0U);
  fs::remove(cache_.outside("lock"));
  EXPECT_EQ(goes(CacheLock::Kind::exists), 1U);
  fs::create_symlink("nowhere", cache_.outside("lock"));
  EXPECT_EQ(goes(CacheLock::Kind::exists), 0U) << "a link is a file, wherever it leads";
}

TEST_F(ALockedCache, GoesWhereThereIsNoLockFileAndNoneIsMade) {
  for (const auto kind : {CacheLock::Kind::flock, CacheLock::Kind::record, CacheLock::Kind::exists})
    EXPECT_EQ(goes(kind, "none/here"), 1U);
  EXPECT_FALSE(cache_.exists("none"));
}

TEST_F(ALockedCache, StaysWhereTheLockIsALinkOrNotAFile) {
  fs::rename(cache_.outside("lock"), cache_.outside("real"));
  fs::create_symlink("real", cache_.outside("lock"));
  EXPECT_EQ(goes(CacheLock::Kind::flock), 0U);
  fs::remove(cache_.outside("lock"));
  ASSERT_EQ(::mkfifo(cache_.outside("lock").c_str(), 0600), 0);
  EXPECT_EQ(goes(CacheLock::Kind::record), 0U);
}

TEST_F(ALockedCache, KeepsItsLockFileAndHoldsTheLockWhileItIsPurged) {
  cache_.add("sub/lock");
  auto rules = rulesOfDays({-1, -1, -1, 0});
  rules.locks = {{CacheLock::Kind::flock, "sub/lock"}};
  bool locked = false;
  const auto listed = cache_.open(rules)->list(4, all_ages, everything, cache_.limits(), [&](const auto&) {
    locked = !canFlock(cache_.path("sub/lock"));
    return true;
  });
  EXPECT_EQ(listed.items, 1U);
  EXPECT_TRUE(locked);
  EXPECT_TRUE(canFlock(cache_.path("sub/lock"))) << "it is given back";
  EXPECT_EQ(cache_.purge(rules).end, client::CachePurge::End::nothingLeft);
  EXPECT_THAT(cache_.files(), ElementsAre("sub/lock"));
}

TEST(ACacheWhoseOpenFilesStay, KeepsWhatAProcessHasOpenOrMapped) {
  const CacheTree cache;
  for (const char* name : {"closed", "mapped", "open"}) cache.add(name);
  auto rules = rulesOfDays({-1, -1, -1, 0});
  rules.open_files_stay = true;
  const Holder holder([&] {
    if (::open(cache.path("open").c_str(), O_RDONLY) < 0) return false;
    const FileDescriptor mapped(::open(cache.path("mapped").c_str(), O_RDONLY));
    return ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, mapped.get(), 0) != MAP_FAILED;
  });
  EXPECT_THAT(cache.list(rules), ElementsAre("closed"));
  EXPECT_EQ(stays(cache.survey(rules), CacheStay::open).items, 2U);
  EXPECT_EQ(cache.purge(rules).files, 1U);
  EXPECT_THAT(cache.files(), ElementsAre("mapped", "open"));
}

}  // namespace
}  // namespace kelvane::tests
