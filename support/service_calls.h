#pragma once

#include <functional>
#include <memory>

#include "platform/dispatch/block.h"
#include "support/protocols.h"
#include "support/service_record.h"

namespace kelvane {

/// Ends the connection of one service call. May be called any number of times, on any thread; dropping the
/// last copy without calling it counts as calling it.
using Done = std::function<void()>;
using RequestHandler = std::function<void(const std::shared_ptr<KelvaneServiceProtocol>& proxy, Done done)>;

/// Opens a connection of its own to the service (through its endpoint, or, for a declared service, through
/// its socket) and calls `request` once, before returning, on the calling thread, also when the connection
/// could not be opened (the first message then fails). `invalidated` is called exactly once, on the
/// connection's queue, when the connection has ended: after `done`, the far end's death, a call that failed,
/// or because it could not be opened. It is never called before `request` has returned, nor before the
/// replies and errors of this call have been handled. Replies arrive on the connection's queue. Never blocks.
void CallServiceAsync(const std::shared_ptr<KVService>& service, const RequestHandler& request,
                      Block invalidated);

/// The same for callers that tell failure apart by the name of the handler.
void CallService(const std::shared_ptr<KVService>& service, const RequestHandler& proxyHandler,
                 Block errorHandler);

}  // namespace kelvane
