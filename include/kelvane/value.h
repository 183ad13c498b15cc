#pragma once

// Property-list values.
//
// One type, Value, holds every object that a property list can hold, and "nothing". A Value is cheap to copy:
// strings, data, arrays and dictionaries are shared between copies and copied only when one of them is
// changed, so a "mutable copy" of a dictionary is a plain copy. Values may be copied and read on any thread;
// one Value object is changed by one thread at a time.
//
// A boolean is a number. The number conversions never fail: what is not a number converts to 0.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "kelvane/copy_on_write.h"
#include "kelvane/export.h"

namespace kelvane {

class KELVANE_EXPORT Value;

/// A moment, in microseconds since 1970-01-01T00:00:00Z; earlier moments are negative.
struct Date {
  std::int64_t microseconds = 0;

  /// Seconds from `earlier` to this moment. Dates come from files and peers, so the two may lie further apart
  /// than the integer holds.
  [[nodiscard]] double secondsSince(Date earlier) const {
    return (static_cast<double>(microseconds) - static_cast<double>(earlier.microseconds)) / 1e6;
  }
  friend auto operator<=>(const Date&, const Date&) = default;  // NOLINT(modernize-use-nullptr): no pointer
};

/// Bytes, shared between copies and never changed.
class Data {
 public:
  using Bytes = std::vector<std::uint8_t>;
  Data() = default;
  explicit Data(Bytes bytes) : bytes_(std::move(bytes)) {}
  [[nodiscard]] const Bytes& bytes() const { return *bytes_; }
  friend bool operator==(const Data& a, const Data& b) {
    return a.bytes_.shares(b.bytes_) || *a.bytes_ == *b.bytes_;
  }

 private:
  foundation::CopyOnWrite<Bytes> bytes_;
};

/// Values in order. Holds no "nothing": appending nothing is ignored.
class KELVANE_EXPORT Array {
 public:
  using Elements = std::vector<Value>;
  Array() = default;
  Array(std::initializer_list<Value> elements);
  explicit Array(Elements elements);

  [[nodiscard]] std::size_t size() const;
  [[nodiscard]] bool empty() const { return size() == 0; }
  [[nodiscard]] const Value& operator[](std::size_t index) const;
  [[nodiscard]] Elements::const_iterator begin() const;
  [[nodiscard]] Elements::const_iterator end() const;
  [[nodiscard]] bool contains(const Value& value) const;
  void append(Value value);
  friend KELVANE_EXPORT bool operator==(const Array& a, const Array& b);

 private:
  foundation::CopyOnWrite<Elements> elements_;
};

/// String keys to values; iterates in the order of the keys' bytes. Holds no "nothing": setting a key to
/// nothing removes it, and reading an absent key gives nothing.
class KELVANE_EXPORT Dictionary {
 public:
  using Entries = std::map<std::string, Value, std::less<>>;
  Dictionary() = default;
  Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries);

  [[nodiscard]] std::size_t size() const;
  [[nodiscard]] bool empty() const { return size() == 0; }
  [[nodiscard]] bool contains(std::string_view key) const;
  [[nodiscard]] const Value& operator[](std::string_view key) const;
  [[nodiscard]] Entries::const_iterator begin() const;
  [[nodiscard]] Entries::const_iterator end() const;
  [[nodiscard]] Array keys() const;
  void set(std::string_view key, Value value);
  void remove(std::string_view key);
  void clear();
  friend KELVANE_EXPORT bool operator==(const Dictionary& a, const Dictionary& b);

 private:
  foundation::CopyOnWrite<Entries> entries_;
};

class KELVANE_EXPORT Value {
  template <class Integer>
  using Widest =
      std::conditional_t<std::is_same_v<Integer, bool>, bool,
                         std::conditional_t<std::is_signed_v<Integer>, std::int64_t, std::uint64_t>>;

 public:
  Value() = default;
  Value(std::nullptr_t) {}
  /// A boolean stays one, an integer becomes 64 bits wide. A template, so that no pointer turns into "true".
  template <std::integral Integer>
  Value(Integer number) : held_(static_cast<Widest<Integer>>(number)) {}
  Value(double number) : held_(number) {}
  Value(std::string string) : held_(foundation::CopyOnWrite<std::string>(std::move(string))) {}
  Value(std::string_view string) : Value(std::string(string)) {}
  Value(const char* string) : Value(std::string(string)) {}
  Value(Data data) : held_(std::move(data)) {}
  Value(Date date) : held_(date) {}
  Value(Array array) : held_(std::move(array)) {}
  Value(Dictionary dictionary) : held_(std::move(dictionary)) {}

  [[nodiscard]] bool isNothing() const { return std::holds_alternative<std::monostate>(held_); }
  [[nodiscard]] bool isNumber() const;
  [[nodiscard]] bool isBoolean() const { return std::holds_alternative<bool>(held_); }
  [[nodiscard]] bool isString() const { return string() != nullptr; }
  [[nodiscard]] bool isDictionary() const { return dictionary() != nullptr; }

  // What is held, or null when it is something else. Valid until this Value is changed or destroyed.
  [[nodiscard]] const std::string* string() const;
  [[nodiscard]] const Data* data() const { return std::get_if<Data>(&held_); }
  [[nodiscard]] const Date* date() const { return std::get_if<Date>(&held_); }
  [[nodiscard]] const Array* array() const { return std::get_if<Array>(&held_); }
  [[nodiscard]] const Dictionary* dictionary() const { return std::get_if<Dictionary>(&held_); }

  // The number object's conversions. A fraction is cut off; an integer that does not fit keeps its low bits
  // (so -1 as unsigned is 2^64-1); a double that does not fit becomes the nearest that does, and not-a-number
  // becomes 0. A negative double converts to unsigned as its signed value does. Anything but a number gives
  // 0.
  [[nodiscard]] bool boolValue() const;
  [[nodiscard]] std::int32_t intValue() const;
  [[nodiscard]] std::int64_t longLongValue() const;
  [[nodiscard]] std::uint64_t unsignedLongLongValue() const;
  [[nodiscard]] double doubleValue() const;

  /// Whether more than so many arrays and dictionaries stand one within the other, this one included.
  [[nodiscard]] bool nestsDeeperThan(std::size_t depth) const;

  /// As log lines print it: `{KELVANE_AMOUNT = 5; KELVANE_VOLUME = "/";}`, arrays as `(1, 2)`, data as
  /// `<0a0b>`, nothing as `(null)`. Long data is shortened and says so.
  [[nodiscard]] std::string description() const;

  using Held = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double,
                            foundation::CopyOnWrite<std::string>, Data, Date, Array, Dictionary>;
  /// For those who must treat every kind: marshalling, archiving.
  [[nodiscard]] const Held& held() const { return held_; }

  /// Numbers are equal when they stand for the same number, whatever holds it (true equals 1).
  friend KELVANE_EXPORT bool operator==(const Value& a, const Value& b);

 private:
  Held held_;
};

}  // namespace kelvane
