#include <fcntl.h>
#include <limits>
#include <mutex>

#include "platform/xpc/answer.h"
#include "tests/xpc/echo_server.h"

namespace kelvane::tests {
namespace {

using namespace std::string_literals;

/// Sends values there and back.
class Wire : public testing::Test {
 protected:
  Wire() { connection_->resume(); }
  ~Wire() override { connection_->invalidate(); }

  Value roundTrip(const Value& value) {
    const Answer answer = ask(connection_, {{"value", value}});
    if (answer.error) ADD_FAILURE() << answer.error->description();
    return answer.reply ? (*answer.reply)["value"] : Value();
  }
  Answer echoAnything(const Value& value, Value& got) {
    Answer answer;
    const Signal answered;
    connection_
        ->remoteObjectProxyWithErrorHandler<EchoProtocol>([&](const xpc::Error& error) {
          answer.error = error;
          answered();
        })
        ->echoAnything(value, [&](Value reply) {
          got = std::move(reply);
          answered();
        });
    answered.wait();
    return answer;
  }

  EchoServer server_{Door::endpoint};
  const std::shared_ptr<xpc::Connection> connection_ = server_.connection();
};

TEST_F(Wire, ABooleanStaysABoolean) {
  EXPECT_TRUE(roundTrip(true).isBoolean());
  EXPECT_TRUE(roundTrip(true).boolValue());
  EXPECT_TRUE(roundTrip(false).isBoolean());
  EXPECT_FALSE(roundTrip(false).boolValue());
}

TEST_F(Wire, EveryIntegerComesBackAsItWas) {
  for (const std::int64_t number :
       {std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::min(),
        std::numeric_limits<std::int64_t>::max()}) {
    const Value got = roundTrip(number);
    EXPECT_EQ(got, Value(number));
    EXPECT_TRUE(std::holds_alternative<std::int64_t>(got.held()));
  }
  const Value most = roundTrip(std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(most.unsignedLongLongValue(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_TRUE(std::holds_alternative<std::uint64_t>(most.held()));
}

TEST_F(Wire, ADoubleComesBackAsItWas) {
  for (const double number : {0.5, -1e300, 5e-324, std::numeric_limits<double>::infinity()})
    EXPECT_EQ(roundTrip(number), Value(number));
  const double none = roundTrip(std::numeric_limits<double>::quiet_NaN()).doubleValue();
  EXPECT_NE(none, none);
}

TEST_F(Wire, StringsDataAndDatesComeBackAsTheyWere) {
  for (const char* text : {"", "plain", "Grüße, 世界 \xF0\x9F\x8C\x8D"})
    EXPECT_EQ(roundTrip(text), Value(text));
  for (const Data& data : {Data(), Data({0, 255, 0, 1})}) EXPECT_EQ(roundTrip(data), Value(data));
  for (const std::int64_t moment : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{1'700'000'000'000'000}})
    EXPECT_EQ(roundTrip(Date{moment}), Value(Date{moment}));
}

TEST_F(Wire, ContainersComeBackAsTheyWere) {
  for (const Array& array : {Array(), Array{1, "two", Array{}, Dictionary{}, Data({3})}})
    EXPECT_EQ(roundTrip(array), Value(array));
  for (const Dictionary& dictionary : {Dictionary(), Dictionary{{"", 1}, {"a", Dictionary{{"b", Array{}}}}}})
    EXPECT_EQ(roundTrip(dictionary), Value(dictionary));
}

TEST_F(Wire, AValueMayBeNothing) {
  Value got = 1;
  EXPECT_FALSE(echoAnything(Value(), got).error);
  EXPECT_TRUE(got.isNothing());
  EXPECT_FALSE(echoAnything(Array{1}, got).error);
  EXPECT_EQ(got, Value(Array{1}));
}

TEST_F(Wire, ANilDictionaryIsNotAnEmptyOne) {
  EXPECT_EQ(ask(connection_, {{"nil", true}}).reply, std::nullopt);
  EXPECT_EQ(ask(connection_, {}).reply, Dictionary());
}

TEST_F(Wire, WhatIsNoUnicodeTravelsAsTheReplacementCharacterAndCostsNothingElse) {
  const std::string replacement = "\xEF\xBF\xBD";
  EXPECT_EQ(roundTrip("a\0b"s), Value("a" + replacement + "b"));
  EXPECT_EQ(roundTrip("a\xFF\xC3\x28"), Value("a" + replacement + replacement + "("));
  EXPECT_EQ(roundTrip("cut \xE4\xB8"), Value("cut " + replacement + replacement));
  EXPECT_EQ(roundTrip("\xED\xA0\x80"), Value(replacement + replacement + replacement));  // a surrogate
  EXPECT_EQ(roundTrip("\xC0\xAF"), Value(replacement + replacement));                    // overlong
  const Answer keys = ask(connection_, {{"k\xFFy"s, 1}, {"other", "whole"}});
  EXPECT_EQ(keys.reply, (Dictionary{{"k" + replacement + "y", 1}, {"other", "whole"}}));
  std::string greeting;
  const Signal greeted;
  connection_
      ->remoteObjectProxyWithErrorHandler<EchoProtocol>([&](const xpc::Error& error) {
        greeting = error.description();
        greeted();
      })
      ->greet("\xFFyou"s, [&](std::string reply) {
        greeting = std::move(reply);
        greeted();
      });
  greeted.wait();
  EXPECT_EQ(greeting, "Hello, " + replacement + "you");
}

TEST_F(Wire, KeysThatBecomeTheSameAreNumberedSoThatNoValueIsLost) {
  const std::string replacement = "\xEF\xBF\xBD";
  const Answer answer = ask(connection_, {{replacement, 1},
                                          {replacement + " 2", 2},  // collides with the first number
                                          {"\xEF\xBF\xBE", 3},
                                          {"\xFE", 4},
                                          {"\xFF", 5},
                                          {"\xFF 4", 6},  // once repaired, equal to another key
                                          {"a", Dictionary{{"\xFE", 7}, {"\xFF", 8}}}});
  ASSERT_TRUE(answer.reply) << answer.error->description();
  EXPECT_EQ(*answer.reply, (Dictionary{{replacement, 1},
                                       {replacement + " 2", 2},
                                       {replacement + " 3", 3},
                                       {replacement + " 4", 4},
                                       {replacement + " 5", 5},
                                       {replacement + " 4 6", 6},
                                       {"a", Dictionary{{replacement, 7}, {replacement + " 2", 8}}}}));
}

TEST_F(Wire, FiftyThousandKeysThatBecomeTheSameTravelInOnePass) {
  Dictionary many;
  for (int i = 0; i < 50'000; ++i) {
    std::string key(3, '\0');
    for (int rest = i, at = 0; rest > 0; rest /= 64)
      key[static_cast<std::size_t>(at++)] = static_cast<char>(0x80 + rest % 64);
    many.set(key, i);
  }
  const Answer answer = ask(connection_, many);
  ASSERT_TRUE(answer.reply) << answer.error->description();
  EXPECT_EQ(answer.reply->size(), 50'000U);
}

TEST_F(Wire, WhatIsNestedTooDeepToTravelCallsTheErrorHandlerOfItsCallOnly) {
  std::vector<Value> values;
  for (const int levels : {31, 64, 200, 2000}) {
    Value deep = "bottom";
    for (int level = 0; level < levels; ++level) deep = Array{deep};
    values.push_back(deep);
  }
  values.emplace_back("bottom");
  for (int level = 0; level < 21; ++level) values.back() = Dictionary{{"inner", values.back()}};
  for (const Value& deep : values) {
    const Answer answer = ask(connection_, {{"value", deep}});
    EXPECT_FALSE(answer.reply);
    ASSERT_TRUE(answer.error);
    EXPECT_EQ(answer.error->name, xpc::error_limits_exceeded);
    EXPECT_TRUE(ask(connection_, {}).reply);
  }
}

TEST_F(Wire, WhatIsNestedAsDeepAsDBusAllowsTravels) {
  Value deep = "bottom";
  for (int level = 0; level < 20; ++level) deep = Dictionary{{"inner", deep}};
  EXPECT_EQ(roundTrip(deep), deep);
}

TEST_F(Wire, AStringOfTenMegabytesTravels) {
  const std::string much(10 << 20, 'm');
  EXPECT_EQ(roundTrip(much), Value(much));
}

TEST_F(Wire, ALongCallLeavesNoMemoryWithItsThread) {
  ASSERT_TRUE(ask(connection_, {{"value", std::string(100'000, 'm')}}).reply);
  EXPECT_EQ(xpc::scratchMessage().bytes.capacity(), 0U);
  ASSERT_TRUE(ask(connection_, {{"value", "short"}}).reply);
  EXPECT_GT(xpc::scratchMessage().bytes.capacity(), 0U) << "kept for the next call";
}

TEST(ScratchMessage, KeepsUpTo64KiB) {
  auto& bytes = xpc::scratchMessage().bytes;
  for (const std::size_t size : {65'536U, 65'537U}) {
    std::vector<std::byte>().swap(bytes);
    {
      const xpc::ScratchUse use;
      bytes.resize(size);
    }
    EXPECT_EQ(bytes.capacity(), size == 65'536 ? size : 0);
  }
}

TEST_F(Wire, ADictionaryOfTenThousandEntriesTravels) {
  Dictionary many;
  for (int i = 0; i < 10'000; ++i) many.set("key " + std::to_string(i), Dictionary{{"number", i}});
  EXPECT_EQ(roundTrip(many), Value(many));
}

TEST_F(Wire, AMessageBeyondTheLimitCostsTheConnection) {
  const Answer answer = ask(connection_, {{"value", std::string(33 << 20, 'm')}});
  EXPECT_FALSE(answer.reply);
  EXPECT_EQ(answer.error->name, xpc::error_disconnected);
  server_.awaitAnEnd();
  server_.expectOthersAreServed();
}

/// Sends a variant by bytes, and looks at what arrived and at the signature of what comes back.
class ForeignWire : public testing::Test {
 protected:
  ForeignWire() {
    server_.echo().setOnEcho([this](const Dictionary& info) {
      if (!info.contains("value")) return;
      const std::scoped_lock lock(mutex_);
      seen_ = info["value"];
    });
    peer_.handshake();
  }
  void expectRead(const std::string& signature, const std::function<void(RawWriter&)>& write,
                  const Value& expected, const std::string& written_as) {
    peer_.send(echoCallOf(++serial_, signature, write).bytes());
    const auto reply = peer_.receive();
    ASSERT_TRUE(reply);
    ASSERT_EQ(reply->type, 2) << signature << ": " << reply->bytes;
    const std::scoped_lock lock(mutex_);
    EXPECT_EQ(seen_, expected) << signature << ": " << seen_.description();
    const std::string back = "value\0"s + static_cast<char>(written_as.size()) + written_as + "\0"s;
    EXPECT_NE(reply->bytes.find(back), std::string::npos) << signature;
  }
  void expectRefused(const std::string& signature, const std::function<void(RawWriter&)>& write,
                     const std::vector<int>& descriptors = {}) {
    RawMessage call = echoCallOf(++serial_, signature, write);
    call.descriptors = static_cast<std::uint32_t>(descriptors.size());
    peer_.send(call.bytes(), descriptors);
    const auto reply = peer_.receive();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->type, 3) << signature;
    EXPECT_NE(reply->bytes.find("InvalidArgs"), std::string::npos);
  }
  static std::function<void(RawWriter&)> number(std::uint64_t value, std::size_t size) {
    return [=](RawWriter& out) { out.number(value, size); };
  }

  EchoServer server_{Door::endpoint};
  RawPeer peer_ = server_.rawPeer();
  std::uint32_t serial_ = 0;
  std::mutex mutex_;
  Value seen_;  // guarded by mutex_
};

TEST_F(ForeignWire, EveryKindOfNumberIsReadAndFourAreWritten) {
  expectRead("y", number(200, 1), 200, "t");
  expectRead("n", number(0xFFFF, 2), -1, "x");
  expectRead("q", number(0xFFFF, 2), 65535, "t");
  expectRead("i", number(0xFFFFFFFE, 4), -2, "x");
  expectRead("u", number(0xFFFFFFFE, 4), 4294967294, "t");
  expectRead("x", number(~0ULL, 8), -1, "x");
  expectRead("t", number(~0ULL, 8), ~0ULL, "t");
  expectRead(
      "d", [](RawWriter& out) { out.real(2.5); }, 2.5, "d");
  expectRead("b", number(1, 4), true, "b");
}

TEST_F(ForeignWire, ObjectPathsAndSignaturesAreReadAsStrings) {
  expectRead(
      "s", [](RawWriter& out) { out.text("text"); }, "text", "s");
  expectRead(
      "o", [](RawWriter& out) { out.text("/a/b"); }, "/a/b", "s");
  expectRead(
      "g", [](RawWriter& out) { out.signature("a{sv}"); }, "a{sv}", "s");
}

TEST_F(ForeignWire, ArraysOfAnythingAreRead) {
  expectRead(
      "ay", [](RawWriter& out) { out.number(2).raw("\1\2"); }, Data({1, 2}), "ay");
  expectRead(
      "ai", [](RawWriter& out) { out.number(8).number(5).number(6); }, Array{5, 6}, "av");
  expectRead(
      "as", [](RawWriter& out) { out.number(6).text("x"); }, Array{"x"}, "av");
  expectRead(
      "aay", [](RawWriter& out) { out.number(5).number(1).raw("\7"); }, Array{Data({7})}, "av");
  expectRead(
      "av", [](RawWriter& out) { out.number(4).signature("y").raw("\7"); }, Array{7}, "av");
  expectRead(
      "ai", [](RawWriter& out) { out.number(0); }, Array(), "av");
}

TEST_F(ForeignWire, DictionariesOfAnythingAreRead) {
  const auto entry = [](const std::string& key, const std::function<void(RawWriter&)>& value) {
    return [=](RawWriter& out) {
      out.number(0);
      const std::size_t size_at = out.size() - 4;
      out.align(8);
      const std::size_t start = out.size();
      out.text(key);
      value(out);
      out.set(size_at, static_cast<std::uint32_t>(out.size() - start));
    };
  };
  expectRead("a{ss}", entry("k", [](RawWriter& out) { out.text("v"); }), Dictionary{{"k", "v"}}, "a{sv}");
  expectRead("a{su}", entry("k", number(9, 4)), Dictionary{{"k", 9}}, "a{sv}");
  expectRead("a{oy}", entry("/k", number(9, 1)), Dictionary{{"/k", 9}}, "a{sv}");
  expectRead("a{sv}", entry("k", [](RawWriter& out) { out.signature("s").text("v"); }),
             Dictionary{{"k", "v"}}, "a{sv}");
}

TEST_F(ForeignWire, AVariantInAVariantIsWhatItHolds) {
  expectRead(
      "v", [](RawWriter& out) { out.signature("v").signature("y").raw("\7"); }, 7, "t");
}

TEST_F(ForeignWire, ADateIsAStructureOfMicroseconds) {
  expectRead(
      "(x)", [](RawWriter& out) { out.align(8).number(12, 8); }, Date{12}, "(x)");
}

TEST_F(ForeignWire, WhatNoPropertyListHoldsIsRefused) {
  expectRefused("(xx)", [](RawWriter& out) { out.align(8).number(1, 8).number(2, 8); });
  expectRefused("(s)", [](RawWriter& out) { out.align(8).text("x"); });
  expectRefused("a{us}", [](RawWriter& out) { out.number(10).align(8).number(1).text("x"); });
  const FileDescriptor file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  expectRefused("h", number(0, 4), {file.get()});
}

TEST_F(ForeignWire, WhatIsNestedDeeperThanDBusAllowsEndsTheConnection) {
  peer_.send(echoCallOf(1, "v", [](RawWriter& out) {
               for (int level = 0; level < 100; ++level) out.signature("v");
               out.signature("y").raw("\1");
             }).bytes());
  EXPECT_FALSE(peer_.receive());
  server_.awaitAnEnd();
}

}  // namespace
}  // namespace kelvane::tests
