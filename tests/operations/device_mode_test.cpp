#include "operations/device_mode.h"

#include <gtest/gtest.h>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "common/keys.h"
#include "operations/operation.h"
#include "support/keybag/lorvad.h"
#include "tests/support/fake_volumes.h"
#include "tests/support/log_capture.h"

namespace kelvane {
namespace {

using tests::FakeVolumes;
using tests::LogCapture;

const char* const multi_user = "MultiUser";
const char* const device_mode_key = "DeviceMode";

/// What the library's function does next, and what became of what it returned.
struct Library {
  const char* mode = nullptr;
  const char* error = nullptr;
  bool returns_nothing = false;
  int released = 0;
  std::string path;
};
Library library;

LVDDictionary dictionary{[](const LVDDictionary*, const char* key) -> const char* {
                           return std::strcmp(key, device_mode_key) == 0 ? library.mode : nullptr;
                         },
                         [](LVDDictionary*) { ++library.released; }};

LVDDictionary* deviceMode(void* reserved, const char** error) {
  EXPECT_EQ(reserved, nullptr);
  *error = library.error;
  return library.returns_nothing ? nullptr : &dictionary;
}

void* everySymbol(const char* path, const char* symbol) {
  library.path = path;
  const std::string name = symbol;
  if (name == "LVDUserTypeDeviceMode") return reinterpret_cast<void*>(&deviceMode);
  if (name == "kLVDDeviceModeMultiUser") return const_cast<void*>(static_cast<const void*>(&multi_user));
  if (name == "kLVDDeviceModeKey") return const_cast<void*>(static_cast<const void*>(&device_mode_key));
  return nullptr;
}
void* noSymbol(const char* /*path*/, const char* /*symbol*/) { return nullptr; }
void* onlyTheFunction(const char* path, const char* symbol) {
  return std::strcmp(symbol, "LVDUserTypeDeviceMode") == 0 ? everySymbol(path, symbol) : nullptr;
}

class DeviceMode : public testing::Test {
 protected:
  DeviceMode() {
    library = Library();
    setDeviceModeLookup(everySymbol);
    volumes_.add("/data");
  }
  ~DeviceMode() override { setDeviceModeLookup(nullptr); }

  static Services servicesOfAnOperation() {
    const auto choosy = std::make_shared<KVService>("choosy");
    choosy->setMultiUserOnly(true);
    const Services services{{"choosy", choosy}, {"plain", std::make_shared<KVService>("plain")}};
    return KelvaneOperation::initWithInfo(Dictionary{{KELVANE_VOLUME, "/data"}}, services)->services();
  }

  LogCapture log_;
  FakeVolumes volumes_;
};

TEST_F(DeviceMode, OnADeviceNotInMultiUserModeAMultiUserOnlyServiceIsNotInServices) {
  library.mode = "SingleUser";
  EXPECT_FALSE(servicesOfAnOperation().contains("choosy"));
  EXPECT_EQ(log_.count(5, "initWithInfo:services: removing multiUserOnly service choosy"), 1u);
  EXPECT_EQ(library.released, 1);
  EXPECT_EQ(library.path, "/System/Library/PrivateFrameworks/Lorvad.framework/Lorvad");
}

TEST_F(DeviceMode, OnADeviceInMultiUserModeEveryServiceStays) {
  library.mode = "MultiUser";
  EXPECT_EQ(servicesOfAnOperation().size(), 2u);
  EXPECT_EQ(log_.count(5, "initWithInfo:services: services: {choosy = (\"multiUserOnly\"); plain = ();}"),
            1u);
  EXPECT_EQ(library.released, 1);
}

TEST_F(DeviceMode, ADictionaryWithoutTheKeyMeansNotMultiUser) {
  EXPECT_FALSE(deviceIsMultiUser("test"));
  EXPECT_EQ(library.released, 1);
}

TEST_F(DeviceMode, AnErrorMeansNotMultiUserAndReleasesWhatCameWithIt) {
  library.mode = "MultiUser";
  library.error = "no key bag";
  EXPECT_FALSE(deviceIsMultiUser("test"));
  EXPECT_EQ(log_.count(3, "test LVDUserTypeDeviceMode error; no key bag"), 1u);
  EXPECT_EQ(library.released, 1);
}

TEST_F(DeviceMode, ReturningNothingMeansNotMultiUser) {
  library.returns_nothing = true;
  EXPECT_FALSE(deviceIsMultiUser("test"));
  EXPECT_EQ(log_.count(3, "test LVDUserTypeDeviceMode error; (null)"), 1u);
}

TEST_F(DeviceMode, AMissingLibraryIsLoggedAndMeansNotMultiUser) {
  setDeviceModeLookup(noSymbol);
  EXPECT_FALSE(servicesOfAnOperation().contains("choosy"));
  EXPECT_EQ(
      log_.count(3,
                 "initWithInfo:services: Unable to get symbols from Lorvad, _LVDUserTypeDeviceMode: 0x0, "
                 "_kLVDDeviceModeSingleUser: 0x0, _kLVDDeviceModeKey: 0x0"),
      1u);
}

TEST_F(DeviceMode, AConstantWithoutAnAddressIsPrintedAsANullValue) {
  setDeviceModeLookup(onlyTheFunction);
  EXPECT_FALSE(deviceIsMultiUser("test"));
  EXPECT_EQ(log_.count(3, "_kLVDDeviceModeSingleUser: 0x0, _kLVDDeviceModeKey: 0x0"), 1u);
  EXPECT_EQ(log_.count(3, "_LVDUserTypeDeviceMode: 0x0"), 0u);
}

TEST_F(DeviceMode, ARecordThatMatchesBothTestsIsLoggedTwice) {
  const auto both = std::make_shared<KVService>("both");
  both->setMultiUserOnly(true);
  both->setNoQuota(true);
  const auto operation = KelvaneOperation::initWithInfo(
      Dictionary{{KELVANE_VOLUME, "/data"}, {KELVANE_QUOTA_EVENT, true}}, {{"both", both}});
  EXPECT_TRUE(operation->services().empty());
  EXPECT_EQ(log_.count(5, "service both"), 2u);
}

}  // namespace
}  // namespace kelvane
