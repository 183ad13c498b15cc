#include "support/log.h"

#include <fmt/format.h>
#include <unistd.h>
#include <atomic>
#include <cstdlib>

#include "common/keys.h"
#include "platform/host/journal.h"
#include "support/standard_log.h"

namespace kelvane {
namespace {

constexpr int default_threshold = 3;
constexpr int trace_level = 5;
constexpr std::size_t longest_line = std::size_t{32} << 10;

LogHandle* makeStandardHandle() {
  const bool journal = isJournalStream(STDERR_FILENO, std::getenv("JOURNAL_STREAM"));
  const auto sink = journal ? StandardLogHandle::Sink::journal : StandardLogHandle::Sink::descriptor;
  const char* wanted = std::getenv("KELVANE_LOG_LEVEL");
  const std::optional<int> threshold = wanted != nullptr ? logThreshold(wanted) : default_threshold;
  LogHandle* handle = new StandardLogHandle(threshold.value_or(default_threshold), sink, STDERR_FILENO);
  if (!threshold) {
    handle->write(3, logging::format("%s KELVANE_LOG_LEVEL is not a number from 0 to 5: %s",
                                     {std::string("getLogHandle"), std::string(wanted)}));
  }
  return handle;
}

/// Holds the handle of the moment. The standard one lives as long as the process.
std::atomic<LogHandle*>& slot() {
  static std::atomic<LogHandle*> handle{makeStandardHandle()};
  return handle;
}

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

void appendEscape(std::string& line, char c) {
  switch (c) {
    case '\n':
      line += "\\n";
      break;
    case '\r':
      line += "\\r";
      break;
    case '\t':
      line += "\\t";
      break;
    default:
      line += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
  }
}

/// The text as one line.
std::string oneLine(std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  std::string line;
  line.reserve(text.size());
  for (const char c : text) {
    if (isControl(c)) {
      appendEscape(line, c);
    } else {
      line += c;
    }
  }
  return line;
}

}  // namespace

std::optional<int> logThreshold(std::string_view text) {
  if (text.size() != 1 || text[0] < '0' || text[0] > '5') return std::nullopt;
  return text[0] - '0';
}

void StandardLogHandle::write(int level, std::string_view line) {
  std::string text(line.substr(0, longest_line));
  if (text.size() < line.size()) text += fmt::format("... ({} bytes)", line.size());
  if (sink_ == Sink::journal) {
    const auto priority = level >= trace_level ? JournalPriority::debug : JournalPriority::warning;
    sendToJournal(priority, level, kelvane_log_tag, text);
    return;
  }
  const std::string whole = fmt::format("{}[{}] <{}> {}\n", kelvane_log_tag, ::getpid(), level, text);
  // There is nowhere to say that this failed.
  [[maybe_unused]] const ssize_t written = ::write(descriptor_, whole.data(), whole.size());
}

LogHandle* getLogHandle() { return slot().load(std::memory_order_acquire); }

void setLogHandle(LogHandle* handle) { slot().store(handle, std::memory_order_release); }

bool logIsEnabled(int level) {
  const LogHandle* handle = getLogHandle();
  if (handle == nullptr) return level == trace_level;
  return handle->threshold() >= level;
}

namespace logging {

void write(int level, const std::string& line) {
  const std::string text = oneLine(line);
  if (LogHandle* handle = getLogHandle()) {
    handle->write(level, text);
  } else {
    StandardLogHandle(trace_level, StandardLogHandle::Sink::descriptor, STDERR_FILENO).write(level, text);
  }
}

}  // namespace logging
}  // namespace kelvane
