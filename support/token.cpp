#include "support/token.h"

#include "platform/host/service_manager.h"

namespace kelvane {

Value createKelvaneToken() { return randomIdentifier(); }

}  // namespace kelvane
