#include "platform/wire/reader.h"

#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/wire/message_bytes.h"

namespace kelvane::wire {
namespace {

/// {"k": <uint32 5>, "d": <1.5>} as "a{sv}".
constexpr const char* little_dictionary =
    "28 00 00 00  00 00 00 00 "                            // 40 bytes of entries, from 8 on
    "01 00 00 00  6b 00 01 75  00 00 00 00  05 00 00 00 "  // at 8 to 24
    "01 00 00 00  64 00 01 64  00 00 00 00  00 00 00 00 "  // at 24 to 40
    "00 00 00 00  00 00 f8 3f";                            // 1.5
constexpr const char* big_dictionary =
    "00 00 00 28  00 00 00 00 "
    "00 00 00 01  6b 00 01 75  00 00 00 00  00 00 00 05 "
    "00 00 00 01  64 00 01 64  00 00 00 00  00 00 00 00 "
    "3f f8 00 00  00 00 00 00";

Message asBody(const std::vector<std::byte>& bytes, std::string_view signature, ByteOrder order) {
  return {{.big_endian = order == ByteOrder::big, .signature = signature}, bytes};
}

bool isValid(const MessageBytes& bytes, std::string_view signature, std::size_t descriptors = 0) {
  return isBodyValid(bytes.asBody(signature), descriptors);
}

/// What reading the one value of the body leads to.
template <class Read>
Fault faultOf(const MessageBytes& bytes, std::string_view signature, Read read) {
  Reader reader(bytes.asBody(signature), {});
  read(reader);
  reader.finish();
  return reader.fault();
}

TEST(Reader, ADictionaryIsReadInBothByteOrders) {
  for (const ByteOrder order : both_orders) {
    const auto bytes = fromHex(order == ByteOrder::big ? big_dictionary : little_dictionary);
    Reader reader(asBody(bytes, "a{sv}", order), {});
    EXPECT_TRUE(reader.enterArray("{sv}"));
    EXPECT_TRUE(reader.enterEntry());
    EXPECT_EQ(reader.readString(), "k");
    EXPECT_TRUE(reader.enterVariant());
    EXPECT_EQ(reader.readUint32(), 5u);
    reader.leave();
    reader.leave();
    EXPECT_FALSE(reader.atEnd());
    EXPECT_TRUE(reader.enterEntry());
    EXPECT_EQ(reader.readString(), "d");
    EXPECT_TRUE(reader.enterVariant());
    EXPECT_EQ(reader.readDouble(), 1.5);
    reader.leave();
    reader.leave();
    EXPECT_TRUE(reader.atEnd());
    reader.leave();
    EXPECT_TRUE(reader.finish()) << order;
  }
}

TEST(Reader, EveryCutOfABodyIsMalformed) {
  for (const ByteOrder order : both_orders) {
    auto bytes = fromHex(order == ByteOrder::big ? big_dictionary : little_dictionary);
    EXPECT_TRUE(isBodyValid(asBody(bytes, "a{sv}", order), 0));
    while (!bytes.empty()) {
      bytes.pop_back();
      EXPECT_FALSE(isBodyValid(asBody(bytes, "a{sv}", order), 0)) << bytes.size();
    }
  }
}

TEST(Reader, EveryBasicTypeIsReadInBothByteOrders) {
  for (const ByteOrder order : both_orders) {
    MessageBytes bytes(order);
    bytes.byte(0xfe).number32(1).number16(0x8001).number16(0xfffe).number32(0x80000001).number32(0xfffffffe);
    bytes.number64(0x8000000000000001).number64(0xfffffffffffffffe).number64(0xbff8000000000000);
    bytes.text("t\xc3\xa4xt").text("/o/p").signature("a{sv}");
    Reader reader(bytes.asBody("ybnqiuxtdsog"), {});
    EXPECT_EQ(reader.readByte(), 0xfe);
    EXPECT_TRUE(reader.readBoolean());
    EXPECT_EQ(reader.readInt16(), -0x7fff);
    EXPECT_EQ(reader.readUint16(), 0xfffe);
    EXPECT_EQ(reader.readInt32(), -0x7fffffff);
    EXPECT_EQ(reader.readUint32(), 0xfffffffe);
    EXPECT_EQ(reader.readInt64(), std::numeric_limits<std::int64_t>::min() + 1);
    EXPECT_EQ(reader.readUint64(), 0xfffffffffffffffe);
    EXPECT_EQ(reader.readDouble(), -1.5);
    EXPECT_EQ(reader.readString(), "t\xc3\xa4xt");
    EXPECT_EQ(reader.readObjectPath(), "/o/p");
    EXPECT_EQ(reader.readSignature(), "a{sv}");
    EXPECT_TRUE(reader.finish()) << order;
    EXPECT_TRUE(isBodyValid(bytes.asBody("ybnqiuxtdsog"), 0));
  }
}

TEST(Reader, PaddingIsZero) {
  const auto spoiled = [](MessageBytes bytes, std::size_t at, std::string_view signature) {
    EXPECT_TRUE(isValid(bytes, signature));
    bytes[at] = std::byte{1};
    return !isValid(bytes, signature);
  };
  for (const std::size_t at : {1U, 2U, 3U})
    EXPECT_TRUE(spoiled(MessageBytes().byte(9).number32(1), at, "yu")) << at;
  EXPECT_TRUE(spoiled(MessageBytes().byte(9).number16(1), 1, "yn"));
  EXPECT_TRUE(spoiled(MessageBytes().number32(9).number64(1), 7, "ux"));
  EXPECT_TRUE(spoiled(MessageBytes().byte(9).text("t"), 1, "ys"));
  EXPECT_TRUE(spoiled(MessageBytes().byte(9).align(8).byte(1), 4, "y(y)"));
  EXPECT_TRUE(spoiled(MessageBytes().number32(0).zeros(4), 4, "ax")) << "an empty array is padded too";
  EXPECT_TRUE(spoiled(MessageBytes().number32(9).align(8).byte(1).align(8).byte(1), 11, "a(y)"));
}

TEST(Reader, ABooleanIsZeroOrOne) {
  const auto read = [](Reader& reader) { reader.readBoolean(); };
  EXPECT_EQ(faultOf(MessageBytes().number32(0), "b", read), Fault::none);
  EXPECT_EQ(faultOf(MessageBytes().number32(1), "b", read), Fault::none);
  EXPECT_EQ(faultOf(MessageBytes().number32(2), "b", read), Fault::malformed);
  EXPECT_EQ(faultOf(MessageBytes().number32(0x01000000), "b", read), Fault::malformed);
  EXPECT_FALSE(isValid(MessageBytes().number32(4).number32(2), "ab")) << "in an array that nobody reads";
}

TEST(Reader, AStringIsUtf8WithoutNul) {
  const auto read = [](Reader& reader) { reader.readString(); };
  for (const char* text :
       {"", "plain text that is longer than a word", "\xc3\xa4", "\xf4\x8f\xbf\xbf", "12345678\xe2\x82\xac"})
    EXPECT_EQ(faultOf(MessageBytes().text(text), "s", read), Fault::none) << text;
  for (const char* text :
       {"\xff", "\xc3", "\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "12345678\x80", "1234567\xc3"})
    EXPECT_EQ(faultOf(MessageBytes().text(text), "s", read), Fault::malformed) << text;
  for (const std::size_t at : {0U, 3U, 8U, 11U}) {
    std::string text = "twelve bytes";
    text[at] = '\0';
    EXPECT_EQ(faultOf(MessageBytes().text(text), "s", read), Fault::malformed) << at;
  }
}

TEST(Reader, ANoncharacterIsText) {
  EXPECT_TRUE(isValid(MessageBytes().text("\xef\xbf\xbe\xef\xb7\x90\xf4\x8f\xbf\xbf"), "s"));
}

TEST(Reader, ATextEndsWithNulInsideTheBody) {
  MessageBytes unterminated;
  unterminated.number32(2).raw("ab").byte('c');
  EXPECT_FALSE(isValid(unterminated, "s"));
  EXPECT_FALSE(isValid(MessageBytes().number32(2).raw("ab"), "s"));
  EXPECT_FALSE(isValid(MessageBytes().number32(0xffffffff).raw("ab").byte(0), "s"));
  EXPECT_FALSE(isValid(MessageBytes().number32(2).raw("/a").byte('c'), "o"));
  EXPECT_FALSE(isValid(MessageBytes().byte(1).raw("s").byte('c'), "g"));
  EXPECT_FALSE(isValid(MessageBytes().byte(255).raw("s").byte(0), "g"));
}

TEST(Reader, AnObjectPathIsValid) {
  const auto read = [](Reader& reader) { reader.readObjectPath(); };
  EXPECT_EQ(faultOf(MessageBytes().text("/"), "o", read), Fault::none);
  for (const char* path : {"", "a", "/a/", "//", "/a\xc3\xa4"})
    EXPECT_EQ(faultOf(MessageBytes().text(path), "o", read), Fault::malformed) << path;
}

TEST(Reader, ASignatureIsValid) {
  const auto read = [](Reader& reader) { reader.readSignature(); };
  for (const char* signature : {"", "s", "ya{sv}"})
    EXPECT_EQ(faultOf(MessageBytes().signature(signature), "g", read), Fault::none) << signature;
  for (const std::string& signature : {std::string("a"), std::string("z"), std::string(33, 'a') + "y"})
    EXPECT_EQ(faultOf(MessageBytes().signature(signature), "g", read), Fault::malformed) << signature;
}

TEST(Reader, AVariantHoldsExactlyOneCompleteType) {
  const auto read = [](Reader& reader) { reader.enterVariant(); };
  for (const char* type : {"", "yy", "z", "a", "{sv}", "()"})
    EXPECT_EQ(faultOf(MessageBytes().signature(type).zeros(16), "v", read), Fault::malformed) << type;
  EXPECT_TRUE(isValid(MessageBytes().signature("(yv)").align(8).byte(1).signature("s").text("x"), "v"));
}

}  // namespace
}  // namespace kelvane::wire
