#include "bench/support/report.h"

#include <fmt/format.h>
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

namespace kelvane::bench {
namespace {

using Json = nlohmann::ordered_json;

Json jsonOf(const Quartiles& value) {
  return {{"median", value.median}, {"low", value.low}, {"high", value.high}};
}

Json jsonOf(const Figure& figure) {
  Json json{{"name", figure.name}, {"unit", figure.unit}, {"rounds", figure.rounds}};
  json.update(jsonOf(figure.value));
  if (figure.peer) {
    json["peer"] = {{"name", figure.peer->name}};
    json["peer"].update(jsonOf(figure.peer->value));
    json["ratio"] = jsonOf(figure.peer->ratio);
  }
  if (figure.goal) {
    json["goal"] = {{"of", figure.goal->of == Goal::Of::ratio ? "ratio" : "median"},
                    {figure.goal->side == Goal::Side::most ? "most" : "least", figure.goal->value}};
  }
  if (!figure.note.empty()) json["note"] = figure.note;
  return json;
}

std::string textOf(const Quartiles& value) {
  return fmt::format("{:.2f} ({:.2f} .. {:.2f})", value.median, value.low, value.high);
}

}  // namespace

Series distributionOf(const std::string& name, std::vector<double> samples) {
  constexpr std::size_t points = 200;
  std::sort(samples.begin(), samples.end());
  Series series{name, {}, {}};
  const std::size_t step = std::max<std::size_t>(1, samples.size() / points);
  for (std::size_t i = 0; i < samples.size(); i += step) {
    series.x.push_back(samples[i]);
    series.y.push_back(100.0 * static_cast<double>(i + 1) / static_cast<double>(samples.size()));
  }
  return series;
}

void Report::add(std::vector<Figure> more) {
  std::move(more.begin(), more.end(), std::back_inserter(figures));
}

void Report::print() const {
  for (const Figure& figure : figures) {
    fmt::print("{}: {} {}", figure.name, textOf(figure.value), figure.unit);
    if (figure.peer) {
      fmt::print("; {}: {}; ratio {}", figure.peer->name, textOf(figure.peer->value),
                 textOf(figure.peer->ratio));
    }
    fmt::print("\n");
  }
}

void Report::write(const std::string& path) const {
  if (path.empty()) return;
  Json json{{"figures", Json::array()}, {"series", Json::array()}};
  for (const Figure& figure : figures) json["figures"].push_back(jsonOf(figure));
  for (const Series& each : series)
    json["series"].push_back({{"name", each.name}, {"x", each.x}, {"y", each.y}});
  std::ofstream out(path);
  out << json.dump(1) << "\n";
  if (out.flush()) return;
  fmt::print(stderr, "cannot write {}\n", path);
  std::exit(1);
}

}  // namespace kelvane::bench
