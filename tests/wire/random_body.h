#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <string_view>

#include "platform/wire/reader.h"
#include "platform/wire/writer.h"

namespace kelvane::wire {

/// Signatures and values that are the same for the same seed.
class RandomBody {
 public:
  explicit RandomBody(std::uint32_t seed) : random_(seed) {}

  /// Of up to four complete types.
  [[nodiscard]] std::string signature();
  /// Writes values for all of `signature`.
  void write(Writer& writer, std::string_view signature, int depth = 0);

 private:
  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_()) % limit; }
  [[nodiscard]] std::string completeType(int depth);
  [[nodiscard]] std::string text();
  void writeOne(Writer& writer, std::string_view type, int depth);
  void writeArray(Writer& writer, std::string_view element, int depth);

  std::mt19937 random_;
};

/// Writes what the reader's innermost container has left.
void transcribe(Reader& reader, Writer& writer);

}  // namespace kelvane::wire
