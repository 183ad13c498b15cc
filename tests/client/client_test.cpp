#include "kelvane/client.h"

#include <gtest/gtest.h>

#include "tests/client/daemon_process.h"
#include "tests/client/events.h"
#include "tests/foundation/temporary_directory.h"

namespace kelvane::tests {
namespace {

using client::Client;
using client::Failure;
using client::purgeRequest;
using client::Result;

class AClient : public testing::Test {
 protected:
  const test::TemporaryDirectory directory_;
  const std::string socket_ = directory_ / "kelvane.sock";
  Client client_{{socket_}};
};

TEST_F(AClient, GetsTheAnswerToItsPurge) {
  const DaemonProcess daemon(socket_);
  const auto answer = client_.purge(purgeRequest("/volume", 1000, 2, 7));
  ASSERT_TRUE(answer);
  EXPECT_EQ(*answer, (Dictionary{{KELVANE_VOLUME, "/volume"},
                                 {KELVANE_AMOUNT, 1000},
                                 {KELVANE_URGENCY_LIMIT, 2},
                                 {KELVANE_PURGE_TIMEOUT, 7}}));
}

TEST_F(AClient, IsToldWhenThereIsNoDaemon) {
  const auto answer = client_.purge(purgeRequest("/volume", 1));
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().kind, Failure::noDaemon);
}

TEST_F(AClient, IsToldWhenTheDaemonAcceptsNoConnection) {
  const DaemonProcess daemon(socket_, {"accept-nobody"});
  const auto answer = client_.getState("key");
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().kind, Failure::refused);
}

TEST_F(AClient, IsToldWhenTheRequestIsRefused) {
  const DaemonProcess daemon(socket_);
  EXPECT_EQ(client_.itemizedPurgeableSpace({}).error().kind, Failure::refused);
  EXPECT_EQ(client_.purge(Dictionary{}).error().kind, Failure::refused);
}

TEST_F(AClient, IsToldWhatIsWrongWithItsRequest) {
  const DaemonProcess daemon(socket_);
  const auto answer = client_.purge(Dictionary{{KELVANE_VOLUME, "/volume"}});
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().kind, Failure::badRequest);
  EXPECT_EQ(answer.error().reason, "Parameter error, no Amount key in info dict");
}

TEST_F(AClient, IsToldWhenTheDaemonDiesBeforeItAnswers) {
  DaemonProcess daemon(socket_);
  Events events;
  client_.purge(purgeRequest("/never", 1), [&](const Result<Dictionary>& answer) {
    ASSERT_FALSE(answer);
    EXPECT_EQ(answer.error().kind, Failure::connectionLost);
    events.note("answered");
  });
  daemon.await("purging");
  daemon.end(SIGKILL);
  events.await("answered");
}

TEST_F(AClient, SpeaksToTheNextDaemonWithoutMoreAdo) {
  {
    const DaemonProcess first(socket_);
    EXPECT_TRUE(client_.setState(1, "key"));
  }
  const DaemonProcess second(socket_);
  const auto value = client_.getState("key");
  ASSERT_TRUE(value);
  EXPECT_TRUE(value->isNothing());
}

TEST_F(AClient, SetsAndGetsState) {
  const DaemonProcess daemon(socket_);
  const Value value = Array{1, "two", Dictionary{{"three", 3.5}}};
  EXPECT_TRUE(client_.setState(value, "key"));
  const auto got = client_.getState("key");
  ASSERT_TRUE(got);
  EXPECT_EQ(*got, value);
}

TEST_F(AClient, CanCancelWhileAPurgeIsUnderWay) {
  DaemonProcess daemon(socket_);
  Dictionary request = purgeRequest("/never", 1);
  request.set(KELVANE_TOKEN, "token");
  client_.purge(request, [](const auto&) {});
  daemon.await("purging");
  EXPECT_TRUE(client_.cancelPurge("token"));
  daemon.await("cancel " + Value("token").description());
}

TEST_F(AClient, MayUseTheBlockingMembersInACompletion) {
  const DaemonProcess daemon(socket_);
  Events events;
  client_.purgeableSpace({{KELVANE_VOLUME, "/volume"}}, [&](const Result<Dictionary>& answer) {
    ASSERT_TRUE(answer);
    EXPECT_EQ((*answer)[KELVANE_TOTAL_AVAILABLE], Value(7));
    EXPECT_TRUE(client_.setState(true, "seen"));
    client_.getState("seen", [&](const Result<Value>& value) {
      ASSERT_TRUE(value);
      EXPECT_EQ(*value, Value(true));
      events.note("got");
    });
  });
  events.await("got");
}

TEST_F(AClient, CallsEachCompletionBeforeItsDestructorReturns) {
  DaemonProcess daemon(socket_);
  Events events;
  {
    Client client({socket_});
    client.purge(purgeRequest("/never", 1), [&](const Result<Dictionary>& answer) {
      EXPECT_FALSE(answer);
      events.note("first");
      // Asked for while the client ends: fails, rather than to hold it up.
      client.getState("key", [&](const Result<Value>& value) {
        EXPECT_FALSE(value);
        events.note("second");
      });
    });
    daemon.await("purging");
  }
  EXPECT_TRUE(events.has("first"));
  EXPECT_TRUE(events.has("second"));
}

}  // namespace
}  // namespace kelvane::tests
