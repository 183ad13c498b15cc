#include "platform/wire/writer.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/wire/reader.h"
#include "tests/wire/message_bytes.h"

namespace kelvane::wire {
namespace {

Header callWith(std::string_view signature) { return {.path = "/a", .member = "M", .signature = signature}; }

/// A message that a test writes; `write` gets the writer.
class Written {
 public:
  template <class Write>
  Written(std::string_view signature, Write write) {
    Writer writer(outgoing_, callWith(signature));
    write(writer);
    fault_ = writer.finish();
    if (fault_ == Writer::Fault::none) setSerial(outgoing_, 1);
  }
  [[nodiscard]] Writer::Fault fault() const { return fault_; }
  [[nodiscard]] const Outgoing& outgoing() const { return outgoing_; }
  [[nodiscard]] Message message() const { return parseMessage(outgoing_.bytes).value(); }
  /// The first value, a string.
  [[nodiscard]] std::string text() const { return std::string(Reader(message(), {}).readString()); }

 private:
  Outgoing outgoing_;
  Writer::Fault fault_ = Writer::Fault::none;
};

std::string repaired(std::string_view text) {
  return Written("s", [&](Writer& writer) { writer.writeString(text); }).text();
}

bool equal(Bytes a, Bytes b) { return std::equal(a.begin(), a.end(), b.begin(), b.end()); }

constexpr const char* mark = "\xef\xbf\xbd";  // U+FFFD

TEST(Writer, WritesACallByteForByte) {
  const char* little =
      "6c 01 00 01  04 00 00 00  01 00 00 00  27 00 00 00 "
      "01 01 6f 00  02 00 00 00  2f 61 00 00  00 00 00 00 "
      "03 01 73 00  01 00 00 00  4d 00 00 00  00 00 00 00 "
      "08 01 67 00  01 75 00 00  07 00 00 00";
  const char* big =
      "42 01 00 01  00 00 00 04  00 00 00 01  00 00 00 27 "
      "01 01 6f 00  00 00 00 02  2f 61 00 00  00 00 00 00 "
      "03 01 73 00  00 00 00 01  4d 00 00 00  00 00 00 00 "
      "08 01 67 00  01 75 00 00  00 00 00 07";
  const Written written("u", [](Writer& writer) { writer.writeUint32(7); });
  EXPECT_EQ(written.fault(), Writer::Fault::none);
  EXPECT_EQ(written.outgoing().bytes, fromHex(machineOrder() == ByteOrder::big ? big : little));
}

TEST(Writer, WritesEveryBasicTypeByteForByte) {
  const Written written("ybnqiuxtdsog", [](Writer& writer) {
    writer.writeByte(0xfe);
    writer.writeBoolean(true);
    writer.writeInt16(-0x7fff);
    writer.writeUint16(0xfffe);
    writer.writeInt32(-0x7fffffff);
    writer.writeUint32(0xfffffffe);
    writer.writeInt64(std::numeric_limits<std::int64_t>::min() + 1);
    writer.writeUint64(0xfffffffffffffffe);
    writer.writeDouble(-1.5);
    writer.writeString("t\xc3\xa4xt");
    writer.writeObjectPath("/o/p");
    writer.writeSignature("a{sv}");
  });
  MessageBytes expected(machineOrder());
  expected.byte(0xfe).number32(1).number16(0x8001).number16(0xfffe).number32(0x80000001).number32(0xfffffffe);
  expected.number64(0x8000000000000001).number64(0xfffffffffffffffe).number64(0xbff8000000000000);
  expected.text("t\xc3\xa4xt").text("/o/p").signature("a{sv}");
  EXPECT_TRUE(equal(written.message().body, expected.bytes()));
}

TEST(Writer, WritesContainersByteForByte) {
  const Written written("a{sv}a(xs)(yay)axy", [](Writer& writer) {
    writer.openArray("{sv}");
    for (const std::uint32_t number : {5U, 6U}) {
      writer.openEntry("sv");
      writer.writeString("k");
      writer.openVariant("au");
      writer.openArray("u");
      writer.writeUint32(number);
      writer.closeArray();
      writer.closeVariant();
      writer.closeEntry();
    }
    writer.closeArray();
    writer.openArray("(xs)");
    writer.openStruct("xs");
    writer.writeInt64(-1);
    writer.writeString("");
    writer.closeStruct();
    writer.closeArray();
    writer.openStruct("yay");
    writer.writeByte(1);
    writer.writeBytes(fromHex("61 62"));
    writer.closeStruct();
    writer.openArray("x");
    writer.closeArray();
    writer.writeByte(9);
  });
  MessageBytes expected(machineOrder());
  expected.number32(52).align(8);
  expected.text("k").signature("au").number32(4).number32(5).align(8);
  expected.text("k").signature("au").number32(4).number32(6);
  expected.put32(0, static_cast<std::uint32_t>(expected.size() - 8));
  expected.number32(13).align(8).number64(~std::uint64_t{0}).text("");
  expected.align(8).byte(1).number32(2).raw("ab").number32(0).align(8).byte(9);
  EXPECT_TRUE(equal(written.message().body, expected.bytes()));
  EXPECT_TRUE(isBodyValid(written.message(), 0));
}

TEST(Writer, WritesEveryHeaderField) {
  Outgoing outgoing;
  Writer writer(outgoing, {.type = MessageType::error,
                           .flags = 3,
                           .reply_serial = 5,
                           .path = "/p",
                           .interface = "i.j",
                           .member = "M",
                           .error_name = "e.f",
                           .destination = "d.e",
                           .sender = ":1.2"});
  EXPECT_EQ(writer.finish(), Writer::Fault::none);
  setSerial(outgoing, 0x12345678);
  const auto message = parseMessage(outgoing.bytes);
  ASSERT_TRUE(message);
  const Header& header = message->header;
  EXPECT_EQ(header.type, MessageType::error);
  EXPECT_EQ(header.flags, 3);
  EXPECT_EQ(header.serial, 0x12345678u);
  EXPECT_EQ(header.reply_serial, 5u);
  EXPECT_EQ(header.path, "/p");
  EXPECT_EQ(header.interface, "i.j");
  EXPECT_EQ(header.member, "M");
  EXPECT_EQ(header.error_name, "e.f");
  EXPECT_EQ(header.destination, "d.e");
  EXPECT_EQ(header.sender, ":1.2");
  EXPECT_EQ(header.signature, "");
}

TEST(Writer, NamesTheDescriptorsInTheHeader) {
  for (const std::string_view member : {"M", "Me", "LongerMember"}) {
    Outgoing outgoing;
    Writer writer(outgoing, {.path = "/a", .member = member, .signature = "shh"});
    writer.writeString("before");
    writer.writeDescriptor(11);
    writer.writeDescriptor(12);
    EXPECT_EQ(writer.finish(), Writer::Fault::none);
    setSerial(outgoing, 1);
    EXPECT_EQ(outgoing.descriptors, (std::vector<int>{11, 12}));
    const auto message = parseMessage(outgoing.bytes);
    ASSERT_TRUE(message) << member;
    EXPECT_EQ(message->header.descriptors, 2u);
    EXPECT_TRUE(
        equal(message->body, MessageBytes(machineOrder()).text("before").number32(0).number32(1).bytes()));
  }
}

TEST(Writer, PassesAsManyDescriptorsAsTheKernelDoes) {
  const auto with = [](int count) {
    return Written("ah",
                   [&](Writer& writer) {
                     writer.openArray("h");
                     for (int i = 0; i < count; ++i) writer.writeDescriptor(i);
                     writer.closeArray();
                   })
        .fault();
  };
  EXPECT_EQ(with(253), Writer::Fault::none);
  EXPECT_EQ(with(254), Writer::Fault::too_long);
}

TEST(Writer, LeavesValidTextAsItIs) {
  for (const char* text :
       {"", "plain", "t\xc3\xa4xt \xe2\x82\xac \xf0\x9f\x98\x80", "\xef\xbf\xbd\xef\xb7\x8f\xef\xb7\xb0"})
    EXPECT_EQ(repaired(text), text);
}

TEST(Writer, ReplacesEveryByteThatIsNotText) {
  EXPECT_EQ(repaired("a\xff"
                     "b"),
            std::string("a") + mark + "b");
  EXPECT_EQ(repaired(std::string_view("a\0b", 3)), std::string("a") + mark + "b");
  EXPECT_EQ(repaired("\xc3"), mark);
  EXPECT_EQ(repaired("\xe2\x82"), std::string(mark) + mark);
  EXPECT_EQ(repaired("\xed\xa0\x80 x"), std::string(mark) + mark + mark + " x");
  EXPECT_EQ(repaired(std::string(2000, '\xff')).size(), 6000u);
}

TEST(Writer, ReplacesNoncharacters) {
  EXPECT_EQ(repaired("a\xef\xbf\xbe"
                     "b"),
            std::string("a") + mark + "b");
  for (const char* text : {"\xef\xbf\xbe", "\xef\xbf\xbf", "\xef\xb7\x90", "\xef\xb7\xaf", "\xf0\x9f\xbf\xbe",
                           "\xf0\x9f\xbf\xbf", "\xf4\x8f\xbf\xbe", "\xf4\x8f\xbf\xbf"})
    EXPECT_EQ(repaired(text), mark) << testing::PrintToString(text);
  EXPECT_EQ(repaired("\xff\xef\xbf\xbf\xff"), std::string(mark) + mark + mark);
}

TEST(Writer, RepairsAMillionNoncharactersInOnePass) {
  std::string text;
  std::string expected;
  for (int i = 0; i < 1'000'000; ++i) {
    text += "\xef\xbf\xbf";
    expected += mark;
  }
  EXPECT_TRUE(repaired(text) == expected);
}

TEST(Writer, NestsAsDeepAsDBusAllows) {
  const auto nested = [](int depth) {
    return Written("v", [&](Writer& writer) {
      for (int i = 1; i < depth; ++i) writer.openVariant("v");
      writer.openVariant("y");
      writer.writeByte(1);
      for (int i = 0; i < depth; ++i) writer.closeVariant();
    });
  };
  EXPECT_EQ(nested(64).fault(), Writer::Fault::none);
  EXPECT_TRUE(isBodyValid(nested(64).message(), 0));
  EXPECT_EQ(nested(65).fault(), Writer::Fault::too_deep);
  EXPECT_TRUE(nested(65).outgoing().bytes.empty());
}

TEST(Writer, AnArrayTakes64MiBAtMost) {
  constexpr std::size_t longest = 64U << 20;
  const std::vector<std::byte> bytes(longest + 1);
  const auto with = [&](std::size_t size) {
    return Written("ay", [&](Writer& writer) { writer.writeBytes(Bytes(bytes).first(size)); }).fault();
  };
  EXPECT_EQ(with(longest), Writer::Fault::none);
  EXPECT_EQ(with(longest + 1), Writer::Fault::too_long);
}

TEST(Writer, AMessageTakes128MiBAtMost) {
  const Written empty("s", [](Writer& writer) { writer.writeString(""); });
  const std::string text((128U << 20) - empty.outgoing().bytes.size() + 1, 'x');
  const auto with = [&](std::size_t size) {
    return Written("s", [&](Writer& writer) { writer.writeString(std::string_view(text).substr(0, size)); });
  };
  const Written longest = with(text.size() - 1);
  EXPECT_EQ(longest.fault(), Writer::Fault::none);
  EXPECT_EQ(longest.outgoing().bytes.size(), 128U << 20);
  EXPECT_TRUE(parseMessage(longest.outgoing().bytes));
  EXPECT_EQ(with(text.size()).fault(), Writer::Fault::too_long);
  EXPECT_TRUE(with(text.size()).outgoing().bytes.empty());
}

TEST(Writer, TextThatGrowsTooLongWhenRepairedIsRefused) {
  const std::string text(50U << 20, '\xff');
  EXPECT_EQ(Written("s", [&](Writer& writer) { writer.writeString(text); }).fault(), Writer::Fault::too_long);
}

TEST(Writer, NothingInvalidLeaves) {
  const auto fault = [](std::string_view signature, auto write) { return Written(signature, write).fault(); };
  constexpr auto invalid = Writer::Fault::invalid;
  EXPECT_EQ(fault("o", [](Writer& writer) { writer.writeObjectPath("a"); }), invalid);
  EXPECT_EQ(fault("o", [](Writer& writer) { writer.writeObjectPath(""); }), invalid);
  EXPECT_EQ(fault("g", [](Writer& writer) { writer.writeSignature("z"); }), invalid);
  EXPECT_EQ(fault("v", [](Writer& writer) { writer.openVariant("yy"); }), invalid);
  EXPECT_EQ(fault("v", [](Writer& writer) { writer.openVariant(""); }), invalid);
}

TEST(Writer, AnInvalidHeaderIsRefused) {
  const auto fault = [](const Header& header) {
    Outgoing outgoing;
    return Writer(outgoing, header).finish();
  };
  constexpr auto invalid = Writer::Fault::invalid;
  EXPECT_EQ(fault({.path = "/a", .member = "M"}), Writer::Fault::none);
  EXPECT_EQ(fault({.member = "M"}), invalid);
  EXPECT_EQ(fault({.path = "/a"}), invalid);
  EXPECT_EQ(fault({.type = MessageType::method_return}), invalid);
  EXPECT_EQ(fault({.type = MessageType::error, .reply_serial = 1}), invalid);
  EXPECT_EQ(fault({.path = "a", .member = "M"}), invalid);
  EXPECT_EQ(fault({.path = "/a", .interface = "i", .member = "M"}), invalid);
  EXPECT_EQ(fault({.path = "/a", .member = "M.N"}), invalid);
  EXPECT_EQ(fault({.path = "/a", .member = "M", .error_name = "e"}), invalid);
  EXPECT_EQ(fault({.path = "/a", .member = "M", .destination = "d"}), invalid);
  EXPECT_EQ(fault({.path = "/a", .member = "M", .sender = "s"}), invalid);
  EXPECT_EQ(fault({.path = "/a", .member = "M", .signature = "z"}), invalid);
  EXPECT_EQ(fault({.path = "/org/freedesktop/DBus/Local", .member = "M"}), invalid);
}

TEST(Writer, AfterAFaultTheRestIsIgnored) {
  const Written written("oa{sv}hs", [](Writer& writer) {
    writer.writeObjectPath("invalid");
    writer.openArray("{sv}");
    writer.openEntry("sv");
    writer.writeString("k");
    writer.openVariant("y");
    writer.writeByte(1);
    writer.closeVariant();
    writer.closeEntry();
    writer.closeArray();
    writer.writeDescriptor(1);
    writer.writeString("\xff");
  });
  EXPECT_EQ(written.fault(), Writer::Fault::invalid);
  EXPECT_TRUE(written.outgoing().bytes.empty());
  EXPECT_TRUE(written.outgoing().descriptors.empty());
}

TEST(Writer, NothingOfAnEarlierMessageRemains) {
  Outgoing used;
  {
    Writer writer(used, callWith("sah"));
    writer.writeString(std::string(3000, '\x7f'));
    writer.openArray("h");
    writer.writeDescriptor(5);
    writer.closeArray();
    EXPECT_EQ(writer.finish(), Writer::Fault::none);
    setSerial(used, 0xffffffff);
  }
  const auto write = [](Outgoing& outgoing) {
    Writer writer(outgoing, callWith("ytayv"));
    writer.writeByte(1);
    writer.writeUint64(2);
    writer.writeBytes({});
    writer.openVariant("(yx)");
    writer.openStruct("yx");
    writer.writeByte(1);
    writer.writeInt64(2);
    writer.closeStruct();
    writer.closeVariant();
    EXPECT_EQ(writer.finish(), Writer::Fault::none);
  };
  Outgoing fresh;
  write(fresh);
  write(used);
  EXPECT_EQ(used.bytes, fresh.bytes);
  EXPECT_TRUE(used.descriptors.empty());
}

TEST(Writer, KeepsTheMemoryOfSmallMessagesOnly) {
  Outgoing outgoing;
  const auto capacityAfter = [&](std::size_t size) {
    Writer writer(outgoing, callWith("s"));
    writer.writeString(std::string(size, 'x'));
    EXPECT_EQ(writer.finish(), Writer::Fault::none);
    return outgoing.bytes.capacity();
  };
  const std::size_t medium = capacityAfter(100000);
  EXPECT_EQ(capacityAfter(1), medium);
  EXPECT_GT(capacityAfter(10000000), 10000000u);
  EXPECT_LT(capacityAfter(1), 10000u);
}

TEST(Writer, ValuesThatDoNotFollowTheSignatureAreAMistakeInTheProgram) {
  const auto wrong = [](std::string_view signature, auto write) {
    return Written(signature, write).fault() == Writer::Fault::invalid;
  };
  const auto other_type = [&] { return wrong("u", [](Writer& writer) { writer.writeInt32(1); }); };
  const auto too_few = [&] { return wrong("uu", [](Writer& writer) { writer.writeUint32(1); }); };
  const auto other_element = [&] { return wrong("as", [](Writer& writer) { writer.openArray("u"); }); };
  const auto left_open = [&] { return wrong("as", [](Writer& writer) { writer.openArray("s"); }); };
  const auto not_open = [&] { return wrong("", [](Writer& writer) { writer.closeArray(); }); };
  const auto too_early = [&] {
    return wrong("(yy)", [](Writer& writer) {
      writer.openStruct("yy");
      writer.closeStruct();
    });
  };
#ifdef NDEBUG
  EXPECT_TRUE(other_type() && too_few() && other_element() && left_open() && not_open() && too_early());
#else
  EXPECT_DEATH(other_type(), "do not follow the signature");
  EXPECT_DEATH(too_few(), "do not follow the signature");
  EXPECT_DEATH(other_element(), "do not follow the signature");
  EXPECT_DEATH(left_open(), "do not follow the signature");
  EXPECT_DEATH(not_open(), "do not follow the signature");
  EXPECT_DEATH(too_early(), "do not follow the signature");
#endif
}

}  // namespace
}  // namespace kelvane::wire
