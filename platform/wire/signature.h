#pragma once

#include <cstddef>
#include <string_view>

namespace kelvane::wire {

/// Whether `text` is a sequence of complete types, at most 255 bytes, nested no deeper than D-Bus allows.
[[nodiscard]] bool isSignature(std::string_view text);
/// Whether it is exactly one complete type.
[[nodiscard]] bool isCompleteType(std::string_view text);
/// The length of the first complete type of a valid signature that is not empty.
[[nodiscard]] std::size_t completeTypeLength(std::string_view signature);
/// The alignment of the type that begins with this code: 1, 2, 4 or 8.
[[nodiscard]] std::size_t alignmentOf(char type);
/// A number, boolean, string, object path, signature or descriptor.
[[nodiscard]] bool isBasicType(char type);

}  // namespace kelvane::wire
