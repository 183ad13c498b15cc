#include "tools/unreadable.h"

#include <expat.h>
#include <algorithm>
#include <memory>
#include <string_view>
#include <type_traits>

namespace kelvane::tools {
namespace {

struct Free {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

/// The first thing in the text that is no well-formed XML; line 0 for none.
Fault malformedAt(std::string_view text) {
  const std::unique_ptr<std::remove_pointer_t<XML_Parser>, Free> parser(XML_ParserCreate(nullptr));
  if (XML_Parse(parser.get(), text.data(), static_cast<int>(text.size()), 1) != XML_STATUS_ERROR) return {};
  return {XML_GetCurrentLineNumber(parser.get()),
          std::string("it is no well-formed XML: ") + XML_ErrorString(XML_GetErrorCode(parser.get()))};
}

bool isControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 && c != '\n' && c != '\r' && c != '\t';
}

}  // namespace

Fault whyUnreadable(std::span<const std::uint8_t> bytes, const std::string& reason) {
  std::string text(bytes.begin(), bytes.end());
  if (text.empty()) return {0, "it is empty"};
  if (text.starts_with("bplist")) return {0, "it is a binary property list, damaged or cut off: " + reason};
  const std::size_t begin = text.find_first_not_of(" \t\r\n\xEF\xBB\xBF");
  if (begin != std::string::npos && text[begin] == '<') {
    const Fault malformed = malformedAt(text);
    return malformed.line != 0 ? malformed : Fault{0, reason};
  }
  if (std::any_of(text.begin(), text.end(), isControl))
    return {0, "it is binary data, but no binary property list, which begins with \"bplist\""};
  return {1, "it is text, but no XML, which begins with \"<\""};
}

}  // namespace kelvane::tools
