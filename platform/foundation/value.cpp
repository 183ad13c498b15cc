#include "kelvane/value.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>

namespace kelvane {
namespace {

const Value nothing_value;

template <class... Cases>
struct Overloaded : Cases... {
  using Cases::operator()...;
};
template <class... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;

std::int64_t signedFromDouble(double number) {
  constexpr double limit = 9223372036854775808.0;  // 2^63, exact
  if (std::isnan(number)) return 0;
  if (number >= limit) return std::numeric_limits<std::int64_t>::max();
  if (number < -limit) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(number);
}

std::uint64_t unsignedFromDouble(double number) {
  constexpr double limit = 18446744073709551616.0;  // 2^64, exact
  if (std::isnan(number)) return 0;
  if (number < 0) return static_cast<std::uint64_t>(signedFromDouble(number));
  if (number >= limit) return std::numeric_limits<std::uint64_t>::max();
  return static_cast<std::uint64_t>(number);
}

/// Converts whichever number is held with `convert`, which takes each of the four kinds; 0 for the rest.
template <class Result, class Convert>
Result number(const Value::Held& held, Convert convert) {
  return std::visit(
      [&](const auto& value) -> Result {
        using Kind = std::decay_t<decltype(value)>;
        if constexpr (std::is_arithmetic_v<Kind>) {
          return convert(value);
        } else {
          return Result{};
        }
      },
      held);
}

/// A double holds whole numbers above 2^53 with gaps, so the integer is not converted: the double is, where
/// that loses nothing.
bool integerEqualsReal(const Value& integer, double real) {
  constexpr double limit = 18446744073709551616.0;  // 2^64, exact
  if (std::trunc(real) != real || real < -limit / 2 || real >= limit) return false;
  const Value whole = real < 0 ? Value(signedFromDouble(real)) : Value(unsignedFromDouble(real));
  return integer == whole;
}

bool numbersEqual(const Value& a, const Value& b) {
  const double* const a_real = std::get_if<double>(&a.held());
  const double* const b_real = std::get_if<double>(&b.held());
  if (a_real != nullptr && b_real != nullptr) return *a_real == *b_real;
  if (a_real != nullptr) return integerEqualsReal(b, *a_real);
  if (b_real != nullptr) return integerEqualsReal(a, *b_real);
  const auto negative = [](const Value& v) {
    return std::holds_alternative<std::int64_t>(v.held()) && v.longLongValue() < 0;
  };
  return negative(a) == negative(b) && a.unsignedLongLongValue() == b.unsignedLongLongValue();
}

void describeQuoted(std::string& out, std::string_view text) {
  out += '"';
  for (const char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  out += '"';
}

bool isPlainWord(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '.' || c == '-';
  });
}

void describe(std::string& out, const Value& value);

/// The shortest text that reads back as the same double.
void describeReal(std::string& out, double number) {
  std::array<char, 32> text{};
  const auto written = std::to_chars(text.data(), text.data() + text.size(), number);
  out.append(text.data(), written.ptr);
}

void describeData(std::string& out, const Data& data) {
  constexpr std::size_t shown = 64;
  static constexpr char digits[] = "0123456789abcdef";
  out += '<';
  const auto& bytes = data.bytes();
  for (std::size_t i = 0; i < std::min(bytes.size(), shown); ++i) {
    out += digits[bytes[i] >> 4];
    out += digits[bytes[i] & 15];
  }
  if (bytes.size() > shown) out += "... " + std::to_string(bytes.size()) + " bytes";
  out += '>';
}

void describeArray(std::string& out, const Array& array) {
  out += '(';
  bool first = true;
  for (const Value& element : array) {
    if (!first) out += ", ";
    first = false;
    describe(out, element);
  }
  out += ')';
}

void describeDictionary(std::string& out, const Dictionary& dictionary) {
  out += '{';
  for (const auto& [key, value] : dictionary) {
    if (out.back() == ';') out += ' ';
    if (isPlainWord(key)) {
      out += key;
    } else {
      describeQuoted(out, key);
    }
    out += " = ";
    describe(out, value);
    out += ';';
  }
  out += '}';
}

void describe(std::string& out, const Value& value) {
  std::visit(Overloaded{
                 [&](std::monostate) { out += "(null)"; },
                 [&](bool b) { out += b ? '1' : '0'; },
                 [&](std::int64_t n) { out += std::to_string(n); },
                 [&](std::uint64_t n) { out += std::to_string(n); },
                 [&](double n) { describeReal(out, n); },
                 [&](const foundation::CopyOnWrite<std::string>& s) { describeQuoted(out, *s); },
                 [&](const Data& d) { describeData(out, d); },
                 [&](Date d) { out += "date " + std::to_string(d.microseconds) + " us"; },
                 [&](const Array& a) { describeArray(out, a); },
                 [&](const Dictionary& d) { describeDictionary(out, d); },
             },
             value.held());
}

}  // namespace

