#include "platform/xpc/decoding.h"

#include <utility>

namespace kelvane::xpc {
namespace {

thread_local Decoding* innermost = nullptr;

}  // namespace

Decoding::Decoding(std::shared_ptr<wire::Account> payer) : payer_(std::move(payer)), outer_(innermost) {
  innermost = this;
}

Decoding::~Decoding() { innermost = outer_; }

Decoding* Decoding::current() { return innermost; }

}  // namespace kelvane::xpc
