#pragma once

// What is printed goes through these, so that it fits the screen it is printed on. Names of services come
// from whoever calls himself so: none reaches a terminal but through `printable`.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::tools {

struct Screen {
  unsigned width = 80;  // columns, 40 to 200
  bool colour = false;
  bool unicode = false;  // may hold more than ASCII
  bool live = false;     // a line can be written over
  unsigned height = 24;  // lines
};

/// The screen behind a descriptor. Colours and live lines are for terminals only, colours not when NO_COLOR
/// is set and not empty. What is no terminal is 80 columns wide, unless $COLUMNS says otherwise.
[[nodiscard]] Screen screenOf(int descriptor);

enum class Colour : std::uint8_t { none, green, yellow, red, dim, bold };
[[nodiscard]] std::string coloured(const Screen& screen, Colour colour, const std::string& text);

/// The text with "?" for each control character and for what is no UTF-8, and, where the screen shows ASCII
/// only, for all else.
[[nodiscard]] std::string printable(const Screen& screen, std::string_view text);

/// How many columns a printable text takes.
[[nodiscard]] std::size_t columns(std::string_view text);
/// Padded or cut to so many columns; what is cut ends in "~" or an ellipsis.
[[nodiscard]] std::string fitted(const Screen& screen, const std::string& text, std::size_t width);
/// The same without padding.
[[nodiscard]] std::string cut(const Screen& screen, const std::string& text, std::size_t width);
/// The first so many lines of it, each with its end.
[[nodiscard]] std::string firstLines(const std::string& text, std::size_t count);
/// Padded on the left, never cut.
[[nodiscard]] std::string rightAligned(const std::string& text, std::size_t width);

/// Part of a whole, filled from the left. Marks are parts of the whole too, 0 to 1.
struct Bar {
  double filled = 0;
  std::vector<double> marks = {};
  Colour colour = Colour::none;
};
[[nodiscard]] std::string drawn(const Screen& screen, const Bar& bar, std::size_t width);

}  // namespace kelvane::tools