Array::Array(std::initializer_list<Value> elements) {
  for (const Value& element : elements) append(element);
}
Array::Array(Elements elements) : elements_(std::move(elements)) {
  if (std::any_of(begin(), end(), [](const Value& v) { return v.isNothing(); })) {
    std::erase_if(elements_.mutate(), [](const Value& v) { return v.isNothing(); });
  }
}
std::size_t Array::size() const { return elements_->size(); }
const Value& Array::operator[](std::size_t index) const {
  return index < size() ? (*elements_)[index] : nothing_value;
}
Array::Elements::const_iterator Array::begin() const { return elements_->begin(); }
Array::Elements::const_iterator Array::end() const { return elements_->end(); }
bool Array::contains(const Value& value) const { return std::find(begin(), end(), value) != end(); }
void Array::append(Value value) {
  if (!value.isNothing()) elements_.mutate().push_back(std::move(value));
}
bool operator==(const Array& a, const Array& b) {
  return a.elements_.shares(b.elements_) || *a.elements_ == *b.elements_;
}

Dictionary::Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries) {
  for (const auto& [key, value] : entries) set(key, value);
}
std::size_t Dictionary::size() const { return entries_->size(); }
bool Dictionary::contains(std::string_view key) const { return entries_->find(key) != entries_->end(); }
const Value& Dictionary::operator[](std::string_view key) const {
  const auto entry = entries_->find(key);
  return entry == entries_->end() ? nothing_value : entry->second;
}
Dictionary::Entries::const_iterator Dictionary::begin() const { return entries_->begin(); }
Dictionary::Entries::const_iterator Dictionary::end() const { return entries_->end(); }
Array Dictionary::keys() const {
  Array keys;
  for (const auto& entry : *this) keys.append(entry.first);
  return keys;
}
void Dictionary::set(std::string_view key, Value value) {
  if (value.isNothing()) {
    remove(key);
    return;
  }
  Entries& entries = entries_.mutate();
  const auto entry = entries.lower_bound(key);
  if (entry != entries.end() && entry->first == key) {
    entry->second = std::move(value);
  } else {
    entries.emplace_hint(entry, key, std::move(value));
  }
}
void Dictionary::remove(std::string_view key) {
  if (!contains(key)) return;
  Entries& entries = entries_.mutate();
  entries.erase(entries.find(key));
}
void Dictionary::clear() { *this = Dictionary(); }
bool operator==(const Dictionary& a, const Dictionary& b) {
  return a.entries_.shares(b.entries_) || *a.entries_ == *b.entries_;
}

bool Value::isNumber() const {
  return std::visit([](const auto& value) { return std::is_arithmetic_v<std::decay_t<decltype(value)>>; },
                    held_);
}
const std::string* Value::string() const {
  const auto* held = std::get_if<foundation::CopyOnWrite<std::string>>(&held_);
  return held == nullptr ? nullptr : &**held;
}
bool Value::boolValue() const {
  return number<bool>(held_, [](auto n) { return n != decltype(n){}; });
}
std::int32_t Value::intValue() const {
  return number<std::int32_t>(held_, [](auto n) {
    if constexpr (std::is_same_v<decltype(n), double>) {
      const std::int64_t whole = signedFromDouble(n);
      return static_cast<std::int32_t>(std::clamp<std::int64_t>(
          whole, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
    } else {
      return static_cast<std::int32_t>(n);
    }
  });
}
std::int64_t Value::longLongValue() const {
  return number<std::int64_t>(held_, [](auto n) {
    if constexpr (std::is_same_v<decltype(n), double>) {
      return signedFromDouble(n);
    } else {
      return static_cast<std::int64_t>(n);
    }
  });
}
std::uint64_t Value::unsignedLongLongValue() const {
  return number<std::uint64_t>(held_, [](auto n) {
    if constexpr (std::is_same_v<decltype(n), double>) {
      return unsignedFromDouble(n);
    } else {
      return static_cast<std::uint64_t>(n);
    }
  });
}
double Value::doubleValue() const {
  return number<double>(held_, [](auto n) { return static_cast<double>(n); });
}

bool Value::nestsDeeperThan(std::size_t depth) const {
  const auto deeper = [&](const Value& inner) { return inner.nestsDeeperThan(depth - 1); };
  if (const Array* held = array()) return depth == 0 || std::any_of(held->begin(), held->end(), deeper);
  if (const Dictionary* held = dictionary()) {
    return depth == 0 ||
           std::any_of(held->begin(), held->end(), [&](const auto& entry) { return deeper(entry.second); });
  }
  return false;
}

std::string Value::description() const {
  std::string out;
  describe(out, *this);
  return out;
}

bool operator==(const Value& a, const Value& b) {
  if (a.isNumber() && b.isNumber()) return numbersEqual(a, b);
  if (a.held_.index() != b.held_.index()) return false;
  if (const std::string* text = a.string()) return *text == *b.string();
  if (const Data* data = a.data()) return *data == *b.data();
  if (const Date* date = a.date()) return *date == *b.date();
  if (const Array* array = a.array()) return *array == *b.array();
  if (const Dictionary* dictionary = a.dictionary()) return *dictionary == *b.dictionary();
  return true;
}

}  // namespace kelvane
