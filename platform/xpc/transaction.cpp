#include "platform/xpc/transaction.h"

#include <atomic>

#include "platform/dispatch/fatal.h"

namespace kelvane {
namespace {

std::atomic<std::uint32_t> open_transactions{0};

}  // namespace

void xpc_transaction_begin() { open_transactions.fetch_add(1); }

void xpc_transaction_end() {
  if (open_transactions.fetch_sub(1) == 0) fatal("ending a transaction that was not begun");
}

std::uint32_t xpc_transaction_count() { return open_transactions.load(); }

}  // namespace kelvane
