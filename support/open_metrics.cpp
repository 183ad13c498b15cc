#include <fmt/format.h>
#include <cmath>
#include <iterator>

#include "support/statistics.h"

namespace kelvane {
namespace {

std::string escaped(const std::string& label) {
  std::string result;
  for (const char c : label) {
    if (c == '\n') {
      result += "\\n";
      continue;
    }
    if (c == '\\' || c == '"') result += '\\';
    result += c;
  }
  return result;
}

std::string number(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value < 0 ? "-Inf" : "+Inf";
  return fmt::format("{}", value);
}

using Domains = std::map<std::string, Statistics>;

void family(std::string& text, const char* name, const char* type, const char* help) {
  text += fmt::format("# TYPE {0} {1}\n# HELP {0} {2}\n", name, type, help);
}

void sample(std::string& text, const char* name, const std::string& domain, const std::string& key,
            const std::string& value) {
  fmt::format_to(std::back_inserter(text), "{}{{domain=\"{}\",key=\"{}\"}} {}\n", name, escaped(domain),
                 escaped(key), value);
}

/// Calls `each(domain, key, distribution)` for all distributions.
template <class Each>
void forDistributions(const Domains& domains, Each each) {
  for (const auto& [domain, statistics] : domains) {
    for (const auto& [key, distribution] : statistics.distributions) each(domain, key, distribution);
  }
}

}  // namespace

std::string openMetricsText(const Domains& domains) {
  std::string text;
  family(text, "kelvane_reports", "counter", "What was reported, by key.");
  for (const auto& [domain, statistics] : domains) {
    for (const auto& [key, count] : statistics.counters) {
      sample(text, "kelvane_reports_total", domain, key, std::to_string(count));
    }
  }
  family(text, "kelvane_samples", "summary", "Distributions of samples, by key.");
  forDistributions(domains, [&](const auto& domain, const auto& key, const Distribution& it) {
    sample(text, "kelvane_samples_count", domain, key, std::to_string(it.count));
    sample(text, "kelvane_samples_sum", domain, key, number(it.sum));
  });
  family(text, "kelvane_samples_least", "gauge", "The least sample, by key.");
  forDistributions(domains, [&](const auto& domain, const auto& key, const Distribution& it) {
    sample(text, "kelvane_samples_least", domain, key, number(it.least));
  });
  family(text, "kelvane_samples_most", "gauge", "The greatest sample, by key.");
  forDistributions(domains, [&](const auto& domain, const auto& key, const Distribution& it) {
    sample(text, "kelvane_samples_most", domain, key, number(it.most));
  });
  return text + "# EOF\n";
}

}  // namespace kelvane
