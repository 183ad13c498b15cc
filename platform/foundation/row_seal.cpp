#include "platform/foundation/row_seal.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace kelvane::foundation {
namespace {

using Seal = std::array<std::uint8_t, 8>;

Seal littleEndian(std::uint64_t number) {
  Seal bytes{};
  for (std::uint8_t& byte : bytes) {
    byte = static_cast<std::uint8_t>(number);
    number >>= 8;
  }
  return bytes;
}

Bytes bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

class Checksum {
 public:
  void add(Bytes bytes) {
    for (const std::uint8_t byte : bytes) hash_ = (hash_ ^ byte) * 0x100000001b3;
  }
  void addName(std::string_view name) {
    add(littleEndian(name.size()));
    add(bytesOf(name));
  }
  [[nodiscard]] Seal seal() const { return littleEndian(hash_); }

 private:
  std::uint64_t hash_ = 0xcbf29ce484222325;
};

Seal sealOf(std::string_view key, std::string_view entry, Bytes archive) {
  Checksum checksum;
  checksum.addName(key);
  checksum.addName(entry);
  checksum.add(archive);
  return checksum.seal();
}

}  // namespace

std::string sealedRow(std::string_view key, std::string_view entry, Bytes archive) {
  const Seal seal = sealOf(key, entry, archive);
  std::string row(seal.begin(), seal.end());
  row.append(archive.begin(), archive.end());
  return row;
}

std::optional<Bytes> unsealedRow(std::string_view key, std::string_view entry, Bytes row) {
  if (row.size() < Seal().size()) return std::nullopt;
  const Bytes archive = row.subspan(Seal().size());
  const Seal seal = sealOf(key, entry, archive);
  if (!std::equal(seal.begin(), seal.end(), row.begin())) return std::nullopt;
  return archive;
}

}  // namespace kelvane::foundation
