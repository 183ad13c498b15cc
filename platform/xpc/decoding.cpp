#include "platform/xpc/decoding.h"

#include <algorithm>

namespace kelvane::xpc {
namespace {

constexpr std::size_t least_step = 4096;  // bytes

thread_local Decoding* innermost = nullptr;

}  // namespace

Decoding::Decoding(std::shared_ptr<wire::Account> payer, std::size_t bytes)
    : payer_(std::move(payer)), outer_(std::exchange(innermost, this)), paid_(bytes) {}

Decoding::~Decoding() { innermost = outer_; }

Decoding* Decoding::current() { return innermost; }

bool Decoding::take(std::size_t bytes) {
  built_ += bytes;
  if (++values_ > most_values) return false;
  if (built_ <= paid_ || payer_ == nullptr) return true;
  // In growing steps, so that many values make few charges.
  const std::size_t step = std::max({least_step, built_ - paid_, built_ / 8});
  if (!charge_) charge_ = wire::Charge::adopt(payer_, wire::Resource::received_bytes, 0);
  if (!charge_.grow(step)) return false;
  paid_ += step;
  return true;
}

}  // namespace kelvane::xpc
