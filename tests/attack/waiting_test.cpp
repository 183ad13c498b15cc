// Thousands of requests wait behind a service that does not answer. They occupy no
// threads, and delay no other requests.

#include <gtest/gtest.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/keys.h"
#include "tests/attack/another_user.h"
#include "tests/attack/attacked_daemon.h"
#include "tests/attack/hostile_service.h"
#include "tests/attack/requests.h"
#include "tests/attack/scale.h"
#include "tests/operations/answer.h"
#include "tests/operations/fake_service.h"
#include "tests/system/daemon.h"
#include "tests/system/machine.h"

namespace kelvane::tests {
namespace {

constexpr unsigned requests = is_sanitized ? 500 : 2'000;
constexpr std::size_t most_threads = 40;
constexpr std::uint64_t asked_for_a_low_volume = 262'144'000;
constexpr unsigned mebibyte = 1 << 20;

/// A service that answers no call of one kind until the test tells it to.
class LateService {
 public:
  enum class Silence { ping, purge };

  explicit LateService(Silence silence) : service_("com.example.late") {
    service_.onPing([=, this](const Reply<>& reply) { answer(silence == Silence::ping, [=] { reply(); }); });
    service_.onPurge([=, this](const FakeService::Purge&, const FakeService::ResultReply& reply) {
      answer(silence == Silence::purge, [=] { reply(Dictionary{{KELVANE_AMOUNT, 0}}); });
    });
    service_.onPurgeable([=, this](const FakeService::Question&, const FakeService::ResultReply& reply) {
      answer(silence == Silence::purge, [=] { reply(Dictionary{{KELVANE_AMOUNT, 0}}); });
    });
  }
  /// Answers all calls held so far, and every later one.
  void answerAll() {
    std::vector<std::function<void()>> late;
    {
      const std::scoped_lock lock(mutex_);
      answers_ = true;
      late.swap(late_);
    }
    for (const auto& each : late) each();
  }
  /// Waits for at most half a minute.
  void awaitPurgeOf(std::uint64_t bytes) const {
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!wasAskedFor(bytes)) {
      ASSERT_LT(std::chrono::steady_clock::now(), give_up) << "nobody asked for " << bytes << " bytes";
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  [[nodiscard]] FakeService& service() { return service_; }
  [[nodiscard]] bool wasAskedFor(std::uint64_t bytes) const {
    const auto asked = service_.purgesAsked();
    return std::any_of(asked.begin(), asked.end(), [&](const auto& purge) { return purge.asked() == bytes; });
  }

 private:
  void answer(bool is_late, std::function<void()> now) {
    {
      const std::scoped_lock lock(mutex_);
      if (is_late && !answers_) {
        late_.push_back(std::move(now));
        return;
      }
    }
    now();
  }

  std::mutex mutex_;  // guards the two below
  bool answers_ = false;
  std::vector<std::function<void()>> late_;
  FakeService service_;
};

struct Attack {
  LateService::Silence silence;
  const char* method;
  bool by_the_daemons_own_user;  // whose limits are the highest
};

class Waiting : public testing::TestWithParam<Attack> {
 protected:
  static void SetUpTestSuite() { ASSERT_GT(raiseDescriptorLimit(), requests + 1'000); }

  void SetUp() override {
    registrar_.daemon()->clientCheckin(
        late_.service().ID(), late_.service().endpoint(), {{"PURGE", true}},
        [answer = checked_in_](const std::optional<Dictionary>& reply) mutable { answer.come(reply); });
    late_.service().awaitPings(1);
    if (GetParam().silence == LateService::Silence::ping) return;
    checked_in_.await();
    holder_.startPurge({{KELVANE_VOLUME, volume_.path()},
                        {KELVANE_AMOUNT, 1},
                        {KELVANE_URGENCY, 1},
                        {KELVANE_PURGE_TIMEOUT, 300}});
    late_.service().awaitPurges(1);
  }
  [[nodiscard]] RawMessage request() const {
    const std::string method = GetParam().method;
    if (method == "clientCheckin") return checkIn(1, "com.example.waiting");
    if (method == "clientGetState") return getState(1, "com.example.key");
    if (method == "clientSetState") return setState(1, "com.example.key", 8);
    return requestAbout(GetParam().method, 1, volume_.path());
  }
  /// Sends one request over each of many connections, without waiting.
  [[nodiscard]] std::vector<RawPeer> attack() const {
    const uid_t user = GetParam().by_the_daemons_own_user ? ::getuid() : attacker;
    const RawMessage message = request();
    std::vector<RawPeer> peers;
    for (unsigned i = 0; i < requests; ++i) {
      if (message.descriptors == 0) {
        peers.emplace_back(connectedAs(user, daemon_.socket()));
        peers.back().send(authentication(user) + "BEGIN\r\n" + message.bytes());
      } else {
        peers.push_back(peerOf(daemon_, user));
        peers.back().send(message.bytes(), {services_.endpoint()});
      }
    }
    return peers;
  }
  void fillVolume() const {
    std::ofstream file(volume_.path() + "/growing", std::ios::binary);
    const std::string block(mebibyte, '\0');
    for (unsigned i = 0; i < 60; ++i) file << block << std::flush;
  }
  void expectFewThreads() {
    std::printf("[  figures ] %zu threads\n", daemon_.threads());
    EXPECT_LT(daemon_.threads(), most_threads);
  }
  void expectAnswers(std::vector<RawPeer>& peers) const {
    unsigned answered = 0;
    unsigned refused = 0;
    for (RawPeer& peer : peers) {
      if (request().descriptors == 0) static_cast<void>(peer.readLine());  // of the handshake
      const auto reply = peer.receive();
      if (reply) ++(reply->type == 2 ? answered : refused);
    }
    std::printf("[  figures ] %u answered, %u refused\n", answered, refused);
    EXPECT_EQ(answered + refused, requests);
    EXPECT_GT(answered, 0U);
  }

  AttackedDaemon daemon_{{"KELVANE_LOW_SPACE=10%"}};
  const Volume volume_{64};
  ManyServices services_;
  LateService late_{GetParam().silence};
  Client registrar_{daemon_.daemon()};
  Client holder_{daemon_.daemon()};
  Answer<std::optional<Dictionary>> checked_in_;
};

TEST_P(Waiting, RequestsCostNoThreadsAndHoldUpNeitherAnotherUserNorTheHandlingOfALowVolume) {
  std::vector<RawPeer> peers;
  {
    AnotherUser user(daemon_);
    peers = attack();
    expectFewThreads();
    fillVolume();
    EXPECT_TRUE(daemon_.daemon().logged("handleVFSStreamXPCEvent: caught VQ_LOWDISK"));
    expectUnharmed(user, daemon_);
  }
  expectFewThreads();
  EXPECT_FALSE(late_.wasAskedFor(asked_for_a_low_volume));
  late_.answerAll();
  expectAnswers(peers);
  late_.awaitPurgeOf(asked_for_a_low_volume);
}

/// Registers a service that is notified of the state.
void checkInAsRecipient(Client& registrar, const FakeService& service) {
  Answer<std::optional<Dictionary>> checked_in;
  registrar.daemon()->clientCheckin(
      service.ID(), service.endpoint(), {{KELVANE_NOTIFICATIONS, Array{KELVANE_CACHE_ENABLED}}},
      [checked_in](const std::optional<Dictionary>& reply) mutable { checked_in.come(reply); });
  EXPECT_NE(checked_in.await(), std::nullopt);
}

TEST(WaitingNotifications, ToAServiceThatNeverAnswersTakeOneConnection) {
  AttackedDaemon daemon;
  FakeService deaf("com.example.a-deaf-one");
  FakeService hearing("com.example.hearing");  // is notified after the other one
  deaf.answersNotifications(false);
  Client client(daemon.daemon());
  checkInAsRecipient(client, deaf);
  checkInAsRecipient(client, hearing);
  const std::size_t before = daemon.descriptors();
  for (int i = 1; i <= 200; ++i) client.setState(i, KELVANE_CACHE_ENABLED);
  deaf.awaitNotifications(1);
  while (hearing.notifications().empty() ||
         hearing.notifications().back() != Dictionary{{KELVANE_CACHE_ENABLED, 200}})
    std::this_thread::yield();
  hearing.awaitClosed(static_cast<int>(hearing.notifications().size()));
  EXPECT_EQ(deaf.connectionsOpened(), 2);  // one of them at check-in
  EXPECT_EQ(daemon.descriptorsWhenSettled(before + 1), before + 1);
  EXPECT_TRUE(client.isServed());
}

std::vector<Attack> attacks() {
  std::vector<Attack> all;
  for (const auto silence : {LateService::Silence::ping, LateService::Silence::purge}) {
    for (const char* method : {"clientCheckin", "clientPurgeableSpace", "clientItemizedPurgeableSpace",
                               "clientPurge", "clientCancelPurge", "clientSetState", "clientGetState"})
      all.push_back({silence, method, true});
    for (const char* method : {"clientCheckin", "clientPurge"}) all.push_back({silence, method, false});
  }
  return all;
}

std::string nameOf(const testing::TestParamInfo<Attack>& attack) {
  return std::string(attack.param.method) +
         (attack.param.by_the_daemons_own_user ? "OfTheDaemonsUser" : "OfAnOrdinaryUser") +
         (attack.param.silence == LateService::Silence::ping ? "BehindAPing" : "BehindAPurge");
}

INSTANTIATE_TEST_SUITE_P(Attacks, Waiting, testing::ValuesIn(attacks()), nameOf);

}  // namespace
}  // namespace kelvane::tests
