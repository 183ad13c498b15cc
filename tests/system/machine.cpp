#include "tests/system/machine.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;

constexpr const char* folders = "/kelvane-tests";  // in the private root, so gone with it

void require(bool done, const std::string& what) {
  if (done) return;
  std::fprintf(stderr, "%s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(1);
}

void unshareMounts() {
  const uid_t user = ::getuid();
  const gid_t group = ::getgid();
  require(::unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) == 0,
          "cannot have mounts of my own");
  if (user != 0) {
    writeFile("/proc/self/setgroups", "deny");
    writeFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    writeFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
  }
  require(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "cannot keep mounts to myself");
}

void bindInto(const fs::path& root, const fs::path& entry) {
  const fs::path target = root / entry.filename();
  if (fs::is_symlink(entry)) {
    fs::copy_symlink(entry, target);
  } else if (fs::is_directory(entry)) {
    fs::create_directory(target);
    require(::mount(entry.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
            "cannot bind " + entry.string());
  }
}

}  // namespace

void enterPrivateMachine() {
  unshareMounts();
  // Built on /mnt, which is hidden for this process only.
  const fs::path root = "/mnt";
  require(::mount("kelvane-test-root", root.c_str(), "tmpfs", 0, "size=256m") == 0, "cannot mount a root");
  for (const auto& entry : fs::directory_iterator("/")) {
    if (entry.path() != root) bindInto(root, entry.path());
  }
  fs::create_directories(root.string() + folders);
  fs::create_directories(root.string() + system_descriptors);
  fs::create_directories(root.string() + internal_descriptors);
  const fs::path here = fs::current_path();
  require(::chroot(root.c_str()) == 0 && ::chdir("/") == 0, "cannot enter the root");
  std::error_code gone;
  fs::current_path(here, gone);  // stays at "/" where the folder is not visible any more
}

Folder::Folder() {
  std::string name = std::string(folders) + "/XXXXXX";
  require(::mkdtemp(name.data()) != nullptr, "cannot make a folder");
  path_ = name;
}

Folder::~Folder() { fs::remove_all(path_); }

Volume::Volume(unsigned megabytes) {
  const std::string options = "size=" + std::to_string(megabytes) + "m";
  require(::mount("kelvane-test-volume", path().c_str(), "tmpfs", 0, options.c_str()) == 0,
          "cannot mount a volume");
}

Volume::~Volume() { ::umount2(path().c_str(), MNT_DETACH); }

std::uint64_t Volume::freeSpace() const {
  struct statvfs space {};
  require(::statvfs(path().c_str(), &space) == 0, "cannot ask the volume");
  return space.f_bavail * space.f_frsize;
}

std::string Volume::fill(const std::string& name, unsigned count, std::uint64_t bytes) const {
  std::string folder = path() + "/" + name;
  fs::create_directory(folder);
  const std::string contents(bytes, 'x');
  for (unsigned i = 0; i < count; ++i) writeFile(folder + "/" + std::to_string(i), contents);
  return folder;
}

void writeFile(const std::string& path, const std::string& contents) {
  std::ofstream file(path, std::ios::binary);
  file << contents;
  file.close();
  require(file.good(), "cannot write " + path);
}

std::string propertyList(const std::string& entries) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + entries +
         "</dict></plist>\n";
}

}  // namespace kelvane::tests
