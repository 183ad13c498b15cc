#include <gtest/gtest.h>

#include <sys/stat.h>
#include <filesystem>
#include <memory>
#include <string>

#include "support/keybag/lorvad.h"
#include "support/runtime_symbols.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/scoped_environment.h"

namespace kelvane::tests {
namespace {

constexpr const char* library = LORVAD_PATH;

/// Asks the library, as loaded at run time, about a device whose device-mode file the test writes.
class DeviceMode : public testing::Test {
 protected:
  using Query = LVDDictionary* (*)(void*, const char**);

  static std::string constant(const char* symbol) {
    return *static_cast<const char* const*>(getFunc(library, symbol));
  }

  /// The mode, or "error" with `error_` set.
  std::string mode(void* reserved = nullptr) {
    const auto query = reinterpret_cast<Query>(getFunc(library, "LVDUserTypeDeviceMode"));
    LVDDictionary* const dictionary = query(reserved, &error_);
    if (dictionary == nullptr) return "error";
    EXPECT_EQ(error_, nullptr);
    std::string result = dictionary->value(dictionary, constant("kLVDDeviceModeKey").c_str());
    EXPECT_EQ(dictionary->value(dictionary, "other"), nullptr);
    dictionary->release(dictionary);
    return result;
  }

  bool isMultiUser() { return mode() == constant("kLVDDeviceModeMultiUser"); }

  const test::TemporaryDirectory directory_;
  const ScopedEnvironment configuration_{"CONFIGURATION_DIRECTORY", directory_.path()};
  const char* error_ = "unset";
};

TEST_F(DeviceMode, ADeviceThatSaysSoIsMultiUser) {
  directory_.write("device-mode", "multi-user\n");
  EXPECT_TRUE(isMultiUser());
}

TEST_F(DeviceMode, OnlyTheFirstWordCounts) {
  directory_.write("device-mode", "  multi-user since the workshop");
  EXPECT_TRUE(isMultiUser());
  directory_.write("device-mode", "not multi-user");
  EXPECT_FALSE(isMultiUser());
  directory_.write("device-mode", "multi-users");
  EXPECT_FALSE(isMultiUser());
}

TEST_F(DeviceMode, ADeviceThatSaysNothingHasASingleUser) {
  const std::string without_file = mode();
  EXPECT_NE(without_file, "error");
  EXPECT_NE(without_file, constant("kLVDDeviceModeMultiUser"));
  directory_.write("device-mode", "");
  EXPECT_EQ(mode(), without_file);
}

TEST_F(DeviceMode, AFileThatCannotBeReadIsAnError) {
  std::filesystem::create_directory(directory_ / "device-mode");
  EXPECT_EQ(mode(), "error");
  EXPECT_STREQ(error_, "the device-mode file is no file");
}

TEST_F(DeviceMode, AnOversizedFileIsAnError) {
  directory_.write("device-mode", "multi-user" + std::string(4096, ' '));
  EXPECT_EQ(mode(), "error");
  EXPECT_STREQ(error_, "the device-mode file is too large");
}

TEST_F(DeviceMode, AFIFOIsAnErrorAndNotWaitedFor) {
  ASSERT_EQ(::mkfifo((directory_ / "device-mode").c_str(), 0600), 0);
  EXPECT_EQ(mode(), "error");
}

TEST_F(DeviceMode, AnArgumentWhereNoneIsDefinedIsAnError) {
  EXPECT_EQ(mode(this), "error");
  EXPECT_STREQ(error_, "the first argument must be null");
}

TEST(RuntimeSymbols, AMissingLibraryOrSymbolIsNull) {
  EXPECT_EQ(getFunc("/nonexistent/Lorvad", "LVDUserTypeDeviceMode"), nullptr);
  EXPECT_EQ(getFunc(library, "LVDUserTypeDeviceModes"), nullptr);
  EXPECT_EQ(getFunc(nullptr, "malloc"), nullptr);
  EXPECT_EQ(getFunc(library, nullptr), nullptr);
}

TEST(RuntimeSymbols, ALibraryThatAppearsLaterIsFound) {
  const test::TemporaryDirectory directory;
  const std::string path = directory / "Lorvad";
  EXPECT_EQ(getFunc(path.c_str(), "LVDUserTypeDeviceMode"), nullptr);
  std::filesystem::copy_file(library, path);
  EXPECT_NE(getFunc(path.c_str(), "LVDUserTypeDeviceMode"), nullptr);
}

TEST(RuntimeSymbols, ALibraryOnceLoadedStays) {
  void* const symbol = getFunc(library, "LVDUserTypeDeviceMode");
  ASSERT_NE(symbol, nullptr);
  EXPECT_EQ(getFunc(library, "LVDUserTypeDeviceMode"), symbol);
}

}  // namespace
}  // namespace kelvane::tests
