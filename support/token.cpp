#include "support/token.h"

#include "platform/host/random_identifier.h"

namespace kelvane {

Value createKelvaneToken() { return randomIdentifier(); }

}  // namespace kelvane
