// What clients ask for: space to be freed, space that could be freed, and a purge to be cancelled.

#include <algorithm>
#include <optional>
#include <utility>

#include "common/keys.h"
#include "interface/caller.h"
#include "interface/client_interface.h"
#include "operations/purgeable_operation.h"
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

}  // namespace

void ClientInterface::clientPurge(Dictionary info, ResultReply reply) {
  const Transaction transaction;
  std::optional<Dictionary> result;
  if (callerIsEntitled(PURGE_ENTITLEMENT, "clientPurge:replyBlock:")) result = purge(info, nullptr);
  replyLater(reply, std::move(result));
}

void ClientInterface::clientPurgeableSpace(Dictionary info, ResultReply reply) {
  answerPurgeableSpace(info, PURGEABLE_ENTITLEMENT, "clientPurgeableSpace:replyBlock:", reply);
}

void ClientInterface::clientItemizedPurgeableSpace(Dictionary info, ResultReply reply) {
  answerPurgeableSpace(info, ITEMIZED_PURGEABLE_ENTITLEMENT,
                       "clientItemizedPurgeableSpace:replyBlock:", reply);
}

/// Both forms get the same answer; they differ in who may ask.
void ClientInterface::answerPurgeableSpace(const Dictionary& info, const char* entitlement,
                                           const char* selector, const ResultReply& reply) {
  const Transaction transaction;
  std::optional<Dictionary> result;
  if (callerIsEntitled(entitlement, selector)) result = totalAvailable(info);
  replyLater(reply, std::move(result));
}

std::optional<Dictionary> ClientInterface::totalAvailable(const Dictionary& info) {
  std::optional<Dictionary> result;
  dispatch_sync(purgeable_queue(), [&] {
    const auto operation = KelvanePurgeableOperation::initWithInfo(info, copyServices(), shared_from_this());
    if (operation == nullptr) return;
    operation->startOperation([&](const Dictionary& counted) { result = counted; });
  });
  return result;
}

std::optional<Dictionary> ClientInterface::purge(const Dictionary& info, const PurgeCallback& callback) {
  std::optional<Dictionary> result;
  Value token = info[KELVANE_TOKEN];
  if (token.isNothing()) token = createKelvaneToken();
  const auto operation = KelvanePurgeOperation::initWithInfo(info, copyServices());
  dispatch_sync(purge_queue(), [&] {
    dispatch_sync(collection_queue(), [&] { storeOperation(purgeOperations(), token, operation); });
    if (operation != nullptr) {
      operation->startOperation([&](const std::optional<Dictionary>& reported) {
        if (callback) callback(reported);
        result = reported;
      });
    }
    dispatch_sync(collection_queue(), [&] { removeToken(purgeOperations(), token); });
  });
  return result;
}

void ClientInterface::clientCancelPurge(Dictionary info, Reply<> reply) {
  const Value& token = info[KELVANE_TOKEN];
  const auto operation = dispatch_sync(collection_queue(), [&]() -> std::shared_ptr<KelvanePurgeOperation> {
    if (!purgeOperations()) return nullptr;
    const auto found = operationUnder(*purgeOperations(), token);
    return found != purgeOperations()->end() ? found->second : nullptr;
  });
  if (operation != nullptr) operation->cancelOperation();
  if (reply) reply();
}

}  // namespace kelvane
