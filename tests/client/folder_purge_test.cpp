// Purging real folders, in a mount namespace of this program's own.

#include "kelvane/folder_purge.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <array>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>

#include "platform/foundation/file_descriptor.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/ordinary_rights.h"
#include "tests/support/private_mounts.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;
using client::Cancellation;
using client::FolderPurge;
using client::FolderPurgeOptions;
using client::PurgeEnd;
using client::purgeFolder;
using client::PurgeOrder;

const bool private_mounts = enterPrivateMounts();

constexpr std::size_t small = 8 << 10;
constexpr std::size_t large = 1 << 20;

class Folder {
 protected:
  Folder() { fs::create_directory(folder()); }

  [[nodiscard]] std::string folder() const { return directory_ / "cache"; }
  [[nodiscard]] std::string path(const std::string& name) const { return folder() + "/" + name; }
  [[nodiscard]] bool exists(const std::string& name) const {
    return fs::exists(fs::symlink_status(path(name)));
  }
  /// Last modified at that second; returns the bytes that it takes.
  std::uint64_t add(const std::string& name, std::size_t bytes = small, std::int64_t modified = 100) const {
    directory_.write("cache/" + name, std::string(bytes, 'x'));
    const timespec times[] = {{modified, 0}, {modified, 0}};
    EXPECT_EQ(::utimensat(AT_FDCWD, path(name).c_str(), times, 0), 0);
    struct stat status {};
    EXPECT_EQ(::stat(path(name).c_str(), &status), 0);
    EXPECT_GT(status.st_blocks, 0);
    return static_cast<std::uint64_t>(status.st_blocks) * 512;
  }

  const test::TemporaryDirectory directory_;
  const std::shared_ptr<std::atomic<bool>> cancelled_ = std::make_shared<std::atomic<bool>>(false);
};

class AFolder : public Folder, public testing::TestWithParam<PurgeOrder> {
 protected:
  [[nodiscard]] FolderPurge purge(FolderPurgeOptions options = {}) const {
    options.order = GetParam();
    return purgeFolder(folder(), options, Cancellation(cancelled_));
  }
  [[nodiscard]] std::uint64_t purgeable(const FolderPurgeOptions& options = {}) const {
    const FileDescriptor opened(::open(folder().c_str(), O_PATH | O_CLOEXEC));
    return client::purgeableBytes(opened.get(), options, Cancellation(cancelled_));
  }
};
INSTANTIATE_TEST_SUITE_P(, AFolder, testing::Values(PurgeOrder::asFound, PurgeOrder::oldestFirst),
                         [](const auto& order) {
                           return order.param == PurgeOrder::asFound ? "AsFound" : "OldestFirst";
                         });

TEST_P(AFolder, GivesUpAllItsFilesAndKeepsItsFolders) {
  const std::uint64_t bytes = add("a") + add("sub/b", large) + add("sub/deeper/c");
  const FolderPurge purged = purge();
  EXPECT_EQ(purged.end, PurgeEnd::nothingLeft);
  EXPECT_EQ(purged.freed, bytes);
  EXPECT_EQ(purged.held, 0U);
  EXPECT_EQ(purged.files, 3U);
  EXPECT_EQ(purged.failures, 0U);
  EXPECT_FALSE(exists("a") || exists("sub/b") || exists("sub/deeper/c"));
  EXPECT_TRUE(exists("sub/deeper"));
}

TEST_P(AFolder, GivesUpItsFoldersAsWellWhenToldButNotThoseInWhichSomethingStays) {
  add("empty/deeper/a");
  add("full/young", small, 300);
  fs::create_directory(path("bare"));
  const FolderPurge purged = purge({.modified_by = 200, .empty_folders = true});
  EXPECT_EQ(purged.folders, 3U);
  EXPECT_EQ(purged.failures, 0U);
  EXPECT_FALSE(exists("empty") || exists("bare"));
  EXPECT_TRUE(exists("full/young"));
  EXPECT_EQ(purge({.empty_folders = true}).folders, 1U);
  EXPECT_TRUE(fs::is_empty(folder()));
}

TEST_P(AFolder, StopsWithTheFileThatBringsTheAmount) {
  const std::uint64_t each = add("0");
  for (int file = 1; file < 5; ++file) add(std::to_string(file));
  const FolderPurge purged = purge({.amount = each + 1});
  EXPECT_EQ(purged.end, PurgeEnd::amountFreed);
  EXPECT_EQ(purged.freed, 2 * each);
  EXPECT_EQ(purged.files, 2U);
  EXPECT_EQ(purge({.amount = 0}).files, 0U);
}

