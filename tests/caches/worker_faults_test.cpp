// Workers that hang, send false reports, are killed, or are no longer needed.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <thread>

#include "caches/report.h"
#include "tests/caches/child.h"
#include "tests/caches/hanging_mount.h"
#include "tests/caches/machine.h"

namespace kelvane::caches::tests {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::size_t block = 4096;
/// Time for the others to finish while one hangs.
constexpr milliseconds short_time(1500);

[[noreturn]] void hang() {
  while (true) ::pause();
}

class WorkerFaults : public Machine {
 protected:
  WorkerFaults() {
    for (const uid_t user : {alice, bob}) {
      addUser(user);
      addFile(user, ".cache/pip/old", block, 50 * day);
    }
  }
  /// Bob's workers do this instead of their work, unless the file exists.
  void startWithFaultOfBob(const std::function<void(int socket)>& fault) {
    start({pip()}, [fault, well = volume() + "/well"](const Job& job, int socket) {
      if (job.user.id == bob && ::access(well.c_str(), F_OK) != 0) fault(socket);
    });
  }
  void cureBob() const { write(volume() + "/well", ""); }
  HolderReport surveyFor(milliseconds time) { return workers_->survey("pip", {}, limits(time)); }
};

TEST_F(WorkerFaults, OfOneUserThatHangsCostNobodyElse) {
  startWithFaultOfBob([](int) { hang(); });
  const auto begin = steady_clock::now();
  const HolderReport report = surveyFor(short_time);
  EXPECT_LT(steady_clock::now() - begin, short_time + std::chrono::seconds(1));
  EXPECT_FALSE(report.complete);
  EXPECT_EQ(report.atUrgency(2).bytes, block);
  EXPECT_THAT(reasonOf(bob, report), HasSubstr("did not answer in time"));
  cureBob();
  EXPECT_EQ(surveyFor(std::chrono::seconds(60)).atUrgency(2).bytes, 2 * block) << "it was killed and is gone";
}

TEST_F(WorkerFaults, DuringAPurgeLeaveTimeToDeleteWhatOthersHave) {
  startWithFaultOfBob([](int) { hang(); });
  const HolderReport report = workers_->purge("pip", {}, 2, UINT64_MAX, limits(2 * short_time));
  EXPECT_EQ(report.freed(), block);
  EXPECT_FALSE(has(alice, ".cache/pip/old"));
  EXPECT_TRUE(has(bob, ".cache/pip/old"));
}

TEST_F(WorkerFaults, ThatStopTheWorkerEndWithItsDeadline) {
  startWithFaultOfBob([](int) { ::raise(SIGSTOP); });
  const HolderReport report = surveyFor(short_time);
  EXPECT_EQ(report.atUrgency(2).bytes, block);
  cureBob();
  EXPECT_EQ(surveyFor(std::chrono::seconds(60)).atUrgency(2).bytes, 2 * block);
}

TEST_F(WorkerFaults, ThatKillTheWorkerAreNoticedAtOnce) {
  startWithFaultOfBob([](int) { ::raise(SIGKILL); });
  const HolderReport report = survey();
  EXPECT_FALSE(report.complete);
  EXPECT_EQ(report.atUrgency(2).bytes, block);
  EXPECT_THAT(reasonOf(bob, report), HasSubstr("ended early"));
}

TEST_F(WorkerFaults, OfALiarAreBelievedOnlyWithinReason) {
  startWithFaultOfBob([where = volume()](int socket) {
    RootReport root;
    root.path = "/home/bob/.cache/pip";
    root.volume = where;
    root.survey.at_urgency.fill({UINT64_MAX, UINT64_MAX});
    root.survey.complete = true;
    root.purge.freed = UINT64_MAX - 1;
    ReportWriter report(socket);
    report.root(root, {1, 1});
    report.end(true, "");
    ::_exit(0);
  });
  const HolderReport report = survey();
  EXPECT_EQ(of(alice, report).front().survey.at_urgency[1].bytes, block);
  EXPECT_LE(of(bob, report).front().survey.at_urgency[1].bytes, std::uint64_t{256} << 20)
      << "more than the volume";
  const HolderReport purge = workers_->purge("pip", {}, 2, UINT64_MAX, limits());
  EXPECT_FALSE(has(alice, ".cache/pip/old"));
  EXPECT_LE(purge.freed(), (std::uint64_t{256} << 20) + block);
}

TEST_F(WorkerFaults, OfAWorkerThatSendsMalformedOrEndlessReports) {
  startWithFaultOfBob([](int socket) { ::send(socket, "nonsense", 8, 0); });
  EXPECT_THAT(reasonOf(bob, survey()), HasSubstr("malformed"));
  startWithFaultOfBob([](int socket) {
    const std::string big(150'000, 'x');
    while (::send(socket, big.data(), big.size(), MSG_NOSIGNAL) > 0) {
    }
  });
  EXPECT_THAT(reasonOf(bob, survey()), HasSubstr("malformed"));
  startWithFaultOfBob([where = volume()](int socket) {
    RootReport root;
    root.path = "/x";
    ReportWriter report(socket);
    for (int i = 0; i < 100'000; ++i) report.root(root, {1, 1});
  });
  const HolderReport report = survey();
  EXPECT_LE(of(bob, report).size(), ReportLimits::most_roots + 1);
  EXPECT_EQ(of(alice, report).front().survey.at_urgency[1].bytes, block);
}

TEST_F(WorkerFaults, ThatCannotBeKilledKeepTheirUserOutUntilTheyAreGone) {
  fs::create_directories(volume() + "/remote");
  auto hanging = std::make_unique<HangingMount>(volume() + "/remote");
  startWithFaultOfBob([remote = volume() + "/remote/x"](int) { ::open(remote.c_str(), O_RDONLY); });
  std::atomic<bool> over = false;
  std::thread program([&] {  // reads the request, so that the worker waits for its answer only
    while (!over) {
      static_cast<void>(hanging->requests());
      std::this_thread::yield();
    }
  });
  EXPECT_THAT(reasonOf(bob, surveyFor(short_time)), HasSubstr("did not answer in time"));
  over = true;
  program.join();
  cureBob();
  const HolderReport report = surveyFor(std::chrono::seconds(20));
  EXPECT_THAT(reasonOf(bob, report), HasSubstr("has not ended"));
  EXPECT_EQ(report.atUrgency(2).bytes, block);
  hanging.reset();
  // The kernel takes a moment to end a process.
  const auto given_up = steady_clock::now() + std::chrono::seconds(10);
  std::uint64_t bytes = 0;
  while (bytes != 2 * block && steady_clock::now() < given_up) {
    bytes = surveyFor(std::chrono::seconds(20)).atUrgency(2).bytes;
  }
  EXPECT_EQ(bytes, 2 * block);
}

TEST_F(WorkerFaults, AreNotWaitedForOnceTheWorkIsCancelled) {
  startWithFaultOfBob([](int) { hang(); });
  const auto flag = std::make_shared<std::atomic<bool>>(false);
  const client::CacheLimits cancelled{client::Cancellation(flag),
                                      steady_clock::now() + std::chrono::minutes(10)};
  std::thread canceller([&] { flag->store(true); });
  const auto begin = steady_clock::now();
  const HolderReport report = workers_->purge("pip", {}, 2, UINT64_MAX, cancelled);
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(10));
  EXPECT_FALSE(report.complete);
  canceller.join();
}

TEST_F(WorkerFaults, DoNotOutliveTheMainProcess) {
  write(volume() + "/passwd", "");
  ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  std::array<int, 2> hanging{};
  ASSERT_EQ(::pipe(hanging.data()), 0);
  const pid_t main_process = ::fork();
  if (main_process == 0) {
    start({pip()}, [&](const Job&, int socket) {
      const char here = 'x';
      ::send(socket, &here, 0, 0);
      hang();
    });
    const pid_t self = ::getpid();
    std::thread murderer([&] {
      std::this_thread::sleep_for(milliseconds(300));  // workers hang by then; earlier does not matter
      ::kill(self, SIGKILL);
    });
    static_cast<void>(survey());
    hang();
  }
  int status = 0;
  ASSERT_EQ(::waitpid(main_process, &status, 0), main_process);
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
  // Its children are now children of this process, and all of them must end.
  int ended = 0;
  while (::waitpid(-1, &status, 0) > 0) ++ended;
  EXPECT_EQ(errno, ECHILD);
  EXPECT_GE(ended, 1);
  ::prctl(PR_SET_CHILD_SUBREAPER, 0);
  ::close(hanging[0]);
  ::close(hanging[1]);
}

TEST_F(WorkerFaults, NeverMakeMoreThanSixteenRunAtOnce) {
  for (uid_t user = 61'100; user < 61'140; ++user) addUser(user);
  const std::string counters = volume() + "/counters";
  fs::create_directories(counters);
  fs::permissions(counters, fs::perms::all);
  start({pip()}, [counters](const Job& job, int) {
    // Exists while it runs, and for a moment longer than the next start takes.
    const std::string own = counters + "/" + std::to_string(job.user.id);
    ::mkdir(own.c_str(), 0700);
    int present = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(counters)) ++present;
    if (present > 16) ::mkdir((counters + "-exceeded").c_str(), 0700);
    ::usleep(20'000);
    ::rmdir(own.c_str());
  });
  fs::permissions(volume(), fs::perms::all);
  const HolderReport report = survey();
  EXPECT_TRUE(report.complete);
  EXPECT_FALSE(fs::exists(counters + "-exceeded"));
}

TEST_F(WorkerFaults, AreImpossibleForSomebodyWithoutRootsRights) {
  fs::permissions(volume(), fs::perms::all);
  write(volume() + "/passwd", "a:x:61001:61001::" + home(alice) + ":\nb:x:61002:61002::" + home(bob) + ":\n");
  const std::string seen = inChild([&] {
    if (::setresgid(alice, alice, alice) != 0 || ::setresuid(alice, alice, alice) != 0)
      return std::string("not alice");
    Definition system = pip();
    system.name = "system";
    system.owner = Owner::system;
    system.roots = {"/var/cache/apt"};
    const std::unique_ptr<Workers> workers = startWorkers({pip(), system}, settings());
    if (!workers) return std::string("no workers");
    const HolderReport report = workers->survey("pip", {}, limits());
    const HolderReport others = workers->survey("system", {}, limits());
    std::string text = std::to_string(report.roots.size()) + " " + std::to_string(report.atUrgency(2).bytes);
    for (const RootReport& root : others.roots) text += " " + root.reason;
    return text;
  });
  EXPECT_EQ(seen, "1 4096 it belongs to user 0: only root can purge it");
}

}  // namespace
}  // namespace kelvane::caches::tests
