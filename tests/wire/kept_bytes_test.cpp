#include <gmock/gmock.h>
#include <algorithm>
#include <fstream>

#include "platform/wire/kept_bytes.h"
#include "tests/wire/transport_fixture.h"

namespace kelvane::wire {
namespace {

constexpr std::size_t mebibyte = 1U << 20;

std::span<const std::byte> bytesOf(std::string_view text) { return std::as_bytes(std::span(text)); }
std::string textOf(const KeptBytes& kept) {
  return {reinterpret_cast<const char*>(kept.bytes().data()), kept.size()};
}

/// Of this process, in bytes.
std::size_t residentMemory() {
  std::ifstream file("/proc/self/statm");
  std::size_t size = 0;
  std::size_t resident = 0;
  file >> size >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

TEST(KeptBytesTest, CapacityFollowsWhatArrives) {
  KeptBytes kept;
  const std::string piece(20'000, 'x');
  constexpr std::size_t claimed = 128 * mebibyte;
  kept.append(bytesOf("0123456789abcdef"), claimed);
  EXPECT_LE(kept.capacity(), 64U);
  while (kept.size() < 3 * mebibyte) {
    const std::span<std::byte> room = kept.room(claimed);
    ASSERT_FALSE(room.empty());
    ASSERT_LE(kept.capacity(), std::max<std::size_t>(64U << 10, kept.size() + kept.size() / 4));
    const std::size_t count = std::min(room.size(), piece.size());
    std::memcpy(room.data(), piece.data(), count);
    kept.added(count);
  }
  EXPECT_EQ(textOf(kept), "0123456789abcdef" + std::string(kept.size() - 16, 'x'));
}

TEST(KeptBytesTest, CapacityIsNeverAboveTheClaim) {
  KeptBytes kept;
  std::string all;
  constexpr std::size_t claimed = 200'003;
  while (kept.size() < claimed) {
    const std::span<std::byte> room = kept.room(claimed);
    ASSERT_LE(kept.capacity(), claimed);
    const std::size_t count = std::min<std::size_t>(room.size(), 7'001);
    const std::string piece(count, static_cast<char>('a' + all.size() % 26));
    std::memcpy(room.data(), piece.data(), count);
    kept.added(count);
    all += piece;
  }
  EXPECT_TRUE(textOf(kept) == all);
  EXPECT_TRUE(kept.room(claimed).empty());
}

TEST(KeptBytesTest, AppendedBytesGrowAQuarterAtATime) {
  KeptBytes kept;
  const std::string one(1, 'x');
  for (std::size_t i = 1; i <= 300'000; ++i) {
    kept.append(bytesOf(one), 400'000);
    ASSERT_LE(kept.capacity(), i + i / 4);
  }
  EXPECT_EQ(kept.size(), 300'000U);
}

TEST(KeptBytesTest, FrontMayBeRemovedAndMemoryGivenBack) {
  KeptBytes kept;
  const std::string text = std::string(200'000, 'a') + "rest";
  kept.append(bytesOf(text), text.size());
  kept.removeFront(200'000);
  EXPECT_EQ(textOf(kept), "rest");
  EXPECT_EQ(kept.capacity(), 4U);
  kept.append(bytesOf(" and more"), 13);
  EXPECT_EQ(textOf(kept), "rest and more");
  kept.removeFront(13);
  EXPECT_TRUE(kept.empty());
  EXPECT_EQ(kept.capacity(), 0U);
}

TEST(KeptBytesTest, MemoryFollowsWhatIsLeft) {
  KeptBytes kept;
  std::string text;
  for (int i = 0; text.size() < 300'000; ++i) text += std::to_string(i) + ",";
  kept.append(bytesOf(text), text.size());
  for (std::size_t removed = 0; removed + 1'000 < text.size(); removed += 1'000) {
    ASSERT_LE(kept.capacity(), 2 * kept.size());
    ASSERT_TRUE(textOf(kept) == text.substr(removed)) << "after " << removed;
    kept.removeFront(1'000);
  }
}

TEST(KeptBytesTest, MoreMayComeBehindARemovedFront) {
  for (const bool in_place : {true, false}) {
    KeptBytes kept;
    kept.append(bytesOf("0123456789"), 10);
    kept.removeFront(3);
    if (in_place) {
      const std::span<std::byte> room = kept.room(9);
      ASSERT_EQ(room.size(), 2U);
      std::memcpy(room.data(), "ab", 2);
      kept.added(2);
    } else {
      kept.append(bytesOf("ab"), 9);
    }
    EXPECT_EQ(textOf(kept), "3456789ab");
    EXPECT_EQ(kept.capacity(), 9U);
  }
}

TEST(KeptBytesTest, RoomIsWorthAReadAndStaysAsLongAsItIs) {
  constexpr std::size_t claimed = 300'000;
  constexpr std::size_t worth_a_read = 4U << 10;
  KeptBytes kept;
  int changes = 0;
  while (kept.size() < claimed) {
    const std::size_t before = kept.capacity();
    const std::span<std::byte> room = kept.room(claimed);
    ASSERT_GE(room.size(), std::min(worth_a_read, claimed - kept.size()));
    if (kept.capacity() != before) ++changes;
    room.front() = std::byte{0};
    kept.added(std::min<std::size_t>(room.size(), 10));
  }
  EXPECT_LE(changes, 12);
}

TEST(KeptBytesTest, AppendedBytesMoveSeldomAndNeverTakeMoreThanTheClaim) {
  constexpr std::size_t claimed = 300'000;
  KeptBytes kept;
  int changes = 0;
  for (std::size_t i = 0; i < claimed; ++i) {
    const std::size_t before = kept.capacity();
    kept.append(bytesOf("x"), claimed);
    ASSERT_LE(kept.capacity(), claimed);
    if (kept.capacity() != before) ++changes;
  }
  EXPECT_LE(changes, 60);
}

// AddressSanitizer keeps some of what is freed, for a while. ThreadSanitizer keeps records of its own, up to
// five bytes for each byte that was ever touched.
#if defined(__SANITIZE_ADDRESS__)
constexpr std::size_t freed_and_kept = 256 * mebibyte;
constexpr std::size_t resident_per_byte = 1;
#elif defined(__SANITIZE_THREAD__)
constexpr std::size_t freed_and_kept = 256 * mebibyte;
constexpr std::size_t resident_per_byte = 6;
#else
constexpr std::size_t freed_and_kept = 0;
constexpr std::size_t resident_per_byte = 1;
#endif

TEST(KeptBytesTest, AllMemoryIsGivenBack) {
  const std::string small(60'000, 'x');
  const std::string large(150'000, 'x');
  const std::size_t before = residentMemory();
  for (int i = 0; i < 3000; ++i) {
    KeptBytes kept;
    kept.append(bytesOf(small), small.size());
    kept.append(bytesOf(large), small.size() + large.size());
    kept.removeFront(large.size());
  }
  EXPECT_LT(residentMemory(), before + freed_and_kept + 4 * mebibyte);
}

class MemoryTest : public TransportTest {};

TEST_F(MemoryTest, ClaimAloneTakesNoMemory) {
  const std::size_t before = residentMemory();
  std::vector<std::pair<std::unique_ptr<Transport>, FileDescriptor>> connections;
  const std::string start = startOfCall(longest_protocol_message);
  for (int i = 0; i < 100; ++i) {
    auto [ours, peer] = socketPair();
    connections.emplace_back(
        std::make_unique<Transport>(std::move(ours), Transport::Side::server, ::geteuid(), account_,
                                    TransportOptions{.longest_message = longest_protocol_message}),
        std::move(peer));
    passTo(connections.back().second.get(), opening(false) + start);
    ASSERT_EQ(connections.back().first->receive([](auto&) { return true; }), Outcome::drained);
    ASSERT_TRUE(connections.back().first->isMessageUnderWay());
  }
  EXPECT_EQ(account_->used(Resource::received_bytes), 100 * fixed_header_size);
  EXPECT_LT(residentMemory(), before + 2 * mebibyte);
}

TEST_F(MemoryTest, HalfMessagesTakeNoMoreThanTheAccountAllows) {
  constexpr std::uint64_t most = 16 * mebibyte;
  const auto account = std::make_shared<Account>(1000, Limits{100, most, most, 16, 16, 16});
  const std::size_t before = residentMemory();
  std::vector<std::pair<std::unique_ptr<Transport>, FileDescriptor>> connections;
  const std::string start = startOfCall(30 * mebibyte);
  const std::string chunk(100'000, 'x');
  std::size_t without_room = 0;
  for (int i = 0; i < 40; ++i) {
    auto [ours, peer] = socketPair();
    Transport& transport =
        *connections
             .emplace_back(std::make_unique<Transport>(std::move(ours), Transport::Side::server, ::geteuid(),
                                                       account, TransportOptions{}),
                           std::move(peer))
             .first;
    const int socket = connections.back().second.get();
    passTo(socket, opening(false) + start);
    for (int round = 0; round < 100; ++round) {
      static_cast<void>(::send(socket, chunk.data(), chunk.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
      if (transport.receive([](auto&) { return true; }) == Outcome::no_room) {
        ++without_room;
        break;
      }
    }
  }
  EXPECT_GT(without_room, 35U);
  EXPECT_EQ(account->used(Resource::received_bytes), most);
  EXPECT_LT(residentMemory(), before + resident_per_byte * (most + 6 * mebibyte));
  connections.clear();
  EXPECT_EQ(account->used(Resource::received_bytes), 0U);
  EXPECT_LT(residentMemory(), before + freed_and_kept + 4 * mebibyte) << "all is given back at once";
}

TEST_F(MemoryTest, LongMessageArrivesWhole) {
  const auto account = std::make_shared<Account>(1000, ordinaryLimits());
  auto [ours, peer] = socketPair();
  Transport transport(std::move(ours), Transport::Side::server, ::geteuid(), account, {});
  passTo(peer.get(), opening(false));
  const std::string bytes = callBytes("Long", std::string(30 * mebibyte, 'x'));
  const std::size_t before = residentMemory();
  std::size_t body = 0;
  std::size_t sent = 0;
  while (body == 0) {
    const ssize_t count =
        ::send(peer.get(), bytes.data() + sent, bytes.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count > 0) sent += static_cast<std::size_t>(count);
    const auto outcome = transport.receive([&](Transport::Received& received) {
      body = received.message.body.size();
      return true;
    });
    ASSERT_NE(outcome, Outcome::ended) << transport.reason();
    ASSERT_NE(outcome, Outcome::no_room);
    ASSERT_LE(residentMemory(), before + resident_per_byte * (sent + 4 * mebibyte));
  }
  EXPECT_EQ(body, 30 * mebibyte + 5);
  EXPECT_EQ(account->used(Resource::received_bytes), 0U);
  EXPECT_LT(residentMemory(), before + freed_and_kept + 4 * mebibyte);
}

}  // namespace
}  // namespace kelvane::wire
