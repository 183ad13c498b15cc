#include "platform/host/quota_warnings.h"

#include <linux/quota.h>
#include <netlink/attr.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <sys/quota.h>
#include <unistd.h>
#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace kelvane {
namespace {

struct Free {
  void operator()(unsigned char* message) const { std::free(message); }
};

std::optional<QuotaWarning::Of> kindOf(std::uint32_t type) {
  switch (type) {
    case USRQUOTA:
      return QuotaWarning::Of::user;
    case GRPQUOTA:
      return QuotaWarning::Of::group;
    case PRJQUOTA:
      return QuotaWarning::Of::project;
    default:
      return std::nullopt;
  }
}

bool isLimitReached(std::uint32_t warning) {
  return warning >= QUOTA_NL_IHARDWARN && warning <= QUOTA_NL_BSOFTWARN;
}

}  // namespace

void QuotaWarnings::Close::operator()(nl_sock* socket) const { nl_socket_free(socket); }

std::unique_ptr<QuotaWarnings> QuotaWarnings::listen() {
  std::unique_ptr<nl_sock, Close> socket(nl_socket_alloc());
  if (socket == nullptr || genl_connect(socket.get()) != 0) return nullptr;
  const int group = genl_ctrl_resolve_grp(socket.get(), "VFS_DQUOT", "events");
  if (group < 0 || nl_socket_add_membership(socket.get(), group) != 0) return nullptr;
  nl_socket_disable_seq_check(socket.get());
  if (nl_socket_set_nonblocking(socket.get()) != 0) return nullptr;
  return std::unique_ptr<QuotaWarnings>(new QuotaWarnings(std::move(socket)));
}

int QuotaWarnings::descriptor() const { return nl_socket_get_fd(socket_.get()); }

std::optional<QuotaWarning> QuotaWarnings::next() {
  while (true) {
    sockaddr_nl sender{};
    unsigned char* bytes = nullptr;
    const int size = nl_recv(socket_.get(), &sender, &bytes, nullptr);
    const std::unique_ptr<unsigned char, Free> message(bytes);
    if (size == -NLE_NOMEM) return QuotaWarning{QuotaWarning::Of::user, ::getuid(), true};
    if (size <= 0) return std::nullopt;
    if (sender.nl_pid != 0) continue;  // not the kernel
    if (const auto warning = parseQuotaWarning({bytes, static_cast<std::size_t>(size)})) return warning;
  }
}

std::optional<QuotaWarning> parseQuotaWarning(std::span<const unsigned char> message) {
  if (message.empty()) return std::nullopt;
  // Aligned as the header is, which a buffer of bytes need not be.
  std::vector<std::uint64_t> aligned(message.size() / sizeof(std::uint64_t) + 1);
  std::memcpy(aligned.data(), message.data(), message.size());
  auto* const header = reinterpret_cast<nlmsghdr*>(aligned.data());
  if (nlmsg_ok(header, static_cast<int>(message.size())) == 0) return std::nullopt;
  std::array<nla_policy, QUOTA_NL_A_MAX + 1> policy{};
  policy[QUOTA_NL_A_QTYPE].type = NLA_U32;
  policy[QUOTA_NL_A_EXCESS_ID].type = NLA_U64;
  policy[QUOTA_NL_A_WARNING].type = NLA_U32;
  std::array<nlattr*, QUOTA_NL_A_MAX + 1> said{};
  if (genlmsg_valid_hdr(header, 0) == 0 || genlmsg_hdr(header)->cmd != QUOTA_NL_C_WARNING ||
      genlmsg_parse(header, 0, said.data(), QUOTA_NL_A_MAX, policy.data()) != 0) {
    return std::nullopt;
  }
  if (said[QUOTA_NL_A_QTYPE] == nullptr || said[QUOTA_NL_A_EXCESS_ID] == nullptr ||
      said[QUOTA_NL_A_WARNING] == nullptr) {
    return std::nullopt;
  }
  const auto kind = kindOf(nla_get_u32(said[QUOTA_NL_A_QTYPE]));
  if (!kind) return std::nullopt;
  return QuotaWarning{*kind, nla_get_u64(said[QUOTA_NL_A_EXCESS_ID]),
                      isLimitReached(nla_get_u32(said[QUOTA_NL_A_WARNING]))};
}

}  // namespace kelvane
