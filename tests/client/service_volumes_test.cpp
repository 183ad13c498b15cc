// A service and the volumes of its directories, with real mounts in a private mount namespace.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>
#include <filesystem>
#include <mutex>

#include "kelvane/service.h"
#include "platform/foundation/file_descriptor.h"
#include "tests/client/daemon_process.h"
#include "tests/client/events.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/private_mounts.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;
using client::Cancellation;
using client::Purgeable;
using client::Request;
using client::Service;
using client::ServiceOptions;
using testing::ElementsAre;
using testing::HasSubstr;

const bool private_mounts = enterPrivateMounts();

constexpr const char* ID = "com.example.one";

/// Records the directories of each request, and answers with the amount of the request.
class Noting final : public client::ServiceHandler {
 public:
  std::optional<Purgeable> purgeable(const Request& request, const Cancellation& /*cancellation*/) override {
    noteRequest("purgeable", request);
    return Purgeable{7};
  }
  std::uint64_t purge(const Request& request, const Cancellation& /*cancellation*/) override {
    noteRequest("purge", request);
    return request.amount;
  }
  std::uint64_t periodic(const Request& request) override {
    noteRequest("periodic", request);
    return 9;
  }
  void stateChanged(client::ServiceState state, const std::string& /*reason*/) override {
    if (state == client::ServiceState::registered) events.note("registered");
  }

  /// Of the last request.
  [[nodiscard]] std::vector<std::string> directories() const {
    const std::scoped_lock lock(mutex_);
    return directories_;
  }
  /// The time to answer it.
  [[nodiscard]] std::chrono::nanoseconds left() const {
    const std::scoped_lock lock(mutex_);
    return left_;
  }
  [[nodiscard]] std::size_t calls() const {
    const std::scoped_lock lock(mutex_);
    return calls_;
  }

  Events events;

 private:
  void noteRequest(const std::string& what, const Request& request) {
    {
      const std::scoped_lock lock(mutex_);
      directories_ = request.directories;
      left_ = request.answer_by - std::chrono::steady_clock::now();
      ++calls_;
    }
    events.note(what);
  }

  mutable std::mutex mutex_;  // guards all below
  std::vector<std::string> directories_;
  std::chrono::nanoseconds left_{};
  std::size_t calls_ = 0;
};

class AServiceOnVolumes : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
    for (const char* name : {"a", "b", "c"}) fs::create_directory(directory_ / name);
    for (const std::string& name : {a_, b_, c_}) volumes_.push_back(mountAt(name));
    for (const std::string& name : {a_, b_, c_}) fs::create_directory(name + "/cache");
  }
  static std::unique_ptr<PrivateMount> mountAt(const std::string& path) {
    return std::make_unique<PrivateMount>("tmpfs", "none", path, 0, "size=1m");
  }
  [[nodiscard]] ServiceOptions options(std::vector<std::string> directories) const {
    ServiceOptions options;
    options.id = ID;
    options.daemon_socket = directory_ / "kelvane.sock";
    options.directories = std::move(directories);
    return options;
  }
  static void makeFile(const std::string& path) { const FileDescriptor file(::creat(path.c_str(), 0600)); }
  /// Checked in.
  void start(std::vector<std::string> directories) {
    auto started = Service::start(handler_, options(std::move(directories)));
    if (!started) throw std::runtime_error(started.error().reason);
    service_ = *std::move(started);
    handler_.events.await("registered");
  }
  [[nodiscard]] std::string whyNot(const ServiceOptions& options) {
    const auto service = Service::start(handler_, options);
    if (!service) {
      EXPECT_EQ(service.error().kind, client::Failure::badRequest);
    }
    return service ? "it started" : service.error().reason;
  }
  std::string ask(const std::string& verb, const std::string& volume) {
    return daemon_.ask(verb + " " + ID + " 2 50 KELVANE_VOLUME=" + volume);
  }

  const test::TemporaryDirectory directory_;
  const std::string home_ = fs::canonical(directory_.path());
  const std::string a_ = home_ + "/a";
  const std::string b_ = home_ + "/b";
  const std::string c_ = home_ + "/c";
  std::vector<std::unique_ptr<PrivateMount>> volumes_;
  DaemonProcess daemon_{directory_ / "kelvane.sock"};
  Noting handler_;
  std::unique_ptr<Service> service_;
};

