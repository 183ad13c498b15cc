// The real program where others than root are at work: only root can become these.

#include <filesystem>
#include <memory>

#include "tests/system/services.h"
#include "tests/tools/program.h"
#include "tests/tools/screens.h"

namespace kelvane::tests {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

TEST(Kelvanectl, SaysWhenThereIsNoRight) {
  const Volume volume(8);
  Daemon daemon(built("kelvaned"), {});
  const std::string command = "setpriv --reuid=65534 --regid=65534 --clear-groups " + built("kelvanectl") +
                              " --daemon " + daemon.socket() + " purgeable " + volume.path();
  std::filesystem::permissions(std::filesystem::path(daemon.runtimeFolder()).parent_path(),
                               std::filesystem::perms(0755));
  const Finished refused = run({"sh", "-c", command}, environment());
  EXPECT_EQ(refused.status, 3) << refused.output;
  EXPECT_THAT(refused.output,
              MatchesRegex("kelvanectl: the daemon does not accept .*; ask as root or as a member "
                           "of the group kelvane\n"));
}

TEST(Kelvanectl, LetsOnlyRootStartWhatRunsInTheDaemon) {
  Daemon daemon;
  std::filesystem::permissions(std::filesystem::path(daemon.runtimeFolder()).parent_path(),
                               std::filesystem::perms(0755));
  const Finished refused =
      run({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", built("kelvanectl"), "--daemon",
           daemon.socket(), "activity", "run", "com.orvel.Kelvane.daily"},
          environment());
  EXPECT_EQ(refused.status, 3) << refused.output;
}

TEST(DeclaredService, IsShownAsEntitledOrNotByWhoRunsIt) {
  Daemon daemon;
  namespace fs = std::filesystem;
  fs::permissions(fs::path(daemon.runtimeFolder()).parent_path(), fs::perms(0755));
  fs::create_directories(daemon.runtimeFolder() + "/services");
  fs::permissions(daemon.runtimeFolder() + "/services", fs::perms(0777));
  const std::string socket = daemon.runtimeFolder() + "/services/com.example.maps";
  const std::string descriptor = std::string(system_descriptors) + "/maps.plist";
  const std::unique_ptr<const std::string, void (*)(const std::string*)> removed_at_the_end(
      &descriptor, [](const std::string* path) { fs::remove(*path); });
  writeFile(descriptor, propertyList("<key>KELVANE_ID</key><string>com.example.maps</string>"));
  EXPECT_THAT(ctl(daemon, {"services"}).output, HasSubstr("  entitled or not: unknown; it does not run\n"));
  std::vector<std::string> command = {
      built("service_program"), "deletes", "com.example.maps", "/", "--listen", socket};
  {
    Process service(command);
    ASSERT_TRUE(service.printed("registered")) << service.output();
    EXPECT_THAT(ctl(daemon, {"services"}).output, HasSubstr("  reachable\n  entitled (user 0)\n"));
    expectMatchesSchema(ctl(daemon, {"--json", "services"}).output);
  }
  fs::remove(socket);
  command.insert(command.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
  Process service(command);
  ASSERT_TRUE(service.printed("registered")) << service.output();
  EXPECT_THAT(ctl(daemon, {"services"}).output,
              HasSubstr("  reachable\n  not entitled: user 65534 lacks CLIENT_ENTITLEMENT\n"));
}

}  // namespace
}  // namespace kelvane::tests
