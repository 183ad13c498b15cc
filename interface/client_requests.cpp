// What clients ask for: space to be freed, space that could be freed, and a purge to be cancelled.

#include <algorithm>
#include <optional>
#include <utility>

#include "common/keys.h"
#include "interface/caller.h"
#include "interface/client_interface.h"
#include "operations/purgeable_operation.h"
#include "platform/xpc/held_order.h"
#include "platform/xpc/transaction.h"
#include "support/token.h"

namespace kelvane {
namespace {

using ResultReply = Reply<std::optional<Dictionary>>;

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

/// A request that is answered later, with its open transaction. Ends with the last copy.
class Waiting {
 private:
  xpc::HeldOrder order_;
  std::shared_ptr<Transaction> transaction_ = std::make_shared<Transaction>();
};

/// Never sent from within the incoming call.
void answer(Waiting waiting, ResultReply reply, std::optional<Dictionary> result) {
  dispatch_async(dispatch_get_global_queue(0, 0), [waiting = std::move(waiting), reply = std::move(reply),
                                                   result = std::move(result)] { reply(result); });
}

}  // namespace

void ClientInterface::clientPurge(Dictionary info, ResultReply reply) {
  Waiting waiting;
  if (!callerIsEntitled(PURGE_ENTITLEMENT, "clientPurge:replyBlock:")) {
    answer(std::move(waiting), std::move(reply), std::nullopt);
    return;
  }
  purge(std::move(info), nullptr,
        [waiting = std::move(waiting), reply = std::move(reply)](const std::optional<Dictionary>& result) {
          answer(waiting, reply, result);
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
  Waiting waiting;
  if (!callerIsEntitled(entitlement, selector)) {
    answer(std::move(waiting), std::move(reply), std::nullopt);
    return;
  }
  totalAvailable(std::move(info),
                 [waiting = std::move(waiting), reply = std::move(reply)](
                     const std::optional<Dictionary>& result) { answer(waiting, reply, result); });
}

void ClientInterface::totalAvailable(Dictionary info, ResultHandler finished) {
  dispatch_async(purgeable_queue(),
                 [self = shared_from_this(), info = std::move(info), finished = std::move(finished)] {
                   finished(self->countAvailable(info));
                 });
}

std::optional<Dictionary> ClientInterface::countAvailable(const Dictionary& info) {
  dispatch_assert_queue(purgeable_queue());
  std::optional<Dictionary> result;
  const auto operation = KelvanePurgeableOperation::initWithInfo(info, copyServices(), shared_from_this());
  if (operation == nullptr) return result;
  operation->startOperation([&](const Dictionary& counted) { result = counted; });
  return result;
}

void ClientInterface::purge(Dictionary info, PurgeCallback callback, ResultHandler finished) {
  // The registry may be waiting for a service.
  dispatch_async(
      collection_queue(), [self = shared_from_this(), info = std::move(info), callback = std::move(callback),
                           finished = std::move(finished)]() mutable {
        self->purgeServices(self->services(), std::move(info), std::move(callback), std::move(finished));
      });
}

/// Preparing reads the mount table, which would hold up the registry and the purges.
void ClientInterface::purgeServices(Services services, Dictionary info, PurgeCallback callback,
                                    ResultHandler finished) {
  dispatch_async(
      preparation_queue_, [self = shared_from_this(), services = std::move(services), info = std::move(info),
                           callback = std::move(callback), finished = std::move(finished)]() mutable {
        auto operation = KelvanePurgeOperation::initWithInfo(info, std::move(services));
        dispatch_async(self->purge_queue(), [self, info = std::move(info), operation = std::move(operation),
                                             callback = std::move(callback), finished = std::move(finished)] {
          finished(self->runPurge(info, operation, callback));
        });
      });
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
