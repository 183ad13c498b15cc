#pragma once

#include <cstddef>
#include <string_view>

namespace kelvane {

/// True when `text` is UTF-8 as messages carry it: no overlong form, no surrogate, nothing above U+10FFFF,
/// and no NUL, which would end the text for whoever reads it as a C string.
[[nodiscard]] bool isMessageText(std::string_view text);

/// How many bytes at the front of `text` are ASCII and not NUL.
[[nodiscard]] std::size_t plainTextLength(std::string_view text);

/// How many bytes at the front of `text` are valid in this sense.
[[nodiscard]] std::size_t messageTextLength(std::string_view text);

}  // namespace kelvane
