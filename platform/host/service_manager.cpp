#define SD_JOURNAL_SUPPRESS_LOCATION  // ours would name this file for every entry
#include "platform/host/service_manager.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-id128.h>
#include <systemd/sd-journal.h>
#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <vector>

#include "platform/dispatch/fatal.h"

namespace kelvane {
namespace {

bool isSocket(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

}  // namespace

std::vector<std::string> passedSocketNames() {
  char** names = nullptr;
  const int count = sd_listen_fds_with_names(0, &names);
  std::vector<std::string> result;
  for (int i = 0; i < count; ++i) {
    result.emplace_back(names[i]);
    std::free(names[i]);
  }
  std::free(names);
  return result;
}

bool notifyReady() { return sd_notify(0, "READY=1") > 0; }

std::optional<std::uint64_t> serviceManagerPatience() {
  std::uint64_t microseconds = 0;
  if (sd_watchdog_enabled(0, &microseconds) <= 0) return std::nullopt;
  return microseconds;
}

bool notifyAlive() { return sd_notify(0, "WATCHDOG=1") > 0; }

FileDescriptor takePassedSocket(const std::string& name) {
  static std::mutex mutex;
  static std::set<int>& taken = *new std::set<int>;  // guarded by mutex
  const std::lock_guard lock(mutex);
  const std::vector<std::string> names = passedSocketNames();
  for (std::size_t i = 0; i < names.size(); ++i) {
    const int descriptor = SD_LISTEN_FDS_START + static_cast<int>(i);
    if (names[i] == name && taken.insert(descriptor).second) return FileDescriptor(descriptor);
  }
  return {};
}

std::string randomIdentifier() {
  sd_id128_t id{};
  if (sd_id128_randomize(&id) < 0) fatal("the kernel gives no random numbers");
  std::array<char, SD_ID128_STRING_MAX> text{};
  return sd_id128_to_string(id, text.data());
}

bool isJournalStream(int descriptor, const char* journal_stream, const std::string& journal_socket) {
  struct stat status {};
  if (journal_stream == nullptr || ::fstat(descriptor, &status) != 0) return false;
  return journal_stream == fmt::format("{}:{}", status.st_dev, status.st_ino) && isSocket(journal_socket);
}

bool sendToJournal(JournalPriority priority, int level, const std::string& identifier,
                   std::string_view message) {
  std::array<std::string, 4> fields = {
      fmt::format("MESSAGE={}", message), fmt::format("PRIORITY={}", static_cast<int>(priority)),
      fmt::format("SYSLOG_IDENTIFIER={}", identifier), fmt::format("KELVANE_LEVEL={}", level)};
  std::array<iovec, fields.size()> parts{};
  for (std::size_t i = 0; i < fields.size(); ++i) parts[i] = {fields[i].data(), fields[i].size()};
  return sd_journal_sendv(parts.data(), static_cast<int>(parts.size())) == 0;
}

}  // namespace kelvane