TEST_P(AFolder, KeepsWhatIsTooYoung) {
  const std::uint64_t bytes = add("old", small, 100) + add("at the edge", small, 200);
  add("young", small, 201);
  EXPECT_EQ(purgeable({.modified_by = 200}), bytes);
  EXPECT_EQ(purge({.modified_by = 200}).freed, bytes);
  EXPECT_TRUE(exists("young"));
}

TEST_P(AFolder, DeletesNothingWhenCancelledBefore) {
  add("a");
  *cancelled_ = true;
  const FolderPurge purged = purge();
  EXPECT_EQ(purged.end, PurgeEnd::cancelled);
  EXPECT_TRUE(exists("a"));
}

TEST_P(AFolder, IsNotCountedAnyFurtherOnceThatIsCancelled) {
  const std::uint64_t bytes = add("a") + add("sub/b");
  EXPECT_EQ(purgeable(), bytes);
  *cancelled_ = true;
  EXPECT_EQ(purgeable(), 0U);
}

TEST_P(AFolder, OfManyFilesGivesUpNotOneMoreThanTheAmountNeeds) {
  constexpr std::uint64_t files = 600;
  std::uint64_t each = 0;
  for (std::uint64_t file = 0; file < files; ++file) each = add(std::to_string(file));
  std::uint64_t left = files;
  for (const std::uint64_t more : {1, 2, 17, 129, 300}) {
    const FolderPurge purged = purge({.amount = (more - 1) * each + 1});
    EXPECT_EQ(purged.end, PurgeEnd::amountFreed);
    EXPECT_EQ(purged.freed, more * each);
    EXPECT_EQ(purged.files, more);
    left -= more;
    EXPECT_EQ(purgeable(), left * each);
  }
  EXPECT_EQ(purge().files, left);
}

TEST_P(AFolder, OfManyFilesCountsEachOnceWhenItsLastNameGoes) {
  constexpr int files = 300;
  std::uint64_t bytes = 0;
  for (int file = 0; file < files; ++file) {
    const std::string name = std::to_string(file);
    bytes += add(name);
    fs::create_hard_link(path(name), path("other" + name));
  }
  const FolderPurge purged = purge({.linked_files = true});
  EXPECT_EQ(purged.files, 2U * files);
  EXPECT_EQ(purged.freed, bytes);
}

TEST_P(AFolder, StopsWhenAnotherThreadCancelsMidway) {
  FolderPurge purged;
  // Whoever cancels may come too late, but not every time.
  for (int attempt = 0; attempt < 100 && purged.end != PurgeEnd::cancelled; ++attempt) {
    *cancelled_ = false;
    for (int file = 0; file < 2000; ++file) directory_.write("cache/" + std::to_string(file), "x");
    const FileDescriptor watch(::inotify_init1(IN_CLOEXEC));
    ::inotify_add_watch(watch.get(), folder().c_str(), IN_DELETE);
    std::thread purging([&] { purged = purge(); });
    std::array<char, 65536> events;
    EXPECT_GT(::read(watch.get(), events.data(), events.size()), 0);
    *cancelled_ = true;
    purging.join();
  }
  EXPECT_EQ(purged.end, PurgeEnd::cancelled);
  EXPECT_GT(purged.files, 0U);
  const auto left = std::distance(fs::directory_iterator(folder()), fs::directory_iterator());
  EXPECT_EQ(static_cast<std::uint64_t>(left) + purged.files, 2000U);
}

TEST_P(AFolder, CountsTheBytesThatASparseFileHas) {
  const std::uint64_t bytes = add("sparse");
  fs::resize_file(path("sparse"), std::uintmax_t{1} << 30);
  const FolderPurge purged = purge();
  EXPECT_GE(purged.freed, bytes);
  EXPECT_LE(purged.freed, bytes + 4096);
}

TEST_P(AFolder, LeavesAFileWithASecondNameAloneUnlessTold) {
  const std::uint64_t bytes = add("one");
  fs::create_hard_link(path("one"), path("two"));
  add("elsewhere's");
  fs::create_hard_link(path("elsewhere's"), directory_ / "elsewhere");
  EXPECT_EQ(purge().files, 0U);
  const FolderPurge purged = purge({.linked_files = true});
  EXPECT_EQ(purged.files, 3U);
  EXPECT_EQ(purged.freed, bytes) << "counted with the last name";
  EXPECT_TRUE(fs::exists(directory_ / "elsewhere"));
}

