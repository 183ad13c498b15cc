#include "tests/caches/machine.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "client/cache_clock.h"

namespace kelvane::caches::tests {
namespace {

namespace fs = std::filesystem;

std::string contents(const fs::path& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

std::string describe(const fs::path& path) {
  struct stat status {};
  ::lstat(path.c_str(), &status);
  std::string content;
  if (S_ISREG(status.st_mode)) content = contents(path);
  if (S_ISLNK(status.st_mode)) content = fs::read_symlink(path);
  return fmt::format("{:o} {} {} {} {} {}.{} {}", status.st_mode, status.st_uid, status.st_gid,
                     status.st_size, status.st_ino, status.st_mtim.tv_sec, status.st_mtim.tv_nsec, content);
}

}  // namespace

client::CacheRules usualRules() {
  client::CacheRules rules;
  rules.ages[1] = std::chrono::seconds(30 * day);
  rules.ages[2] = std::chrono::seconds(7 * day);
  rules.ages[3] = std::chrono::seconds(hour);
  return rules;
}

Definition pip() {
  Definition definition;
  definition.name = "pip";
  definition.roots = {"${XDG_CACHE_HOME}/pip"};
  definition.rules = usualRules();
  return definition;
}

std::map<std::string, std::string> describeTree(const std::string& path) {
  std::map<std::string, std::string> tree;
  tree[path] = describe(path);
  for (const auto& entry : fs::recursive_directory_iterator(path))
    tree[entry.path()] = describe(entry.path());
  return tree;
}

client::CacheLimits limits(std::chrono::milliseconds time) {
  return {client::Cancellation(std::make_shared<std::atomic<bool>>(false)),
          std::chrono::steady_clock::now() + time};
}

void makeFile(const std::string& path, std::size_t bytes, std::time_t age) {
  std::ofstream(path) << std::string(bytes, 'x');
  const std::time_t then = client::cacheTime() - age;
  const timespec times[] = {{then, 0}, {then, 0}};
  ::utimensat(AT_FDCWD, path.c_str(), times, 0);
}

Machine::Machine()
    : mount_(kelvane::tests::PrivateMount::tmpfs(directory_.path(), "256m")),
      passwd_("root:x:0:0:root:/root:/bin/sh\nman:x:6:12:man:/var/cache/man:/usr/sbin/nologin\n") {
  ::chmod(directory_.path().c_str(), 0755);
  fs::create_directories(directory_ / "home");
}

void Machine::SetUp() {
  if (::geteuid() != 0) FAIL() << "needs root to be several users";
}

std::string Machine::home(uid_t user) const { return directory_ / fmt::format("home/{}", user); }

void Machine::addUser(uid_t user, const std::string& home_directory) {
  const std::string where = home_directory.empty() ? home(user) : home_directory;
  passwd_ += fmt::format("u{}:x:{}:{}::{}:/bin/sh\n", user, user, user, where);
  if (!home_directory.empty()) return;
  fs::create_directories(where);
  ::chmod(where.c_str(), 0700);
  ::chown(where.c_str(), user, user);
}

void Machine::addFile(uid_t user, const std::string& path, std::size_t bytes, std::time_t age) const {
  fs::path made = home(user);
  for (const fs::path& name : fs::path(path).parent_path()) {
    made /= name;
    if (::mkdir(made.c_str(), 0700) == 0) ::chown(made.c_str(), user, user);
  }
  made /= fs::path(path).filename();
  makeFile(made, bytes, age);
  ::chown(made.c_str(), user, user);
}

void Machine::addText(uid_t user, const std::string& path, const std::string& text) const {
  addFile(user, path, 0, 0);
  std::ofstream(home(user) + "/" + path) << text;
}

bool Machine::has(uid_t user, const std::string& path) const { return fs::exists(home(user) + "/" + path); }

WorkerSettings Machine::settings() const {
  WorkerSettings result;
  result.passwd = directory_ / "passwd";
  return result;
}

void Machine::start(std::vector<Definition> definitions,
                    std::function<void(const Job& job, int socket)> before_work) {
  write(directory_ / "passwd", passwd_);
  WorkerSettings with = settings();
  with.before_work = std::move(before_work);
  workers_.reset();
  workers_ = startWorkers(std::move(definitions), std::move(with));
  ASSERT_TRUE(workers_);
}

std::vector<std::string> Machine::list(const std::string& holder, const std::string& on_volume, int urgency,
                                       std::uint64_t amount) {
  std::vector<std::string> paths;
  const HolderReport report = workers_->list(holder, on_volume, urgency, amount, limits(),
                                             [&](const RootReport& root, const client::CacheItem& item) {
                                               paths.push_back(root.path + "/" + item.path);
                                               return true;
                                             });
  EXPECT_TRUE(report.complete);
  std::sort(paths.begin(), paths.end());
  return paths;
}

std::vector<RootReport> Machine::of(uid_t user, const HolderReport& report) {
  std::vector<RootReport> roots;
  for (const RootReport& root : report.roots) {
    if (root.user == user) roots.push_back(root);
  }
  return roots;
}

std::string Machine::reasonOf(uid_t user, const HolderReport& report) {
  const std::vector<RootReport> roots = of(user, report);
  EXPECT_EQ(roots.size(), 1U);
  return roots.empty() ? "" : roots.front().reason;
}

}  // namespace kelvane::caches::tests
