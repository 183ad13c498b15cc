#pragma once

// Journal entries with custom fields, in the journal's native protocol. Any thread.

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/host/service_manager.h"

namespace kelvane {

/// One entry. Names are upper-case letters, digits and "_"; values may be any bytes.
class JournalEntry {
 public:
  /// Longer values are cut to `longest_value`, so that an entry always fits into one datagram.
  static constexpr std::size_t longest_value = 8192;
  static constexpr std::size_t most_fields = 16;

  /// Fields with a malformed name, and fields beyond `most_fields`, are left out.
  void add(std::string_view name, std::string_view value);
  /// The entry in the form of the protocol.
  [[nodiscard]] const std::string& text() const { return text_; }
  /// False, with errno, when the journal did not accept it. Never blocks.
  bool send(const std::string& journal_socket = journal_socket_path) const;

 private:
  std::string text_;
  std::size_t fields_ = 0;
};

}  // namespace kelvane
