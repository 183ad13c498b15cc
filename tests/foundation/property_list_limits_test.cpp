// Texts and tables put together at random, the same on each run: what is accepted must keep the limits it was
// read under, however oddly it is put together. Under AddressSanitizer this also exercises the parser below.

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "platform/foundation/property_list.h"
#include "tests/foundation/binary_list.h"

namespace kelvane {
namespace {

constexpr PropertyListLimits tight{.bytes = 4096, .depth = 3, .objects = 12, .expanded_bytes = 100};

std::size_t depthOf(const Value& value);
std::size_t countOf(const Value& value);

std::size_t depthOf(const Value& value) {
  std::size_t below = 0;
  if (const Array* array = value.array()) {
    for (const Value& element : *array) below = std::max(below, depthOf(element));
    return below + 1;
  }
  if (const Dictionary* dictionary = value.dictionary()) {
    for (const auto& entry : *dictionary) below = std::max(below, depthOf(entry.second));
    return below + 1;
  }
  return 0;
}

std::size_t countOf(const Value& value) {
  std::size_t count = 1;
  if (const Array* array = value.array()) {
    for (const Value& element : *array) count += countOf(element);
  } else if (const Dictionary* dictionary = value.dictionary()) {
    for (const auto& entry : *dictionary) count += 1 + countOf(entry.second);
  }
  return count;
}

/// Reads `bytes` and checks that the limits hold for what came out; true when something did.
bool keepsTheLimits(const Data::Bytes& bytes) {
  const PropertyListResult result = propertyListWithData(bytes, tight);
  if (result.error) {
    EXPECT_TRUE(result.value.isNothing());
    return false;
  }
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  EXPECT_LE(depthOf(result.value), tight.depth) << text;
  EXPECT_LE(countOf(result.value), tight.objects) << text;
  return true;
}

TEST(PropertyListLimits, HoldForWhateverXMLIsAccepted) {
  constexpr std::array<std::string_view, 29> pieces = {"<array>",
                                                       "<array>",
                                                       "</array>",
                                                       "</array>",
                                                       "<dict>",
                                                       "</dict>",
                                                       "<key>a</key>",
                                                       "<key>b</key>",
                                                       "<true/>",
                                                       "<true/>",
                                                       "<string>",
                                                       "</string>",
                                                       "<array/>",
                                                       "<dict a='/'>",
                                                       "<!-- ",
                                                       " -->",
                                                       "<?x ",
                                                       "?>",
                                                       "<![CDATA[",
                                                       "]]>",
                                                       "\"",
                                                       "'",
                                                       "<array a=\"",
                                                       "\">",
                                                       "</array >",
                                                       "<integer>1</integer>",
                                                       "<!DOCTYPE x>",
                                                       "&lt;",
                                                       "x"};
  std::minstd_rand random(1);
  std::size_t accepted = 0;
  for (int turn = 0; turn < 200'000; ++turn) {
    std::string text = "<plist>";
    const std::size_t root = random() % 2;
    if (root == 0) text += "<array>";
    for (auto left = random() % 9; left > 0; --left) text += pieces[random() % pieces.size()];
    text += root == 0 ? "</array></plist>" : "</plist>";
    accepted += keepsTheLimits({text.begin(), text.end()}) ? 1 : 0;
  }
  EXPECT_GT(accepted, 1000u);
}

TEST(PropertyListLimits, HoldForWhateverBinaryTableIsAccepted) {
  std::minstd_rand random(1);
  std::size_t accepted = 0;
  for (int turn = 0; turn < 200'000; ++turn) {
    std::vector<std::string> objects(1 + random() % 7);
    for (std::string& object : objects) {
      const auto count = random() % 4;
      const bool dictionary = random() % 4 == 0;
      const bool leaf = random() % 3 == 0;
      object = static_cast<char>((leaf ? 0x50 : dictionary ? 0xd0 : 0xa0) + count);
      for (auto left = dictionary && !leaf ? count * 2 : count; left > 0; --left) {
        object += leaf ? 'a' : static_cast<char>(random() % objects.size());
      }
    }
    accepted += keepsTheLimits(test::binaryList(objects)) ? 1 : 0;
  }
  EXPECT_GT(accepted, 1000u);
}

}  // namespace
}  // namespace kelvane
