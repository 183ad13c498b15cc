#include "tools/stats.h"

#include <fmt/format.h>
#include <charconv>
#include <sstream>

#include "platform/foundation/whole_file.h"
#include "tools/commands.h"
#include "tools/daemon_client.h"
#include "tools/json.h"

namespace kelvane::tools {
namespace {

constexpr std::size_t figure_width = 12;

struct Line {
  std::string name;
  std::string key;
  double value = 0;
};

/// The text up to the closing quotation mark, unescaped; takes both off `rest`.
std::string takeLabel(std::string_view& rest) {
  std::string label;
  while (!rest.empty() && rest.front() != '"') {
    const bool escaped = rest.front() == '\\' && rest.size() > 1;
    if (escaped) rest.remove_prefix(1);
    label += escaped && rest.front() == 'n' ? '\n' : rest.front();
    rest.remove_prefix(1);
  }
  rest.remove_prefix(rest.empty() ? 0 : 1);
  return label;
}

/// name{domain="...",key="..."} value
bool readLine(std::string_view text, Line& line) {
  const std::size_t brace = text.find("{domain=\"");
  if (brace == std::string_view::npos) return false;
  line.name = text.substr(0, brace);
  text.remove_prefix(brace + std::string_view("{domain=\"").size());
  takeLabel(text);
  if (!text.starts_with(",key=\"")) return false;
  text.remove_prefix(std::string_view(",key=\"").size());
  line.key = takeLabel(text);
  if (!text.starts_with("} ")) return false;
  text.remove_prefix(2);
  return std::from_chars(text.data(), text.data() + text.size(), line.value).ec == std::errc();
}

std::string figure(double value) {
  std::string text = fmt::format("{:.6g}", value);
  if (text.size() > figure_width) text = fmt::format("{:.5g}", value);
  return rightAligned(text, figure_width);
}

std::string countText(double count) {
  const std::string text = fmt::format("{:.0f}", count);
  return text.size() <= figure_width ? rightAligned(text, figure_width) : figure(count);
}

}  // namespace

Stats readStats(const std::string& metrics) {
  Stats stats;
  std::istringstream lines(metrics);
  Line line;
  for (std::string text; std::getline(lines, text);) {
    if (!readLine(text, line)) continue;
    if (line.name == "kelvane_reports_total") stats.counters[line.key] = line.value;
    if (line.name == "kelvane_samples_count") stats.distributions[line.key].count = line.value;
    if (line.name == "kelvane_samples_sum") stats.distributions[line.key].sum = line.value;
    if (line.name == "kelvane_samples_least") stats.distributions[line.key].least = line.value;
    if (line.name == "kelvane_samples_most") stats.distributions[line.key].most = line.value;
  }
  return stats;
}

std::string statsScreen(const Stats& stats, const Screen& screen) {
  const std::size_t room = screen.width - figure_width - 1;
  std::string text = coloured(screen, Colour::bold, "Counters") + "\n";
  for (const auto& [key, count] : stats.counters) {
    text += fitted(screen, printable(screen, key), room) + " " + countText(count) + "\n";
  }
  text += "\n" + coloured(screen, Colour::bold, "Distributions: least, mean, most") + "\n";
  for (const auto& [key, it] : stats.distributions) {
    const double mean = it.count > 0 ? it.sum / it.count : 0;
    text += cut(screen, printable(screen, key), screen.width) + "\n  " + figure(it.least) + figure(mean) +
            figure(it.most) + "\n";
  }
  return text;
}

Value statsValue(const Stats& stats) {
  Dictionary counters;
  for (const auto& [key, count] : stats.counters) counters.set(key, count);
  Dictionary distributions;
  for (const auto& [key, it] : stats.distributions) {
    distributions.set(
        key, Dictionary{{"count", it.count}, {"sum", it.sum}, {"least", it.least}, {"most", it.most}});
  }
  return Dictionary{{"command", "stats"}, {"counters", counters}, {"distributions", distributions}};
}

std::string metricsFileOf(const Options& options) { return runtimePathOf(options, "metrics.prom"); }

int statsCommand(const Options& options, const Screen& screen) {
  const WholeFile file = readWholeFile(metricsFileOf(options), most_metrics_bytes);
  if (file.error)
    throw Problem(exit_failed, *file.error + "; the daemon writes it once it has something to count");
  const Stats stats = readStats(std::string(file.bytes.begin(), file.bytes.end()));
  print(options.json ? jsonText(statsValue(stats)) : statsScreen(stats, screen));
  return exit_met;
}

}  // namespace kelvane::tools
