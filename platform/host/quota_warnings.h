#pragma once

// The kernel's warnings that somebody has come to a limit of a disk quota, or is below it again. They come by
// netlink, to whoever listens; no privilege is needed.

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

struct nl_sock;

namespace kelvane {

struct QuotaWarning {
  enum class Of : std::uint8_t { user, group, project };
  Of of;
  std::uint64_t id;
  bool exceeded;  // false: below the limit again
};

/// One thread at a time.
class QuotaWarnings {
 public:
  /// Null where the kernel sends none.
  static std::unique_ptr<QuotaWarnings> listen();

  /// Readable when a warning has come; to be watched only, and closed with this object.
  [[nodiscard]] int descriptor() const;
  /// The next warning; nothing when there is none for now. When so many came that the kernel dropped some,
  /// one of them is taken to have been for the own user.
  [[nodiscard]] std::optional<QuotaWarning> next();

 private:
  struct Close {
    void operator()(nl_sock* socket) const;
  };
  explicit QuotaWarnings(std::unique_ptr<nl_sock, Close> socket) : socket_(std::move(socket)) {}

  const std::unique_ptr<nl_sock, Close> socket_;
};

/// What a netlink message says; nothing when it is no quota warning.
[[nodiscard]] std::optional<QuotaWarning> parseQuotaWarning(std::span<const unsigned char> message);

}  // namespace kelvane
