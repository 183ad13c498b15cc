#include "tools/screen.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace kelvane::tools {
namespace {

constexpr unsigned narrowest = 40;
constexpr unsigned widest = 200;

winsize sizeOf(int descriptor) {
  winsize size{};
  return ::ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size : winsize{};
}

unsigned widthOf(int descriptor, unsigned otherwise) {
  if (const char* const said = std::getenv("COLUMNS")) {
    unsigned width = 0;
    const char* const end = said + std::strlen(said);
    if (const auto read = std::from_chars(said, end, width); read.ptr == end && read.ec == std::errc())
      return width;
  }
  const unsigned width = sizeOf(descriptor).ws_col;
  return width != 0 ? width : otherwise;
}

bool isSet(const char* variable) {
  const char* const value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

const char* codeOf(Colour colour) {
  switch (colour) {
    case Colour::green:
      return "\033[32m";
    case Colour::yellow:
      return "\033[33m";
    case Colour::red:
      return "\033[31m";
    case Colour::dim:
      return "\033[2m";
    case Colour::bold:
      return "\033[1m";
    case Colour::none:
      break;
  }
  return "";
}

/// Takes a character of UTF-8 off the text; 0 for what is none.
char32_t takeCharacter(std::string_view& text) {
  const auto first = static_cast<unsigned char>(text.front());
  const std::size_t length = first < 0x80 ? 1 : first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  char32_t character = length == 1 ? first : first & (0x7FU >> length);
  bool valid = length != 0 && length <= text.size() && first < 0xF5;
  for (std::size_t i = 1; valid && i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    valid = (next & 0xC0U) == 0x80;
    character = character << 6U | (next & 0x3FU);
  }
  text.remove_prefix(valid ? length : 1);
  return valid ? character : 0;
}

/// Control characters, and those that turn the order of what follows.
bool isTrickery(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c < 0xA0) || (c >= 0x200B && c <= 0x200F) ||
         (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069) || c == 0xFEFF;
}

struct Cells {
  const char* full;
  const char* empty;
  const char* mark;
};
constexpr Cells unicode_cells{"█", "░", "┃"};
constexpr Cells ascii_cells{"#", ".", "|"};

}  // namespace

Screen screenOf(int descriptor) {
  Screen screen;
  const char* const terminal = std::getenv("TERM");
  screen.live = ::isatty(descriptor) == 1 && terminal != nullptr && *terminal != '\0' &&
                std::strcmp(terminal, "dumb") != 0;
  screen.colour = screen.live && !isSet("NO_COLOR");
  screen.unicode = std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0;
  screen.width = std::clamp(widthOf(descriptor, screen.width), narrowest, widest);
  if (const unsigned height = sizeOf(descriptor).ws_row; height != 0) screen.height = height;
  return screen;
}

std::string coloured(const Screen& screen, Colour colour, const std::string& text) {
  return screen.colour && colour != Colour::none ? codeOf(colour) + text + "\033[0m" : text;
}

std::string printable(const Screen& screen, std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::string_view before = text;
    const char32_t character = takeCharacter(text);
    const bool shown = !isTrickery(character) && (screen.unicode || character < 0x80);
    result += shown ? before.substr(0, before.size() - text.size()) : "?";
  }
  return result;
}

std::size_t columns(std::string_view text) {
  std::size_t count = 0;
  while (!text.empty()) {
    takeCharacter(text);
    ++count;
  }
  return count;
}

std::string fitted(const Screen& screen, const std::string& text, std::size_t width) {
  const std::size_t taken = columns(text);
  if (taken <= width) return text + std::string(width - taken, ' ');
  if (width == 0) return {};
  std::string_view rest = text;
  for (std::size_t i = 0; i + 1 < width; ++i) takeCharacter(rest);
  return text.substr(0, text.size() - rest.size()) + (screen.unicode ? "…" : "~");
}

std::string cut(const Screen& screen, const std::string& text, std::size_t width) {
  return fitted(screen, text, std::min(columns(text), width));
}

std::string firstLines(const std::string& text, std::size_t count) {
  std::size_t end = 0;
  for (; count > 0 && end < text.size(); --count) end = std::min(text.find('\n', end), text.size() - 1) + 1;
  return text.substr(0, end);
}

std::string rightAligned(const std::string& text, std::size_t width) {
  const std::size_t taken = columns(text);
  return taken < width ? std::string(width - taken, ' ') + text : text;
}

std::string drawn(const Screen& screen, const Bar& bar, std::size_t width) {
  const Cells& cells = screen.unicode ? unicode_cells : ascii_cells;
  const auto cellOf = [width](double part) {
    return static_cast<std::size_t>(std::lround(std::clamp(part, 0.0, 1.0) * static_cast<double>(width)));
  };
  // Anything at all is seen, and what is not all is not full.
  std::size_t filled = cellOf(bar.filled);
  if (bar.filled > 0 && filled == 0 && width > 0) filled = 1;
  if (bar.filled < 1 && filled == width && width > 0) filled = width - 1;
  std::string full;
  std::string empty;
  for (std::size_t i = 0; i < width; ++i) {
    const bool marked = std::any_of(bar.marks.begin(), bar.marks.end(),
                                    [&](double mark) { return std::min(cellOf(mark), width - 1) == i; });
    (i < filled ? full : empty) += marked ? cells.mark : i < filled ? cells.full : cells.empty;
  }
  return (full.empty() ? full : coloured(screen, bar.colour, full)) + empty;
}

}  // namespace kelvane::tools
