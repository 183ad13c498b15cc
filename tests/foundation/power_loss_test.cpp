// The power fails at any moment, and the suite holds what it promised: after each loss it opens, with nothing
// set aside, and holds what it held at some moment, which is no earlier than that of the last value it had
// promised to be on the disk.
//
// Everything about a suite and its three losses is drawn from its number. There are 300; for more, or for one
// again:
//
//   KELVANE_POWER_LOSSES=20000 foundation_test --gtest_filter='PowerLoss*'
//   KELVANE_FIRST_POWER_LOSS=17 KELVANE_POWER_LOSSES=1 foundation_test --gtest_filter='PowerLoss*'

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/user_defaults.h"
#include "tests/foundation/power_loss_vfs.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/random_choices.h"

namespace kelvane {
namespace {

constexpr const char* recreatable = "recent";

/// A suite, all that it ever held, and what it promised.
class Suite {
 public:
  explicit Suite(std::uint64_t number)
      : choices_(number), vfs_(choices_), writes_big_values_(choices_.oneIn(25)) {}

  /// Opens it, and writes, closing and opening it again now and then, until the power fails: while it is
  /// first opened, at any time later, or when all is done.
  void useUntilPowerFails() {
    // So many big values fill the log, which is then written back while the suite is open.
    vfs_.failAfter(choices_.below(writes_big_values_ ? 10'000 : std::size_t{1} << choices_.below(10)));
    std::shared_ptr<UserDefaults> defaults = open(test::PowerLossVFS::name);
    std::size_t left = choices_.below(100);
    for (; left > 0 && defaults != nullptr && !vfs_.hasFailed(); --left) {
      if (choices_.oneIn(writes_big_values_ ? 100 : 15)) {
        defaults.reset();
        defaults = open(test::PowerLossVFS::name);
      } else {
        write(*defaults);
      }
    }
    defaults.reset();
    vfs_.losePower();
  }

  /// Null only when the power fails meanwhile.
  std::shared_ptr<UserDefaults> open(std::string vfs = {}) {
    std::string reason;
    auto defaults = UserDefaults::initWithSuiteName("suite", directory_.path(),
                                                    {{recreatable}, std::move(vfs), room_}, &reason);
    EXPECT_TRUE(defaults != nullptr || vfs_.hasFailed()) << reason;
    EXPECT_FALSE(std::filesystem::exists(directory_ / "suite.db.damaged-1"));
    if (defaults != nullptr) takeIn(*defaults);
    return defaults;
  }

 private:
  /// What is found is what was held at a moment since the last promise. That may be a moment which the loss
  /// before took back: what it tore in the log, writing over it until the next loss may mend.
  void takeIn(const UserDefaults& defaults) {
    Dictionary found;
    for (const char* key : {"dictionary", "other"}) found.set(key, defaults.objectForKey(key));
    const auto promised = held_.begin() + static_cast<std::ptrdiff_t>(promised_);
    EXPECT_NE(std::find(promised, held_.end(), found), held_.end());
    held_.push_back(found);
  }

  void write(UserDefaults& defaults) {
    const bool in_dictionary = !choices_.oneIn(8);
    const char* const key = in_dictionary ? "dictionary" : "other";
    const Value value = in_dictionary ? changed(held_.back()[key]) : newValue();
    Dictionary next = held_.back();
    next.set(key, value);
    const bool may_be_lost = withoutRecreatable(next) == withoutRecreatable(held_.back());
    held_.push_back(next);
    defaults.setObject(value, key);
    EXPECT_TRUE(defaults.lastError().empty() || vfs_.hasFailed()) << defaults.lastError();
    if (defaults.lastError().empty() && !may_be_lost) promised_ = held_.size() - 1;
  }

  Value changed(const Value& before) {
    Dictionary entries = before.isDictionary() ? *before.dictionary() : Dictionary();
    if (choices_.oneIn(30)) return {};
    if (choices_.oneIn(3)) {
      entries.set(recreatable, newValue());
      return entries;
    }
    for (std::size_t left = 1 + choices_.below(3); left > 0; --left)
      entries.set("entry" + std::to_string(choices_.below(6)), newValue());
    return entries;
  }

  /// One that was never written before, or nothing.
  Value newValue() {
    if (choices_.oneIn(6)) return {};
    const std::size_t length = choices_.oneIn(writes_big_values_ ? 2 : 50) ? 100'000 : choices_.below(3'000);
    return std::to_string(++values_made_) + std::string(length, 'x');
  }

  static Dictionary withoutRecreatable(Dictionary held) {
    if (!held["dictionary"].isDictionary()) return held;
    Dictionary entries = *held["dictionary"].dictionary();
    entries.remove(recreatable);
    held.set("dictionary", entries);
    return held;
  }

  // In memory, so that the default VFS, which syncs in earnest, does not wait for a disk.
  test::TemporaryDirectory directory_{"/dev/shm"};
  test::RandomChoices choices_;
  test::PowerLossVFS vfs_;
  const bool writes_big_values_;
  const SuiteRoom room_ = choices_.oneIn(2) ? SuiteRoom{1 << 18, 1 << 16} : SuiteRoom();
  std::size_t values_made_ = 0;
  std::vector<Dictionary> held_ = {{}};  // after each write and each opening
  std::size_t promised_ = 0;             // which of them is on the disk, at the least
};

TEST(PowerLoss, LeavesTheSuiteAsItWasAtAMomentSinceTheLastPromise) {
  const std::uint64_t first = test::numberFromEnvironment("KELVANE_FIRST_POWER_LOSS", 1);
  const std::uint64_t count = test::numberFromEnvironment("KELVANE_POWER_LOSSES", 300);
  for (std::uint64_t number = first; number < first + count; ++number) {
    SCOPED_TRACE("KELVANE_FIRST_POWER_LOSS=" + std::to_string(number));
    Suite suite(number);
    for (int losses = 0; losses < 3; ++losses) suite.useUntilPowerFails();
    suite.open();
  }
}

}  // namespace
}  // namespace kelvane
