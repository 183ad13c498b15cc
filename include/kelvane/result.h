#pragma once

#include <string>
#include <utility>
#include <variant>

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

/// Either a value or why there is none. Asking for the one that is not there throws std::bad_variant_access.
template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : held_(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : held_(std::in_place_index<1>, std::move(error)) {}

  explicit operator bool() const { return held_.index() == 0; }
  const T& operator*() const& { return std::get<0>(held_); }
  T& operator*() & { return std::get<0>(held_); }
  T&& operator*() && { return std::get<0>(std::move(held_)); }
  const T* operator->() const { return &std::get<0>(held_); }
  T* operator->() { return &std::get<0>(held_); }
  [[nodiscard]] const Error& error() const { return std::get<1>(held_); }

 private:
  std::variant<T, Error> held_;
};

}  // namespace kelvane::client
