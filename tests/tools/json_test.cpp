#include "tools/json.h"

#include <gtest/gtest.h>
#include <limits>

namespace kelvane::tests {
namespace {

using tools::jsonText;
using tools::readJson;

TEST(Json, ReadsBackWhatItWrites) {
  const Value value = Dictionary{{"flag", true},
                                 {"less", -5},
                                 {"most", ~std::uint64_t{0}},
                                 {"part", 0.25},
                                 {"text", "größe \"and\" \n\033"},
                                 {"bytes", Data({0, 10, 255})},
                                 {"when", Date{-1}},
                                 {"list", Array{1, Array{}, Dictionary{}}}};
  const auto read = readJson(jsonText(value));
  EXPECT_TRUE(read.valid);
  EXPECT_EQ(read.value, value);
}

TEST(Json, StaysWellFormedWhateverTheValueHolds) {
  EXPECT_EQ(jsonText("\xFF"), "\"\xEF\xBF\xBD\"\n");
  EXPECT_EQ(jsonText(std::numeric_limits<double>::infinity()), "null\n");
  EXPECT_EQ(jsonText(Value()), "null\n");
  EXPECT_EQ(jsonText(Data()), "{\n  \"data\": \"\"\n}\n");
}

TEST(Json, IsNotReadFromWhatIsNone) {
  for (const char* text : {"", "{", "nul", "1 2", "{\"data\": \"0g\"}", "{\"data\": \"0\"}", "'a'"})
    EXPECT_FALSE(readJson(text).valid) << text;
  EXPECT_FALSE(readJson(std::string(100, '[') + std::string(100, ']')).valid);
}

}  // namespace
}  // namespace kelvane::tests
