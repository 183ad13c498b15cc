#include "platform/xpc/launch.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/dispatch/executor.h"
#include "platform/xpc/listener.h"
#include "platform/xpc/transaction.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/xpc/echo.h"
#include "tests/xpc/run_program.h"

namespace kelvane::tests {
namespace {

class LaunchSocket : public testing::Test {
 protected:
  LaunchSocket() {
    std::string reason;
    listener_ = xpc::serveLaunchSocket(path_, reason);
    EXPECT_TRUE(listener_) << reason;
  }
  ~LaunchSocket() override { listener_->invalidate(); }

  [[nodiscard]] ProgramResult busctl(const std::string& call) const {
    return runProgram("busctl --address=unix:path=" + path_ + " " + call);
  }
  [[nodiscard]] ProgramResult busctlCall(const std::string& rest) const {
    return busctl("call com.orvel.Launch /com/orvel/launch com.orvel.Launch " + rest);
  }
  [[nodiscard]] ProgramResult gdbusCall(const std::string& rest) const {
    return runProgram("gdbus call --address unix:path=" + path_ +
                      " --dest com.orvel.Launch --object-path /com/orvel/launch --method com.orvel.Launch." +
                      rest);
  }

  const test::TemporaryDirectory folder_;
  const std::string path_ = folder_ / "launch.sock";
  std::shared_ptr<xpc::Listener> listener_;
};

/// Registers an activity and waits for its check-in.
void registerActivity(const std::string& name, std::function<void()> on_run) {
  const auto checked_in = std::make_shared<Signal>();
  xpc_activity_register(name, XPC_ACTIVITY_CHECK_IN,
                        [checked_in, on_run = std::move(on_run)](const xpc_activity_t& activity) {
                          if (xpc_activity_get_state(activity) == XPC_ACTIVITY_STATE_CHECK_IN) {
                            (*checked_in)();
                          } else {
                            EXPECT_EQ(xpc_activity_get_state(activity), XPC_ACTIVITY_STATE_RUN);
                            on_run();
                          }
                        });
  checked_in->wait();
}

TEST_F(LaunchSocket, IsForItsOwnerOnly) {
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(LaunchSocket, RunsAnActivityForBusctlAndForGdbus) {
  std::atomic<int> runs{0};
  registerActivity("com.example.run", [&] { ++runs; });
  EXPECT_EQ(runs, 0);  // checking in is no run
  const ProgramResult busctl = busctlCall("RunActivity s com.example.run");
  EXPECT_EQ(busctl.status, 0) << busctl.output;
  EXPECT_EQ(runs, 1);
  const ProgramResult gdbus = gdbusCall("RunActivity com.example.run");
  EXPECT_EQ(gdbus.status, 0) << gdbus.output;
  EXPECT_EQ(gdbus.output, "()\n");
  EXPECT_EQ(runs, 2);
}

TEST_F(LaunchSocket, AnswersARunOnlyWhenTheHandlerHasReturned) {
  const Signal entered;
  const Signal go_on;
  std::atomic<bool> returned{false};
  std::atomic<bool> answered{false};
  registerActivity("com.example.slow", [&] {
    entered();
    go_on.wait();
    EXPECT_FALSE(answered);
    returned = true;
  });
  const Signal done;
  dispatch_async(dispatch_get_global_queue(0, 0), [&] {
    EXPECT_EQ(busctlCall("RunActivity s com.example.slow").status, 0);
    answered = true;
    EXPECT_TRUE(returned);
    done();
  });
  entered.wait();
  // Others are answered meanwhile.
  EXPECT_EQ(busctl("get-property com.orvel.Launch /com/orvel/launch com.orvel.Launch Transactions").status,
            0);
  go_on();
  done.wait();
}

TEST_F(LaunchSocket, ALaterRegistrationReplacesAnEarlierOne) {
  std::atomic<int> first{0};
  std::atomic<int> second{0};
  registerActivity("com.example.replaced", [&] { ++first; });
  registerActivity("com.example.replaced", [&] { ++second; });
  EXPECT_EQ(busctlCall("RunActivity s com.example.replaced").status, 0);
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, 1);
}

TEST_F(LaunchSocket, PostsAnEventOnTheQueueOfItsHandler) {
  const dispatch_queue_t queue = dispatch_queue_create("com.example.events");
  std::mutex mutex;
  Dictionary seen;
  xpc_set_event_stream_handler("com.example.stream", queue, [&](const Dictionary& event, Block handled) {
    dispatch_assert_queue(queue);
    {
      const std::scoped_lock lock(mutex);
      seen = event;
    }
    handled();
  });
  const ProgramResult busctl = busctlCall("PostEvent 'sa{sv}' com.example.stream 2 Name s space Level i 3");
  EXPECT_EQ(busctl.status, 0) << busctl.output;
  {
    const std::scoped_lock lock(mutex);
    EXPECT_EQ(seen, (Dictionary{{"Name", "space"}, {"Level", 3}}));
  }
  const ProgramResult gdbus = gdbusCall("PostEvent com.example.stream \"{'from': <'gdbus'>}\"");
  EXPECT_EQ(gdbus.status, 0) << gdbus.output;
  const std::scoped_lock lock(mutex);
  EXPECT_EQ(seen, (Dictionary{{"from", "gdbus"}}));
}

TEST_F(LaunchSocket, AnswersAnEventOnlyWhenItIsHandledAndHoldsNoThreadUntilThen) {
  const Signal posted;
  Block kept;
  xpc_set_event_stream_handler("com.example.slow", dispatch_get_global_queue(0, 0),
                               [&](const Dictionary&, Block handled) {
                                 kept = std::move(handled);
                                 posted();
                               });
  std::atomic<bool> answered{false};
  const Signal done;
  std::thread client([&] {
    EXPECT_EQ(busctlCall("PostEvent 'sa{sv}' com.example.slow 0").status, 0);
    answered = true;
    done();
  });
  posted.wait();
  dispatch::Executor::shared().letIdleThreadsGoAfter(std::chrono::milliseconds(1));
  while (dispatch_statistics().threads > 1) std::this_thread::yield();  // the one that polls
  EXPECT_FALSE(answered);
  kept();
  done.wait();
  client.join();
}

TEST_F(LaunchSocket, RunsOfAnActivityFollowOneAnother) {
  const Signal entered;
  const Signal go_on;
  std::atomic<int> runs{0};
  registerActivity("com.example.busy", [&] {
    if (++runs > 1) return;
    entered();
    go_on.wait();
    EXPECT_EQ(runs, 1);
  });
  const Signal first_over;
  const Signal second_over;
  EXPECT_TRUE(xpc_run_activity("com.example.busy", [&] { first_over(); }));
  entered.wait();
  EXPECT_TRUE(xpc_run_activity("com.example.busy", [&] { second_over(); }));
  EXPECT_EQ(busctl("get-property com.orvel.Launch /com/orvel/launch com.orvel.Launch Transactions").status,
            0);  // time in which a second run could begin
  go_on();
  first_over.wait();
  second_over.wait();
  EXPECT_EQ(runs, 2);
}

TEST_F(LaunchSocket, AnUnknownNameIsAnErrorThatSaysSo) {
  const ProgramResult run = busctlCall("RunActivity s com.example.unknown");
  EXPECT_NE(run.status, 0);
  EXPECT_NE(run.output.find("no activity is registered as \"com.example.unknown\""), std::string::npos)
      << run.output;
  const ProgramResult post = gdbusCall("PostEvent com.example.nothing '{}'");
  EXPECT_NE(post.status, 0);
  EXPECT_NE(post.output.find("com.orvel.Launch.Error.UnknownName"), std::string::npos) << post.output;
  EXPECT_NE(post.output.find("nobody handles the stream \"com.example.nothing\""), std::string::npos);
}

TEST_F(LaunchSocket, ShowsTheNumberOfOpenTransactions) {
  const std::string get = "get-property com.orvel.Launch /com/orvel/launch com.orvel.Launch Transactions";
  EXPECT_EQ(busctl(get).output, "u 0\n");
  xpc_transaction_begin();
  xpc_transaction_begin();
  EXPECT_EQ(xpc_transaction_count(), 2U);
  EXPECT_EQ(busctl(get).output, "u 2\n");
  xpc_transaction_end();
  xpc_transaction_end();
  EXPECT_EQ(busctl(get).output, "u 0\n");
}

TEST_F(LaunchSocket, CannotBeMadeTwiceAtOnePath) {
  std::string reason;
  EXPECT_FALSE(xpc::serveLaunchSocket(path_, reason));
  EXPECT_EQ(reason, "another process listens there");
}

TEST(TransactionDeathTest, EndingMoreThanWereBegunIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(xpc_transaction_end(), "kelvane: fatal: ending a transaction that was not begun");
}

}  // namespace
}  // namespace kelvane::tests
