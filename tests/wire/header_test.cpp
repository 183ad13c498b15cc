#include "platform/wire/header.h"

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/wire/protocol.h"
#include "tests/wire/message_bytes.h"

namespace kelvane::wire {
namespace {

/// A call of "M" at "/a" with serial 1 and the body 7, of type "u".
constexpr const char* little_call =
    "6c 01 00 01  04 00 00 00  01 00 00 00  27 00 00 00 "  // 39 bytes of fields
    "01 01 6f 00  02 00 00 00  2f 61 00 00  00 00 00 00 "  // path, at 16 to 27
    "03 01 73 00  01 00 00 00  4d 00 00 00  00 00 00 00 "  // member, at 32 to 42
    "08 01 67 00  01 75 00 00 "                            // signature, at 48 to 55
    "07 00 00 00";                                         // body, at 56
constexpr const char* big_call =
    "42 01 00 01  00 00 00 04  00 00 00 01  00 00 00 27 "
    "01 01 6f 00  00 00 00 02  2f 61 00 00  00 00 00 00 "
    "03 01 73 00  00 00 00 01  4d 00 00 00  00 00 00 00 "
    "08 01 67 00  01 75 00 00 "
    "00 00 00 07";

/// A message whose header is put together field by field.
class Parts {
 public:
  explicit Parts(MessageType type, ByteOrder order = ByteOrder::little) : bytes_(order) {
    bytes_.raw(order == ByteOrder::big ? "B" : "l").byte(static_cast<unsigned>(type)).byte(0).byte(1);
    bytes_.number32(0).number32(1).number32(0);
  }
  static Parts call() { return Parts(MessageType::method_call).path("/a").text(3, "M"); }

  MessageBytes& field(unsigned code, std::string_view type) {
    return bytes_.align(8).byte(code).signature(type);
  }
  Parts& text(unsigned code, std::string_view text, std::string_view type = "s") {
    field(code, type).text(text);
    return *this;
  }
  Parts& path(std::string_view path) { return text(1, path, "o"); }
  Parts& number(unsigned code, std::uint32_t number) {
    field(code, "u").number32(number);
    return *this;
  }
  Parts& signature(std::string_view signature) {
    field(8, "g").signature(signature);
    return *this;
  }
  /// Completes the header; `body` bytes of zeros follow.
  MessageBytes& finished(std::size_t body = 0) {
    const std::size_t end = bytes_.size();
    bytes_.align(8).zeros(body);
    return bytes_.put32(4, static_cast<std::uint32_t>(body)).put32(12, static_cast<std::uint32_t>(end - 16));
  }
  [[nodiscard]] bool isAccepted(std::size_t body = 0) {
    return parseMessage(finished(body).bytes()).has_value();
  }

