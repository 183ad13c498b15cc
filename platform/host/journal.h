#pragma once

// Entries of the journal with fields of one's own, by its native protocol. Any thread.

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/host/service_manager.h"

namespace kelvane {

/// One entry. Names are upper-case letters, digits and "_"; values may be any bytes.
class JournalEntry {
 public:
  /// What is longer than `longest_value` is cut, so that an entry always fits into one datagram.
  static constexpr std::size_t longest_value = 8192;
  static constexpr std::size_t most_fields = 16;

  /// A malformed name, and what is more than `most_fields`, is left out.
  void add(std::string_view name, std::string_view value);
  /// As the protocol writes it.
  [[nodiscard]] const std::string& text() const { return text_; }
  /// False, with errno, when the journal did not take it. Never waits.
  bool send(const std::string& journal_socket = journal_socket_path) const;

 private:
  std::string text_;
  std::size_t fields_ = 0;
};

}  // namespace kelvane