TEST_F(AServiceOnVolumes, IsAskedAboutTheDirectoriesOnTheVolumeOfTheRequest) {
  start({a_ + "/cache", b_ + "/cache"});
  EXPECT_EQ(ask("purgeable", a_), "7");
  EXPECT_THAT(handler_.directories(), ElementsAre(a_ + "/cache"));
  EXPECT_EQ(ask("purge", b_), "50");
  EXPECT_THAT(handler_.directories(), ElementsAre(b_ + "/cache"));
  EXPECT_EQ(ask("periodic", b_), "9");
  EXPECT_THAT(handler_.directories(), ElementsAre(b_ + "/cache"));
}

TEST_F(AServiceOnVolumes, IsNotAskedAboutOtherVolumesAndAnswersZero) {
  start({a_ + "/cache", b_ + "/cache"});
  for (const char* verb : {"purgeable", "purge", "periodic"}) {
    EXPECT_EQ(ask(verb, c_), "0") << verb;
    EXPECT_EQ(ask(verb, "/"), "0") << verb;
    EXPECT_EQ(ask(verb, "/volume"), "0") << verb;
  }
  EXPECT_EQ(handler_.calls(), 0U);
}

TEST_F(AServiceOnVolumes, GetsWhatIsBoundFromOneVolumeIntoAnotherForTheFirst) {
  fs::create_directory(b_ + "/bound");
  const PrivateMount bound("none", a_ + "/cache", b_ + "/bound", MS_BIND);
  start({b_ + "/bound"});
  EXPECT_EQ(ask("purge", b_), "0");
  EXPECT_EQ(ask("purge", a_), "50");
  EXPECT_THAT(handler_.directories(), ElementsAre(b_ + "/bound"));
}

TEST_F(AServiceOnVolumes, GetsADirectoryOnceThatIsMountedTwice) {
  fs::create_directory(b_ + "/again");
  const PrivateMount again("none", a_, b_ + "/again", MS_BIND);
  start({a_ + "/cache", b_ + "/again/cache"});
  EXPECT_EQ(ask("purgeable", a_), "7");
  EXPECT_THAT(handler_.directories(), ElementsAre(a_ + "/cache"));
  EXPECT_EQ(ask("purgeable", b_), "0");
}

TEST_F(AServiceOnVolumes, SaysWhereALinkLedWhenItStarted) {
  fs::create_directory_symlink(a_ + "/cache", home_ + "/link");
  start({home_ + "/link/../cache/."});
  EXPECT_EQ(ask("purgeable", a_), "7");
  EXPECT_THAT(handler_.directories(), ElementsAre(a_ + "/cache"));
}

// --- what changes after the start ---

TEST_F(AServiceOnVolumes, HasNothingOnAVolumeThatWasUnmounted) {
  start({a_ + "/cache"});
  volumes_[0] = nullptr;
  EXPECT_EQ(ask("purge", a_), "0");
  EXPECT_EQ(handler_.calls(), 0U);
  volumes_[0] = mountAt(a_);
  EXPECT_EQ(ask("purge", a_), "0");
  fs::create_directory(a_ + "/cache");
  EXPECT_EQ(ask("purge", a_), "50");
}

TEST_F(AServiceOnVolumes, HasNothingWhereItsDirectoryWasMovedAway) {
  start({a_ + "/cache"});
  fs::rename(a_ + "/cache", a_ + "/other");
  EXPECT_EQ(ask("purge", a_), "0");
  EXPECT_EQ(handler_.calls(), 0U);
}

TEST_F(AServiceOnVolumes, DoesNotFollowALinkThatTookThePlaceOfItsDirectory) {
  start({a_ + "/cache"});
  fs::remove(a_ + "/cache");
  fs::create_directory_symlink(b_ + "/cache", a_ + "/cache");
  EXPECT_EQ(ask("purge", a_), "0");
  EXPECT_EQ(ask("purge", b_), "0");
  EXPECT_EQ(handler_.calls(), 0U);
}

