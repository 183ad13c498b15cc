#include "platform/host/generic_netlink.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

namespace kelvane {
namespace {

using Bytes = std::span<const unsigned char>;

constexpr std::size_t longest_answer = 16 << 10;  // a family's description is a page at most

constexpr std::size_t aligned(std::size_t size) { return (size + 3) / 4 * 4; }

template <class T>
T read(Bytes bytes) {
  T value{};
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

template <class T>
std::optional<T> valueOf(Bytes bytes) {
  if (bytes.size() != sizeof(T)) return std::nullopt;
  return read<T>(bytes);
}

template <class T>
void put(std::vector<unsigned char>& bytes, const T& value) {
  const auto* const first = reinterpret_cast<const unsigned char*>(&value);
  bytes.insert(bytes.end(), first, first + sizeof value);
}

/// Attributes of text end in a null byte.
std::string_view textIn(Bytes value) {
  const std::string_view text(reinterpret_cast<const char*>(value.data()), value.size());
  return text.substr(0, text.find('\0'));
}

/// Asks the kernel what it knows of the family.
std::vector<unsigned char> familyRequest(std::string_view family) {
  std::vector<unsigned char> name(family.begin(), family.end());
  name.push_back(0);
  std::vector<unsigned char> request;
  const std::size_t size = NLMSG_HDRLEN + GENL_HDRLEN + NLA_HDRLEN + aligned(name.size());
  put(request, nlmsghdr{static_cast<std::uint32_t>(size), GENL_ID_CTRL, NLM_F_REQUEST, 1, 0});
  put(request, genlmsghdr{CTRL_CMD_GETFAMILY, 1, 0});
  put(request, nlattr{static_cast<std::uint16_t>(NLA_HDRLEN + name.size()), CTRL_ATTR_FAMILY_NAME});
  request.insert(request.end(), name.begin(), name.end());
  request.resize(size);
  return request;
}

std::optional<int> groupIn(Bytes family, std::string_view wanted) {
  Bytes groups = attributeValue(family, CTRL_ATTR_MCAST_GROUPS);
  while (const auto group = takeAttribute(groups)) {
    if (textIn(attributeValue(group->value, CTRL_ATTR_MCAST_GRP_NAME)) != wanted) continue;
    const auto number = valueOf<std::uint32_t>(attributeValue(group->value, CTRL_ATTR_MCAST_GRP_ID));
    if (number) return static_cast<int>(*number);
  }
  return std::nullopt;
}

/// The kernel answers a request before it returns from taking it.
std::optional<int> resolveGroup(int socket, std::string_view family, std::string_view group) {
  const std::vector<unsigned char> request = familyRequest(family);
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(socket, request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&kernel),
               sizeof kernel) != static_cast<ssize_t>(request.size())) {
    return std::nullopt;
  }
  std::vector<unsigned char> answer(longest_answer);
  const ssize_t size = ::recv(socket, answer.data(), answer.size(), 0);
  if (size <= 0) return std::nullopt;
  const auto message = parseGenericNetlink(Bytes(answer).first(static_cast<std::size_t>(size)));
  if (!message || message->family != GENL_ID_CTRL) return std::nullopt;
  return groupIn(message->attributes, group);
}

}  // namespace

std::optional<NetlinkAttribute> takeAttribute(Bytes& attributes) {
  if (attributes.size() < sizeof(nlattr)) return std::nullopt;
  const auto header = read<nlattr>(attributes);
  if (header.nla_len < NLA_HDRLEN || header.nla_len > attributes.size()) return std::nullopt;
  const NetlinkAttribute taken{static_cast<std::uint16_t>(header.nla_type & NLA_TYPE_MASK),
                               attributes.subspan(NLA_HDRLEN, header.nla_len - NLA_HDRLEN)};
  attributes = attributes.subspan(std::min(aligned(header.nla_len), attributes.size()));
  return taken;
}

Bytes attributeValue(Bytes attributes, std::uint16_t type) {
  while (const auto attribute = takeAttribute(attributes)) {
    if (attribute->type == type) return attribute->value;
  }
  return {};
}

std::optional<GenericNetlinkMessage> parseGenericNetlink(Bytes bytes) {
  constexpr std::size_t headers = NLMSG_HDRLEN + GENL_HDRLEN;
  if (bytes.size() < headers) return std::nullopt;
  const auto header = read<nlmsghdr>(bytes);
  if (header.nlmsg_len < headers || header.nlmsg_len > bytes.size()) return std::nullopt;
  const auto generic = read<genlmsghdr>(bytes.subspan(NLMSG_HDRLEN));
  return GenericNetlinkMessage{header.nlmsg_type, generic.cmd,
                               bytes.subspan(headers, header.nlmsg_len - headers)};
}

FileDescriptor listenToNetlinkGroup(std::string_view family, std::string_view group) {
  FileDescriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_GENERIC));
  sockaddr_nl self{};
  self.nl_family = AF_NETLINK;
  if (!socket || ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&self), sizeof self) != 0) return {};
  const auto number = resolveGroup(socket.get(), family, group);
  if (!number ||
      ::setsockopt(socket.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &*number, sizeof *number) != 0) {
    return {};
  }
  return socket;
}

}  // namespace kelvane
