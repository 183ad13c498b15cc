#pragma once

#include <optional>
#include <string>

#include "support/log.h"

namespace kelvane {

/// Writes each line at once, in one write: to the journal, as an entry of priority warning (levels below 5)
/// or debug, or to a descriptor as "Kelvane[<pid>] <<level>> <line>". A line beyond 32 KiB is cut and says
/// so.
class StandardLogHandle final : public LogHandle {
 public:
  enum class Sink { descriptor, journal };

  StandardLogHandle(int threshold, Sink sink, int descriptor)
      : threshold_(threshold), sink_(sink), descriptor_(descriptor) {}
  [[nodiscard]] int threshold() const override { return threshold_; }
  void write(int level, std::string_view line) override;

 private:
  // All constant.
  const int threshold_;
  const Sink sink_;
  const int descriptor_;  // not owned
};

/// "0" to "5" as a number; nothing for any other text.
[[nodiscard]] std::optional<int> logThreshold(std::string_view text);

}  // namespace kelvane
