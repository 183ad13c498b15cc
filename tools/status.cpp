#include "tools/status.h"

#include <fmt/format.h>
#include <algorithm>
#include <fstream>
#include <iterator>
#include <variant>

#include "kelvane/launch.h"
#include "platform/xpc/connection.h"
#include "support/space_thresholds.h"
#include "tools/amount.h"
#include "tools/commands.h"
#include "tools/daemon_client.h"
#include "tools/json.h"

namespace kelvane::tools {
namespace {

constexpr std::size_t narrow = 66;  // below it, two lines for each volume
constexpr std::size_t amount_width = 10;
constexpr std::size_t state_width = 8;

std::uint64_t limitOf(const SpaceLimit& limit, const VolumeSpace& space) {
  const double part = limit.of_bytes_total * static_cast<double>(space.bytes_total);
  return part < static_cast<double>(limit.bytes) ? static_cast<std::uint64_t>(part) : limit.bytes;
}

const char* nameOf(SpaceLevel level) {
  switch (level) {
    case SpaceLevel::low:
      return "low";
    case SpaceLevel::very_low:
      return "very low";
    case SpaceLevel::plenty:
      break;
  }
  return "ok";
}

Colour colourOf(SpaceLevel level) {
  return level == SpaceLevel::plenty ? Colour::green
         : level == SpaceLevel::low  ? Colour::yellow
                                     : Colour::red;
}

Bar barOf(const VolumeSpace& space, SpaceLevel level, const SpaceThresholds& thresholds) {
  if (space.bytes_total == 0) return {};
  const auto total = static_cast<double>(space.bytes_total);
  const auto used = [total](std::uint64_t free) { return 1 - static_cast<double>(free) / total; };
  Bar bar{used(space.bytes_free), {}, colourOf(level)};
  for (const SpaceLimit& limit : {thresholds.low, thresholds.very_low}) {
    if (const std::uint64_t bytes = limitOf(limit, space); bytes != 0) bar.marks.push_back(used(bytes));
  }
  return bar;
}

/// Where the levels come from the daemon's environment, an error in it leaves them at their defaults, as
/// there.
SpaceThresholds thresholdsOf(const std::variant<SpaceThresholds, ThresholdProblem>& read) {
  const auto* const thresholds = std::get_if<SpaceThresholds>(&read);
  return thresholds != nullptr ? *thresholds : SpaceThresholds();
}

std::string busyText(const std::optional<std::uint64_t>& transactions, const Screen& screen) {
  if (!transactions) return "";
  if (*transactions == 0) return ", idle";
  if (screen.width < narrow) return fmt::format(", busy ({})", *transactions);
  return fmt::format(", busy ({} transaction{})", *transactions, *transactions == 1 ? "" : "s");
}

std::string daemonLine(const Status& status, const Screen& screen) {
  const std::string socket = printable(screen, status.socket);
  if (status.unreachable) {
    const auto line = [&](const std::string& text) {
      return "\n           " + cut(screen, text, screen.width - 11);
    };
    return coloured(screen, Colour::red, "not reachable") + line(socket) +
           line(printable(screen, status.unreachable->reason));
  }
  const std::string busy = busyText(status.transactions, screen);
  const std::string reachable = coloured(screen, Colour::green, "reachable");
  if (screen.width < narrow)
    return reachable + busy + "\n           " + cut(screen, socket, screen.width - 11);
  return reachable + " at " + cut(screen, socket, screen.width - 24 - columns(busy)) + busy;
}

/// How the columns of the table share the width.
struct Columns {
  std::size_t name;
  std::size_t bar;
  Changes changes;
};

Columns columnsOf(const std::vector<VolumeStatus>& volumes, const Screen& screen, Changes changes) {
  std::size_t name = 6;
  for (const VolumeStatus& volume : volumes) name = std::max(name, columns(printable(screen, volume.path)));
  name = std::min<std::size_t>(name, screen.width / (changes == Changes::shown ? 4 : 3));
  const std::size_t figures =
      2 * amount_width + state_width + (changes == Changes::shown ? change_width + 2 : 0);
  const std::size_t taken = name + figures + 8;
  return {name, screen.width > taken ? screen.width - taken : 0, changes};
}

std::string wideHead(const Columns& table, const Screen& screen) {
  const std::string change =
      table.changes == Changes::shown ? "  " + rightAligned("Change", change_width) : "";
  return coloured(screen, Colour::bold,
                  fmt::format("{}  {}  {}  {}{}  State", fitted(screen, "Volume", table.name),
                              fitted(screen, "Used", table.bar), rightAligned("Free", amount_width),
                              rightAligned("Size", amount_width), change));
}

std::string wideLine(const VolumeStatus& volume, const SpaceThresholds& thresholds, const Screen& screen,
                     const Columns& table) {
  const std::string name = fitted(screen, printable(screen, volume.path), table.name);
  if (!volume.space) return name + "  " + coloured(screen, Colour::red, "does not answer");
  const std::string change = table.changes == Changes::shown ? "  " + changeText(volume.change, screen) : "";
  return fmt::format("{}  {}  {}  {}{}  {}", name,
                     drawn(screen, barOf(*volume.space, volume.level, thresholds), table.bar),
                     rightAligned(inUnits(volume.space->bytes_free), amount_width),
                     rightAligned(inUnits(volume.space->bytes_total), amount_width), change,
                     coloured(screen, colourOf(volume.level), nameOf(volume.level)));
}

std::string narrowLines(const VolumeStatus& volume, const SpaceThresholds& thresholds, const Screen& screen,
                        Changes changes) {
  const std::string state = volume.space ? nameOf(volume.level) : "does not answer";
  const Colour colour = volume.space ? colourOf(volume.level) : Colour::red;
  const bool shows_change = changes == Changes::shown && volume.space;
  const std::size_t taken = columns(state) + 1 + (shows_change ? change_width + 1 : 0);
  std::string head = fitted(screen, printable(screen, volume.path), screen.width - taken) + " " +
                     (shows_change ? changeText(volume.change, screen) + " " : "") +
                     coloured(screen, colour, state);
  if (!volume.space) return head;
  const std::string figures =
      fmt::format("{} of {}", inUnits(volume.space->bytes_free), inUnits(volume.space->bytes_total));
  return head + "\n  " + drawn(screen, barOf(*volume.space, volume.level, thresholds), screen.width - 27) +
         "  " + rightAligned(figures, 23);
}

Value volumeValue(const VolumeStatus& volume, const SpaceThresholds& thresholds) {
  Dictionary entry{{"path", volume.path}, {"answers", volume.space.has_value()}};
  if (!volume.space) return entry;
  entry.set("level", nameOf(volume.level));
  entry.set("bytes_free", volume.space->bytes_free);
  entry.set("bytes_total", volume.space->bytes_total);
  entry.set("files_free", volume.space->files_free);
  entry.set("files_total", volume.space->files_total);
  entry.set("low_below_bytes", limitOf(thresholds.low, *volume.space));
  entry.set("very_low_below_bytes", limitOf(thresholds.very_low, *volume.space));
  if (volume.change) entry.set("change_bytes", *volume.change);
  return entry;
}

}  // namespace

Status gatherStatus(const Options& options, std::chrono::seconds patience, const Status* earlier) {
  Status status;
  status.socket = socketOf(options);
  client::Client daemon({status.socket});
  const auto answer = ask<Value>(
      patience, [&](auto completion) { daemon.getState(KELVANE_CACHE_ENABLED, std::move(completion)); });
  if (!answer) status.unreachable = answer.error();
  if (answer) {
    if (const auto count = client::LaunchSocket(launchSocketOf(options), patience).transactions())
      status.transactions = *count;
  }
  const auto thresholds = answer ? daemonsThresholds(status.socket) : std::nullopt;
  status.thresholds_are_the_daemons = thresholds.has_value();
  status.thresholds = thresholds ? *thresholds : thresholdsOf(spaceThresholdsOfEnvironment());
  if (!answer && earlier != nullptr) {
    status.thresholds_are_the_daemons = earlier->thresholds_are_the_daemons;
    status.thresholds = earlier->thresholds;
  }
  setSpaceThresholds(status.thresholds);
  status.volumes = lookAtVolumes();
  return status;
}

std::optional<SpaceThresholds> daemonsThresholds(const std::string& socket) {
  const auto connection = xpc::Connection::initWithSocketPath(socket);
  if (!connection->credentials()) return std::nullopt;
  std::ifstream file(fmt::format("/proc/{}/environ", connection->credentials()->pid), std::ios::binary);
  if (!file) return std::nullopt;
  std::optional<std::string> low;
  std::optional<std::string> very_low;
  bool any = false;
  for (std::string variable; std::getline(file, variable, '\0'); any = true) {
    const auto value = [&variable](const char* name) -> std::optional<std::string> {
      const std::string beginning = std::string(name) + "=";
      return variable.starts_with(beginning) ? std::optional(variable.substr(beginning.size()))
                                             : std::nullopt;
    };
    if (auto said = value(low_space_variable)) low = std::move(said);
    if (auto said = value(very_low_space_variable)) very_low = std::move(said);
  }
  if (!any) return std::nullopt;
  return thresholdsOf(
      parseSpaceThresholds(low ? low->c_str() : nullptr, very_low ? very_low->c_str() : nullptr));
}

std::vector<VolumeStatus> lookAtVolumes() {
  std::vector<VolumeStatus> volumes;
  for (const std::string& path : getLocalVolumes()) {
    const std::optional<VolumeLook> look = lookAtVolume(path);
    volumes.push_back(
        {path, look ? std::optional(look->space) : std::nullopt, look ? look->level : SpaceLevel::plenty});
  }
  return volumes;
}

std::string changeText(const std::optional<std::int64_t>& bytes, const Screen& screen) {
  if (bytes.value_or(0) == 0) return std::string(change_width, ' ');
  const std::string text = (*bytes > 0 ? "+" : "") + inUnitsSigned(*bytes);
  return coloured(screen, *bytes > 0 ? Colour::green : Colour::yellow, rightAligned(text, change_width));
}

std::string volumesScreen(const std::vector<VolumeStatus>& volumes, const SpaceThresholds& thresholds,
                          const Screen& screen, Changes changes) {
  if (volumes.empty()) return "There is no local volume.\n";
  const Columns table = columnsOf(volumes, screen, changes);
  const bool wide = screen.width >= narrow + (changes == Changes::shown ? change_width + 2 : 0);
  std::string text = wide ? wideHead(table, screen) + "\n" : "";
  for (const VolumeStatus& volume : volumes) {
    text +=
        wide ? wideLine(volume, thresholds, screen, table) : narrowLines(volume, thresholds, screen, changes);
    text += "\n";
  }
  return text;
}

std::string daemonScreen(const Status& status, const Screen& screen) {
  return "Daemon     " + daemonLine(status, screen) + "\n";
}

std::string statusScreen(const Status& status, const Screen& screen) {
  std::string text = daemonScreen(status, screen) + "\n";
  text += volumesScreen(status.volumes, status.thresholds, screen);
  if (!status.unreachable && !status.thresholds_are_the_daemons) {
    text += coloured(screen, Colour::dim,
                     screen.width < narrow
                         ? "\nThe daemon may count others as low:\nits settings cannot be read.\n"
                         : "\nThe daemon may count others as low: this user cannot read its settings.\n");
  }
  return text;
}

Value statusValue(const Status& status) {
  Dictionary daemon{{"reachable", !status.unreachable}, {"socket", status.socket}};
  if (status.unreachable) daemon.set("problem", status.unreachable->reason);
  if (status.transactions) {
    daemon.set("transactions", *status.transactions);
    daemon.set("busy", *status.transactions != 0);
  }
  Array volumes;
  for (const VolumeStatus& volume : status.volumes) volumes.append(volumeValue(volume, status.thresholds));
  return Dictionary{{"command", "status"},
                    {"daemon", daemon},
                    {"thresholds_of", status.thresholds_are_the_daemons ? "daemon" : "this process"},
                    {"volumes", volumes}};
}

int statusCommand(const Options& options, const Screen& screen) {
  const Status status = gatherStatus(options, std::chrono::seconds(5));
  print(options.json ? jsonText(statusValue(status)) : statusScreen(status, screen));
  if (status.unreachable) throw problemOf(*status.unreachable, status.socket);
  return exit_met;
}

}  // namespace kelvane::tools
