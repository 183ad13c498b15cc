// libplist follows any depth of elements and frees them by recursion, so depth and number are taken from the
// markup first. The danger is a text that this scan and libplist cut into different pieces, so that one sees
// an element close where the other sees none. Therefore whatever could be cut in two ways is refused: a "<"
// within a tag, a document type or a processing instruction, quotes there that do not pair, an internal
// document type definition, markup within the text of a leaf other than comments and CDATA sections. What
// always holds: `open_` is the chain of open elements, each of which only its own closing tag can end.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "platform/foundation/property_list_check.h"

namespace kelvane::foundation {
namespace {

constexpr std::string_view blanks = " \t\r\n";
constexpr std::array<std::string_view, 11> elements = {"plist", "array", "dict",  "key",  "string", "integer",
                                                       "real",  "true",  "false", "date", "data"};

bool isBlank(std::string_view text) { return text.find_first_not_of(blanks) == std::string_view::npos; }
bool isContainer(std::string_view element) {
  return element == "plist" || element == "array" || element == "dict";
}

/// Quotes within a tag that do not pair would let a reader that honours them find another end of the tag.
bool quotesPair(std::string_view text) {
  char open = 0;
  for (const char c : text) {
    if (open == 0 && (c == '"' || c == '\'')) {
      open = c;
    } else if (c == open) {
      open = 0;
    }
  }
  return open == 0;
}

class XMLCheck {
 public:
  XMLCheck(std::string_view text, const PropertyListLimits& limits) : text_(text), limits_(limits) {}

  std::optional<std::string> run() {
    while (at_ < text_.size() && !error_) {
      if (text_[at_] == '<') {
        markup();
      } else {
        characters();
      }
    }
    if (!error_ && !open_.empty()) fail(fmt::format("ends inside <{}>", open_.back().element));
    if (!error_ && !closed_) fail("holds no <plist> element");
    return error_;
  }

 private:
  struct Open {
    std::string_view element;
    bool has_child = false;  // of <plist>
    bool has_key = false;    // of <dict>: a key that waits for its value
  };

  void fail(std::string what) {
    if (error_) return;
    const auto line = 1 + std::count(text_.begin(), text_.begin() + static_cast<std::ptrdiff_t>(at_), '\n');
    error_ = fmt::format("line {}: {}", line, what);
  }

  [[nodiscard]] bool inLeaf() const { return !open_.empty() && !isContainer(open_.back().element); }
  [[nodiscard]] bool startsWith(std::string_view what) const { return text_.substr(at_).starts_with(what); }

  /// What stands between `opening` at the place in hand and the next `closing`, stepping past both.
  std::optional<std::string_view> between(std::string_view opening, std::string_view closing) {
    const std::size_t start = at_ + opening.size();
    const std::size_t end = text_.find(closing, start);
    if (end == std::string_view::npos) {
      fail(fmt::format("\"{}\" is never closed", opening));
      return std::nullopt;
    }
    at_ = end + closing.size();
    return text_.substr(start, end - start);
  }

  void characters() {
    const std::string_view run = text_.substr(at_, text_.find('<', at_) - at_);
    if (inLeaf()) {
      if (auto wrong = checkEntities(run)) fail(*wrong);
      leaf_text_ += run;
    } else if (!isBlank(run)) {
      fail("text where an element belongs");
    }
    at_ += run.size();
  }

  void markup() {
    const char kind = at_ + 1 < text_.size() ? text_[at_ + 1] : '\0';
    if (kind != '!' && kind != '?' && (kind == '/' || !inLeaf())) {
      tag();
    } else if (startsWith("<!--")) {
      between("<!--", "-->");
    } else if (startsWith("<![CDATA[")) {
      characterData();
    } else if (inLeaf()) {
      fail(fmt::format("markup inside <{}>", open_.back().element));
    } else if (startsWith("<!")) {
      documentType();
    } else {
      instruction();
    }
  }

  void characterData() {
    if (!inLeaf()) return fail("a CDATA section where an element belongs");
    if (const auto text = between("<![CDATA[", "]]>")) leaf_text_ += *text;
  }

  void documentType() {
    if (!startsWith("<!DOCTYPE") || !open_.empty()) return fail("a declaration that no property list has");
    const auto inside = between("<!DOCTYPE", ">");
    if (inside && (inside->find_first_of("<[") != std::string_view::npos || !quotesPair(*inside))) {
      fail("a document type with a definition of its own");
    }
  }

  void instruction() {
    const auto inside = between("<?", "?>");
    if (inside && (inside->find('<') != std::string_view::npos || !quotesPair(*inside))) {
      fail("a damaged processing instruction");
    }
  }

  void tag() {
    const std::size_t start = at_;
    const auto inside = between("<", ">");
    if (!inside) return;
    const std::size_t end = std::exchange(at_, start);
    if (inside->find('<') != std::string_view::npos || !quotesPair(*inside)) return fail("a damaged tag");
    const bool closing = inside->starts_with('/');
    const bool empty = inside->ends_with('/');
    std::string_view name = inside->substr(closing ? 1 : 0);
    name = name.substr(0, name.find_first_of(" \t\r\n/"));
    if (std::find(elements.begin(), elements.end(), name) == elements.end()) {
      return fail(fmt::format("the unknown element <{}>", name.substr(0, 40)));
    }
    if (!closing) opens(name);
    if ((closing || empty) && !error_) closes(name);
    at_ = end;
  }

  void opens(std::string_view element) {
    if (element == "plist" ? !open_.empty() || closed_ : open_.empty()) {
      return fail(fmt::format("<{}> where it does not belong", element));
    }
    if (++objects_ > limits_.objects + 1) return fail(fmt::format("more than {} objects", limits_.objects));
    if (!open_.empty()) takesPlace(element);
    // The depth counts arrays and dictionaries: all that is open but <plist>.
    if (isContainer(element) && open_.size() > limits_.depth) {
      return fail(fmt::format("nested deeper than {}", limits_.depth));
    }
    leaf_text_.clear();
    open_.push_back({element});
  }

  /// Notes the new child in the innermost open element.
  void takesPlace(std::string_view element) {
    Open& parent = open_.back();
    const bool key = element == "key";
    if (parent.element == "dict") {
      if (key == parent.has_key) return fail(key ? "a key without a value" : "a value without a key");
      parent.has_key = key;
    } else if (key) {
      fail("a key outside a dictionary");
    } else if (parent.element == "plist" && std::exchange(parent.has_child, true)) {
      fail("a second root object");
    }
  }

  void closes(std::string_view element) {
    if (open_.empty() || open_.back().element != element) {
      return fail(fmt::format("</{}> where it does not belong", element));
    }
    const Open closed = open_.back();
    if (closed.has_key) return fail("a key without a value");
    if (element == "plist" && !closed.has_child) return fail("no root object");
    if (auto wrong = checkLeafText(element, leaf_text_)) return fail(*wrong);
    open_.pop_back();
    closed_ = open_.empty();
  }

  const std::string_view text_;
  const PropertyListLimits& limits_;
  std::size_t at_ = 0;
  std::vector<Open> open_;
  std::string leaf_text_;  // of the open leaf; of the last one otherwise
  std::size_t objects_ = 0;
  bool closed_ = false;  // <plist> has been
  std::optional<std::string> error_;
};

}  // namespace

std::optional<std::string> checkXMLPropertyList(std::string_view text, const PropertyListLimits& limits) {
  return XMLCheck(text, limits).run();
}

}  // namespace kelvane::foundation
