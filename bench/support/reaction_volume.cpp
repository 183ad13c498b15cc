#include "bench/support/reaction_volume.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "bench/support/bare_fanout.h"

namespace kelvane::bench {
namespace {

constexpr std::uint64_t file_bytes = 1 << 20;
constexpr std::uint64_t second = 1'000'000'000;

void require(bool condition, const char* what) {
  if (condition) return;
  std::perror(what);
  std::exit(1);
}

void take(const std::string& path, std::uint64_t bytes) {
  const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  require(file && ::posix_fallocate(file.get(), 0, static_cast<off_t>(bytes)) == 0, "cannot fill the volume");
}

std::string mountPoint() {
  require(::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
          "a mount namespace of one's own is needed");
  std::string name = std::filesystem::temp_directory_path() / "kelvane-bench-volume-XXXXXX";
  require(::mkdtemp(name.data()) != nullptr, "cannot make a temporary directory");
  return name;
}

void sleepUntil(std::uint64_t nanoseconds) {
  const timespec until{static_cast<time_t>(nanoseconds / second), static_cast<long>(nanoseconds % second)};
  ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

}  // namespace

ReactionVolume::ReactionVolume(std::uint64_t bytes, std::size_t folders, std::uint64_t purgeable_bytes)
    : path_(mountPoint()), folders_(folders), files_(purgeable_bytes / folders / file_bytes) {
  const std::string options = fmt::format("size={}", bytes);
  require(::mount("kelvane-bench", path_.c_str(), "tmpfs", 0, options.c_str()) == 0, "cannot mount a volume");
  for (std::size_t i = 0; i < folders_; ++i) ::mkdir(folder(i).c_str(), 0755);
}

ReactionVolume::~ReactionVolume() {
  ::umount2(path_.c_str(), MNT_DETACH);
  ::rmdir(path_.c_str());
}

std::uint64_t ReactionVolume::freeSpace() const {
  struct statvfs space {};
  require(::statvfs(path_.c_str(), &space) == 0, "cannot ask the volume");
  return space.f_bavail * space.f_frsize;
}

void ReactionVolume::prepare(std::uint64_t free_bytes) {
  const std::string ballast = path_ + "/ballast";
  ::unlink(ballast.c_str());
  for (std::size_t i = 0; i < folders_; ++i) {
    for (std::uint64_t file = 0; file < files_; ++file) {
      const std::string path = folder(i) + "/" + std::to_string(file);
      if (::access(path.c_str(), F_OK) != 0) take(path, file_bytes);
    }
  }
  take(ballast, freeSpace() - free_bytes);
}

Writer::Writer(const ReactionVolume& volume, std::uint64_t bytes_per_second)
    : path_(volume.path() + "/growing"),
      file_(::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)),
      bytes_per_second_(bytes_per_second),
      block_(block_bytes, 'x'),
      began_at_(nanosecondsNow()) {}

Writer::~Writer() { ::unlink(path_.c_str()); }

bool Writer::writeBlock() {
  if (bytes_per_second_ != 0) {
    const double seconds = static_cast<double>(offered_) / static_cast<double>(bytes_per_second_);
    sleepUntil(began_at_ + static_cast<std::uint64_t>(seconds * 1e9));
  }
  offered_ += block_bytes;
  const ssize_t n = ::write(file_.get(), block_.data(), block_.size());
  if (n > 0) written_ += static_cast<std::uint64_t>(n);
  return n == static_cast<ssize_t>(block_bytes);
}

}  // namespace kelvane::bench
