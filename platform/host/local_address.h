#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <algorithm>
#include <cstddef>
#include <iterator>
#include <optional>
#include <string_view>

namespace kelvane {

/// The address of a local socket (unix(7)), in the file system or in the abstract name space.
class LocalAddress {
 public:
  /// Nothing for a path that is not absolute, has a zero byte, or exceeds 107 bytes.
  static std::optional<LocalAddress> ofPath(std::string_view path) {
    if (!path.starts_with('/') || path.find('\0') != std::string_view::npos) return std::nullopt;
    if (path.size() >= sizeof sockaddr_un::sun_path) return std::nullopt;
    LocalAddress result;
    std::copy(path.begin(), path.end(), std::begin(result.address_.sun_path));
    return result;
  }
  /// Nothing for an empty name, or one that exceeds 107 bytes.
  static std::optional<LocalAddress> ofAbstractName(std::string_view name) {
    if (name.empty() || name.size() >= sizeof sockaddr_un::sun_path) return std::nullopt;
    LocalAddress result;
    std::copy(name.begin(), name.end(), std::begin(result.address_.sun_path) + 1);
    // Unlike a path, it has no terminator: the address size marks its end.
    result.size_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return result;
  }

  [[nodiscard]] const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
  [[nodiscard]] socklen_t size() const { return size_; }

 private:
  LocalAddress() { address_.sun_family = AF_UNIX; }

  sockaddr_un address_{};
  socklen_t size_ = sizeof(sockaddr_un);
};

}  // namespace kelvane
