#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kelvane/value.h"

namespace kelvane::test {

/// Lays out a binary property list from its encoded objects, the first of which is the root. Each test spells
/// the objects out, so that it can also spell out broken ones.
inline Data::Bytes binaryList(const std::vector<std::string>& objects, std::uint8_t reference_size = 1) {
  std::string file = "bplist00";
  std::string offsets;
  const auto append = [](std::string& out, std::uint64_t number, int size) {
    for (int i = size - 1; i >= 0; --i) out += static_cast<char>(number >> (8 * i));
  };
  for (const std::string& object : objects) {
    append(offsets, file.size(), 4);
    file += object;
  }
  const std::size_t table = file.size();
  file += offsets + std::string(6, '\0');
  append(file, 4, 1);
  append(file, reference_size, 1);
  append(file, objects.size(), 8);
  append(file, 0, 8);
  append(file, table, 8);
  return {file.begin(), file.end()};
}

/// Object text with NUL bytes in it, from a literal.
template <std::size_t Size>
std::string object(const char (&literal)[Size]) {
  return std::string(literal, Size - 1);
}

}  // namespace kelvane::test
