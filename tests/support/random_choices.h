#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

namespace kelvane::test {

/// Random choices that follow from a number, and so can be made again.
class RandomChoices {
 public:
  explicit RandomChoices(std::uint64_t number) : engine_(number) {}
  [[nodiscard]] std::size_t below(std::size_t count) { return engine_() % count; }
  [[nodiscard]] bool oneIn(std::size_t count) { return below(count) == 0; }

 private:
  std::mt19937_64 engine_;
};

/// What an environment variable asks of a test, such as how often to try.
[[nodiscard]] inline std::uint64_t numberFromEnvironment(const char* variable, std::uint64_t otherwise) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? otherwise : std::stoull(text);
}

}  // namespace kelvane::test
