#include "platform/wire/signature.h"

#include "platform/wire/protocol.h"

namespace kelvane::wire {
namespace {

/// Reads types from the front of a text. The recursion ends with the limits on nesting.
class TypeParser {
 public:
  explicit TypeParser(std::string_view text) : left_(text) {}

  [[nodiscard]] bool isAtEnd() const { return left_.empty(); }

  /// Whether a complete type came next; it is taken.
  bool takeCompleteType() {
    const char type = takeCode();
    if (type == 'v' || isBasicType(type)) return true;
    if (type == 'a') return takeElement();
    return type == '(' && takeFields();
  }

 private:
  char takeCode() {
    if (left_.empty()) return '\0';
    const char code = left_.front();
    left_.remove_prefix(1);
    return code;
  }
  [[nodiscard]] bool isNext(char code) const { return !left_.empty() && left_.front() == code; }

  bool takeElement() {
    if (++arrays_ > deepest_arrays) return false;
    const bool taken = isNext('{') ? takeEntry() : takeCompleteType();
    --arrays_;
    return taken;
  }
  bool takeEntry() {
    takeCode();
    return isBasicType(takeCode()) && takeCompleteType() && takeCode() == '}';
  }
  bool takeFields() {
    if (++structs_ > deepest_structs) return false;
    do {
      if (!takeCompleteType()) return false;
    } while (!isNext(')'));
    takeCode();
    --structs_;
    return true;
  }

  std::string_view left_;
  unsigned arrays_ = 0;   // open now
  unsigned structs_ = 0;  // open now
};

}  // namespace

bool isSignature(std::string_view text) {
  if (text.size() > longest_signature) return false;
  TypeParser parser(text);
  while (!parser.isAtEnd()) {
    if (!parser.takeCompleteType()) return false;
  }
  return true;
}

bool isCompleteType(std::string_view text) {
  if (text.size() == 1) return text.front() == 'v' || isBasicType(text.front());
  if (text.size() > longest_signature) return false;
  TypeParser parser(text);
  return parser.takeCompleteType() && parser.isAtEnd();
}

std::size_t completeTypeLength(std::string_view signature) {
  std::size_t length = 0;
  while (signature[length] == 'a') ++length;
  std::size_t open = 0;
  do {
    const char code = signature[length++];
    if (code == '(' || code == '{') ++open;
    if (code == ')' || code == '}') --open;
  } while (open > 0);
  return length;
}

std::size_t alignmentOf(char type) {
  switch (type) {
    case 'y':
    case 'g':
    case 'v':
      return 1;
    case 'n':
    case 'q':
      return 2;
    case 'x':
    case 't':
    case 'd':
    case '(':
    case '{':
      return 8;
    default:
      return 4;
  }
}

bool isBasicType(char type) {
  switch (type) {
    case 'y':
    case 'b':
    case 'n':
    case 'q':
    case 'i':
    case 'u':
    case 'x':
    case 't':
    case 'd':
    case 's':
    case 'o':
    case 'g':
    case 'h':
      return true;
    default:
      return false;
  }
}

}  // namespace kelvane::wire
