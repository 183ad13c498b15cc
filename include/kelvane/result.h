#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace kelvane::client {

/// Why something was not done.
enum class Failure {
  noDaemon,        // nobody listens on the daemon's socket
  refused,         // the daemon does not serve this process, or not this request
  badRequest,      // the daemon says what is wrong with the request; also what this library can see by itself
  connectionLost,  // the daemon went away before it answered: the work may or may not have been done
};

struct Error {
  Failure kind = Failure::connectionLost;
  std::string reason;  // for people; a whole sentence without a full stop
};

/// What a request answers that has no answer but that it was done.
struct Done {};

/// Either a value or why there is none. Asking for a value that is not there throws std::logic_error with the
/// reason.
template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : value_(std::move(value)) {}
  Result(Error error) : error_(std::move(error)) {}

  explicit operator bool() const { return value_.has_value(); }
  const T& operator*() const& { return check(), *value_; }
  T& operator*() & { return check(), *value_; }
  T&& operator*() && { return check(), std::move(*value_); }
  const T* operator->() const { return check(), &*value_; }
  T* operator->() { return check(), &*value_; }
  /// Empty when there is a value.
  [[nodiscard]] const Error& error() const { return error_; }

 private:
  void check() const {
    if (!value_) throw std::logic_error("there is no value: " + error_.reason);
  }

  std::optional<T> value_;
  Error error_;
};

}  // namespace kelvane::client
