#include "platform/host/quota_warnings.h"

#include <linux/netlink.h>
#include <linux/quota.h>
#include <sys/quota.h>
#include <sys/socket.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/host/generic_netlink.h"

namespace kelvane {
namespace {

constexpr std::size_t longest_warning = 4096;  // they have six numbers

/// The attribute's number; nothing when it is missing or of another width.
template <class T>
std::optional<T> numberIn(std::span<const unsigned char> attributes, std::uint16_t type) {
  const std::span<const unsigned char> bytes = attributeValue(attributes, type);
  T number{};
  if (bytes.size() != sizeof number) return std::nullopt;
  std::memcpy(&number, bytes.data(), sizeof number);
  return number;
}

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

std::unique_ptr<QuotaWarnings> QuotaWarnings::listen() {
  FileDescriptor socket = listenToNetlinkGroup("VFS_DQUOT", "events");
  if (!socket) return nullptr;
  return std::unique_ptr<QuotaWarnings>(new QuotaWarnings(std::move(socket)));
}

std::optional<QuotaWarning> QuotaWarnings::next() {
  std::array<unsigned char, longest_warning> bytes;
  while (true) {
    sockaddr_nl sender{};
    socklen_t length = sizeof sender;
    const ssize_t size = ::recvfrom(socket_.get(), bytes.data(), bytes.size(), 0,
                                    reinterpret_cast<sockaddr*>(&sender), &length);
    if (size < 0 && errno == ENOBUFS) return QuotaWarning{QuotaWarning::Of::user, ::getuid(), true};
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return std::nullopt;
    if (sender.nl_pid != 0) continue;  // not the kernel
    if (const auto warning = parseQuotaWarning(std::span(bytes).first(static_cast<std::size_t>(size))))
      return warning;
  }
}

std::optional<QuotaWarning> parseQuotaWarning(std::span<const unsigned char> bytes) {
  const auto message = parseGenericNetlink(bytes);
  if (!message || message->command != QUOTA_NL_C_WARNING) return std::nullopt;
  const auto type = numberIn<std::uint32_t>(message->attributes, QUOTA_NL_A_QTYPE);
  const auto id = numberIn<std::uint64_t>(message->attributes, QUOTA_NL_A_EXCESS_ID);
  const auto warning = numberIn<std::uint32_t>(message->attributes, QUOTA_NL_A_WARNING);
  if (!type || !id || !warning) return std::nullopt;
  const auto kind = kindOf(*type);
  if (!kind) return std::nullopt;
  return QuotaWarning{*kind, *id, isLimitReached(*warning)};
}

}  // namespace kelvane
