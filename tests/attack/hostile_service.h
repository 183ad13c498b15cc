#pragma once

#include <array>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "tests/attack/requests.h"

namespace kelvane::tests {

/// A service that writes raw bytes, behind an endpoint.
class RawService {
 public:
  RawService();

  /// The end to be passed at check-in.
  [[nodiscard]] int endpoint() const { return given_.get(); }
  /// Drops this process's copy of that end, once it was passed.
  void forgetEndpoint() { given_.reset(); }
  /// The next connection that the daemon opens, with the handshake done; nothing when the endpoint was
  /// closed.
  [[nodiscard]] std::optional<RawPeer> nextConnection();
  /// The same, and the ping that comes first is answered.
  [[nodiscard]] std::optional<RawPeer> nextAnsweredConnection();
  /// Makes `nextConnection` return nothing, now and from now on.
  void close();

 private:
  FileDescriptor kept_;
  FileDescriptor given_;
};

/// Answers the ping of every connection that comes through its endpoint, and keeps them open.
class ManyServices {
 public:
  ~ManyServices() {
    service_.close();
    thread_.join();
  }
  [[nodiscard]] int endpoint() const { return service_.endpoint(); }

 private:
  void serve() {
    std::vector<RawPeer> open;
    while (auto connection = service_.nextAnsweredConnection()) open.push_back(std::move(*connection));
  }

  RawService service_;
  std::thread thread_{[this] { serve(); }};
};

}  // namespace kelvane::tests
