#pragma once

// Shared by the parts of the C interface. Inside it, an invalid call throws Refused; `guarded` and `made`
// turn every exception into the caller's error.

#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "kelvane/cache_rules.h"
#include "kelvane/cancellation.h"
#include "kelvane/kelvane.h"
#include "kelvane/result.h"
#include "kelvane/service.h"

struct kelvane_rules {
  kelvane::client::CacheRules rules;
};

/// Both outlive the call of the handler.
struct kelvane_request {
  const kelvane::client::Request& request;
  const kelvane::client::Cancellation& cancellation;
};

namespace kelvane::client {

struct Refused {
  kelvane_failure failure;
  std::string reason;
};

/// Throws Refused with KELVANE_BAD_REQUEST.
[[noreturn]] void refuse(std::string reason);
/// Throws Refused with the error of the C++ interface.
[[noreturn]] void refuse(const Error& error);

/// Fills the caller's structure up to its size.
void report(kelvane_error* error, kelvane_failure failure, std::string_view message) noexcept;
/// In a catch block only: reports what was thrown.
kelvane_failure reportThrown(kelvane_error* error) noexcept;

template <class Call>
kelvane_failure guarded(kelvane_error* error, const Call& call) noexcept {
  try {
    call();
    return KELVANE_OK;
  } catch (...) {
    return reportThrown(error);
  }
}

/// The object that `call` makes with new, or null.
template <class Call>
auto made(kelvane_error* error, const Call& call) noexcept -> decltype(call()) {
  try {
    return call();
  } catch (...) {
    reportThrown(error);
    return nullptr;
  }
}

template <class T>
T& required(T* argument, const char* name) {
  if (argument == nullptr) refuse(std::string(name) + " is NULL");
  return *argument;
}

/// A non-empty byte string, such as a path.
[[nodiscard]] std::string bytesOf(const char* argument, const char* name);
/// Non-empty UTF-8.
[[nodiscard]] std::string textOf(const char* argument, const char* name);
/// "" for NULL.
[[nodiscard]] std::string optionalBytes(const char* argument);
/// Quoted for messages, with "?" for bytes that are not UTF-8.
[[nodiscard]] std::string quoted(std::string_view bytes);

/// 1 to 4.
int checkedUrgency(int urgency);

template <class T>
T valueOf(Result<T> result) {
  if (!result) refuse(result.error());
  return *std::move(result);
}

/// A copy of a structure that begins with its size, which must be at least that of the first version.
template <class S>
S copyOf(const S* given, const char* name) {
  required(given, name);
  if (given->size < sizeof(S)) {
    refuse(std::string(name) + "->size is " + std::to_string(given->size) + ": expected at least " +
           std::to_string(sizeof(S)) + ", as its INIT macro sets it");
  }
  S copy;
  std::memcpy(&copy, given, sizeof(S));
  return copy;
}

/// Writes `value` to a structure whose size copyOf has checked; keeps the caller's size.
template <class S>
void writeTo(S* target, S value) {
  value.size = target->size;
  std::memcpy(target, &value, sizeof(S));
}

}  // namespace kelvane::client
