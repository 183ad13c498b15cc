#pragma once

// The form in which a suite keeps the value of a row. Internal to this folder.
//
// The eight bytes of a checksum, little-endian, and the archive: nothing but the checksum for a dictionary,
// whose entries are rows of their own. The checksum is FNV-1a of 64 bits over the row's key, its entry and
// the archive, the first two each after its length in eight bytes. It tells a row that changed on the disk,
// or that stands under another key than it was written to.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kelvane::foundation {

using Bytes = std::span<const std::uint8_t>;

[[nodiscard]] std::string sealedRow(std::string_view key, std::string_view entry, Bytes archive);

/// The archive, within `row`; nothing when the row is not the one that was sealed.
[[nodiscard]] std::optional<Bytes> unsealedRow(std::string_view key, std::string_view entry, Bytes row);

}  // namespace kelvane::foundation
