#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

namespace kelvane::tools {

/// Why a text is no amount, for people.
struct NoAmount {
  std::string reason;
};

/// Bytes, as people write them: "4096", "500M", "1.5GiB", "12.5 MiB", "2g". K, M, G, T, P and KiB, MiB, ...
/// are powers of 1024; KB, MB, ... powers of 1000. A fraction of a byte is cut off. Nothing is no amount:
/// neither "0" nor what is below one byte.
[[nodiscard]] std::variant<std::uint64_t, NoAmount> parseAmount(std::string_view text);

/// Seconds between two looks: "2", "0.5"; 0.1 to 3600.
[[nodiscard]] std::variant<double, NoAmount> parseSeconds(std::string_view text);

/// "12.5 MiB"; bytes below 1 KiB as they are.
[[nodiscard]] std::string inUnits(std::uint64_t bytes);
/// The same with a sign where it is negative.
[[nodiscard]] std::string inUnitsSigned(std::int64_t bytes);

/// "850 ms", "3.2 s", "5 min 20 s", "2 h 5 min".
[[nodiscard]] std::string inTime(double seconds);

}  // namespace kelvane::tools
