#include "tools/entitlement.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/entitlements.h"

namespace kelvane::tools {
namespace {

namespace fs = std::filesystem;

/// The process as the kernel would record it at the other end of a connection that it makes now.
xpc::PeerCredentials credentialsOf(const fs::path& process) {
  xpc::PeerCredentials credentials;
  std::ifstream status(process / "status");
  for (std::string line; std::getline(status, line);) {
    std::istringstream words(line);
    std::string name;
    id_t real = 0;
    words >> name;
    if (name == "Uid:") words >> real >> credentials.uid;
    if (name == "Gid:") words >> real >> credentials.gid;
    if (name == "Groups:") {
      for (gid_t group = 0; words >> group;) credentials.groups.push_back(group);
    }
  }
  std::ifstream security(process / "attr/current");
  if (std::string label; std::getline(security, label, '\0')) {
    while (!label.empty() && label.back() == '\n') label.pop_back();
    credentials.label = label;
  }
  return credentials;
}

/// "7" for "socket:[7]"; empty for what is no socket.
std::string inodeOf(const fs::path& descriptor) {
  constexpr std::string_view beginning = "socket:[";
  std::error_code error;
  const std::string target = fs::read_symlink(descriptor, error).string();
  if (error || !target.starts_with(beginning)) return {};
  return target.substr(beginning.size(), target.size() - beginning.size() - 1);
}

void addHolder(const fs::path& process, const std::set<std::string>& inodes, Holders& holders) {
  std::error_code error;
  std::set<std::string> held;
  for (auto it = fs::directory_iterator(process / "fd", error); !error && it != fs::directory_iterator();
       it.increment(error)) {
    if (const std::string inode = inodeOf(it->path()); inodes.contains(inode)) held.insert(inode);
  }
  if (error == std::errc::permission_denied) holders.all_seen = false;
  if (held.empty()) return;
  const xpc::PeerCredentials credentials = credentialsOf(process);
  if (credentials.uid == static_cast<uid_t>(-1)) return;  // it has ended
  for (const std::string& inode : held) holders.of_inode[inode].push_back(credentials);
}

bool isProcess(const std::string& name) {
  return name != "1" && name.find_first_not_of("0123456789") == std::string::npos;
}

/// The first name that the process would need and lacks; null for none.
const char* lackedBy(const xpc::PeerCredentials& process) {
  for (const char* const name : {CLIENT_ENTITLEMENT, SERVICE_ENTITLEMENT}) {
    if (!peerIsEntitled(process, {name})) return name;
  }
  return nullptr;
}

/// The daemon believes what root owns, and what its own user does.
bool isRoots(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) != 0 || status.st_uid == 0;
}

}  // namespace

Holders holdersOf(const std::set<std::string>& inodes, const std::string& proc) {
  Holders holders;
  std::error_code error;
  for (auto it = fs::directory_iterator(proc, error); !error && it != fs::directory_iterator();
       it.increment(error)) {
    if (isProcess(it->path().filename())) addHolder(it->path(), inodes, holders);
  }
  return holders;
}

std::string doubtAboutGrants(const std::vector<std::string>& folders) {
  for (const std::string& folder : folders) {
    std::error_code error;
    for (auto it = fs::directory_iterator(folder, error); !error && it != fs::directory_iterator();
         it.increment(error)) {
      const std::string path = it->path();
      if (it->path().extension() != ".plist") continue;
      if (::access(path.c_str(), R_OK) != 0) return "this user cannot read " + path;
      for (const std::string& each : {path, folder, fs::path(folder).parent_path().string()}) {
        if (!isRoots(each)) return "only the daemon knows whether it believes " + each;
      }
    }
    if (error && error != std::errc::no_such_file_or_directory) return "this user cannot read " + folder;
  }
  return {};
}

Entitlement entitlementOf(const std::string& inode, const Holders& holders, const std::string& doubt) {
  if (!doubt.empty()) return {Entitled::unknown, doubt};
  const auto found = holders.of_inode.find(inode);
  if (found == holders.of_inode.end()) {
    return {Entitled::unknown, holders.all_seen ? "no process but the service manager holds its socket"
                                                : "this user cannot see who holds its socket"};
  }
  const std::vector<xpc::PeerCredentials>& processes = found->second;
  const auto lacking = std::count_if(processes.begin(), processes.end(),
                                     [](const auto& process) { return lackedBy(process) != nullptr; });
  const xpc::PeerCredentials& first = processes.front();
  if (lacking == 0) return {Entitled::yes, fmt::format("user {}", first.uid)};
  if (lacking != static_cast<std::ptrdiff_t>(processes.size()))
    return {Entitled::unknown, "the processes that hold its socket differ"};
  return {Entitled::no, fmt::format("user {} lacks {}", first.uid, lackedBy(first))};
}

}  // namespace kelvane::tools
