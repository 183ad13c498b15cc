#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>

#include "tests/xpc/raw_peer.h"

namespace kelvane::tests {

/// The calling thread, and no other, acts as another user while it lives. For tests that run as root.
class AsUser {
 public:
  explicit AsUser(uid_t user) { change(user); }
  ~AsUser() { change(0); }
  AsUser(const AsUser&) = delete;
  AsUser& operator=(const AsUser&) = delete;

 private:
  // The library's function would change all threads.
  static void change(uid_t user) { ::syscall(SYS_setresuid, -1, user, -1); }
};

/// A peer of that user's, authenticated.
inline RawPeer peerOf(uid_t user, const std::string& path) {
  const AsUser other(user);
  RawPeer peer(path);
  std::string hexadecimal;
  for (const char digit : std::to_string(user)) hexadecimal.append("3").append(1, digit);
  peer.send(std::string("\0AUTH EXTERNAL ", 15) + hexadecimal + "\r\n");
  peer.readLine();
  peer.send("NEGOTIATE_UNIX_FD\r\n");
  peer.readLine();
  peer.send("BEGIN\r\n");
  return peer;
}

}  // namespace kelvane::tests
