#pragma once

// A second reader of bodies, made to be simple. It can be told to overlook a rule: what it accepts only then
// breaks exactly that rule.

#include "platform/wire/header.h"

namespace kelvane::fuzz {

struct Overlooked {
  bool descriptors = false;  // that did not come
};

[[nodiscard]] bool isBodyValidBut(const wire::Message& message, const Overlooked& overlooked);

}  // namespace kelvane::fuzz
