#include "tools/purgeable.h"

#include <fmt/format.h>
#include <algorithm>
#include <cmath>

#include "common/keys.h"
#include "platform/host/time.h"
#include "support/recent_info.h"
#include "support/volumes.h"
#include "tools/amount.h"
#include "tools/commands.h"
#include "tools/daemon_client.h"
#include "tools/json.h"
#include "tools/volume_of.h"

namespace kelvane::tools {
namespace {

constexpr std::chrono::seconds patience(60);  // a question takes up to eleven seconds, those before it too
constexpr std::size_t narrow = 60;
constexpr std::size_t amount_width = 10;
constexpr std::size_t age_width = 11;  // "59 min 59 s"

/// The figures of one volume in the record; null when it holds none.
const RecentServices* recordedOn(const KelvaneRecentInfo* record, const std::string& volume) {
  if (record == nullptr) return nullptr;
  const auto found = record->volumes().find(volume);
  return found != record->volumes().end() ? &found->second.services() : nullptr;
}

bool isGreater(const Figure& a, const Figure& b) {
  if (a.bytes != b.bytes) return a.bytes > b.bytes;
  return a.service < b.service;
}

std::string bytesText(const Figure& figure) {
  return figure.bytes ? inUnitsSigned(*figure.bytes) : "no number";
}

std::string ageText(const Figure& figure) {
  if (!figure.age) return "-";
  if (*figure.age < 1) return "now";
  std::string text = inTime(std::floor(*figure.age));
  if (text.size() > age_width)
    text = text.substr(0, text.find(" h ") + 2);  // 100 hours and more need no minutes
  return text.size() > age_width ? "long ago" : text;
}

/// Narrow screens have the bar and the age on a line of their own.
std::string row(const Screen& screen, const Figure& figure, const Bar& bar, std::size_t name_width) {
  std::string text = fitted(screen, printable(screen, figure.service), name_width) + "  " +
                     rightAligned(bytesText(figure), amount_width);
  const std::string age = ageText(figure);
  if (screen.width >= narrow) {
    const std::size_t bar_width = screen.width - name_width - amount_width - age_width - 6;
    text += "  " + drawn(screen, bar, bar_width) + "  " + rightAligned(age, age_width);
  } else {
    text += "\n  " + drawn(screen, bar, screen.width - age_width - 4) + "  " + rightAligned(age, age_width);
  }
  return text + "\n";
}

std::size_t nameWidth(const Purgeable& purgeable, const Screen& screen) {
  std::size_t widest = 7;
  for (const Figure& figure : purgeable.figures)
    widest = std::max(widest, columns(printable(screen, figure.service)));
  return screen.width < narrow ? screen.width - amount_width - 2
                               : std::min<std::size_t>(widest, screen.width * 2 / 5);
}

std::string volumeScreen(const Purgeable& purgeable, const Screen& screen) {
  std::string text = coloured(screen, Colour::bold, printable(screen, purgeable.volume)) + "\n";
  if (purgeable.figures.empty()) return text + "No service keeps anything here.\n";
  const std::size_t name_width = nameWidth(purgeable, screen);
  if (screen.width >= narrow) {
    text += fmt::format("{}  {}  {}  {}\n", fitted(screen, "Service", name_width),
                        rightAligned("Could free", amount_width),
                        std::string(screen.width - name_width - amount_width - age_width - 6, ' '),
                        rightAligned("Age", age_width));
  }
  const double most = std::max(1.0, static_cast<double>(purgeable.figures.front().bytes.value_or(0)));
  for (const Figure& figure : purgeable.figures) {
    const double part = static_cast<double>(std::max<std::int64_t>(figure.bytes.value_or(0), 0)) / most;
    text += row(screen, figure, {part, {}, Colour::green}, name_width);
  }
  const std::string total =
      fitted(screen, "Total", name_width) + "  " + rightAligned(inUnitsSigned(purgeable.total), amount_width);
  return text + coloured(screen, Colour::bold, total) + "\n";
}

Value figureValue(const Figure& figure) {
  Dictionary entry{{"service", figure.service}};
  if (figure.bytes) entry.set("bytes", *figure.bytes);
  if (figure.age) entry.set("age_seconds", *figure.age);
  return entry;
}

Purgeable gather(client::Client& daemon, const std::string& socket, const std::string& volume, int urgency) {
  const Dictionary request{{KELVANE_VOLUME, volume}, {KELVANE_URGENCY_LIMIT, urgency}};
  const auto answer = ask<Dictionary>(
      patience, [&](auto completion) { daemon.itemizedPurgeableSpace(request, std::move(completion)); });
  if (!answer) throw problemOf(answer.error(), socket);
  const auto record = ask<Value>(patience, [&](auto completion) {
    daemon.getState(KELVANE_RECENT_SERVICE_STATS, std::move(completion));
  });
  return readPurgeable(volume, *answer, record ? *record : Value(), currentDate());
}

}  // namespace

Purgeable readPurgeable(const std::string& volume, const Dictionary& answer, const Value& record, Date now) {
  const auto recorded = record.data() != nullptr ? unarchivedRecentInfo(*record.data()) : nullptr;
  const RecentServices* const services = recordedOn(recorded.get(), volume);
  Purgeable purgeable{volume, answer[KELVANE_TOTAL_AVAILABLE].longLongValue(), {}};
  for (const auto& [service, figure] : answer) {
    if (service == KELVANE_TOTAL_AVAILABLE || service == KELVANE_VOLUME) continue;
    Figure& entry = purgeable.figures.emplace_back();
    entry.service = service;
    if (figure.isNumber()) entry.bytes = figure.longLongValue();
    if (services == nullptr) continue;
    if (const auto found = services->find(service); found != services->end())
      entry.age = std::max(0.0, now.secondsSince(found->second.timestamp()));
  }
  std::sort(purgeable.figures.begin(), purgeable.figures.end(), isGreater);
  return purgeable;
}

std::string purgeableScreen(const std::vector<Purgeable>& volumes, const Screen& screen) {
  std::string text;
  for (const Purgeable& purgeable : volumes)
    text += (text.empty() ? "" : "\n") + volumeScreen(purgeable, screen);
  return text.empty() ? "There is no local volume.\n" : text;
}

Value purgeableValue(const std::vector<Purgeable>& volumes) {
  Array list;
  for (const Purgeable& purgeable : volumes) {
    Array figures;
    for (const Figure& figure : purgeable.figures) figures.append(figureValue(figure));
    list.append(
        Dictionary{{"path", purgeable.volume}, {"total_bytes", purgeable.total}, {"services", figures}});
  }
  return Dictionary{{"command", "purgeable"}, {"volumes", list}};
}

int purgeableCommand(const Options& options, const Screen& screen) {
  const std::string socket = socketOf(options);
  client::Client daemon({socket});
  std::vector<std::string> paths = getLocalVolumes();
  if (!options.volume.empty()) paths = {volumeOf(options.volume)};
  std::vector<Purgeable> volumes;
  volumes.reserve(paths.size());
  for (const std::string& path : paths) volumes.push_back(gather(daemon, socket, path, options.urgency));
  print(options.json ? jsonText(purgeableValue(volumes)) : purgeableScreen(volumes, screen));
  return exit_met;
}

}  // namespace kelvane::tools
