#pragma once

// The form in which a suite stores the value of a row. Internal to this directory.
//
// A checksum of eight bytes, little-endian, then the archive. A dictionary has only the checksum, since its
// entries are rows of their own. The checksum is 64-bit FNV-1a over the row's key, its entry and the archive;
// key and entry each follow their length in eight bytes. It detects a row that changed on the disk, or that
// is stored under a different key than it was written to.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kelvane::foundation {

using Bytes = std::span<const std::uint8_t>;

[[nodiscard]] std::string sealedRow(std::string_view key, std::string_view entry, Bytes archive);

/// The archive, a view into `row`; nothing when the row does not match its checksum.
[[nodiscard]] std::optional<Bytes> unsealedRow(std::string_view key, std::string_view entry, Bytes row);

}  // namespace kelvane::foundation
