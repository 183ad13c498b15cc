// A worker's report, which its user can forge.

#include "caches/report.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cstring>

#include "tests/support/random_choices.h"

namespace kelvane::caches::tests {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

constexpr std::uint64_t volume_bytes = 1'000'000;
constexpr std::size_t head_bytes = 24;  // type, user, key
constexpr std::int64_t now = 1'700'000'000;

RootReport rootReport() {
  RootReport root;
  root.path = "/home/alice/.cache/pip";
  root.volume = "/home";
  root.user = 0;  // ignored: the job has the user
  root.survey.taken_at = now + 5;
  root.survey.at_urgency[2] = {4096, 2};
  root.survey.newest_at_urgency[2] = now - 7;
  root.survey.ages.buckets[300] = {4096, 2};
  root.survey.complete = true;
  root.purge.freed = 8192;
  root.purge.end = client::CachePurge::End::amountFreed;
  return root;
}

struct SocketPair {
  SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends), 0); }
  ~SocketPair() {
    ::close(ends[0]);
    ::close(ends[1]);
  }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;
  int ends[2] = {-1, -1};
};

class Report : public testing::Test {
 protected:
  Report() {
    job_.user.id = 1000;
    job_.now = now;
    job_.volume = "/home";
  }

  std::string received() {
    std::string message(ReportLimits::longest_message, '\0');
    const ssize_t length = ::recv(sockets_.ends[1], message.data(), message.size(), MSG_TRUNC);
    EXPECT_GT(length, 0);
    message.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return message;
  }
  ReportReader reader(ReportReader::Item item = {}) {
    return {job_, [](const std::string& volume) { return volume == "/home" ? volume_bytes : 0; },
            std::move(item)};
  }
  static bool take(ReportReader& reader, const std::string& message) {
    return reader.take(message.data(), message.size());
  }
  std::string rootMessage(const RootReport& root) {
    writer_.root(root, {7, 8});
    return received();
  }

  Job job_;
  SocketPair sockets_;
  ReportWriter writer_{sockets_.ends[0]};
};

TEST_F(Report, ArrivesAsItWasWritten) {
  ReportReader read = reader();
  ASSERT_TRUE(take(read, rootMessage(rootReport())));
  writer_.end(true, "all is well");
  ASSERT_TRUE(take(read, received()));
  EXPECT_TRUE(read.hasEnded());
  EXPECT_TRUE(read.answer().complete);
  EXPECT_EQ(read.answer().reason, "all is well");
  ASSERT_THAT(read.answer().roots, SizeIs(1));
  const ReportedRoot& root = read.answer().roots.front();
  EXPECT_EQ(root.key, (RootKey{7, 8}));
  EXPECT_EQ(root.report.path, "/home/alice/.cache/pip");
  EXPECT_EQ(root.report.user, 1000U);
  EXPECT_EQ(root.report.survey.taken_at, now);
  EXPECT_EQ(root.report.survey.at_urgency[2].bytes, 4096U);
  EXPECT_EQ(root.report.survey.newest_at_urgency[2], now - 7);
  EXPECT_EQ(root.report.survey.ages.buckets[300].items, 2U);
  EXPECT_TRUE(root.report.survey.complete);
  EXPECT_EQ(root.report.purge.freed, 8192U);
  EXPECT_EQ(root.report.purge.end, client::CachePurge::End::amountFreed);
}

TEST_F(Report, IsNotBelievedBeyondWhatTheVolumeHolds) {
  RootReport root = rootReport();
  root.survey.at_urgency[3] = {UINT64_MAX, UINT64_MAX};
  root.survey.newest_at_urgency[3] = INT64_MAX;
  root.survey.ages.buckets[1] = {UINT64_MAX - 1, 1};
  root.purge.freed = static_cast<std::uint64_t>(-5);
  ReportReader read = reader();
  ASSERT_TRUE(take(read, rootMessage(root)));
  const RootReport& believed = read.answer().roots.front().report;
  EXPECT_EQ(believed.survey.at_urgency[3].bytes, volume_bytes);
  EXPECT_LE(believed.survey.at_urgency[3].items, volume_bytes);
  EXPECT_EQ(believed.survey.newest_at_urgency[3], now);
  EXPECT_EQ(believed.survey.ages.buckets[1].bytes, volume_bytes);
  EXPECT_EQ(believed.purge.freed, volume_bytes);
}

TEST_F(Report, OfAVolumeThatIsNotThereIsNotBelievedAtAll) {
  job_.volume.clear();
  RootReport root = rootReport();
  root.volume = "/elsewhere";
  ReportReader read = reader();
  ASSERT_TRUE(take(read, rootMessage(root)));
  EXPECT_EQ(read.answer().roots.front().report.survey.at_urgency[2].bytes, 0U);
  EXPECT_EQ(read.answer().roots.front().report.purge.freed, 0U);
}

TEST_F(Report, OfAnotherVolumeThanAskedIsRefused) {
  RootReport root = rootReport();
  root.volume = "/";
  ReportReader read = reader();
  EXPECT_FALSE(take(read, rootMessage(root)));
}

TEST_F(Report, WithWrongSizesIsRefused) {
  const std::string whole = rootMessage(rootReport());
  for (const std::size_t size : {std::size_t{0}, std::size_t{3}, head_bytes, whole.size() - 1}) {
    ReportReader read = reader();
    EXPECT_FALSE(take(read, whole.substr(0, size))) << size;
  }
  ReportReader read = reader();
  EXPECT_FALSE(take(read, whole + "x"));
}

