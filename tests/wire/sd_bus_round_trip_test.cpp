#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/wire/reader.h"
#include "platform/wire/writer.h"
#include "tests/wire/random_body.h"
#include "tests/wire/sd_bus_peer.h"

namespace kelvane::wire {
namespace {

Header callWith(std::string_view signature) {
  return {.path = "/a", .interface = "i.j", .member = "M", .signature = signature};
}

std::vector<std::byte> copied(Bytes bytes) { return {bytes.begin(), bytes.end()}; }

TEST(SdBusRoundTrip, SdBusReadsAndWritesTheSameBodies) {
  SdBusPeer peer;
  Outgoing outgoing;
  std::size_t bytes = 0;
  for (std::uint32_t seed = 1; seed <= 1000; ++seed) {
    RandomBody body(seed);
    const std::string signature = body.signature();
    Writer writer(outgoing, callWith(signature));
    body.write(writer, signature);
    ASSERT_EQ(writer.finish(), Writer::Fault::none);
    setSerial(outgoing, seed);
    const BusMessage received = peer.received(outgoing);
    ASSERT_TRUE(received) << signature;
    EXPECT_STREQ(sd_bus_message_get_signature(received.get(), 1), signature.c_str());

    // sd-bus writes what it has read; then it stands on the wire once more.
    const BusMessage copy = peer.newCall();
    ASSERT_GE(sd_bus_message_copy(copy.get(), received.get(), 1), 0) << signature;
    const std::vector<std::byte> sent = peer.sent(copy.get());
    const auto message = parseMessage(sent);
    ASSERT_TRUE(message) << signature;
    EXPECT_EQ(copied(message->body), copied(parseMessage(outgoing.bytes)->body)) << signature;
    EXPECT_EQ(message->header.signature, signature);
    bytes += message->body.size();
  }
  EXPECT_GT(bytes, 40000u);
}

TEST(SdBusRoundTrip, WhatIsReadIsWhatWasWritten) {
  Outgoing outgoing;
  Outgoing again;
  for (std::uint32_t seed = 1; seed <= 1000; ++seed) {
    RandomBody body(seed);
    const std::string signature = body.signature();
    Writer writer(outgoing, callWith(signature));
    body.write(writer, signature);
    ASSERT_EQ(writer.finish(), Writer::Fault::none);
    setSerial(outgoing, 1);
    const auto message = parseMessage(outgoing.bytes);
    ASSERT_TRUE(message && isBodyValid(*message, 0)) << signature;
    Reader reader(*message, {});
    Writer copy(again, callWith(signature));
    transcribe(reader, copy);
    EXPECT_TRUE(reader.finish());
    ASSERT_EQ(copy.finish(), Writer::Fault::none);
    setSerial(again, 1);
    EXPECT_EQ(again.bytes, outgoing.bytes) << signature;
  }
}

TEST(SdBusRoundTrip, SdBusReadsEveryHeaderField) {
  SdBusPeer peer;
  Outgoing outgoing;
  Writer writer(outgoing, {.type = MessageType::signal,
                           .flags = flag_no_reply_expected,
                           .path = "/p/q",
                           .interface = "i.j",
                           .member = "Member",
                           .destination = "d.e",
                           .sender = ":1.2"});
  ASSERT_EQ(writer.finish(), Writer::Fault::none);
  setSerial(outgoing, 99);
  const BusMessage received = peer.received(outgoing);
  ASSERT_TRUE(received);
  EXPECT_GT(sd_bus_message_is_signal(received.get(), "i.j", "Member"), 0);
  EXPECT_STREQ(sd_bus_message_get_path(received.get()), "/p/q");
  EXPECT_STREQ(sd_bus_message_get_destination(received.get()), "d.e");
  EXPECT_STREQ(sd_bus_message_get_sender(received.get()), ":1.2");
  std::uint64_t serial = 0;
  EXPECT_GE(sd_bus_message_get_cookie(received.get(), &serial), 0);
  EXPECT_EQ(serial, 99u);
}

TEST(SdBusRoundTrip, SdBusGetsTheDescriptors) {
  SdBusPeer peer;
  Outgoing outgoing;
  const FileDescriptor file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  Writer writer(outgoing, callWith("sh"));
  writer.writeString("text");
  writer.writeDescriptor(file.get());
  ASSERT_EQ(writer.finish(), Writer::Fault::none);
  setSerial(outgoing, 1);
  const BusMessage received = peer.received(outgoing);
  ASSERT_TRUE(received);
  const char* text = nullptr;
  int descriptor = -1;
  ASSERT_GT(sd_bus_message_read(received.get(), "sh", &text, &descriptor), 0);
  EXPECT_STREQ(text, "text");
  EXPECT_GE(::fcntl(descriptor, F_GETFD), 0);
}

TEST(SdBusRoundTrip, SdBusTakesRepairedText) {
  SdBusPeer peer;
  Outgoing outgoing;
  Writer writer(outgoing, callWith("s"));
  writer.writeString(std::string_view("\xff\0\xef\xbf\xbe\xef\xb7\x90\xf4\x8f\xbf\xbf", 12));
  ASSERT_EQ(writer.finish(), Writer::Fault::none);
  setSerial(outgoing, 1);
  const BusMessage received = peer.received(outgoing);
  ASSERT_TRUE(received);
  const char* text = nullptr;
  ASSERT_GT(sd_bus_message_read(received.get(), "s", &text), 0);
  EXPECT_STREQ(text, "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd");
}

}  // namespace
}  // namespace kelvane::wire
