#pragma once

// The report of a worker, as messages of fixed layout on a SOCK_SEQPACKET socket.
//
// The worker runs as the user whose files it works on, so the reader trusts its messages only as far as
// that user: sizes and counts are checked before they are used, and figures are capped at the size of the
// volume. Text may contain any byte.
//
// A complete report is any number of roots, for a list with items in between, and one end.

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "caches/job.h"
#include "caches/workers.h"

namespace kelvane::caches {

struct ReportLimits {
  static constexpr std::size_t longest_reason = 512;
  static constexpr std::size_t longest_message = std::size_t{64} << 10;
  static constexpr std::size_t most_roots = Job::most_shares;
  static constexpr std::uint64_t most_items = 4'000'000;
};

struct ReportedRoot {
  RootReport report;
  RootKey key;
};

/// The result of one job.
struct Answer {
  std::vector<ReportedRoot> roots;
  std::string reason;     // why there are no roots, or not all
  bool complete = false;  // the worker finished and left out nothing
};

/// Writes to the main process, and blocks while that does not read. After a failure, everything is discarded.
/// One thread.
class ReportWriter {
 public:
  explicit ReportWriter(int socket) : socket_(socket) {}
  void root(const RootReport& root, const RootKey& key);
  /// Items are collected, and sent before anything else. False when the reader has gone.
  bool item(const RootKey& root, const client::CacheItem& item);
  void end(bool complete, const std::string& reason);

 private:
  void send(const void* message, std::size_t size);
  void flush();

  const int socket_;
  bool failed_ = false;
  std::string items_;
};

/// Reads one worker's report. One thread.
class ReportReader {
 public:
  using Item = std::function<bool(const RootKey& root, const client::CacheItem& item)>;
  /// `most_bytes` is the size of a volume ("" when the root is on none), at which figures are capped.
  using MostBytes = std::function<std::uint64_t(const std::string& volume)>;

  ReportReader(const Job& job, MostBytes most_bytes, Item item)
      : job_(job), most_bytes_(std::move(most_bytes)), item_(std::move(item)) {}

  /// False: the message is malformed, or no more is wanted. Then nothing more must be read.
  bool take(const char* message, std::size_t size);
  /// What was reported until now.
  [[nodiscard]] const Answer& answer() const { return answer_; }
  [[nodiscard]] Answer& answer() { return answer_; }
  [[nodiscard]] bool hasEnded() const { return ended_; }

 private:
  bool takeRoot(const char* message, std::size_t size);
  bool takeItems(const char* message, std::size_t size);
  bool takeEnd(const char* message, std::size_t size);

  const Job& job_;
  const MostBytes most_bytes_;
  const Item item_;
  Answer answer_;
  bool ended_ = false;
  std::uint64_t items_ = 0;
};

}  // namespace kelvane::caches
