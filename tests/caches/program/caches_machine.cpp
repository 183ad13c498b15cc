#include "tests/caches/program/caches_machine.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "tools/json.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;

void require(bool done, const std::string& what) {
  if (done) return;
  std::fprintf(stderr, "%s: %s\n", what.c_str(), std::strerror(errno));
  std::abort();
}

void giveToAlice(const std::string& path) {
  require(::lchown(path.c_str(), alice_id, alice_id) == 0, "cannot give " + path);
}

void makeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) == 0) giveToAlice(path);
}

const std::string preload = std::string("LD_PRELOAD=") + OLD_FILES_LIBRARY;

}  // namespace

std::string definitionText(const std::string& name, const std::string& urgencies, const std::string& more) {
  return "[holder]\nname = \"" + name + "\"\nsummary = \"what " + name +
         " keeps\"\nkind = \"files\"\nfor = \"user\"\nclass = \"regenerable\"\nroots = [\"~/.cache/" + name +
         "\"]\n" + more + "[urgency]\n" + urgencies + "\n";
}

CachesMachine::CachesMachine(unsigned megabytes) {
  const std::string options = "mode=755,nr_inodes=1m,size=" + std::to_string(megabytes) + "m";
  require(::mount("kelvane-test-homes", "/home", "tmpfs", 0, options.c_str()) == 0, "cannot mount /home");
  const std::string passwd = users_.path() + "/passwd";
  writeFile(passwd, "root:x:0:0:root:/root:/bin/sh\nalice:x:4242:4242::/home/alice:/bin/sh\n");
  require(::chmod(passwd.c_str(), 0644) == 0, "cannot open " + passwd);
  require(::mount(passwd.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0,
          "cannot replace /etc/passwd");
  for (const char* const part : {"", "/.cache", "/.config"}) makeDirectory(home() + part);
  require(::chmod(configuration_.path().c_str(), 0755) == 0, "cannot open the configuration");
  fs::create_directory(definitions());
}

CachesMachine::~CachesMachine() {
  ::umount2("/etc/passwd", MNT_DETACH);
  ::umount2("/home", MNT_DETACH);
}

void CachesMachine::define(const std::string& name, const std::string& urgencies,
                           const std::string& more) const {
  writeFile(definitions() + "/" + name + ".toml", definitionText(name, urgencies, more));
}

std::string CachesMachine::fill(const std::string& name, unsigned count, std::uint64_t bytes,
                                std::int64_t age, const std::string& prefix) const {
  const std::string directory = cacheOf(name);
  makeDirectory(directory);
  const std::string contents(bytes, 'x');
  const std::time_t then = std::time(nullptr) - age;
  for (unsigned i = 0; i < count; ++i) {
    const std::string path = directory + "/" + prefix + std::to_string(i);
    writeFile(path, contents);
    giveToAlice(path);
    const timespec times[2] = {{then, 0}, {then, 0}};
    require(::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0, "cannot age " + path);
  }
  return directory;
}

std::uint64_t CachesMachine::freeSpace() const {
  struct statvfs space {};
  require(::statvfs("/home", &space) == 0, "cannot ask the volume");
  return space.f_bavail * space.f_frsize;
}

std::size_t CachesMachine::countFiles(const std::string& name) const {
  const fs::directory_iterator files(cacheOf(name));
  return static_cast<std::size_t>(std::distance(fs::begin(files), fs::end(files)));
}

std::vector<std::string> CachesMachine::environment() const {
  return {"COLUMNS=80", "NO_COLOR=1", "LC_ALL=C.UTF-8", "TERM=xterm",
          "CONFIGURATION_DIRECTORY=" + configuration_.path()};
}

Finished CachesMachine::caches(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), {"env", preload, built("kelvane-caches")});
  return run(std::move(arguments), environment());
}

Finished CachesMachine::ctlCaches(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), {"env", preload, built("kelvanectl"), "caches"});
  return run(std::move(arguments), environment());
}

Finished CachesMachine::cachesAsAlice(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), {"setpriv", "--reuid=4242", "--regid=4242", "--clear-groups", "env",
                                       preload, built("kelvane-caches")});
  return run(std::move(arguments), environment());
}

Dictionary CachesMachine::explained(const std::string& name, int urgency,
                                    std::vector<std::string> more) const {
  more.insert(more.begin(), {"explain", name, "--json", "--urgency", std::to_string(urgency)});
  const Finished explained = caches(std::move(more));
  EXPECT_EQ(explained.status, 0) << explained.output;
  const tools::ReadJson json = tools::readJson(explained.output);
  EXPECT_TRUE(json.valid && json.value.isDictionary()) << explained.output;
  return json.value.isDictionary() ? *json.value.dictionary() : Dictionary();
}

namespace {

std::vector<std::string> managerCommand(const Daemon& daemon, const std::vector<std::string>& names) {
  fs::create_directories(daemon.runtimeFolder() + "/services");
  std::vector<std::string> command = {built("socket_manager"), daemon.runtimeFolder() + "/services"};
  command.insert(command.end(), names.begin(), names.end());
  command.insert(command.end(), {"--", built("kelvane-caches")});
  return command;
}

std::vector<std::string> managerEnvironment(const CachesMachine& machine, const Daemon& daemon,
                                            const std::vector<std::string>& more) {
  std::vector<std::string> environment = machine.environment();
  environment.insert(environment.end(), more.begin(), more.end());
  environment.insert(environment.end(), {"RUNTIME_DIRECTORY=" + daemon.runtimeFolder(),
                                         std::string("SERVICE_PRELOAD=") + OLD_FILES_LIBRARY});
  return environment;
}

}  // namespace

CachesService::CachesService(const CachesMachine& machine, const Daemon& daemon,
                             const std::vector<std::string>& names,
                             const std::vector<std::string>& environment)
    : process_(managerCommand(daemon, names), managerEnvironment(machine, daemon, environment)) {
  EXPECT_TRUE(process_.printed("listening")) << process_.output();
}

pid_t CachesService::id() {
  EXPECT_TRUE(process_.printed("started "));
  const std::string all = process_.output();
  return std::atoi(all.c_str() + all.rfind("started ") + std::strlen("started "));
}

bool CachesService::ended(int status, std::size_t times) {
  return process_.printed("ended " + std::to_string(status), times);
}

Declared::Declared(std::vector<std::string> names) : names_(std::move(names)) {
  for (const std::string& name : names_) {
    writeFile(std::string(system_descriptors) + "/" + name + ".plist",
              propertyList("<key>KELVANE_ID</key><string>com.orvel.kelvane.caches." + name +
                           "</string><key>KELVANE_SERVICES</key><array><string>PURGE</string></array>"));
  }
}

Declared::~Declared() {
  for (const std::string& name : names_) fs::remove(std::string(system_descriptors) + "/" + name + ".plist");
}

}  // namespace kelvane::tests
