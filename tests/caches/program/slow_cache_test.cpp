// Five caches, one of them slow, and its effect on the others.

#include <gmock/gmock.h>
#include <cstdlib>
#include <filesystem>

#include "common/keys.h"
#include "tests/caches/program/caches_machine.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t page = 4096;
constexpr unsigned fast_files = 30;
constexpr unsigned young_files = 5;
const std::vector<std::string> fast = {"fast-1", "fast-2", "fast-3", "fast-4"};

/// KELVANE_TEST_SLOW_FILES=100000 tests a large cache.
unsigned slowFiles() {
  const char* const given = std::getenv("KELVANE_TEST_SLOW_FILES");
  return given != nullptr ? static_cast<unsigned>(std::atoi(given)) : 10'000;
}

unsigned megabytesNeeded() {
  return static_cast<unsigned>(slowFiles() * page / mebibyte) + 5 * (fast_files + young_files) + 16;
}

std::size_t countOf(const CachesMachine& machine, const std::string& cache, const std::string& prefix) {
  std::size_t count = 0;
  for (const auto& file : fs::directory_iterator(machine.cacheOf(cache)))
    count += file.path().filename().string().starts_with(prefix) ? 1 : 0;
  return count;
}

/// Each deletion takes three milliseconds, so deleting the share of the small files takes longer than the
/// pass.
TEST(ASlowCache, AnswersInTimeWithAllThatWentAndNothingYoungerGoesForIt) {
  const CachesMachine machine(megabytesNeeded());
  std::vector<std::string> names = fast;
  names.emplace_back("slow");
  for (const std::string& name : names) {
    machine.define(name, "2 = \"30d\"\n3 = \"7d\"\n4 = \"1h\"");
    machine.fill(name, young_files, mebibyte, 10 * day, "young");
  }
  for (const std::string& name : fast) machine.fill(name, fast_files, mebibyte, 40 * day, "old");
  machine.fill("slow", slowFiles(), page, 40 * day, "old");
  const Declared declared(names);
  Daemon daemon;
  CachesService service(machine, daemon, names, {"OLD_FILES_SLOWNESS=3000"});

  constexpr std::uint64_t asked = 75 * mebibyte;
  const std::uint64_t before = machine.freeSpace();
  Client client(daemon);
  const auto answer =
      client.purge({{KELVANE_VOLUME, machine.volume()}, {KELVANE_AMOUNT, asked}, {KELVANE_URGENCY_LIMIT, 3}});
  ASSERT_TRUE(answer);
  const std::uint64_t claimed = (*answer)[KELVANE_AMOUNT].unsignedLongLongValue();
  const std::uint64_t measured = machine.freeSpace() - before;
  EXPECT_EQ(service.process().count("slow: freed") > 0 && service.process().count("its time had run out") > 0,
            true)
      << "the slow cache was to be too slow: " << service.process().output();
  EXPECT_NEAR(static_cast<double>(claimed), static_cast<double>(measured),
              0.02 * static_cast<double>(measured));
  EXPECT_GE(claimed, asked) << service.process().output();
  for (const std::string& name : names) EXPECT_EQ(countOf(machine, name, "young"), young_files) << name;
}

}  // namespace
}  // namespace kelvane::tests
