#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "platform/foundation/archive_coding.h"
#include "support/recent_info.h"

namespace kelvane {
namespace {

using foundation::Archiver;
using foundation::Unarchiver;

constexpr std::array<std::uint8_t, 4> header = {'K', 'V', 'R', 1};
// The least that an entry takes: its text's length, its numbers, and a tag or a count.
constexpr std::size_t least_volume_bytes = 4;
constexpr std::size_t least_service_bytes = 3;

void put(Archiver& to, const KelvaneRecentServiceInfo& info) {
  to.signedNumber(info.timestamp().microseconds);
  to.object(info.amount());
}

void put(Archiver& to, const KelvaneRecentVolumeInfo& info) {
  to.number(info.freespace());
  to.signedNumber(info.timestamp().microseconds);
  to.number(info.services().size());
  for (const auto& [identifier, service] : info.services()) {
    to.text(identifier);
    put(to, service);
  }
}

/// So many entries, whose texts ascend; `read` makes each from its text.
template <class Map, class Read>
Map entries(Unarchiver& from, std::size_t least_bytes, Read read) {
  Map result;
  const std::size_t count = from.count(least_bytes);
  for (std::size_t i = 0; i < count && !from.failed(); ++i) {
    std::string text = from.text();
    if (!result.empty() && text <= result.rbegin()->first) from.fail();
    auto info = read(text);
    if (!from.failed()) result.emplace_hint(result.end(), std::move(text), std::move(info));
  }
  return result;
}

KelvaneRecentServiceInfo service(Unarchiver& from) {
  const Date timestamp{from.signedNumber()};
  return KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(from.object(), timestamp);
}

KelvaneRecentVolumeInfo volume(Unarchiver& from, const std::string& name) {
  const std::uint64_t freespace = from.number();
  const Date timestamp{from.signedNumber()};
  auto services = entries<RecentServices>(from, least_service_bytes,
                                          [&](const std::string& /*identifier*/) { return service(from); });
  return KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(std::move(services), freespace, timestamp, name);
}

}  // namespace

Data archivedData(const KelvaneRecentInfo& info) {
  Archiver to;
  to.bytes(header);
  to.number(info.volumes().size());
  for (const auto& [name, entry] : info.volumes()) {
    to.text(name);
    put(to, entry);
  }
  return to.finished();
}

std::shared_ptr<KelvaneRecentInfo> unarchivedRecentInfo(const Data& archive) {
  Unarchiver from(archive.bytes());
  const auto first = from.bytes(header.size());
  if (from.failed() || !std::equal(header.begin(), header.end(), first.begin())) return nullptr;
  auto volumes = entries<RecentVolumes>(from, least_volume_bytes,
                                        [&](const std::string& name) { return volume(from, name); });
  return from.finished() ? KelvaneRecentInfo::kelvaneRecentInfo(std::move(volumes)) : nullptr;
}

}  // namespace kelvane
