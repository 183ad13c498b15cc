// What clients ask for: space to be freed, space that could be freed, and a purge to be cancelled.

#include <algorithm>
#include <optional>
#include <utility>

#include "common/keys.h"
#include "interface/caller.h"
#include "interface/client_interface.h"
#include "operations/purgeable_operation.h"
#include "platform/dispatch/suspension.h"
#include "platform/xpc/connection.h"
#include "platform/xpc/transaction.h"
#include "support/token.h"

namespace kelvane {
namespace {

using ResultReply = Reply<std::optional<Dictionary>>;

/// Never from the incoming call, so that its connection's queue is not held up by the answer.
void replyLater(const ResultReply& reply, std::optional<Dictionary> result) {
  dispatch_async(dispatch_get_global_queue(0, 0), [reply, result = std::move(result)] { reply(result); });
}

auto operationUnder(PurgeOperations& operations, const Value& token) {
  return std::find_if(operations.begin(), operations.end(),
                      [&](const auto& entry) { return entry.first == token; });
}

void removeToken(std::optional<PurgeOperations>& operations, const Value& token) {
  if (!operations) return;
  const auto found = operationUnder(*operations, token);
  if (found != operations->end()) operations->erase(found);
}

void storeOperation(std::optional<PurgeOperations>& operations, const Value& token,
                    const std::shared_ptr<KelvanePurgeOperation>& operation) {
  if (!operations || operation == nullptr) return;
  removeToken(operations, token);
  operations->emplace_back(token, operation);
}

/// A request that takes a while to answer. It holds no thread meanwhile, only the queue of its connection, to
/// keep the order there. Ends with its last copy.
class Waiting {
 public:
  Waiting() : state_(std::make_shared<State>(xpc::Connection::current())) {}

 private:
  struct State {
    explicit State(const std::shared_ptr<xpc::Connection>& connection) {
      if (connection != nullptr) order.emplace(connection->queue());
    }
    Transaction transaction;
    std::optional<Suspension> order;
  };
  std::shared_ptr<State> state_;
};

}  // namespace

void ClientInterface::clientPurge(Dictionary info, ResultReply reply) {
  const Transaction transaction;
  if (!callerIsEntitled(PURGE_ENTITLEMENT, "clientPurge:replyBlock:")) {
    replyLater(reply, std::nullopt);
    return;
  }
  // The registry may be waiting for a service, so not from here.
  dispatch_async(collection_queue(), [self = shared_from_this(), waiting = Waiting(), info = std::move(info),
                                      reply = std::move(reply)]() mutable {
    self->purgeServices(self->services(), std::move(info),
                        [waiting = std::move(waiting), reply = std::move(reply)](
                            std::optional<Dictionary> result) { replyLater(reply, std::move(result)); });
  });
}

/// Checking the volume may block, so it runs neither on the registry's queue nor on the queue of purges.
void ClientInterface::purgeServices(Services services, Dictionary info, PurgeCallback finished) {
  dispatch_async(dispatch_get_global_queue(0, 0), [self = shared_from_this(), services = std::move(services),
                                                   info = std::move(info),
                                                   finished = std::move(finished)]() mutable {
    auto operation = KelvanePurgeOperation::initWithInfo(info, std::move(services));
    dispatch_async(self->purge_queue(),
                   [self, info = std::move(info), operation = std::move(operation),
                    finished = std::move(finished)] { finished(self->runPurge(info, operation, nullptr)); });
  });
}

void ClientInterface::clientPurgeableSpace(Dictionary info, ResultReply reply) {
  answerPurgeableSpace(std::move(info), PURGEABLE_ENTITLEMENT,
                       "clientPurgeableSpace:replyBlock:", std::move(reply));
}

void ClientInterface::clientItemizedPurgeableSpace(Dictionary info, ResultReply reply) {
  answerPurgeableSpace(std::move(info), ITEMIZED_PURGEABLE_ENTITLEMENT,
                       "clientItemizedPurgeableSpace:replyBlock:", std::move(reply));
}

/// Both forms get the same answer; they differ in who may ask.
void ClientInterface::answerPurgeableSpace(Dictionary info, const char* entitlement, const char* selector,
                                           ResultReply reply) {
  const Transaction transaction;
  if (!callerIsEntitled(entitlement, selector)) {
    replyLater(reply, std::nullopt);
    return;
  }
  dispatch_async(purgeable_queue(),
                 [self = shared_from_this(), waiting = Waiting(), info = std::move(info),
                  reply = std::move(reply)] { replyLater(reply, self->countAvailable(info)); });
}

std::optional<Dictionary> ClientInterface::totalAvailable(const Dictionary& info) {
  return dispatch_sync(purgeable_queue(), [&] { return countAvailable(info); });
}

std::optional<Dictionary> ClientInterface::countAvailable(const Dictionary& info) {
  dispatch_assert_queue(purgeable_queue());
  std::optional<Dictionary> result;
  const auto operation = KelvanePurgeableOperation::initWithInfo(info, copyServices(), shared_from_this());
  if (operation == nullptr) return result;
  operation->startOperation([&](const Dictionary& counted) { result = counted; });
  return result;
}

std::optional<Dictionary> ClientInterface::purge(const Dictionary& info, const PurgeCallback& callback) {
  const auto operation = KelvanePurgeOperation::initWithInfo(info, copyServices());
  return dispatch_sync(purge_queue(), [&] { return runPurge(info, operation, callback); });
}

std::optional<Dictionary> ClientInterface::runPurge(const Dictionary& info,
                                                    const std::shared_ptr<KelvanePurgeOperation>& operation,
                                                    const PurgeCallback& callback) {
  dispatch_assert_queue(purge_queue());
  std::optional<Dictionary> result;
  Value token = info[KELVANE_TOKEN];
  if (token.isNothing()) token = createKelvaneToken();
  dispatch_sync(collection_queue(), [&] { storeOperation(purgeOperations(), token, operation); });
  if (operation != nullptr) {
    operation->startOperation([&](const std::optional<Dictionary>& reported) {
      if (callback) callback(reported);
      result = reported;
    });
  }
  dispatch_sync(collection_queue(), [&] { removeToken(purgeOperations(), token); });
  return result;
}

void ClientInterface::clientCancelPurge(Dictionary info, Reply<> reply) {
  dispatch_async(collection_queue(), [self = shared_from_this(), waiting = Waiting(), info = std::move(info),
                                      reply = std::move(reply)]() mutable {
    const auto operation = self->operationOf(info[KELVANE_TOKEN]);
    dispatch_async(dispatch_get_global_queue(0, 0),
                   [waiting = std::move(waiting), operation, reply = std::move(reply)] {
                     if (operation != nullptr) operation->cancelOperation();
                     if (reply) reply();
                   });
  });
}

std::shared_ptr<KelvanePurgeOperation> ClientInterface::operationOf(const Value& token) {
  dispatch_assert_queue(collection_queue());
  if (!purgeOperations()) return nullptr;
  const auto found = operationUnder(*purgeOperations(), token);
  return found != purgeOperations()->end() ? found->second : nullptr;
}

}  // namespace kelvane
