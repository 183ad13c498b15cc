// The kernel's messages about quotas, made here byte by byte as it makes them.

#include "platform/host/quota_warnings.h"

#include <gtest/gtest.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/quota.h>
#include <sys/quota.h>
#include <cstring>
#include <vector>

namespace kelvane {
namespace {

using Bytes = std::vector<unsigned char>;

template <class T>
void put(Bytes& bytes, const T& value) {
  const auto* first = reinterpret_cast<const unsigned char*>(&value);
  bytes.insert(bytes.end(), first, first + sizeof value);
}

template <class T>
void attribute(Bytes& bytes, std::uint16_t type, T value) {
  put(bytes, nlattr{static_cast<std::uint16_t>(NLA_HDRLEN + sizeof value), type});
  put(bytes, value);
}

Bytes message(std::uint8_t command, const Bytes& attributes) {
  Bytes bytes;
  put(bytes,
      nlmsghdr{static_cast<std::uint32_t>(NLMSG_HDRLEN + GENL_HDRLEN + attributes.size()), 20, 0, 7, 0});
  put(bytes, genlmsghdr{command, 1, 0});
  bytes.insert(bytes.end(), attributes.begin(), attributes.end());
  return bytes;
}

Bytes warning(std::uint32_t type, std::uint64_t id, std::uint32_t what) {
  Bytes attributes;
  attribute<std::uint32_t>(attributes, QUOTA_NL_A_QTYPE, type);
  attribute<std::uint64_t>(attributes, QUOTA_NL_A_EXCESS_ID, id);
  attribute<std::uint32_t>(attributes, QUOTA_NL_A_WARNING, what);
  attribute<std::uint32_t>(attributes, QUOTA_NL_A_DEV_MAJOR, 8);
  attribute<std::uint32_t>(attributes, QUOTA_NL_A_DEV_MINOR, 1);
  attribute<std::uint64_t>(attributes, QUOTA_NL_A_CAUSED_ID, 1000);
  return message(QUOTA_NL_C_WARNING, attributes);
}

TEST(QuotaWarning, SaysWhoseQuotaItIs) {
  const auto user = parseQuotaWarning(warning(USRQUOTA, 1000, QUOTA_NL_BSOFTWARN));
  ASSERT_TRUE(user);
  EXPECT_EQ(user->of, QuotaWarning::Of::user);
  EXPECT_EQ(user->id, 1000U);
  EXPECT_TRUE(user->exceeded);
  EXPECT_EQ(parseQuotaWarning(warning(GRPQUOTA, 1, QUOTA_NL_BSOFTWARN))->of, QuotaWarning::Of::group);
  EXPECT_EQ(parseQuotaWarning(warning(PRJQUOTA, 1, QUOTA_NL_BSOFTWARN))->of, QuotaWarning::Of::project);
}

TEST(QuotaWarning, TellsALimitReachedFromOneThatIsClearAgain) {
  for (const std::uint32_t what : {QUOTA_NL_IHARDWARN, QUOTA_NL_ISOFTLONGWARN, QUOTA_NL_ISOFTWARN,
                                   QUOTA_NL_BHARDWARN, QUOTA_NL_BSOFTLONGWARN, QUOTA_NL_BSOFTWARN}) {
    EXPECT_TRUE(parseQuotaWarning(warning(USRQUOTA, 0, what))->exceeded) << what;
  }
  for (const std::uint32_t what : {QUOTA_NL_IHARDBELOW, QUOTA_NL_ISOFTBELOW, QUOTA_NL_BHARDBELOW,
                                   QUOTA_NL_BSOFTBELOW, QUOTA_NL_NOWARN, 99}) {
    EXPECT_FALSE(parseQuotaWarning(warning(USRQUOTA, 0, what))->exceeded) << what;
  }
}

TEST(QuotaWarning, IsNothingForAMessageOfAnotherKind) {
  EXPECT_FALSE(parseQuotaWarning({}));
  EXPECT_FALSE(parseQuotaWarning(message(QUOTA_NL_C_WARNING + 1, {})));
  EXPECT_FALSE(parseQuotaWarning(message(QUOTA_NL_C_WARNING, {})));
  EXPECT_FALSE(parseQuotaWarning(warning(7, 1000, QUOTA_NL_BSOFTWARN)));
  Bytes narrow;  // an id of the wrong width
  attribute<std::uint32_t>(narrow, QUOTA_NL_A_QTYPE, USRQUOTA);
  attribute<std::uint32_t>(narrow, QUOTA_NL_A_EXCESS_ID, 1000);
  attribute<std::uint32_t>(narrow, QUOTA_NL_A_WARNING, QUOTA_NL_BSOFTWARN);
  EXPECT_FALSE(parseQuotaWarning(message(QUOTA_NL_C_WARNING, narrow)));
}

TEST(QuotaWarning, IsNothingForAMessageCutOffAnywhere) {
  const Bytes whole = warning(USRQUOTA, 1000, QUOTA_NL_BSOFTWARN);
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(parseQuotaWarning(std::span(whole).first(size))) << size;
  }
  ASSERT_TRUE(parseQuotaWarning(whole));
}

}  // namespace
}  // namespace kelvane
