#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <utility>

#include "support/protocols.h"

namespace kelvane::tests {

/// An object for the daemon's end: answers each call with what it was given, and counts.
class FakeClientObject final : public KelvaneClientProtocol {
 public:
  std::atomic<int> calls{0};

  void clientCheckin(std::string serviceID, xpc::Endpoint /*endpoint*/, Dictionary info,
                     Reply<std::optional<Dictionary>> reply) override {
    info.set("ID", serviceID);
    answer(std::move(info), reply);
  }
  void clientPurgeableSpace(Dictionary info, Reply<std::optional<Dictionary>> reply) override {
    answer(std::move(info), reply);
  }
  void clientItemizedPurgeableSpace(Dictionary info, Reply<std::optional<Dictionary>> reply) override {
    answer(std::move(info), reply);
  }
  void clientPurge(Dictionary info, Reply<std::optional<Dictionary>> reply) override {
    answer(std::move(info), reply);
  }
  void clientCancelPurge(Dictionary /*info*/, Reply<> reply) override {
    ++calls;
    reply();
  }
  void clientSetState(Value /*value*/, std::string /*key*/, Reply<> reply) override {
    ++calls;
    reply();
  }
  void clientGetState(xpc::Anything key, Reply<Value> reply) override {
    ++calls;
    reply(key.value);
  }

 private:
  void answer(Dictionary info, const Reply<std::optional<Dictionary>>& reply) {
    ++calls;
    reply(std::move(info));
  }
};

}  // namespace kelvane::tests
