#pragma once

// What archives are written with and read with: the tags, numbers and texts that archive.h describes. For
// those who archive an object of their own in the same terms.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "kelvane/value.h"

namespace kelvane::foundation {

class Archiver {
 public:
  /// As they are, without a tag or a length.
  void bytes(std::span<const std::uint8_t> bytes);
  void number(std::uint64_t value);
  void signedNumber(std::int64_t value);
  void text(std::string_view text);
  /// The value with its tag.
  void object(const Value& value);

  /// What was written; empty when an object nested deeper than archives may.
  [[nodiscard]] Data finished();

 private:
  struct Objects;

  Data::Bytes out_;
  std::size_t depth_ = 0;
  bool too_deep_ = false;
};

/// Reads from the front of what is left. The first thing that is not what it should be is remembered; what is
/// read from then on means nothing, and `failed` says so: loops look at it. Costs time and memory in
/// proportion to the bytes, whatever they claim.
class Unarchiver {
 public:
  explicit Unarchiver(std::span<const std::uint8_t> bytes) : left_(bytes) {}

  [[nodiscard]] std::span<const std::uint8_t> bytes(std::size_t count);
  std::uint64_t number();
  std::int64_t signedNumber();
  std::string text();
  Value object();
  /// A length or count that the bytes left can hold, when each of what is counted takes `each` of them or
  /// more.
  std::size_t count(std::size_t each);

  void fail() { failed_ = true; }
  [[nodiscard]] bool failed() const { return failed_; }
  /// Nothing failed and nothing is left.
  [[nodiscard]] bool finished() const { return !failed_ && left_.empty(); }

 private:
  std::uint8_t byte();
  Data data();
  double real();
  Array array();
  Dictionary dictionary();
  void enter();

  std::span<const std::uint8_t> left_;
  std::size_t depth_ = 0;
  bool failed_ = false;
};

}  // namespace kelvane::foundation