TEST_P(AFolder, LeavesWhatIsNoFile) {
  directory_.write("outside/file", "kept");
  fs::create_symlink(directory_ / "outside/file", path("to a file"));
  fs::create_directory_symlink(directory_ / "outside", path("to a folder"));
  fs::create_symlink("nowhere", path("to nowhere"));
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  const FolderPurge purged = purge({.empty_folders = true});
  EXPECT_EQ(purged.files + purged.folders + purged.failures, 0U);
  for (const char* name : {"to a file", "to a folder", "to nowhere", "pipe"})
    EXPECT_TRUE(exists(name)) << name;
  EXPECT_TRUE(fs::exists(directory_ / "outside/file"));
}

TEST_P(AFolder, GivesUpFilesOfAnyName) {
  for (const char* name : {"new\nline", "-rf", "...", " ", "*", "\xff\xfe", "a\\b"}) add(name);
  add(std::string(255, 'n') + "/" + std::string(255, 'm'));
  EXPECT_EQ(purge().files, 8U);
}

TEST_P(AFolder, IsNotLeftWhenAFolderIsSwappedForALinkTimeAndAgain) {
  for (int file = 0; file < 50; ++file) directory_.write("outside/" + std::to_string(file), "kept");
  fs::create_directory_symlink(directory_ / "outside", path("link"));
  fs::create_directory(path("folder"));
  const FileDescriptor swapped(::open(path("folder").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::mkdirat(swapped.get(), "deeper", 0700), 0);
  std::atomic<bool> over = false;
  std::uint64_t swaps = 0;
  std::thread swapping([&] {
    for (; !over; ++swaps) {
      ::syscall(SYS_renameat2, AT_FDCWD, path("link").c_str(), AT_FDCWD, path("folder").c_str(),
                2 /*exchange*/);
    }
  });
  for (int round = 0; round < 300; ++round) {
    for (const char* name : {"file", "deeper/file"})
      const FileDescriptor file(::openat(swapped.get(), name, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_NE(purge().end, PurgeEnd::failed);
  }
  over = true;
  swapping.join();
  EXPECT_GT(swaps, 0U);
  for (int file = 0; file < 50; ++file)
    ASSERT_TRUE(fs::exists(directory_ / "outside/" + std::to_string(file)));
}

TEST_P(AFolder, ToleratesThatFilesVanishMidway) {
  for (int file = 0; file < 2000; ++file) directory_.write("cache/" + std::to_string(file), "x");
  FolderPurge other;
  std::thread others([&] { other = purge(); });
  const FolderPurge purged = purge();
  others.join();
  EXPECT_EQ(purged.files + other.files, 2000U);
  EXPECT_EQ(purged.failures + other.failures, 0U);
  EXPECT_TRUE(fs::is_empty(folder()));
}

TEST_P(AFolder, MayBeTenThousandFoldersDeep) {
  ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
  const PrivateMount volume = PrivateMount::tmpfs(folder(), "64m");
  constexpr int depth = 10'000;
  FileDescriptor at(::open(folder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int level = 1; level <= depth; ++level) {
    ASSERT_EQ(::mkdirat(at.get(), "d", 0700), 0);
    at = FileDescriptor(::openat(at.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (level % 1000 == 0)
      const FileDescriptor file(::openat(at.get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  }
  at.reset();
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  const rlimit few{128, before.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &few);
  const FolderPurge purged = purge({.empty_folders = true});
  ::setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(purged.end, PurgeEnd::nothingLeft);
  EXPECT_EQ(purged.files, 10U);
  EXPECT_EQ(purged.folders, static_cast<std::uint64_t>(depth));
  EXPECT_EQ(purged.error, 0) << std::strerror(purged.error);
  EXPECT_TRUE(fs::is_empty(folder()));
}

TEST_P(AFolder, MayHaveMoreFoldersThanNamesAreKept) {
  ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
  const PrivateMount volume = PrivateMount::tmpfs(folder(), "64m");
  constexpr int folders = 10'000;  // their names take twice the memory limit
  for (int number = 0; number < folders; ++number) {
    const std::string name = path(std::to_string(number) + std::string(200, 'n'));
    ASSERT_EQ(::mkdir(name.c_str(), 0700), 0);
    if (number % 10 == 0)
      const FileDescriptor file(::open((name + "/file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  }
  const FolderPurge purged = purge({.empty_folders = true});
  EXPECT_EQ(purged.files, folders / 10U);
  EXPECT_EQ(purged.folders, static_cast<std::uint64_t>(folders));
  EXPECT_TRUE(fs::is_empty(folder()));
}

TEST_P(AFolder, PassesOverWhatCannotBeReadOrDeletedAndSaysWhy) {
  const std::uint64_t bytes = add("open/a");
  add("unreadable/b");
  add("unchangeable/c");
  fs::permissions(path("unreadable"), fs::perms::none);
  fs::permissions(path("unchangeable"), fs::perms::owner_read | fs::perms::owner_exec);
  {
    const OrdinaryRights rights;
    const FolderPurge purged = purge();
    EXPECT_EQ(purged.end, PurgeEnd::nothingLeft);
    EXPECT_EQ(purged.freed, bytes);
    EXPECT_EQ(purged.failures, 2U);
    EXPECT_EQ(purged.error, EACCES);
  }
  fs::permissions(path("unreadable"), fs::perms::owner_all);
  fs::permissions(path("unchangeable"), fs::perms::owner_all);
  EXPECT_EQ(purge().files, 2U);
}

TEST_P(AFolder, ThatIsNotThereSaysSo) {
  fs::remove(folder());
  const FolderPurge purged = purge();
  EXPECT_EQ(purged.end, PurgeEnd::failed);
  EXPECT_EQ(purged.error, ENOENT);
}

TEST_P(AFolder, EntersNoMountNotEvenOneOfItsOwnFileSystem) {
  ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
  for (const char* name : {"tmpfs", "bound"}) fs::create_directory(path(name));
  directory_.write("outside/file", "kept");
  const PrivateMount other = PrivateMount::tmpfs(path("tmpfs"), "1m");
  const PrivateMount bound("none", directory_ / "outside", path("bound"), MS_BIND);
  add("tmpfs/file");
  const std::uint64_t bytes = add("own");
  const FolderPurge purged = purge();
  EXPECT_EQ(purged.freed, bytes);
  EXPECT_EQ(purged.failures, 0U);
  EXPECT_TRUE(exists("tmpfs/file"));
  EXPECT_TRUE(fs::exists(directory_ / "outside/file"));
}

std::uint64_t freeBytes(const std::string& path) {
  struct statvfs status {};
  EXPECT_EQ(::statvfs(path.c_str(), &status), 0);
  return status.f_bfree * status.f_frsize;
}

TEST_P(AFolder, SaysWhatItsVolumeSaysHasBecomeFreeAndWhatWillWhenFilesAreLetGo) {
  ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
  const PrivateMount volume = PrivateMount::tmpfs(folder(), "64m");
  add("small");
  add("large", large);
  add("sub/held", 2 * large);
  fs::resize_file(path("large"), 10 * large);
  FileDescriptor holding(::open(path("sub/held").c_str(), O_RDONLY | O_CLOEXEC));
  const std::uint64_t before = freeBytes(folder());
  const FolderPurge purged = purge();
  EXPECT_EQ(purged.files, 3U);
  EXPECT_EQ(purged.held, 2 * large);
  EXPECT_EQ(freeBytes(folder()) - before, purged.freed);
  holding.reset();
  EXPECT_EQ(freeBytes(folder()) - before, purged.freed + purged.held);
}

TEST(AFolderOfWhichAllGoes, IsCountedByItsVolumeWhenThatIsAskedFor) {
  ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
  const test::TemporaryDirectory directory;
  const PrivateMount volume = PrivateMount::tmpfs(directory.path(), "64m");
  for (const char* name : {"a", "sub/b", "sub/c"}) directory.write(name, std::string(large, 'x'));
  fs::create_hard_link(directory / "a", directory / "sub/a");
  const FileDescriptor holding(::open((directory / "sub/c").c_str(), O_RDONLY | O_CLOEXEC));
  const FolderPurge purged = purgeFolder(directory.path(), {.linked_files = true, .counted_by_volume = true},
                                         Cancellation(std::make_shared<std::atomic<bool>>(false)));
  EXPECT_EQ(purged.files, 4U);
  EXPECT_EQ(purged.freed, 2 * large);
}

class FilesOfManyAges : public Folder, public testing::Test {};

TEST_F(FilesOfManyAges, GoOldestFirstThroughAllItsFolders) {
  const std::uint64_t bytes = add("sub/oldest", small, 100) + add("older", large, 200);
  add("deeper/sub/young", small, 400);
  add("old", small, 300);
  const FolderPurge purged =
      purgeFolder(folder(), {.amount = bytes, .order = PurgeOrder::oldestFirst}, Cancellation(cancelled_));
  EXPECT_EQ(purged.freed, bytes);
  EXPECT_FALSE(exists("sub/oldest") || exists("older"));
  EXPECT_TRUE(exists("old") && exists("deeper/sub/young"));
}

}  // namespace
}  // namespace kelvane::tests
