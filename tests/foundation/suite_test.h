#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include "platform/foundation/user_defaults.h"
#include "tests/foundation/temporary_directory.h"

namespace kelvane::test {

/// A directory with the suite "suite" in it.
class SuiteTest : public ::testing::Test {
 protected:
  std::shared_ptr<UserDefaults> openSuite(UserDefaultsOptions options = {}) {
    std::string reason;
    auto defaults = UserDefaults::initWithSuiteName("suite", directory_.path(), std::move(options), &reason);
    EXPECT_NE(defaults, nullptr) << reason;
    return defaults;
  }

  /// What a freshly opened suite holds under `key`.
  Value stored(std::string_view key) { return openSuite()->objectForKey(key); }

  [[nodiscard]] std::string path(std::string_view suffix = "") const {
    return directory_ / ("suite.db" + std::string(suffix));
  }
  [[nodiscard]] std::uintmax_t logSize() const { return std::filesystem::file_size(path("-wal")); }

  test::TemporaryDirectory directory_;
};

}  // namespace kelvane::test
