#pragma once

#include <sys/types.h>
#include <cstddef>
#include <string>

namespace kelvane::bench {

/// The ID of one of many services.
[[nodiscard]] std::string serviceID(std::size_t number);

/// So many services made with this project's library, in one process of their own. They answer what those of
/// a ServiceHost answer.
class LibraryServices {
 public:
  /// Forks, so the program must have no threads yet. Returns when all have checked in with the daemon; ends
  /// the program, with the reason, when they do not within a minute. `apart`: on the far processor.
  LibraryServices(const std::string& daemon_socket, std::size_t count, bool apart);
  ~LibraryServices();
  LibraryServices(const LibraryServices&) = delete;
  LibraryServices& operator=(const LibraryServices&) = delete;

  [[nodiscard]] pid_t ID() const { return process_; }

 private:
  pid_t process_ = -1;
};

}  // namespace kelvane::bench
