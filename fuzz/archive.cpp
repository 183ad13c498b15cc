// Archives: the compact form of values and of the recent-info record, which clients may store.

#include "platform/foundation/archive.h"

#include "fuzz/target.h"
#include "platform/foundation/identical.h"
#include "support/recent_info.h"

namespace kelvane::fuzz {
namespace {

// An array of empty dictionaries is what takes most: a node of about 100 bytes for two of the input, and
// arrays grow by doubling.
constexpr std::size_t most_bytes_for_one = 256;
constexpr std::size_t any_size = 4096;

void examineValue(std::span<const std::uint8_t> input) {
  const std::size_t before = allocatedBytes();
  const Value value = unarchivedValue(input);
  require(allocatedBytes() - before <= most_bytes_for_one * input.size() + any_size,
          "a value takes memory in proportion to its archive");
  if (value.isNothing()) return;
  require(!value.nestsDeeperThan(archive_depth_limit), "no value nests deeper than archives may");
  const Data archive = archivedData(value);
  require(textOf(archive.bytes()) == textOf(input), "every value has one archive");
  require(foundation::identical(value, unarchivedValue(archive)), "an archived value reads back identical");
}

void examineRecord(std::span<const std::uint8_t> input) {
  const auto record = unarchivedRecentInfo(Data({input.begin(), input.end()}));
  if (record == nullptr) return;
  require(textOf(archivedData(*record).bytes()) == textOf(input), "every record has one archive");
  require(!record->description().empty(), "a record has a description");
}

}  // namespace

void examine(std::span<const std::uint8_t> input) {
  examineValue(input);
  examineRecord(input);
}

}  // namespace kelvane::fuzz