 private:
  MessageBytes bytes_;
};

std::optional<std::size_t> claimedBy(const MessageBytes& bytes) {
  return claimedSize(bytes.bytes().first<fixed_header_size>());
}

TEST(Header, ACallIsReadInBothByteOrders) {
  for (const char* hex : {little_call, big_call}) {
    const std::vector<std::byte> bytes = fromHex(hex);
    const auto message = parseMessage(bytes);
    ASSERT_TRUE(message) << hex;
    const Header& header = message->header;
    EXPECT_EQ(header.big_endian, hex == big_call);
    EXPECT_EQ(header.type, MessageType::method_call);
    EXPECT_EQ(header.serial, 1u);
    EXPECT_EQ(header.path, "/a");
    EXPECT_EQ(header.member, "M");
    EXPECT_EQ(header.interface, "");
    EXPECT_EQ(header.signature, "u");
    EXPECT_EQ(header.descriptors, 0u);
    EXPECT_EQ(message->body.size(), 4u);
    EXPECT_EQ(message->body.data(), bytes.data() + 56);
    EXPECT_EQ(claimedSize(Bytes(bytes).first<fixed_header_size>()), 60u);
  }
}

TEST(Header, EveryFieldIsReadInAnyOrder) {
  for (const ByteOrder order : both_orders) {
    Parts parts(MessageType::error, order);
    parts.number(9, 3).signature("as").text(7, ":1.2").text(6, "a.b").number(5, 77).text(4, "e.f");
    const MessageBytes& bytes = parts.text(3, "M").text(2, "i.j").path("/p").finished(4);
    const auto message = parseMessage(bytes.bytes());
    ASSERT_TRUE(message) << order;
    const Header& header = message->header;
    EXPECT_EQ(header.type, MessageType::error);
    EXPECT_EQ(header.descriptors, 3u);
    EXPECT_EQ(header.signature, "as");
    EXPECT_EQ(header.sender, ":1.2");
    EXPECT_EQ(header.destination, "a.b");
    EXPECT_EQ(header.reply_serial, 77u);
    EXPECT_EQ(header.error_name, "e.f");
    EXPECT_EQ(header.member, "M");
    EXPECT_EQ(header.interface, "i.j");
    EXPECT_EQ(header.path, "/p");
  }
}

TEST(Header, FlagsAreKeptAndUnknownOnesIgnored) {
  MessageBytes bytes = Parts::call().finished();
  EXPECT_TRUE(parseMessage(bytes.bytes())->header.expectsReply());
  bytes[2] = std::byte{0xf1};
  EXPECT_EQ(parseMessage(bytes.bytes())->header.flags, 0xf1);
  EXPECT_FALSE(parseMessage(bytes.bytes())->header.expectsReply());
}

TEST(Header, EveryTypeHasItsRequiredFields) {
  const auto parts = [](MessageType type) { return Parts(type); };
  EXPECT_TRUE(Parts::call().isAccepted());
  EXPECT_FALSE(parts(MessageType::method_call).path("/a").isAccepted());
  EXPECT_FALSE(parts(MessageType::method_call).text(3, "M").isAccepted());
  EXPECT_TRUE(parts(MessageType::method_return).number(5, 1).isAccepted());
  EXPECT_FALSE(parts(MessageType::method_return).isAccepted());
  EXPECT_TRUE(parts(MessageType::error).number(5, 1).text(4, "e.f").isAccepted());
  EXPECT_FALSE(parts(MessageType::error).number(5, 1).isAccepted());
  EXPECT_FALSE(parts(MessageType::error).text(4, "e.f").isAccepted());
  EXPECT_TRUE(parts(MessageType::signal).path("/a").text(2, "i.j").text(3, "M").isAccepted());
  EXPECT_FALSE(parts(MessageType::signal).path("/a").text(3, "M").isAccepted());
  EXPECT_FALSE(parts(MessageType::signal).path("/a").text(2, "i.j").isAccepted());
  EXPECT_FALSE(parts(MessageType::signal).text(2, "i.j").text(3, "M").isAccepted());
}

TEST(Header, AnUnknownTypeRequiresNothing) {
  EXPECT_TRUE(Parts(static_cast<MessageType>(5)).isAccepted());
  EXPECT_TRUE(Parts(static_cast<MessageType>(255)).isAccepted());
}

TEST(Header, AnUnknownFieldIsReadOverWhenItIsValid) {
  Parts valid = Parts::call();
  valid.field(200, "a{sv}").number32(0).align(8);
  EXPECT_TRUE(valid.isAccepted());
  Parts descriptor = Parts::call();
  descriptor.field(200, "h").number32(5);
  EXPECT_TRUE(descriptor.isAccepted());
  EXPECT_FALSE(Parts::call().text(200, "not/absolute", "o").isAccepted());
  EXPECT_FALSE(Parts::call().text(200, "\xff").isAccepted());
  Parts boolean = Parts::call();
  boolean.field(200, "b").number32(2);
  EXPECT_FALSE(boolean.isAccepted());
}

TEST(Header, AFieldsVariantHoldsExactlyOneType) {
  for (const char* type : {"", "yy", "z", "(", "{sv}"}) {
    Parts parts = Parts::call();
    parts.field(200, type).zeros(16);
    EXPECT_FALSE(parts.isAccepted()) << type;
  }
}

TEST(Header, TheSignatureOfAFieldsVariantEndsWithNul) {
  for (const std::size_t at : {19U, 35U, 51U}) {  // of the path, the member and the signature
    std::vector<std::byte> bytes = fromHex(little_call);
    ASSERT_TRUE(parseMessage(bytes));
    bytes.at(at) = std::byte{1};
    EXPECT_FALSE(parseMessage(bytes)) << at;
  }
}

TEST(Header, FieldZeroIsRefused) { EXPECT_FALSE(Parts::call().text(0, "x").isAccepted()); }

TEST(Header, AKnownFieldTwiceIsRefused) {
  EXPECT_FALSE(Parts::call().text(3, "M").isAccepted());
  EXPECT_FALSE(Parts::call().number(9, 0).number(9, 0).isAccepted());
}

// D-Bus, chapter "Message Format": a field that is not expected is accepted and ignored.
TEST(Header, AnUnknownFieldMayComeTwice) {
  EXPECT_TRUE(Parts::call().text(200, "x").text(200, "x").isAccepted());
}

TEST(Header, AFieldOfAnotherTypeIsRefused) {
  const auto of_type = [](unsigned code, std::string_view type) {
    Parts parts(static_cast<MessageType>(5));
    MessageBytes& value = parts.field(code, type);
    if (type == "g") value.signature("s");
    if (type == "u") value.number32(1);
    if (type == "s" || type == "o") value.text(type == "o" || code == 1 ? "/a" : code == 3 ? "M" : "a.b");
    return parts.isAccepted();
  };
  for (unsigned code = 1; code <= 9; ++code) {
    const std::string_view right = code == 1 ? "o" : code == 8 ? "g" : code == 5 || code == 9 ? "u" : "s";
    for (const std::string_view type : {"s", "o", "g", "u"})
      EXPECT_EQ(of_type(code, type), type == right) << "field " << code << " as " << type;
  }
}

TEST(Header, AnInvalidOrEmptyNameIsRefused) {
  for (const char* name : {"", "a", "a..b", "1a.b"}) {
    for (const unsigned code : {2U, 4U, 6U, 7U})
      EXPECT_FALSE(Parts::call().text(code, name).isAccepted()) << code << name;
  }
  const auto calling = [](std::string_view member) {
    return Parts(MessageType::method_call).path("/a").text(3, member);
  };
  for (const char* name : {"", "a.b", "2a"}) EXPECT_FALSE(calling(name).isAccepted()) << name;
  for (const char* path : {"", "a", "/a/", "//"})
    EXPECT_FALSE(Parts(MessageType::method_call).path(path).text(3, "M").isAccepted()) << path;
  EXPECT_FALSE(Parts::call().signature("z").isAccepted());
}

TEST(Header, WhatIsReservedForLocalUseIsRefused) {
  EXPECT_FALSE(Parts(MessageType::method_call).path("/org/freedesktop/DBus/Local").text(3, "M").isAccepted());
  EXPECT_FALSE(Parts::call().text(2, "org.freedesktop.DBus.Local").isAccepted());
  EXPECT_TRUE(Parts::call().text(2, "org.freedesktop.DBus.Locale").isAccepted());
}

TEST(Header, AReplyToSerialZeroIsRefused) {
  EXPECT_FALSE(Parts(MessageType::method_return).number(5, 0).isAccepted());
  EXPECT_FALSE(Parts::call().number(5, 0).isAccepted());
  EXPECT_TRUE(Parts::call().number(5, 1).isAccepted());
}

TEST(Header, PaddingIsZero) {
  // Behind each field of the known call, the last one's in front of the body included.
  for (const std::size_t at : {27U, 31U, 42U, 47U, 55U}) {
    for (const char* hex : {little_call, big_call}) {
      std::vector<std::byte> bytes = fromHex(hex);
      bytes[at] = std::byte{1};
      EXPECT_FALSE(parseMessage(bytes)) << "at " << at;
    }
  }
}

TEST(Header, ABodyHasASignature) {
  EXPECT_FALSE(Parts::call().isAccepted(4));
  EXPECT_FALSE(Parts::call().signature("").isAccepted(4));
  EXPECT_TRUE(Parts::call().signature("u").isAccepted(4));
  EXPECT_TRUE(Parts::call().signature("").isAccepted(0));
}

TEST(Header, TheFieldsEndWhereTheirLengthSays) {
  for (const int off : {-40, -8, -1, 1}) {
    std::vector<std::byte> bytes = fromHex(little_call);
    bytes[12] = static_cast<std::byte>(39 + off);
    EXPECT_FALSE(parseMessage(bytes)) << off;
  }
}

TEST(Header, AMessageThatIsCutOrHasMoreIsRefused) {
  std::vector<std::byte> bytes = fromHex(little_call);
  for (std::size_t size = 0; size < bytes.size(); ++size)
    EXPECT_FALSE(parseMessage(std::vector<std::byte>(bytes.begin(), bytes.begin() + static_cast<long>(size))))
        << size;
  bytes.push_back(std::byte{0});
  EXPECT_FALSE(parseMessage(bytes));
}

TEST(Header, NoMessageBeginsWithoutByteOrderTypeVersionAndSerial) {
  const auto with = [](std::size_t at, unsigned value) {
    MessageBytes bytes = Parts::call().finished();
    bytes[at] = static_cast<std::byte>(value);
    EXPECT_FALSE(claimedBy(bytes) && parseMessage(bytes.bytes())) << at;
    return claimedBy(bytes).has_value();
  };
  EXPECT_TRUE(claimedBy(Parts::call().finished()));
  EXPECT_FALSE(with(0, 'L'));
  EXPECT_FALSE(with(0, 'b'));
  EXPECT_FALSE(with(1, 0));
  EXPECT_FALSE(with(3, 0));
  EXPECT_FALSE(with(3, 2));
  EXPECT_FALSE(with(8, 0));
}

TEST(Header, AClaimIsHeldToTheProtocolsLimits) {
  constexpr std::uint32_t longest_fields = 64U << 20;
  constexpr std::uint32_t longest = 128U << 20;
  const auto claim = [](std::uint32_t fields, std::uint32_t body) {
    MessageBytes bytes = Parts::call().finished();
    return claimedBy(bytes.put32(12, fields).put32(4, body));
  };
  EXPECT_EQ(claim(longest_fields, 0), longest_fields + 16);
  EXPECT_FALSE(claim(longest_fields + 1, 0));
  EXPECT_EQ(claim(1, longest - 24), longest);
  EXPECT_FALSE(claim(1, longest - 23));
  EXPECT_FALSE(claim(0xffffffff, 0xffffffff));
  EXPECT_FALSE(claim(0, 0xffffffff));
}

TEST(Header, AMessageMayLieAtAnyAddress) {
  const std::vector<std::byte> bytes = fromHex(big_call);
  for (std::size_t shift = 1; shift < 8; ++shift) {
    std::vector<std::byte> shifted(shift);
    shifted.insert(shifted.end(), bytes.begin(), bytes.end());
    EXPECT_TRUE(parseMessage(Bytes(shifted).subspan(shift))) << shift;
  }
}

}  // namespace
}  // namespace kelvane::wire
