#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

namespace kelvane::tests {

/// An environment variable as it is for as long as this lives; put back afterwards.
class ScopedEnvironment {
 public:
  ScopedEnvironment(std::string name, const std::optional<std::string>& value) : name_(std::move(name)) {
    if (const char* before = std::getenv(name_.c_str())) before_ = before;
    set(value);
  }
  ~ScopedEnvironment() { set(before_); }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  void set(const std::optional<std::string>& value) const {
    if (value) {
      ::setenv(name_.c_str(), value->c_str(), 1);
    } else {
      ::unsetenv(name_.c_str());
    }
  }

 private:
  const std::string name_;
  std::optional<std::string> before_;
};

}  // namespace kelvane::tests
