#pragma once

#include <gtest/gtest.h>
#include <sstream>
#include <string>

#include "tools/screen.h"

namespace kelvane::tests {

inline tools::Screen plain(unsigned width) { return {width, false, false, false}; }
inline tools::Screen coloured(unsigned width) { return {width, true, true, true}; }

/// Without what sets colours.
inline std::string withoutColours(const std::string& text) {
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\033') {
      at = text.find('m', at);
    } else {
      result += text[at];
    }
  }
  return result;
}

/// That no line is wider than the screen.
inline void expectFits(const std::string& text, const tools::Screen& screen) {
  std::istringstream lines(withoutColours(text));
  for (std::string line; std::getline(lines, line);)
    EXPECT_LE(tools::columns(line), screen.width) << "\"" << line << "\"";
}

}  // namespace kelvane::tests
