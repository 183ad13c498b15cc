// Changes the files of a killed process at a random place. The next process reads each value correctly or not
// at all, and reports what is missing: the entry, or the file that was set aside.
//
// The test makes 40 changes; for more, or to repeat a run:
//
//   KELVANE_CORRUPTIONS=200 foundation_test --gtest_filter='Corruptions*'
//   KELVANE_CORRUPTIONS_DRAWN_FROM=17 foundation_test --gtest_filter='Corruptions*'

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "tests/foundation/suite_test.h"
#include "tests/support/random_choices.h"

namespace kelvane {
namespace {

namespace fs = std::filesystem;
constexpr int entries = 60;

class Corruptions : public test::SuiteTest {
 protected:
  /// Leaves in the directory "killed" what a killed process leaves: some content in
  /// the file, some in the log only.
  void leaveFiles() {
    auto defaults = openSuite();
    for (int i = 0; i < entries; ++i) store(*defaults, i, "old");
    defaults.reset();
    defaults = openSuite();
    for (int i = 0; i < entries; i += 2) store(*defaults, i, "new");
    fs::create_directory(directory_ / "killed");
    copyFiles(directory_.path(), directory_ / "killed");
  }
  void store(UserDefaults& defaults, int number, const std::string& what) {
    const std::string name = std::to_string(number);
    const Value value = what + name + std::string(choices_.below(number % 9 == 0 ? 20'000 : 300), 'x');
    ASSERT_TRUE(defaults.setEntry(value, name, "key"));
    content_.set(name, value);
  }
  static void copyFiles(const fs::path& from, const fs::path& to) {
    for (const char* suffix : {"", "-wal", "-mark"}) {
      fs::copy_file(from / ("suite.db" + std::string(suffix)), to / ("suite.db" + std::string(suffix)),
                    fs::copy_options::overwrite_existing);
    }
  }
  void change(const std::string& file) {
    std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
    stream.seekp(static_cast<std::streamoff>(choices_.below(fs::file_size(file))));
    for (std::size_t left = 1 + choices_.below(64); left > 0; --left)
      stream.put(static_cast<char>(choices_.below(256)));
  }

  /// Whether anything is missing.
  bool expectRightOrNamed(const std::string& directory) {
    std::string reason;
    const auto defaults = UserDefaults::initWithSuiteName("suite", directory, {}, &reason);
    EXPECT_NE(defaults, nullptr) << reason;
    if (defaults == nullptr) return true;
    std::string said;
    for (const std::string& notice : defaults->takeNotices()) said += notice + "\n";
    const bool is_aside = said.find("is set aside as") != said.npos;
    const Value found = defaults->objectForKey("key");
    const Dictionary state = found.isDictionary() ? *found.dictionary() : Dictionary();
    bool is_missing = false;
    for (const auto& [name, value] : state) EXPECT_TRUE(value == content_[name]) << name << ": " << said;
    for (const auto& [name, value] : content_) {
      if (state.contains(name)) continue;
      is_missing = true;
      EXPECT_TRUE(is_aside || said.find("is damaged and is left out") != said.npos) << name << ": " << said;
    }
    return is_missing;
  }

  const std::uint64_t number_ =
      test::numberFromEnvironment("KELVANE_CORRUPTIONS_DRAWN_FROM", std::random_device{}());
  test::RandomChoices choices_{number_};
  Dictionary content_;
};

TEST_F(Corruptions, NeverGiveAnotherValueAndWhatIsMissingIsNamed) {
  const std::uint64_t count = test::numberFromEnvironment("KELVANE_CORRUPTIONS", 40);
  std::printf("KELVANE_CORRUPTIONS_DRAWN_FROM=%llu\n", static_cast<unsigned long long>(number_));
  leaveFiles();
  std::uint64_t with_loss = 0;
  for (std::uint64_t i = 0; i < count; ++i) {
    SCOPED_TRACE(i);
    const std::string directory = directory_ / ("corrupted" + std::to_string(i));
    fs::create_directory(directory);
    copyFiles(directory_ / "killed", directory);
    change(directory + (choices_.oneIn(2) ? "/suite.db" : "/suite.db-wal"));
    with_loss += expectRightOrNamed(directory) ? 1 : 0;
    fs::remove_all(directory);
  }
  std::printf("%llu of %llu changes cost something\n", static_cast<unsigned long long>(with_loss),
              static_cast<unsigned long long>(count));
  EXPECT_GT(with_loss, 0u);
}

TEST_F(Corruptions, OfTheLastFrameOfTheLogSetTheFileAside) {
  leaveFiles();
  const std::string log = directory_ / "killed/suite.db-wal";
  std::fstream stream(log, std::ios::binary | std::ios::in | std::ios::out);
  stream.seekp(static_cast<std::streamoff>(fs::file_size(log)) - 100);
  stream.put('~');
  stream.close();
  EXPECT_TRUE(expectRightOrNamed(directory_ / "killed"));
  EXPECT_TRUE(fs::exists(directory_ / "killed/suite.db.damaged-1-mark"));
}

}  // namespace
}  // namespace kelvane
