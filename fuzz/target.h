#pragma once

// What each fuzz target defines, and what it may use to state what always holds.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kelvane::fuzz {

/// Defined by each target: does with the input what its name says, and requires what must hold. Called any
/// number of times in one process, so it leaves nothing behind that changes what a later call does.
void examine(std::span<const std::uint8_t> input);

/// Ends the process as a finding unless the property holds. The property is a sentence: what always holds.
void require(bool holds, std::string_view property);

/// Bytes that are allocated now.
[[nodiscard]] std::size_t allocatedBytes();

[[nodiscard]] inline std::string textOf(std::span<const std::uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

/// Takes the decisions of a target off the front of its input: numbers first, what is left is the subject.
class Choices {
 public:
  explicit Choices(std::span<const std::uint8_t> input) : left_(input) {}

  /// 0 when nothing is left.
  std::uint8_t byte() {
    if (left_.empty()) return 0;
    const std::uint8_t first = left_.front();
    left_ = left_.subspan(1);
    return first;
  }
  /// The lower byte first.
  std::uint16_t word() {
    const unsigned low = byte();
    return static_cast<std::uint16_t>(low | unsigned{byte()} << 8U);
  }
  /// At most this number of bytes.
  std::span<const std::uint8_t> bytes(std::size_t count) {
    const auto taken = left_.first(count < left_.size() ? count : left_.size());
    left_ = left_.subspan(taken.size());
    return taken;
  }
  [[nodiscard]] std::span<const std::uint8_t> rest() const { return left_; }

 private:
  std::span<const std::uint8_t> left_;
};

}  // namespace kelvane::fuzz
