#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "platform/wire/reader.h"
#include "tests/wire/message_bytes.h"

namespace kelvane::wire {
namespace {

bool isValid(const MessageBytes& bytes, std::string_view signature, std::size_t descriptors = 0) {
  return isBodyValid(bytes.asBody(signature), descriptors);
}

template <class Read>
Fault faultOf(const MessageBytes& bytes, std::string_view signature, Read read) {
  Reader reader(bytes.asBody(signature), {});
  read(reader);
  reader.finish();
  return reader.fault();
}

/// This many nested variants around one byte.
MessageBytes variants(int count) {
  MessageBytes bytes;
  for (int i = 1; i < count; ++i) bytes.signature("v");
  return bytes.signature("y").byte(7);
}

TEST(ReaderContainers, AnArrayEndsWithAnElement) {
  EXPECT_TRUE(isValid(MessageBytes().number32(8).number32(1).number32(2), "au"));
  EXPECT_FALSE(isValid(MessageBytes().number32(6).number32(1).number32(2), "au"));
  EXPECT_FALSE(isValid(MessageBytes().number32(6).number32(1).zeros(2), "au")) << "the body ends there too";
  EXPECT_TRUE(isValid(MessageBytes().number32(5).text(""), "as"));
  EXPECT_FALSE(isValid(MessageBytes().number32(4).text(""), "as"));
  EXPECT_FALSE(isValid(MessageBytes().number32(6).text("").byte(0), "as"));
  MessageBytes padded_behind;
  padded_behind.number32(8).align(8).byte(1).zeros(7);
  EXPECT_FALSE(isValid(padded_behind, "a(y)")) << "padding behind the last element";
  const auto read = [](Reader& reader) {
    reader.enterArray("u");
    while (!reader.atEnd()) reader.readUint32();
    reader.leave();
  };
  EXPECT_EQ(faultOf(MessageBytes().number32(6).number32(1).number32(2), "au", read), Fault::malformed);
}

TEST(ReaderContainers, AnArrayEndsInsideTheBody) {
  for (const std::uint32_t size : {5U, 100U, 0xffffffffU}) {
    EXPECT_FALSE(isValid(MessageBytes().number32(size).zeros(4), "ay")) << size;
    EXPECT_FALSE(isValid(MessageBytes().number32(size).zeros(4), "as")) << size;
  }
}

TEST(ReaderContainers, BytesPastTheEndAreNotHandedOut) {
  for (const std::uint32_t size : {5U, 100U, 0xffffffffU}) {
    const MessageBytes bytes = MessageBytes().number32(size).zeros(4);
    Reader reader(bytes.asBody("ay"), {});
    EXPECT_TRUE(reader.readBytes().empty()) << size;
    EXPECT_EQ(reader.fault(), Fault::malformed) << size;
  }
}

TEST(ReaderContainers, AnInnerArrayEndsInsideTheOuterOne) {
  MessageBytes bytes;
  bytes.number32(8).number32(8).number32(1).number32(2);  // the inner array has one number too many
  EXPECT_FALSE(isValid(bytes, "aau"));
  EXPECT_TRUE(isValid(bytes.put32(4, 4).put32(0, 8), "aauu"));
}

TEST(ReaderContainers, AnArrayTakes64MiBAtMost) {
  constexpr std::uint32_t longest = 64U << 20;
  MessageBytes bytes;
  bytes.number32(longest).zeros(longest);
  EXPECT_TRUE(isValid(bytes, "ay"));
  EXPECT_TRUE(isValid(bytes, "au"));
  bytes.put32(0, longest + 1).zeros(1);
  EXPECT_FALSE(isValid(bytes, "ay"));
  Reader reader(bytes.asBody("ay"), {});
  EXPECT_TRUE(reader.readBytes().empty());
  EXPECT_EQ(reader.fault(), Fault::malformed);
}

TEST(ReaderContainers, AnEmptyArrayIsPaddedToItsElements) {
  MessageBytes bytes;
  bytes.number32(0).align(8).number32(7);
  for (const char* signature : {"a(yay)u", "axu", "a{sv}u"}) {
    Reader reader(bytes.asBody(signature), {});
    EXPECT_TRUE(reader.enterArray());
    EXPECT_TRUE(reader.atEnd());
    reader.leave();
    EXPECT_EQ(reader.readUint32(), 7u);
    EXPECT_TRUE(reader.finish()) << signature;
  }
  EXPECT_FALSE(isValid(MessageBytes().number32(0), "ax")) << "the padding is missing";
}

TEST(ReaderContainers, AnArrayAfterAnArrayHasItsOwnType) {
  MessageBytes bytes;
  bytes.number32(6).text("x").number32(2).number16(5).byte(1);
  Reader reader(bytes.asBody("asaqy"), {});
  reader.enterArray();
  EXPECT_EQ(reader.readString(), "x");
  reader.leave();
  reader.enterArray("q");
  EXPECT_EQ(reader.readUint16(), 5);
  reader.leave();
  EXPECT_EQ(reader.readByte(), 1);
  EXPECT_TRUE(reader.finish());
}

TEST(ReaderContainers, StructsInStructsAreReadInOrder) {
  MessageBytes bytes;
  bytes.byte(1).align(8).byte(2).text("s").align(8).number16(3).byte(4).byte(5);
  Reader reader(bytes.asBody("(y(ys(qy)))y"), {});
  EXPECT_EQ(reader.nextCompleteType(), "(y(ys(qy)))");
  EXPECT_TRUE(reader.enterStruct());
  EXPECT_EQ(reader.readByte(), 1);
  EXPECT_TRUE(reader.enterStruct());
  EXPECT_EQ(reader.readByte(), 2);
  EXPECT_EQ(reader.readString(), "s");
  EXPECT_TRUE(reader.enterStruct());
  EXPECT_EQ(reader.readUint16(), 3);
  EXPECT_EQ(reader.readByte(), 4);
  EXPECT_TRUE(reader.atEnd());
  for (int i = 0; i < 3; ++i) reader.leave();
  EXPECT_EQ(reader.readByte(), 5);
  EXPECT_TRUE(reader.finish());
}

TEST(ReaderContainers, BytesAreReadAtOnce) {
  MessageBytes bytes;
  bytes.number32(3).raw("abc").number32(0);
  Reader reader(bytes.asBody("ayay"), {});
  const auto read = reader.readBytes();
  EXPECT_EQ(read.size(), 3u);
  EXPECT_EQ(read.data(), bytes.bytes().data() + 4);
  EXPECT_TRUE(reader.readBytes().empty());
  EXPECT_TRUE(reader.finish());
}

TEST(ReaderContainers, TheNextTypeIsKnownBeforeItIsRead) {
  MessageBytes bytes;
  bytes.number32(16).align(8).text("k").signature("s").text("x");
  bytes.put32(0, static_cast<std::uint32_t>(bytes.size() - 8)).byte(1);
  Reader reader(bytes.asBody("a{sv}y"), {});
  EXPECT_EQ(reader.nextType(), 'a');
  EXPECT_EQ(reader.nextCompleteType(), "a{sv}");
  reader.enterArray();
  EXPECT_EQ(reader.nextType(), '{');
  EXPECT_EQ(reader.nextCompleteType(), "{sv}");
  reader.enterEntry();
  reader.readString();
  EXPECT_EQ(reader.nextType(), 'v');
  reader.enterVariant();
  EXPECT_EQ(reader.nextCompleteType(), "s");
  reader.readString();
  EXPECT_EQ(reader.nextType(), '\0');
  EXPECT_EQ(reader.nextCompleteType(), "");
  reader.leave();
  EXPECT_EQ(reader.nextType(), '\0');
  reader.leave();
  EXPECT_EQ(reader.nextType(), '\0');
  reader.leave();
  EXPECT_EQ(reader.nextType(), 'y');
  EXPECT_FALSE(reader.finish()) << "a value is left";
  EXPECT_EQ(reader.fault(), Fault::mismatched);
}

TEST(ReaderContainers, SixtyFourContainersNestAndNoMore) {
  EXPECT_TRUE(isValid(variants(64), "v"));
  EXPECT_FALSE(isValid(variants(65), "v"));
  const auto read = [](Reader& reader) {
    while (reader.nextType() == 'v') reader.enterVariant();
    reader.readByte();
  };
  EXPECT_EQ(faultOf(variants(65), "v", read), Fault::malformed);
}

TEST(ReaderContainers, EveryKindOfContainerCountsWhenNested) {
  // 63 variants, and two more containers in the last one.
  const auto with = [](int count, std::string_view type, const auto& add) {
    MessageBytes bytes;
    for (int i = 1; i < count; ++i) bytes.signature("v");
    add(bytes.signature(type));
    return bytes;
  };
  const auto array = [](MessageBytes& bytes) { bytes.number32(1).byte(7); };
  const auto fields = [](MessageBytes& bytes) { bytes.align(8).byte(7); };
  const auto dictionary = [](MessageBytes& bytes) { bytes.number32(2).align(8).byte(7).byte(8); };
  EXPECT_TRUE(isValid(with(63, "ay", array), "v"));
  EXPECT_FALSE(isValid(with(64, "ay", array), "v"));
  EXPECT_TRUE(isValid(with(63, "(y)", fields), "v"));
  EXPECT_FALSE(isValid(with(64, "(y)", fields), "v"));
  EXPECT_TRUE(isValid(with(62, "a{yy}", dictionary), "v"));
  EXPECT_FALSE(isValid(with(63, "a{yy}", dictionary), "v"));
}

TEST(ReaderContainers, ABodyEndsWithItsLastValue) {
  EXPECT_FALSE(isValid(MessageBytes().byte(1).byte(0), "y"));
  EXPECT_FALSE(isValid(MessageBytes().byte(0), ""));
  EXPECT_TRUE(isValid(MessageBytes(), ""));
  EXPECT_EQ(faultOf(MessageBytes().byte(1).byte(0), "y", [](Reader& reader) { reader.readByte(); }),
            Fault::malformed);
}

TEST(ReaderContainers, AnotherTypeThanTheNextIsMismatched) {
  const MessageBytes bytes = MessageBytes().number32(0).number32(0).number32(0);
  EXPECT_EQ(faultOf(bytes, "uuu", [](Reader& reader) { reader.readInt32(); }), Fault::mismatched);
  EXPECT_EQ(faultOf(bytes, "uuu", [](Reader& reader) { reader.readString(); }), Fault::mismatched);
  EXPECT_EQ(faultOf(bytes, "uuu", [](Reader& reader) { reader.enterArray(); }), Fault::mismatched);
  EXPECT_EQ(faultOf(bytes, "auau", [](Reader& reader) { reader.enterArray("i"); }), Fault::mismatched);
  EXPECT_EQ(faultOf(bytes, "auau", [](Reader& reader) { reader.readBytes(); }), Fault::mismatched);
  EXPECT_EQ(faultOf(bytes, "uuu", [](Reader& reader) { reader.enterStruct(); }), Fault::mismatched);
  EXPECT_EQ(faultOf(bytes, "(uuu)", [](Reader& reader) { reader.enterEntry(); }), Fault::mismatched);
  EXPECT_EQ(faultOf(bytes, "uuu", [](Reader& reader) { reader.enterVariant(); }), Fault::mismatched);
  EXPECT_EQ(faultOf(MessageBytes(), "", [](Reader& reader) { reader.readByte(); }), Fault::mismatched);
}

TEST(ReaderContainers, AContainerIsLeftAtItsEnd) {
  const MessageBytes bytes = MessageBytes().number32(8).number32(1).number32(2);
  EXPECT_EQ(faultOf(bytes, "au",
                    [](Reader& reader) {
                      reader.enterArray();
                      reader.readUint32();
                      reader.leave();
                    }),
            Fault::mismatched);
  EXPECT_EQ(faultOf(bytes, "(uuu)",
                    [](Reader& reader) {
                      reader.enterStruct();
                      reader.readUint32();
                      reader.leave();
                    }),
            Fault::mismatched);
  EXPECT_EQ(faultOf(MessageBytes(), "", [](Reader& reader) { reader.leave(); }), Fault::mismatched);
}

TEST(ReaderContainers, AContainerThatWasNotLeftIsMismatched) {
  EXPECT_EQ(faultOf(MessageBytes().byte(1), "(y)",
                    [](Reader& reader) {
                      reader.enterStruct();
                      reader.readByte();
                    }),
            Fault::mismatched);
}

TEST(ReaderContainers, AnElementPastTheEndIsMismatched) {
  EXPECT_EQ(faultOf(MessageBytes().number32(4).number32(1).number32(2), "auu",
                    [](Reader& reader) {
                      reader.enterArray();
                      reader.readUint32();
                      reader.readUint32();
                    }),
            Fault::mismatched);
}

TEST(ReaderContainers, AfterTheFirstFaultEverythingIsEmpty) {
  MessageBytes bytes;
  bytes.number32(2).number32(1).text("x").number64(9);
  Reader reader(bytes.asBody("busx"), {});
  EXPECT_FALSE(reader.readBoolean());
  EXPECT_EQ(reader.fault(), Fault::malformed);
  EXPECT_TRUE(reader.atEnd());
  EXPECT_EQ(reader.nextType(), '\0');
  EXPECT_EQ(reader.nextCompleteType(), "");
  EXPECT_EQ(reader.readUint32(), 0u);
  EXPECT_EQ(reader.readString(), "");
  EXPECT_EQ(reader.readObjectPath(), "");
  EXPECT_EQ(reader.readSignature(), "");
  EXPECT_TRUE(reader.readBytes().empty());
  EXPECT_FALSE(reader.takeDescriptor());
  EXPECT_FALSE(reader.enterArray());
  EXPECT_FALSE(reader.enterStruct());
  EXPECT_FALSE(reader.enterEntry());
  EXPECT_FALSE(reader.enterVariant());
  reader.leave();
  reader.skip();
  reader.refuse();
  EXPECT_FALSE(reader.finish());
  EXPECT_EQ(reader.fault(), Fault::malformed) << "the first fault counts";
}

TEST(ReaderContainers, WhatTheCallerRefusesIsUnusable) {
  Reader reader(MessageBytes().number32(0).asBody("u"), {});
  reader.refuse();
  EXPECT_TRUE(reader.atEnd());
  EXPECT_FALSE(reader.finish());
  EXPECT_EQ(reader.fault(), Fault::unusable);
}

class Descriptors : public ::testing::Test {
 protected:
  static FileDescriptor open() { return FileDescriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }
  std::array<FileDescriptor, 2> passed_{open(), open()};
};

TEST_F(Descriptors, AreTakenByTheirIndex) {
  const std::array numbers{passed_[0].get(), passed_[1].get()};
  const MessageBytes bytes = MessageBytes().number32(1).number32(0);
  Reader reader(bytes.asBody("hh"), passed_);
  EXPECT_EQ(reader.takeDescriptor().get(), numbers[1]);
  EXPECT_FALSE(passed_[1]);
  EXPECT_EQ(reader.takeDescriptor().get(), numbers[0]);
  EXPECT_TRUE(reader.finish());
}

TEST_F(Descriptors, AreTakenOnce) {
  const MessageBytes bytes = MessageBytes().number32(1).number32(1);
  Reader reader(bytes.asBody("hh"), passed_);
  EXPECT_TRUE(reader.takeDescriptor());
  EXPECT_FALSE(reader.takeDescriptor());
  EXPECT_EQ(reader.fault(), Fault::unusable);
  EXPECT_TRUE(isValid(bytes, "hh", 2)) << "it is well-formed all the same";
}

TEST_F(Descriptors, AnIndexWithoutADescriptorIsMalformed) {
  const MessageBytes bytes = MessageBytes().number32(2);
  Reader reader(bytes.asBody("h"), passed_);
  EXPECT_FALSE(reader.takeDescriptor());
  EXPECT_EQ(reader.fault(), Fault::malformed);
  EXPECT_TRUE(isValid(bytes, "h", 3));
  EXPECT_FALSE(isValid(bytes, "h", 2));
  EXPECT_FALSE(isValid(MessageBytes().number32(8).number32(0).number32(2), "ah", 2));
}

TEST_F(Descriptors, AreNotTakenWhenSkipped) {
  const MessageBytes bytes = MessageBytes().number32(0);
  Reader reader(bytes.asBody("h"), passed_);
  reader.skip();
  EXPECT_TRUE(reader.finish());
  EXPECT_TRUE(passed_[0]);
}

}  // namespace
}  // namespace kelvane::wire
