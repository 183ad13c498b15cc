#pragma once

#include <cstdint>

namespace kelvane {

// While at least one transaction is open the process counts as busy, and its service manager should not stop
// it. Any thread. Ending more than were begun is fatal.
void xpc_transaction_begin();
void xpc_transaction_end();
[[nodiscard]] std::uint32_t xpc_transaction_count();

/// A transaction for as long as this lives.
class Transaction {
 public:
  Transaction() { xpc_transaction_begin(); }
  ~Transaction() { xpc_transaction_end(); }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
};

}  // namespace kelvane
