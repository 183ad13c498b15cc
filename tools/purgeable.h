#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/value.h"
#include "tools/screen.h"

namespace kelvane::tools {

struct Figure {
  std::string service;
  std::optional<std::int64_t> bytes;  // nothing when the service said no number
  std::optional<double> age;          // seconds since it answered, where the daemon's record says so
};

/// What the services could free on one volume.
struct Purgeable {
  std::string volume;
  std::int64_t total = 0;
  std::vector<Figure> figures;  // the greatest first
};

/// `answer` is the daemon's; `record` its record of recent figures, from which the ages come.
[[nodiscard]] Purgeable readPurgeable(const std::string& volume, const Dictionary& answer,
                                      const Value& record, Date now);
[[nodiscard]] std::string purgeableScreen(const std::vector<Purgeable>& volumes, const Screen& screen);
[[nodiscard]] Value purgeableValue(const std::vector<Purgeable>& volumes);

}  // namespace kelvane::tools
