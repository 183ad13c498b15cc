#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::client {

/// Patterns for paths, matched name by name on the way down. For each pattern one word says which of its
/// parts may match the next name, so a path costs the same however often "**" occurs.
class CachePatterns {
 public:
  static constexpr std::size_t most_patterns = 256;
  static constexpr std::size_t most_parts = 63;
  static constexpr std::size_t most_bytes = 4096;

  /// For each pattern, a bit for each part that may match the next name. The bit after the last: the path
  /// matches.
  using State = std::uint64_t;

  /// Why a pattern is invalid; empty when it is valid.
  [[nodiscard]] static std::string problemIn(const std::string& pattern);
  /// The patterns must be valid.
  explicit CachePatterns(const std::vector<std::string>& patterns);

  [[nodiscard]] std::size_t size() const { return patterns_.size(); }
  /// The states at the directory that paths are relative to. `states` has size() words, here and below.
  void begin(State* states) const;
  /// Sets `to` to the states below a name in `from`.
  void enter(const State* from, const char* name, State* to) const;
  /// Whether the path that leads to `states` matches.
  [[nodiscard]] bool match(const State* states) const;
  /// Whether a path of this name in `from` matches.
  [[nodiscard]] bool match(const State* from, const char* name) const;
  /// Whether anything below can match.
  [[nodiscard]] bool canMatchBelow(const State* states) const;
  /// Whether a name directly in here can match.
  [[nodiscard]] bool canMatchHere(const State* states) const;

 private:
  struct Part {
    enum class Kind : std::uint8_t { literal, anyName, anyNames, glob };
    Kind kind = Kind::literal;
    std::string text;
    [[nodiscard]] bool matches(const char* name) const;
  };
  struct Pattern {
    std::vector<Part> parts;
    State final = 0;  // the parts that may match the last name
    [[nodiscard]] State matched() const { return State{1} << parts.size(); }
    [[nodiscard]] State withEmptyRuns(State state) const;
    [[nodiscard]] State after(State state, const char* name) const;
  };

  std::vector<Pattern> patterns_;
};

}  // namespace kelvane::client
