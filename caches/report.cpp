#include "caches/report.h"

#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <type_traits>

namespace kelvane::caches {
namespace {

enum class Type : std::uint32_t { root = 1, items = 2, end = 3 };

struct WireFigure {
  std::uint64_t bytes;
  std::uint64_t items;
};

struct WireSurvey {
  std::int64_t taken_at;
  std::array<WireFigure, client::urgency_count> at_urgency;
  std::array<std::int64_t, client::urgency_count> newest_at_urgency;
  std::array<WireFigure, client::AgeHistogram::bucket_count> ages;
  std::array<WireFigure, client::cache_stay_count> stays;
  std::int32_t error;
  std::uint32_t complete;
};

struct WirePurge {
  std::uint64_t freed;
  std::uint64_t held;
  std::uint64_t items;
  std::uint64_t files;
  std::uint64_t failures;
  std::array<WireFigure, client::cache_stay_count> stays;
  std::int32_t error;
  std::uint32_t end;
};

struct WireText {
  std::uint32_t bytes;
};

struct RootMessage {
  Type type;
  std::uint32_t user;
  RootKey key;
  WireSurvey survey;
  WirePurge purge;
  std::uint32_t path_bytes;
  std::uint32_t volume_bytes;
  std::uint32_t reason_bytes;
  std::array<char, Job::longest_path> path;
  std::array<char, Job::longest_path> volume;
  std::array<char, ReportLimits::longest_reason> reason;
};

struct ItemsHead {
  Type type;
  std::uint32_t count;
  RootKey root;
};

struct ItemHead {
  std::uint64_t bytes;
  std::int64_t newest;
  std::uint32_t path_bytes;
  std::uint32_t unused;
};

struct EndMessage {
  Type type;
  std::uint32_t complete;
  std::uint32_t reason_bytes;
  std::array<char, ReportLimits::longest_reason> reason;
};

static_assert(std::is_trivially_copyable_v<RootMessage> &&
              sizeof(RootMessage) < ReportLimits::longest_message);
static_assert(sizeof(ItemsHead) + sizeof(ItemHead) + Job::longest_path < ReportLimits::longest_message);

template <std::size_t size>
std::uint32_t put(std::array<char, size>& place, const std::string& text) {
  const std::size_t length = std::min(text.size(), size);
  std::copy_n(text.begin(), length, place.begin());
  return static_cast<std::uint32_t>(length);
}

template <std::size_t size>
bool get(const std::array<char, size>& place, std::uint32_t length, std::string& text) {
  if (length > size || std::find(place.begin(), place.begin() + length, '\0') != place.begin() + length)
    return false;
  text.assign(place.data(), length);
  return true;
}

template <class To, class From, std::size_t size>
std::array<To, size> converted(const std::array<From, size>& figures) {
  std::array<To, size> result{};
  std::transform(figures.begin(), figures.end(), result.begin(), [](const From& figure) {
    return To{figure.bytes, figure.items};
  });
  return result;
}

/// Caps each figure at `most` bytes.
template <class To, std::size_t size>
std::array<To, size> believed(const std::array<WireFigure, size>& figures, std::uint64_t most) {
  std::array<To, size> result{};
  std::transform(figures.begin(), figures.end(), result.begin(), [&](const WireFigure& figure) {
    return To{std::min(figure.bytes, most), std::min(figure.items, most)};
  });
  return result;
}

WireSurvey wire(const client::CacheSurvey& survey) {
  WireSurvey result{};
  result.taken_at = survey.taken_at;
  result.at_urgency = converted<WireFigure>(survey.at_urgency);
  result.newest_at_urgency = survey.newest_at_urgency;
  result.ages = converted<WireFigure>(survey.ages.buckets);
  result.stays = converted<WireFigure>(survey.stays);
  result.error = survey.error;
  result.complete = survey.complete ? 1 : 0;
  return result;
}

WirePurge wire(const client::CachePurge& purge) {
  WirePurge result{};
  result.freed = purge.freed;
  result.held = purge.held;
  result.items = purge.items;
  result.files = purge.files;
  result.failures = purge.failures;
  result.stays = converted<WireFigure>(purge.stays);
  result.error = purge.error;
  result.end = static_cast<std::uint32_t>(purge.end);
  return result;
}

client::CacheSurvey believed(const WireSurvey& wire, const Job& job, std::uint64_t most) {
  client::CacheSurvey survey;
  survey.taken_at = job.now;
  survey.at_urgency = believed<client::CacheFigure>(wire.at_urgency, most);
  std::transform(wire.newest_at_urgency.begin(), wire.newest_at_urgency.end(),
                 survey.newest_at_urgency.begin(),
                 [&](std::int64_t newest) { return std::min(newest, job.now); });
  survey.ages.buckets = believed<client::AgeHistogram::Bucket>(wire.ages, most);
  survey.stays = believed<client::CacheFigure>(wire.stays, most);
  survey.complete = wire.complete == 1;
  survey.error = wire.error;
  return survey;
}

client::CachePurge believed(const WirePurge& wire, std::uint64_t most) {
  client::CachePurge purge;
  purge.freed = std::min(wire.freed, most);
  purge.held = std::min(wire.held, most);
  purge.items = std::min(wire.items, most);
  purge.files = std::min(wire.files, most);
  purge.failures = wire.failures;
  purge.stays = believed<client::CacheFigure>(wire.stays, most);
  purge.error = wire.error;
  purge.end = wire.end <= static_cast<std::uint32_t>(client::CachePurge::End::failed)
                  ? static_cast<client::CachePurge::End>(wire.end)
                  : client::CachePurge::End::failed;
  return purge;
}

}  // namespace

void ReportWriter::send(const void* message, std::size_t size) {
  if (failed_) return;
  ssize_t sent = -1;
  do {
    sent = ::send(socket_, message, size, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  failed_ = sent < 0;
}

void ReportWriter::root(const RootReport& root, const RootKey& key) {
  flush();
  RootMessage message{};
  message.type = Type::root;
  message.user = root.user;
  message.key = key;
  message.survey = wire(root.survey);
  message.purge = wire(root.purge);
  message.path_bytes = put(message.path, root.path);
  message.volume_bytes = put(message.volume, root.volume);
  message.reason_bytes = put(message.reason, root.reason);
  send(&message, sizeof message);
}

bool ReportWriter::item(const RootKey& root, const client::CacheItem& item) {
  if (item.path.size() > Job::longest_path) return !failed_;
  if (items_.size() + sizeof(ItemHead) + item.path.size() > ReportLimits::longest_message / 2) flush();
  if (items_.empty()) {
    const ItemsHead head{Type::items, 0, root};
    items_.assign(reinterpret_cast<const char*>(&head), sizeof head);
  }
  const ItemHead head{item.bytes, item.newest, static_cast<std::uint32_t>(item.path.size()), 0};
  items_.append(reinterpret_cast<const char*>(&head), sizeof head);
  items_ += item.path;
  ItemsHead whole{};
  std::memcpy(&whole, items_.data(), sizeof whole);
  ++whole.count;
  std::memcpy(items_.data(), &whole, sizeof whole);
  return !failed_;
}

void ReportWriter::flush() {
  if (!items_.empty()) send(items_.data(), items_.size());
  items_.clear();
}

void ReportWriter::end(bool complete, const std::string& reason) {
  flush();
  EndMessage message{};
  message.type = Type::end;
  message.complete = complete ? 1 : 0;
  message.reason_bytes = put(message.reason, reason);
  send(&message, sizeof message);
}

bool ReportReader::take(const char* message, std::size_t size) {
  Type type{};
  if (ended_ || size < sizeof type) return false;
  std::memcpy(&type, message, sizeof type);
  switch (type) {
    case Type::root:
      return takeRoot(message, size);
    case Type::items:
      return takeItems(message, size);
    case Type::end:
      return takeEnd(message, size);
  }
  return false;
}

bool ReportReader::takeRoot(const char* message, std::size_t size) {
  RootMessage wire{};
  if (size != sizeof wire || answer_.roots.size() == ReportLimits::most_roots) return false;
  std::memcpy(&wire, message, sizeof wire);
  ReportedRoot root;
  if (!get(wire.path, wire.path_bytes, root.report.path) ||
      !get(wire.volume, wire.volume_bytes, root.report.volume) ||
      !get(wire.reason, wire.reason_bytes, root.report.reason) || !root.report.path.starts_with('/')) {
    return false;
  }
  if (!job_.volume.empty() && !root.report.volume.empty() && root.report.volume != job_.volume) return false;
  const std::uint64_t most = most_bytes_(root.report.volume);
  root.key = wire.key;
  root.report.user = job_.kind == Job::Kind::owners ? wire.user : job_.user.id;
  root.report.survey = believed(wire.survey, job_, most);
  root.report.purge = believed(wire.purge, most);
  answer_.roots.push_back(std::move(root));
  return true;
}

bool ReportReader::takeItems(const char* message, std::size_t size) {
  ItemsHead head{};
  if (size < sizeof head || !item_) return false;
  std::memcpy(&head, message, sizeof head);
  std::size_t at = sizeof head;
  for (std::uint32_t i = 0; i < head.count; ++i) {
    ItemHead one{};
    if (size - at < sizeof one) return false;
    std::memcpy(&one, message + at, sizeof one);
    at += sizeof one;
    if (one.path_bytes > Job::longest_path || size - at < one.path_bytes) return false;
    if (++items_ > ReportLimits::most_items) return false;
    std::string path(message + at, one.path_bytes);
    if (path.empty() || path.front() == '/' || path.find('\0') != std::string::npos) return false;
    if (!item_(head.root, {std::move(path), one.bytes, one.newest})) return false;
    at += one.path_bytes;
  }
  return at == size;
}

bool ReportReader::takeEnd(const char* message, std::size_t size) {
  EndMessage wire{};
  if (size != sizeof wire) return false;
  std::memcpy(&wire, message, sizeof wire);
  if (!get(wire.reason, wire.reason_bytes, answer_.reason)) return false;
  answer_.complete = wire.complete == 1;
  ended_ = true;
  return true;
}

}  // namespace kelvane::caches