TEST_F(Report, WithInvalidPathsIsRefused) {
  RootReport root = rootReport();
  root.path = "relative";
  ReportReader read = reader();
  EXPECT_FALSE(take(read, rootMessage(root)));
  root.path = std::string("/a\0b", 4);
  EXPECT_FALSE(take(read, rootMessage(root)));
}

TEST_F(Report, OfTooManyRootsIsRefused) {
  const std::string message = rootMessage(rootReport());
  ReportReader read = reader();
  for (std::size_t i = 0; i < ReportLimits::most_roots; ++i) ASSERT_TRUE(take(read, message));
  EXPECT_FALSE(take(read, message));
}

TEST_F(Report, EndsOnce) {
  writer_.end(false, "");
  const std::string end = received();
  ReportReader read = reader();
  EXPECT_TRUE(take(read, end));
  EXPECT_FALSE(take(read, end));
  EXPECT_FALSE(take(read, rootMessage(rootReport())));
}

TEST_F(Report, HasItemsOnlyWhenTheyWereAskedFor) {
  const std::string name("caf\xe9 \x1b[2J",
                         9);  // not UTF-8, with control characters; bytes are kept
  EXPECT_TRUE(writer_.item({7, 8}, {name, 512, now}));
  EXPECT_TRUE(writer_.item({7, 8}, {"http/b", 1024, now - 1}));
  writer_.end(true, "");
  const std::string items = received();
  std::vector<std::string> paths;
  ReportReader asked = reader([&](const RootKey& root, const client::CacheItem& item) {
    EXPECT_EQ(root, (RootKey{7, 8}));
    paths.push_back(item.path + " " + std::to_string(item.bytes));
    return true;
  });
  EXPECT_TRUE(take(asked, items));
  EXPECT_THAT(paths, ElementsAre(name + " 512", "http/b 1024"));
  ReportReader unasked = reader();
  EXPECT_FALSE(take(unasked, items));
  ReportReader sated = reader([](const RootKey&, const client::CacheItem&) { return false; });
  EXPECT_FALSE(take(sated, items));
}

TEST_F(Report, OfItemsThatReachOutsideTheMessageIsRefused) {
  EXPECT_TRUE(writer_.item({7, 8}, {"a", 512, now}));
  writer_.end(true, "");
  const std::string items = received();
  const auto anything = [](const RootKey&, const client::CacheItem&) { return true; };
  std::string long_path = items;
  const std::uint32_t length = 60'000;
  std::memcpy(long_path.data() + 24 + 16, &length, sizeof length);
  std::string many = items;
  const std::uint32_t count = 0xffff'ffff;
  std::memcpy(many.data() + 4, &count, sizeof count);
  for (const std::string& message : {long_path, many, items + "x", items.substr(0, items.size() - 1)}) {
    ReportReader read = reader(anything);
    EXPECT_FALSE(take(read, message));
  }
}

TEST_F(Report, OfRandomBytesIsRefusedOrBounded) {
  kelvane::test::RandomChoices choices(20'260);
  const std::string whole = rootMessage(rootReport());
  const std::uint64_t count = kelvane::test::numberFromEnvironment("KELVANE_REPORT_MUTATIONS", 20'000);
  std::uint64_t taken = 0;
  for (std::uint64_t i = 0; i < count; ++i) {
    std::string message = whole;
    // Mostly in the fields that are interpreted: the head, and the lengths after the figures.
    const std::size_t from = choices.oneIn(2) ? 0 : message.size() - 9000;
    for (int changes = 0; changes < 4; ++changes) {
      message[from + choices.below(std::min<std::size_t>(400, message.size() - from))] =
          static_cast<char>(choices.below(256));
    }
    ReportReader read = reader();
    if (!take(read, message)) continue;
    ++taken;
    const RootReport& root = read.answer().roots.empty() ? RootReport() : read.answer().roots.front().report;
    ASSERT_LE(root.survey.at_urgency[2].bytes, volume_bytes);
    ASSERT_LE(root.purge.freed, volume_bytes);
    ASSERT_LE(root.path.size(), Job::longest_path);
    ASSERT_LE(root.reason.size(), ReportLimits::longest_reason);
  }
  EXPECT_GT(taken, 0U);
}

TEST(JobMessage, IsReadAsItWasWrittenAndRefusedWhenItIsNot) {
  Job job;
  job.kind = Job::Kind::purge;
  job.definition = 3;
  job.user = {1000, 100, "alice", "/home/alice"};
  job.volume = "/home";
  job.urgency = 2;
  job.newest = -5;
  job.shares = {{{1, 2}, 300}, {{4, 5}, 600}};
  job.now = now;
  const std::string message = encode(job);
  const std::optional<Job> read = decodeJob(message);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->kind, Job::Kind::purge);
  EXPECT_EQ(read->user.home, "/home/alice");
  EXPECT_EQ(read->user.group, 100U);
  EXPECT_EQ(read->volume, "/home");
  EXPECT_EQ(read->newest, -5);
  ASSERT_THAT(read->shares, SizeIs(2));
  EXPECT_EQ(read->shares[1].root, (RootKey{4, 5}));
  EXPECT_EQ(read->shares[1].amount, 600U);
  EXPECT_EQ(read->deadline, job.deadline);
  EXPECT_FALSE(decodeJob(message.substr(1)));
  EXPECT_FALSE(decodeJob(message + "x"));
  job.user.home = std::string(Job::longest_path + 1, 'x');
  EXPECT_EQ(encode(job), "");
}

}  // namespace
}  // namespace kelvane::caches::tests
