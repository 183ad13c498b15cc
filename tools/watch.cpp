#include "tools/watch.h"

#include <fmt/format.h>
#include <algorithm>
#include <cmath>
#include <string_view>
#include <vector>

#include "tools/amount.h"

namespace kelvane::tools {
namespace {

constexpr std::size_t narrow = 66;
constexpr std::size_t amount_width = 10;
constexpr std::string_view freed_suffix = ".purged";
constexpr std::string_view of_all = "total";

std::int64_t whole(double figure) {
  return static_cast<std::int64_t>(std::llround(std::clamp(figure, -0x1p62, 0x1p62)));
}

std::uint64_t counted(double figure) {
  return static_cast<std::uint64_t>(std::max(whole(figure), std::int64_t{0}));
}

std::int64_t saturated(std::uint64_t bytes) {
  return static_cast<std::int64_t>(std::min(bytes, std::uint64_t{1} << 62U));
}

using Row = std::pair<std::string, Freed>;

/// Those that freed something since the last look first, and then those that freed most.
std::vector<Row> rowsOf(const Purges& purges) {
  std::vector<Row> rows(purges.services.begin(), purges.services.end());
  std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
    return std::pair(a.second.change.value_or(0), a.second.bytes) >
           std::pair(b.second.change.value_or(0), b.second.bytes);
  });
  return rows;
}

/// A name that leaves no room for its figures has a line of its own.
std::string freedLine(const std::string& name, const Freed& freed, const Screen& screen) {
  const std::size_t room = screen.width - amount_width - change_width - 2;
  const std::string begin = columns(name) > room
                                ? cut(screen, name, screen.width) + "\n" + std::string(room, ' ')
                                : fitted(screen, name, room);
  return begin + " " + rightAligned(inUnitsSigned(freed.bytes), amount_width) + " " +
         changeText(freed.change, screen) + "\n";
}

std::string purgesScreen(const std::optional<Purges>& purges, const Screen& screen) {
  const std::string head = fitted(screen, "Purges", screen.width - amount_width - change_width - 2) + " " +
                           rightAligned("Freed", amount_width) + " " + rightAligned("Change", change_width);
  std::string text = coloured(screen, Colour::bold, head) + "\n";
  if (!purges) return text + "The daemon's counters cannot be read.\n";
  text += freedLine(screen.width < narrow ? fmt::format("{}, {} short", purges->count, purges->fell_short)
                                          : fmt::format("{} since the daemon's start, {} fell short",
                                                        purges->count, purges->fell_short),
                    purges->total, screen);
  for (const auto& [service, freed] : rowsOf(*purges))
    text += freedLine("  " + printable(screen, service), freed, screen);
  return text;
}

Dictionary freedValue(const Freed& freed) {
  Dictionary entry{{"freed_bytes", freed.bytes}};
  if (freed.change) entry.set("change_bytes", *freed.change);
  return entry;
}

Value purgesValue(const Purges& purges) {
  Array services;
  for (const auto& [service, freed] : rowsOf(purges)) {
    Dictionary entry = freedValue(freed);
    entry.set("service", service);
    services.append(entry);
  }
  Dictionary entry = freedValue(purges.total);
  entry.set("count", purges.count);
  entry.set("fell_short", purges.fell_short);
  entry.set("services", services);
  return entry;
}

void noteVolumes(Status& now, const Status& before) {
  for (VolumeStatus& volume : now.volumes) {
    const auto earlier = std::find_if(before.volumes.begin(), before.volumes.end(),
                                      [&](const VolumeStatus& each) { return each.path == volume.path; });
    if (earlier != before.volumes.end() && volume.space && earlier->space)
      volume.change = saturated(volume.space->bytes_free) - saturated(earlier->space->bytes_free);
  }
}

void notePurges(Purges& now, const Purges& before) {
  const bool anew = now.count < before.count || now.total.bytes < before.total.bytes;
  const auto since = [anew](const Freed& freed, std::int64_t earlier) {
    return freed.bytes - (anew ? 0 : earlier);
  };
  now.total.change = since(now.total, before.total.bytes);
  for (auto& [service, freed] : now.services) {
    const auto earlier = before.services.find(service);
    freed.change = since(freed, earlier != before.services.end() ? earlier->second.bytes : 0);
  }
}

}  // namespace

Purges purgesIn(const Stats& stats) {
  Purges purges;
  if (const auto found = stats.distributions.find("KelvanePurgeAmountPurged");
      found != stats.distributions.end())
    purges.count = counted(found->second.count);
  if (const auto found = stats.counters.find("KelvanePurgeFailed"); found != stats.counters.end())
    purges.fell_short = counted(found->second);
  for (const auto& [key, figure] : stats.counters) {
    if (!key.ends_with(freed_suffix)) continue;
    const std::string service = key.substr(0, key.size() - freed_suffix.size());
    (service == of_all ? purges.total : purges.services[service]).bytes = whole(figure);
  }
  return purges;
}

void noteChanges(Look& now, const Look& before) {
  noteVolumes(now.status, before.status);
  if (now.purges && before.purges) notePurges(*now.purges, *before.purges);
}

std::string watchScreen(const Look& look, const std::string& hint, const Screen& screen) {
  const std::size_t room = screen.width - columns(look.time);
  std::string text = look.time;
  if (!hint.empty()) text += coloured(screen, Colour::dim, rightAligned(cut(screen, hint, room - 1), room));
  text += "\n" + daemonScreen(look.status, screen) + "\n";
  text += volumesScreen(look.status.volumes, look.status.thresholds, screen, Changes::shown);
  return look.status.unreachable ? text : text + "\n" + purgesScreen(look.purges, screen);
}

Value watchValue(const Look& look) {
  Dictionary value = *statusValue(look.status).dictionary();
  value.set("command", "watch");
  value.set("time", look.time);
  if (look.purges) value.set("purges", purgesValue(*look.purges));
  return value;
}

}  // namespace kelvane::tools
