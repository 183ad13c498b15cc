#pragma once

// A second reader of bodies, made to be simple. It can be told to overlook single rules: what it accepts only
// with one of them overlooked breaks exactly that rule.

#include "platform/wire/header.h"

namespace kelvane::fuzz {

struct Overlooked {
  bool booleans = false;     // other than 0 and 1
  bool rest = false;         // bytes behind the last value
  bool depth = false;        // more than 64 containers
  bool descriptors = false;  // that did not come
  bool entries = false;      // in a signature that is a value: "{" without the "a" of an array
};

[[nodiscard]] bool isBodyValidBut(const wire::Message& message, const Overlooked& overlooked);

}  // namespace kelvane::fuzz
