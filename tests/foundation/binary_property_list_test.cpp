#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "platform/foundation/property_list.h"
#include "tests/foundation/binary_list.h"

namespace kelvane {
namespace {

using test::binaryList;
using test::object;

PropertyListResult read(const std::vector<std::string>& objects, const PropertyListLimits& limits = {}) {
  return propertyListWithData(binaryList(objects), limits);
}

std::string errorOf(const PropertyListResult& result) {
  EXPECT_TRUE(result.value.isNothing()) << result.value.description();
  return result.error.value_or("(no error)");
}

TEST(BinaryPropertyList, ADescriptorIsRead) {
  const PropertyListResult result =
      read({"\xd2\x01\x02\x03\x04", "\x5aKELVANE_ID", "\x5f\x10\x10KELVANE_SERVICES", "\x57-photos",
            "\xa1\x05", "\x55PURGE"});
  ASSERT_FALSE(result.error) << *result.error;
  EXPECT_EQ(result.value, Value(Dictionary{{"KELVANE_ID", "-photos"}, {"KELVANE_SERVICES", Array{"PURGE"}}}));
}

TEST(BinaryPropertyList, EveryKindOfObjectIsRead) {
  EXPECT_EQ(read({"\x08"}).value, Value(false));
  EXPECT_EQ(read({"\x09"}).value, Value(true));
  EXPECT_EQ(read({"\x10\xff"}).value, Value(255));
  EXPECT_EQ(read({"\x11\xff\xfe"}).value, Value(65534));
  EXPECT_EQ(read({object("\x22\x3f\xc0\x00\x00")}).value, Value(1.5));
  EXPECT_EQ(read({object("\x42\x00\x01")}).value, Value(Data({0, 1})));
  EXPECT_EQ(read({object("\x62\x00\x61\x00\xe9")}).value, Value("a\xc3\xa9"));
  EXPECT_EQ(read({object("\x62\xd8\x3d\xde\x00")}).value, Value("\xf0\x9f\x98\x80"));
  EXPECT_EQ(read({"\x50"}).value, Value(""));
  EXPECT_EQ(read({"\xd0"}).value, Value(Dictionary()));
}

TEST(BinaryPropertyList, AnArrayAtTheRootIsAnArray) {
  EXPECT_EQ(read({"\xa1\x01", "\x09"}).value, Value(Array{true}));
}

TEST(BinaryPropertyList, ANegativeIntegerComesOutSigned) {
  const Value value = read({"\x13\xff\xff\xff\xff\xff\xff\xff\xff"}).value;
  ASSERT_TRUE(std::holds_alternative<std::int64_t>(value.held()));
  EXPECT_EQ(value.longLongValue(), -1);
}

TEST(BinaryPropertyList, TheLargestUnsignedIntegerIsNotMinusOne) {
  const Value value = read({"\x14" + std::string(8, '\0') + std::string(8, '\xff')}).value;
  ASSERT_TRUE(std::holds_alternative<std::uint64_t>(value.held()));
  EXPECT_EQ(value.unsignedLongLongValue(), ~std::uint64_t{0});
}

TEST(BinaryPropertyList, AnIntegerThatDoesNotFit64BitsIsAnError) {
  EXPECT_EQ(errorOf(read({"\x14\x01" + std::string(15, '\0')})),
            "holds an integer that does not fit 64 bits");
  EXPECT_EQ(errorOf(read({"\x15" + std::string(32, '\0')})), "holds an integer of more than 16 bytes");
}

TEST(BinaryPropertyList, ADateKeepsItsMicroseconds) {
  // Seconds since 2001: 0.5, -0.5, and 2^33, which is in 2273.
  EXPECT_EQ(read({object("\x33\x3f\xe0\x00\x00\x00\x00\x00\x00")}).value, Value(Date{978'307'200'500'000}));
  EXPECT_EQ(read({object("\x33\xbf\xe0\x00\x00\x00\x00\x00\x00")}).value, Value(Date{978'307'199'500'000}));
  EXPECT_EQ(read({object("\x33\x42\x00\x00\x00\x00\x00\x00\x00")}).value,
            Value(Date{(8'589'934'592 + 978'307'200) * 1'000'000}));
}

TEST(BinaryPropertyList, ADateThatIsNoNumberOrOutOfRangeIsAnError) {
  EXPECT_EQ(errorOf(read({object("\x33\x7f\xf8\x00\x00\x00\x00\x00\x00")})),
            "has a date that is out of range");
  EXPECT_EQ(errorOf(read({object("\x33\x7f\xe0\x00\x00\x00\x00\x00\x00")})),
            "has a date that is out of range");
}

TEST(BinaryPropertyList, AUIDIsAnUnsignedInteger) {
  const Value value = read({"\x81\x01\x07"}).value;
  ASSERT_TRUE(std::holds_alternative<std::uint64_t>(value.held()));
  EXPECT_EQ(value, Value(263));
}

TEST(BinaryPropertyList, ANullObjectIsAnError) {
  EXPECT_EQ(errorOf(read({object("\x00")})), "holds a null object");
  EXPECT_EQ(errorOf(read({"\xa1\x01", object("\x00")})), "holds a null object");
}

TEST(BinaryPropertyList, AStringWithANULOrBrokenTextIsAnError) {
  EXPECT_EQ(errorOf(read({object("\x53\x61\x00\x62")})), "has a string with a NUL in it");
  EXPECT_EQ(errorOf(read({object("\x63\x00\x61\x00\x00\x00\x62")})), "has a string with a NUL in it");
  EXPECT_EQ(errorOf(read({"\x52\x61\xff"})), "has a string that is not valid UTF-8");
  EXPECT_EQ(errorOf(read({object("\x61\xd8\x00")})), "has a string that is not valid UTF-16");
  EXPECT_EQ(errorOf(read({object("\x62\xdc\x00\xd8\x00")})), "has a string that is not valid UTF-16");
  EXPECT_EQ(errorOf(read({"\xd1\x01\x02", "\x51\xff", "\x09"})), "has a key that is not valid UTF-8");
}

TEST(BinaryPropertyList, AKeyThatIsNoStringIsAnError) {
  EXPECT_EQ(errorOf(read({"\xd1\x01\x01", "\x09"})), "has a dictionary key that is no string");
}

TEST(BinaryPropertyList, AnObjectThatContainsItselfIsAnError) {
  EXPECT_EQ(errorOf(read({object("\xa1\x00")})), "object 0 contains itself");
  EXPECT_EQ(errorOf(read({"\xa1\x01", object("\xa1\x00")})), "object 0 contains itself");
  EXPECT_EQ(errorOf(read({object("\xd1\x01\x00"), "\x51k"})), "object 0 contains itself");
}

TEST(BinaryPropertyList, ASmallFileThatExpandsToBillionsOfObjectsIsRefused) {
  // Each array holds the next one ten times: 10^9 objects in under 140 bytes.
  std::vector<std::string> objects;
  for (char level = 1; level <= 9; ++level) objects.push_back("\xaa" + std::string(10, level));
  objects.emplace_back("\x09");
  EXPECT_EQ(errorOf(read(objects)), "holds more than 65536 objects");
}

TEST(BinaryPropertyList, ASharedStringThatExpandsToGigabytesIsRefused) {
  const std::string large(1 << 20, 'x');
  const std::string shared = object("\x5f\x12\x00\x10\x00\x00") + large;
  const std::string many = object("\xaf\x11\x10\x00") + std::string(4096, '\x01');
  EXPECT_EQ(errorOf(read({many, shared})),
            "holds more than 16777216 bytes of strings and data once expanded");
}

TEST(BinaryPropertyList, ASharedObjectIsReadInBothPlaces) {
  EXPECT_EQ(read({"\xa2\x01\x01", "\xa1\x02", "\x51x"}).value, Value(Array{Array{"x"}, Array{"x"}}));
}

TEST(BinaryPropertyList, NestingUpToTheLimitIsReadAndBeyondItRefused) {
  const auto nested = [](char depth) {
    std::vector<std::string> objects;
    for (char level = 1; level < depth; ++level) objects.push_back("\xa1" + std::string(1, level));
    objects.emplace_back("\xa0");
    return objects;
  };
  EXPECT_FALSE(read(nested(64)).error);
  EXPECT_EQ(errorOf(read(nested(65))), "is nested deeper than 64");
}

TEST(BinaryPropertyList, AReferenceOrSizeOutsideTheFileIsAnError) {
  EXPECT_EQ(errorOf(read({"\xa1\x05", "\x09"})), "refers to object 5 of 2");
  EXPECT_EQ(errorOf(read({"\x59short"})), "is cut off: an object ends outside the file");
  EXPECT_EQ(errorOf(read({object("\x4f\x12\xff\xff\xff\xff")})),
            "has an object that is larger than the file");
  EXPECT_EQ(errorOf(read({object("\x4f\x13\xff\xff\xff\xff\xff\xff\xff\xff")})),
            "has an object that is larger than the file");
  EXPECT_EQ(errorOf(read({"\x4f\x51"})), "has an object with a damaged size");
  EXPECT_EQ(errorOf(read({object("\xa9\x00")})), "is cut off: an object ends outside the file");
}

TEST(BinaryPropertyList, ObjectsOfUnknownKindsAreAnError) {
  for (const char* unknown :
       {"\x01", "\x0f", "\x21\x01\x02", "\x32\x01\x02\x03\x04", "\x70", "\x90", "\xb0", "\xe0"}) {
    EXPECT_NE(errorOf(read({unknown})), "(no error)");
  }
}

TEST(BinaryPropertyList, AnUnknownVersionIsAnError) {
  Data::Bytes bytes = binaryList({"\x09"});
  bytes[7] = '1';
  EXPECT_EQ(errorOf(propertyListWithData(bytes)), "is a binary property list of an unknown version");
}

TEST(BinaryPropertyList, ATruncatedFileIsAnErrorAtEveryLength) {
  const Data::Bytes whole = binaryList({"\xd1\x01\x02", "\x51k", "\xa2\x03\x03", "\x10\x05"});
  ASSERT_FALSE(propertyListWithData(whole).error);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const Data::Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_NE(errorOf(propertyListWithData(cut)), "(no error)") << length;
  }
}

TEST(BinaryPropertyList, AnyOneDamagedByteGivesAValueOrAnErrorAndNeverBoth) {
  const Data::Bytes whole = binaryList({"\xd2\x01\x02\x03\x04", "\x51k", object("\x61\x00\xe9"),
                                        "\xa3\x05\x06\x04", object("\x33\x3f\xe0\x00\x00\x00\x00\x00\x00"),
                                        "\x13\xff\xff\xff\xff\xff\xff\xff\xff", object("\x42\x00\x01")});
  ASSERT_FALSE(propertyListWithData(whole).error);
  std::size_t refused = 0;
  for (std::size_t at = 8; at < whole.size(); ++at) {
    for (unsigned byte = 0; byte < 256; ++byte) {
      Data::Bytes damaged = whole;
      damaged[at] = static_cast<std::uint8_t>(byte);
      const PropertyListResult result = propertyListWithData(damaged);
      EXPECT_NE(result.error.has_value(), !result.value.isNothing()) << at << " " << byte;
      refused += result.error.has_value() ? 1 : 0;
    }
  }
  EXPECT_GT(refused, 0u);
}

}  // namespace
}  // namespace kelvane
