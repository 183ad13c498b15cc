#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "platform/foundation/plist_node.h"
#include "platform/foundation/property_list.h"
#include "platform/foundation/utf8.h"

namespace kelvane {
namespace {

using foundation::PlistMemory;
using foundation::PlistNode;

constexpr std::size_t depth_limit = 64;

/// A node of a kind that libplist's own constructors do not cover in full: it is read from its XML.
plist_t nodeFromXML(std::string_view element, std::string_view text) {
  const std::string xml = fmt::format("<plist><{0}>{1}</{0}></plist>", element, text);
  plist_t node = nullptr;
  plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &node);
  return node;
}

/// Builds libplist's tree; a builder that failed gives null and leaves the reason in `error`.
class Writer {
 public:
  PlistNode node(const Value& value) {
    return std::visit([this](const auto& held) { return PlistNode(this->make(held)); }, value.held());
  }
  std::optional<std::string> error;

 private:
  plist_t fail(std::string what) {
    if (!error) error = std::move(what);
    return nullptr;
  }

  plist_t make(std::monostate) { return fail("nothing cannot be written"); }
  static plist_t make(bool boolean) { return plist_new_bool(boolean ? 1 : 0); }
  static plist_t make(std::int64_t number) { return plist_new_uint(static_cast<std::uint64_t>(number)); }
  static plist_t make(std::uint64_t number) { return nodeFromXML("integer", std::to_string(number)); }
  static plist_t make(double number) { return plist_new_real(number); }
  static plist_t make(const Data& data) {
    return plist_new_data(reinterpret_cast<const char*>(data.bytes().data()), data.bytes().size());
  }

  plist_t make(const foundation::CopyOnWrite<std::string>& string) {
    return checkText(*string) ? plist_new_string(string->c_str()) : nullptr;
  }

  bool checkText(const std::string& text) {
    const auto is_control = [](char c) { return c >= 0 && c < ' ' && c != '\t' && c != '\n' && c != '\r'; };
    if (isMessageText(text) && std::none_of(text.begin(), text.end(), is_control)) return true;
    fail("a string holds bytes that XML cannot carry");
    return false;
  }

  plist_t make(Date date) {
    using std::chrono::floor;
    constexpr std::int64_t first_day =
        -354285;                                // 1000-01-01; libplist writes earlier years with fewer digits
    constexpr std::int64_t last_day = 2932896;  // 9999-12-31
    const std::chrono::sys_time<std::chrono::microseconds> moment{
        std::chrono::microseconds(date.microseconds)};
    const auto day = floor<std::chrono::days>(moment);
    const std::int64_t days = day.time_since_epoch().count();
    if (days < first_day || days > last_day) return fail("a date is outside the years 1000 to 9999");
    const std::chrono::year_month_day calendar(day);
    const std::chrono::hh_mm_ss time(floor<std::chrono::seconds>(moment - day));
    const auto text =
        fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(calendar.year()),
                    static_cast<unsigned>(calendar.month()), static_cast<unsigned>(calendar.day()),
                    time.hours().count(), time.minutes().count(), time.seconds().count());
    return nodeFromXML("date", text);
  }

  plist_t make(const Array& array) {
    return container(plist_new_array(), [&](plist_t made) {
      return std::all_of(array.begin(), array.end(), [&](const Value& element) {
        PlistNode child = node(element);
        if (child == nullptr) return false;
        plist_array_append_item(made, child.release());
        return true;
      });
    });
  }

  plist_t make(const Dictionary& dictionary) {
    return container(plist_new_dict(), [&](plist_t made) {
      return std::all_of(dictionary.begin(), dictionary.end(), [&](const auto& entry) {
        PlistNode child = checkText(entry.first) ? node(entry.second) : PlistNode();
        if (child == nullptr) return false;
        plist_dict_set_item(made, entry.first.c_str(), child.release());
        return true;
      });
    });
  }

  /// `made` once `fill` has put its children in; null when that failed or would nest too deep.
  template <class Fill>
  plist_t container(plist_t made, Fill fill) {
    PlistNode owner(made);
    if (depth_ == depth_limit)
      return fail(fmt::format("arrays and dictionaries nest deeper than {}", depth_limit));
    ++depth_;
    const bool filled = fill(made);
    --depth_;
    return filled ? owner.release() : nullptr;
  }

  std::size_t depth_ = 0;
};

}  // namespace

PropertyListXMLResult propertyListXML(const Value& value) {
  Writer writer;
  const PlistNode root = writer.node(value);
  if (root == nullptr) return {{}, writer.error.value_or("the value cannot be written")};
  char* written = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(root.get(), &written, &length);
  const PlistMemory<char> owner(written);
  if (written == nullptr) return {{}, "the value cannot be written"};
  return {std::string(written, length), {}};
}

}  // namespace kelvane