TEST_F(AServiceOnVolumes, DoesNotFollowALinkThatTookThePlaceOfAParent) {
  fs::create_directories(a_ + "/in/cache");
  fs::create_directories(b_ + "/in/cache");
  start({a_ + "/in/cache"});
  fs::rename(a_ + "/in", a_ + "/was");
  fs::create_directory_symlink(b_ + "/in", a_ + "/in");
  EXPECT_EQ(ask("purge", a_), "0");
  EXPECT_EQ(ask("purge", b_), "0");
}

TEST_F(AServiceOnVolumes, GoesWithWhatIsMountedOverItsDirectory) {
  start({a_ + "/cache"});
  const auto over = mountAt(a_ + "/cache");
  EXPECT_EQ(ask("purge", a_), "0");
  EXPECT_EQ(ask("purge", a_ + "/cache"), "50");
}

TEST_F(AServiceOnVolumes, HasNothingWhereAFileTookThePlaceOfItsDirectory) {
  start({a_ + "/cache"});
  fs::remove(a_ + "/cache");
  makeFile(a_ + "/cache");
  EXPECT_EQ(ask("purge", a_), "0");
}

// --- what cannot start ---

TEST_F(AServiceOnVolumes, MustSayWhereItsDataIs) {
  EXPECT_THAT(whyNot(options({})), HasSubstr("a service needs the directories of its data"));
  ServiceOptions both = options({a_});
  both.all_volumes = true;
  EXPECT_EQ(whyNot(both), "a service has either directories or all_volumes, not both");
}

TEST_F(AServiceOnVolumes, DoesNotStartWithAMissingDirectory) {
  EXPECT_EQ(whyNot(options({a_ + "/cache", a_ + "/nothing"})),
            "service directory \"" + a_ + "/nothing\": No such file or directory");
  makeFile(a_ + "/file");
  EXPECT_EQ(whyNot(options({a_ + "/file"})), "service directory \"" + a_ + "/file\": Not a directory");
  EXPECT_EQ(whyNot(options({""})), "service directory \"\": No such file or directory");
}

TEST_F(AServiceOnVolumes, DoesNotStartWithADirectoryInsideAnother) {
  EXPECT_EQ(whyNot(options({a_ + "/cache", a_})), "service directory \"" + a_ + "/cache\": it is inside \"" +
                                                      a_ + "\", so its data would count twice");
  fs::create_directory(a_ + "/cache2");
  start({a_ + "/cache", a_ + "/cache2", a_ + "/cache/"});
  EXPECT_EQ(ask("purgeable", a_), "7");
  EXPECT_THAT(handler_.directories(), ElementsAre(a_ + "/cache", a_ + "/cache2"));
}

// --- for all volumes, and until when ---

TEST_F(AServiceOnVolumes, ThatIsForAllIsAskedAboutEach) {
  ServiceOptions all = options({});
  all.all_volumes = true;
  service_ = *Service::start(handler_, all);
  handler_.events.await("registered");
  EXPECT_EQ(ask("purge", c_), "50");
  EXPECT_THAT(handler_.directories(), ElementsAre());
}

TEST_F(AServiceOnVolumes, GetsADeadlineForItsAnswer) {
  using std::chrono::seconds;
  start({a_ + "/cache"});
  EXPECT_EQ(ask("purgeable", a_), "7");
  EXPECT_LE(handler_.left(), seconds(8));
  EXPECT_GT(handler_.left(), seconds(0));
  EXPECT_EQ(daemon_.ask(std::string("purge ") + ID + " 4 50 KELVANE_PURGE_TIMEOUT=300 KELVANE_VOLUME=" + a_),
            "50");
  EXPECT_LE(handler_.left(), seconds(210));
  EXPECT_GT(handler_.left(), seconds(100));
  const auto first = handler_.left();
  EXPECT_EQ(daemon_.ask(std::string("purge ") + ID + " 4 50 KELVANE_PURGE_TIMEOUT=300 KELVANE_VOLUME=" + a_),
            "50");
  EXPECT_LT(handler_.left(), first) << "it gave all, so it is asked again in the same pass";
}

}  // namespace
}  // namespace kelvane::tests
