#include "platform/foundation/property_list.h"

#include <cmath>
#include <limits>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace kelvane {
namespace {

PropertyListResult read(std::string_view text, const PropertyListLimits& limits = {}) {
  return propertyListWithData(Data(Data::Bytes(text.begin(), text.end())), limits);
}

/// Reads a file whose root is `root`.
PropertyListResult readRoot(std::string_view root, const PropertyListLimits& limits = {}) {
  return read(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//A//B//EN\" "
      "\"http://c/d.dtd\">\n"
      "<plist version=\"1.0\">" +
          std::string(root) + "</plist>\n",
      limits);
}

std::string errorOf(const PropertyListResult& result) {
  EXPECT_TRUE(result.value.isNothing()) << result.value.description();
  return result.error.value_or("(no error)");
}

std::string repeated(std::string_view text, std::size_t times) {
  std::string result;
  for (std::size_t i = 0; i < times; ++i) result += text;
  return result;
}

TEST(XMLPropertyList, ADescriptorIsRead) {
  const PropertyListResult result = readRoot(
      "<dict>\n\t<key>KELVANE_ID</key>\n\t<string>com.example.photos</string>\n"
      "\t<key>KELVANE_SERVICES</key>\n\t<array><string>PURGE</string><string>PERIODIC</string></array>\n"
      "\t<key>KELVANE_DO_NOT_QUERY</key><false/>\n</dict>");
  ASSERT_FALSE(result.error) << *result.error;
  EXPECT_EQ(result.value, Value(Dictionary{{"KELVANE_ID", "com.example.photos"},
                                           {"KELVANE_SERVICES", Array{"PURGE", "PERIODIC"}},
                                           {"KELVANE_DO_NOT_QUERY", false}}));
  EXPECT_TRUE((*result.value.dictionary())["KELVANE_DO_NOT_QUERY"].isBoolean());
}

TEST(XMLPropertyList, EveryKindOfObjectIsRead) {
  EXPECT_EQ(readRoot("<true/>").value, Value(true));
  EXPECT_EQ(readRoot("<real>-1.5</real>").value, Value(-1.5));
  EXPECT_EQ(readRoot("<data>\n\tAQI\n\tD\n</data>").value, Value(Data({1, 2, 3})));
  EXPECT_EQ(readRoot("<data/>").value, Value(Data()));
  EXPECT_EQ(readRoot("<string/>").value, Value(""));
  EXPECT_EQ(readRoot("<string>a &lt;&amp;&gt; &#233;&#x1F600;</string>").value,
            Value("a <&> \xc3\xa9\xf0\x9f\x98\x80"));
  EXPECT_EQ(readRoot("<date>1970-01-02T00:00:01Z</date>").value, Value(Date{86'401'000'000}));
  EXPECT_EQ(readRoot("<dict/>").value, Value(Dictionary()));
}

TEST(XMLPropertyList, AnArrayAtTheRootIsAnArray) {
  EXPECT_EQ(readRoot("<array><integer>1</integer></array>").value, Value(Array{1}));
}

TEST(XMLPropertyList, ANegativeIntegerComesOutSigned) {
  const Value value = readRoot("<integer>-1</integer>").value;
  ASSERT_TRUE(std::holds_alternative<std::int64_t>(value.held()));
  EXPECT_EQ(value, Value(-1));
  EXPECT_EQ(readRoot("<integer>-9223372036854775808</integer>").value,
            Value(std::numeric_limits<std::int64_t>::min()));
  EXPECT_EQ(readRoot("<integer>-0x10</integer>").value, Value(-16));
}

TEST(XMLPropertyList, TheLargestUnsignedIntegerIsNotMinusOne) {
  const Value value = readRoot("<integer>18446744073709551615</integer>").value;
  ASSERT_TRUE(std::holds_alternative<std::uint64_t>(value.held()));
  EXPECT_EQ(value, Value(std::numeric_limits<std::uint64_t>::max()));
}

TEST(XMLPropertyList, DatesOutside1933To2069AreRead) {
  EXPECT_EQ(readRoot("<date>1900-01-01T00:00:00Z</date>").value, Value(Date{-2'208'988'800'000'000}));
  EXPECT_EQ(readRoot("<date>9999-12-31T23:59:59Z</date>").value, Value(Date{253'402'300'799'000'000}));
}

TEST(XMLPropertyList, AByteOrderMarkAndLeadingBlanksAreSkipped) {
  EXPECT_EQ(read("\xef\xbb\xbf<?xml version=\"1.0\"?><plist><true/></plist>").value, Value(true));
  EXPECT_EQ(read("\n\n  <plist><true/></plist>").value, Value(true));
}

TEST(XMLPropertyList, OfTwoEntriesWithOneKeyTheLastCounts) {
  EXPECT_EQ(readRoot("<dict><key>a</key><true/><key>a</key><string>b</string></dict>").value,
            Value(Dictionary{{"a", "b"}}));
}

TEST(XMLPropertyList, AnIntegerThatIsNoneIsAnError) {
  EXPECT_EQ(errorOf(readRoot("<integer>abc</integer>")),
            "line 3: <integer> holds \"abc\", which is none or does not fit");
  for (const char* text :
       {"", "5x", "0x", "1.5", "- 1", "--1", "18446744073709551616", "-9223372036854775809"}) {
    EXPECT_NE(errorOf(readRoot("<integer>" + std::string(text) + "</integer>")), "(no error)") << text;
  }
}

TEST(XMLPropertyList, ARealADateOrDataThatIsNoneIsAnError) {
  for (const char* root :
       {"<real>abc</real>", "<real/>", "<real>1e999</real>", "<date>yesterday</date>",
        "<date>2024-13-01T00:00:00Z</date>", "<date>2024-01-01</date>", "<data>!!</data>"}) {
    EXPECT_NE(errorOf(readRoot(root)), "(no error)") << root;
  }
}

TEST(XMLPropertyList, AKeyWithoutAValueIsAnError) {
  EXPECT_EQ(errorOf(readRoot("<dict><key>a</key></dict>")), "line 3: a key without a value");
  EXPECT_EQ(errorOf(readRoot("<dict><key>a</key><key>b</key></dict>")), "line 3: a key without a value");
  EXPECT_EQ(errorOf(readRoot("<dict><string>a</string></dict>")), "line 3: a value without a key");
  EXPECT_EQ(errorOf(readRoot("<array><key>a</key></array>")), "line 3: a key outside a dictionary");
}

TEST(XMLPropertyList, ATruncatedFileIsAnErrorAtEveryLength) {
  const std::string whole =
      "<?xml version=\"1.0\"?><plist><dict><key>a</key><array><integer>1</integer></array></dict></plist>";
  ASSERT_FALSE(read(whole).error);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_NE(errorOf(read(whole.substr(0, length))), "(no error)") << length;
  }
}

TEST(XMLPropertyList, TextThatIsNoPropertyListIsAnError) {
  EXPECT_EQ(errorOf(read("KELVANE_ID = photos;\n")), "is neither an XML nor a binary property list");
  EXPECT_EQ(errorOf(read("{\"KELVANE_ID\": \"photos\"}")), "is neither an XML nor a binary property list");
  EXPECT_EQ(errorOf(read("   \n")), "is neither an XML nor a binary property list");
  EXPECT_EQ(errorOf(read("<0fbd77>")), "line 1: the unknown element <0fbd77>");
  EXPECT_EQ(errorOf(read("<dict/>")), "line 1: <dict> where it does not belong");
}

TEST(PropertyList, AnEmptyFileIsAnError) { EXPECT_EQ(errorOf(read("")), "is empty"); }

TEST(PropertyList, AFileAboveTheCapIsRefusedUnread) {
  EXPECT_EQ(errorOf(read(std::string(100, 'x'), {.bytes = 99})), "is larger than 99 bytes");
  EXPECT_EQ(errorOf(read(std::string((4 << 20) + 1, ' '))), "is larger than 4194304 bytes");
}

TEST(XMLPropertyList, BytesThatAreNotUTF8AreAnError) {
  EXPECT_EQ(errorOf(readRoot("<string>a\xff</string>")), "is not valid UTF-8 without NUL bytes");
  EXPECT_EQ(errorOf(readRoot("<string>\xed\xa0\x80</string>")), "is not valid UTF-8 without NUL bytes");
  EXPECT_EQ(errorOf(readRoot("<string>\xc0\x80</string>")), "is not valid UTF-8 without NUL bytes");
  EXPECT_EQ(errorOf(readRoot("<string>a" + std::string(1, '\0') + "b</string>")),
            "is not valid UTF-8 without NUL bytes");
}

TEST(XMLPropertyList, AReferenceToWhatNoTextMayHoldIsAnError) {
  for (const char* reference :
       {"&#0;", "&#xD800;", "&#x110000;", "&bogus;", "&amp", "& ", "&;", "&#;", "&#xg;"}) {
    EXPECT_NE(errorOf(readRoot("<string>" + std::string(reference) + "</string>")), "(no error)")
        << reference;
  }
}

TEST(XMLPropertyList, NestingUpToTheLimitIsReadAndBeyondItRefused) {
  const auto nested = [](std::size_t depth) {
    return repeated("<array>", depth) + repeated("</array>", depth);
  };
  EXPECT_FALSE(readRoot(nested(64)).error);
  EXPECT_EQ(errorOf(readRoot(nested(65))), "line 3: nested deeper than 64");
  EXPECT_EQ(errorOf(readRoot(nested(200'000))), "line 3: nested deeper than 64");
  EXPECT_EQ(errorOf(read("<plist>" + repeated("<dict><key>a</key>", 200'000))),
            "line 1: nested deeper than 64");
}

TEST(XMLPropertyList, TooManyElementsAreRefused) {
  EXPECT_EQ(errorOf(readRoot("<array>" + repeated("<true/>", 65536) + "</array>")),
            "line 3: more than 65536 objects");
  const PropertyListResult most = readRoot("<array>" + repeated("<true/>", 65535) + "</array>");
  ASSERT_FALSE(most.error) << *most.error;
  EXPECT_EQ(most.value.array()->size(), 65535u);
}

TEST(XMLPropertyList, MarkupInACommentOrCDATASectionCountsForNothing) {
  EXPECT_EQ(readRoot("<!-- " + repeated("<array>", 100) + " --><string>a<!-- </string> -->b</string>").value,
            Value("ab"));
  EXPECT_EQ(readRoot("<string><![CDATA[" + repeated("<array>", 100) + "&bogus;]]></string>").value,
            Value(repeated("<array>", 100) + "&bogus;"));
}

TEST(XMLPropertyList, ClosingTagsHiddenInCommentsOrQuotesDoNotHideTheNesting) {
  for (const char* hidden :
       {"<!-- </array> -->", "<?x \"?></array>\"?>", "<?x </array>?>", "<![CDATA[</array>]]>",
        "<!DOCTYPE a \"></array>\">", "<!DOCTYPE a [</array>]>"}) {
    const std::string level = "<array>" + std::string(hidden);
    EXPECT_NE(errorOf(readRoot(repeated(level, 100'000))), "(no error)") << hidden;
  }
  EXPECT_NE(errorOf(readRoot(repeated("<array a=\"></array>\">", 100'000))), "(no error)");
}

TEST(XMLPropertyList, ElementsThatDoNotNestAreAnError) {
  EXPECT_EQ(errorOf(readRoot("<array><dict></array></dict>")), "line 3: </array> where it does not belong");
  EXPECT_EQ(errorOf(readRoot("<string><true/></string>")), "line 3: markup inside <string>");
  EXPECT_EQ(errorOf(readRoot("<true/><true/>")), "line 3: a second root object");
  EXPECT_EQ(errorOf(readRoot("")), "line 3: no root object");
  EXPECT_EQ(errorOf(readRoot("<array>text</array>")), "line 3: text where an element belongs");
  EXPECT_EQ(errorOf(read("<plist><true/></plist>text")), "line 1: text where an element belongs");
  EXPECT_EQ(errorOf(read("<plist><true/></plist><plist/>")), "line 1: <plist> where it does not belong");
}

void expectWrittenAndReadBack(const Value& value) {
  const PropertyListXMLResult written = propertyListXML(value);
  ASSERT_FALSE(written.error) << *written.error << ": " << value.description();
  const PropertyListResult back = read(written.xml);
  ASSERT_FALSE(back.error) << *back.error << ": " << written.xml;
  EXPECT_EQ(back.value, value);
  EXPECT_EQ(back.value.held().index(), value.held().index()) << written.xml;
}

TEST(PropertyListWriting, WhatIsWrittenIsReadBackEqual) {
  for (const Value& value :
       {Value(true),
        Value(false),
        Value(0),
        Value(-1),
        Value(std::numeric_limits<std::int64_t>::min()),
        Value(std::numeric_limits<std::int64_t>::max()),
        Value(std::numeric_limits<std::uint64_t>::max()),
        Value(0.1),
        Value(-1e300),
        Value(std::numeric_limits<double>::infinity()),
        Value(""),
        Value("a <&> \"b\" \xc3\xa9\n\t"),
        Value(Data()),
        Value(Data(Data::Bytes(1000, 0xfe))),
        Value(Date{0}),
        Value(Date{-1'000'000}),
        Value(Date{253'402'300'799'000'000}),
        Value(Date{-30610224000000000}),
        Value(Array()),
        Value(Dictionary()),
        Value(Dictionary{
            {"", 1}, {"a&b", Array{1, "two", Dictionary{{"three", 3.5}}}}, {"\xc3\xa9", Data({0})}})}) {
    expectWrittenAndReadBack(value);
  }
}

TEST(PropertyListWriting, AnUnsignedIntegerThatFitsTheSignedOnesReadsBackAsTheSameNumber) {
  EXPECT_EQ(read(propertyListXML(Value(5u)).xml).value, Value(5));
}

TEST(PropertyListWriting, ADateLosesItsFractionOfASecond) {
  EXPECT_EQ(read(propertyListXML(Date{1'999'999}).xml).value, Value(Date{1'000'000}));
  EXPECT_EQ(read(propertyListXML(Date{-1}).xml).value, Value(Date{-1'000'000}));
}

TEST(PropertyListWriting, WhatXMLCannotCarryIsAnError) {
  Value deep(1);
  for (int i = 0; i < 65; ++i) deep = Array{deep};
  for (const Value& value :
       {Value(), Value(std::string("a\0b", 3)), Value("\x01"), Value("\xff"), Value(Dictionary{{"\xff", 1}}),
        deep, Value(Date{std::numeric_limits<std::int64_t>::min()}),
        Value(Date{std::numeric_limits<std::int64_t>::max()})}) {
    const PropertyListXMLResult written = propertyListXML(value);
    EXPECT_TRUE(written.error) << written.xml;
    EXPECT_EQ(written.xml, "");
  }
}

}  // namespace
}  // namespace kelvane
