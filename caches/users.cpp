#include "caches/users.h"

#include <pwd.h>
#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <memory>

namespace kelvane::caches {
namespace {

constexpr std::size_t longest_line = std::size_t{16} << 10;

struct Close {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

/// `visit` returns whether to go on.
void eachEntry(const std::string& passwd_file, const std::function<bool(const passwd&)>& visit) {
  const std::unique_ptr<std::FILE, Close> file(std::fopen(passwd_file.c_str(), "re"));
  if (!file) return;
  std::array<char, longest_line> buffer{};
  passwd entry{};
  passwd* found = nullptr;
  while (::fgetpwent_r(file.get(), &entry, buffer.data(), buffer.size(), &found) == 0) {
    if (!visit(*found)) return;
  }
}

User userOf(const passwd& entry) { return {entry.pw_uid, entry.pw_gid, entry.pw_name, entry.pw_dir}; }

}  // namespace

std::vector<User> usersIn(const std::string& passwd_file) {
  std::vector<User> users;
  eachEntry(passwd_file, [&](const passwd& entry) {
    const bool known =
        std::any_of(users.begin(), users.end(), [&](const User& user) { return user.id == entry.pw_uid; });
    if (!known && entry.pw_uid >= first_person && entry.pw_uid <= last_person) users.push_back(userOf(entry));
    return users.size() < most_users;
  });
  std::sort(users.begin(), users.end(), [](const User& a, const User& b) { return a.id < b.id; });
  return users;
}

User userIn(const std::string& passwd_file, uid_t id, gid_t group) {
  User result{id, group, {}, {}};
  eachEntry(passwd_file, [&](const passwd& entry) {
    if (entry.pw_uid != id) return true;
    result = userOf(entry);
    return false;
  });
  return result;
}

std::string faultOfHome(const std::string& home) {
  if (home.empty()) return "the user has no home directory";
  if (home == "/" || home == "/nonexistent" || home == "/dev/null")
    return home + " is not a user's own home directory";
  if (!home.starts_with('/')) return "the home directory is not an absolute path";
  if (home.size() >= Job::longest_path) return "the path of the home directory is too long";
  if ((home + "/").find("/../") != std::string::npos || (home + "/").find("/./") != std::string::npos) {
    return "the path of the home directory contains \".\" or \"..\"";
  }
  return {};
}

}  // namespace kelvane::caches
