// What kelvanectl reads: the daemon's metrics, its answers and its record of figures, values as JSON, and
// thresholds. The first byte of the input chooses which; the second the screen. Names in all of them come
// from services, and reach a terminal.

#include <algorithm>
#include <sstream>

#include "common/keys.h"
#include "fuzz/target.h"
#include "fuzz/values.h"
#include "kelvane/purge_report.h"
#include "platform/foundation/archive.h"
#include "support/space_thresholds.h"
#include "tools/json.h"
#include "tools/purge.h"
#include "tools/purgeable.h"
#include "tools/screen.h"
#include "tools/stats.h"

namespace kelvane::fuzz {
namespace {

using tools::Screen;

/// Without colours, so that any control character in what is printed comes from the input.
Screen screenFor(std::uint8_t choice) {
  constexpr unsigned narrowest = 40;
  Screen screen;
  screen.width = narrowest + (choice >> 1U);
  screen.unicode = (choice & 1U) != 0;
  return screen;
}

void requireThatItCanBePrinted(const std::string& text, const Screen& screen) {
  require(std::none_of(text.begin(), text.end(),
                       [](char c) { return (c >= 0 && c < ' ' && c != '\n') || c == 0x7F; }),
          "no control character reaches the terminal");
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    require(tools::columns(line) <= screen.width, "no line is wider than the screen");
}

void requireJson(const Value& value) {
  const std::string text = tools::jsonText(value);
  require(tools::readJson(text).valid, "what is written as JSON can be read");
  require(std::count(text.begin(), text.end(), '\n') >= 1 && text.back() == '\n', "JSON ends its line");
  const std::string line = tools::jsonLine(value);
  require(std::count(line.begin(), line.end(), '\n') == 1, "a line of JSON is one line");
}

void examineMetrics(const std::string& text, const Screen& screen) {
  const tools::Stats stats = tools::readStats(text);
  requireThatItCanBePrinted(tools::statsScreen(stats, screen), screen);
  requireJson(tools::statsValue(stats));
}

void examineJson(const std::string& text) {
  const tools::ReadJson read = tools::readJson(text);
  if (!read.valid) return;
  const tools::ReadJson again = tools::readJson(tools::jsonText(read.value));
  require(again.valid && same(read.value, again.value),
          "what was read, written and read again is the same value");
  requireJson(read.value);
}

void examineThresholds(const std::string& text) {
  const std::size_t cut = text.find(';');
  const std::string low = text.substr(0, cut);
  const std::string very_low = cut == std::string::npos ? "" : text.substr(cut + 1);
  const auto read = parseSpaceThresholds(low.c_str(), cut == std::string::npos ? nullptr : very_low.c_str());
  if (const auto* problem = std::get_if<ThresholdProblem>(&read))
    require(!problem->text.empty(), "a problem has a text");
}

/// The answer is an archive, because any value that the daemon sends can be archived; null when it is not.
const Dictionary* answerIn(const Value& value) { return value.dictionary(); }

void examinePurge(const Dictionary& answer, const Screen& screen) {
  tools::Purged purged;
  purged.volume = "/var";
  purged.asked = answer["asked"].unsignedLongLongValue();
  purged.report = client::readPurgeReport(answer);
  purged.cancelled = purged.report.cancelled;
  requireThatItCanBePrinted(tools::purgeScreen(purged, screen), screen);
  requireJson(tools::purgeValue(purged));
  const std::string progress = tools::progressLine("/var", tools::measured(purged.report), purged.asked,
                                                   purged.report.seconds, screen);
  requireThatItCanBePrinted(progress, screen);
}

void examinePurgeable(const Dictionary& answer, const Screen& screen) {
  const Date now{answer["now"].longLongValue()};
  const tools::Purgeable purgeable = tools::readPurgeable("/var", answer, answer["record"], now);
  require(purgeable.figures.size() <= answer.size(), "a figure is an entry of the answer");
  requireThatItCanBePrinted(tools::purgeableScreen({purgeable}, screen), screen);
  requireJson(tools::purgeableValue({purgeable}));
}

}  // namespace

void examine(std::span<const std::uint8_t> input) {
  Choices choices(input);
  const std::uint8_t what = choices.byte();
  const Screen screen = screenFor(choices.byte());
  const auto subject = choices.rest();
  if (what == 'm') return examineMetrics(textOf(subject), screen);
  if (what == 'j') return examineJson(textOf(subject));
  if (what == 't') return examineThresholds(textOf(subject));
  const Value value = unarchivedValue(subject);
  const Dictionary* answer = answerIn(value);
  if (answer == nullptr) return;
  if (what == 'p') examinePurge(*answer, screen);
  if (what == 'f') examinePurgeable(*answer, screen);
}

}  // namespace kelvane::fuzz
