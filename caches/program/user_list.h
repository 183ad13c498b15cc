#pragma once

#include <set>
#include <string>

namespace kelvane::caches {

/// The caches that this user disabled: `disabled` in ~/.config/kelvane/caches.toml. Only a file that
/// holds nothing else, as `write` leaves it, is changed: a file that was edited by hand is left alone.
class UserList {
 public:
  /// Throws a tools::Problem when the file cannot be read.
  static UserList read();

  /// False when nothing has to change. Throws a tools::Problem that names the line to write when the file was
  /// edited by hand.
  bool add(const std::string& name);
  bool remove(const std::string& name);
  /// Replaces the file as a whole. Throws a tools::Problem.
  void write() const;

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  explicit UserList(std::string home);
  void requireOwn(const std::string& line) const;
  [[nodiscard]] std::string text() const;

  std::string home_;
  std::string path_;
  bool is_own_ = true;  // absent, or as `write` leaves it
  std::set<std::string> names_;
};

}  // namespace kelvane::caches
