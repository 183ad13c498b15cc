#include "platform/wire/handshake.h"

#include <optional>
#include <utility>

namespace kelvane::wire {

namespace {

constexpr std::string_view line_end = "\r\n";
constexpr std::string_view hexadecimal = "0123456789abcdef";

std::string encode(std::string_view text) {
  std::string encoded;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    encoded += hexadecimal[byte >> 4U];
    encoded += hexadecimal[byte & 15U];
  }
  return encoded;
}

std::string identityOf(uid_t user) { return encode(std::to_string(user)); }

// Digits only: no letter occurs in the encoding of a decimal number.
bool isIdentityOf(uid_t user, std::string_view encoded) { return encoded == identityOf(user); }

/// Cuts the first line off; without its end. Nothing when that has not come.
std::optional<std::string_view> takeLine(std::string_view& input) {
  const std::size_t end = input.find(line_end);
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view line = input.substr(0, end);
  input.remove_prefix(end + line_end.size());
  return line;
}

struct Command {
  std::string_view name;
  std::optional<std::string_view> argument;  // what stands behind the first space
};

Command split(std::string_view line) {
  const std::size_t space = line.find(' ');
  if (space == std::string_view::npos) return {line, std::nullopt};
  return {line.substr(0, space), line.substr(space + 1)};
}

}  // namespace

ServerHandshake::ServerHandshake(uid_t peer, std::string server, bool takes_descriptors)
    : peer_(peer), server_(std::move(server)), takes_descriptors_(takes_descriptors) {}

HandshakeState ServerHandshake::advance(std::string_view& input, std::string& output) {
  if (expected_ == Expected::nul && !input.empty()) {
    if (input.front() != '\0') return HandshakeState::failed;
    input.remove_prefix(1);
    ++used_;
    expected_ = Expected::authentication;
  }
  while (const auto line = takeLine(input)) {
    used_ += line->size() + line_end.size();
    if (used_ > longest_handshake) return HandshakeState::failed;
    const HandshakeState state = step(*line, output);
    if (state != HandshakeState::going_on) return state;
  }
  return used_ + input.size() > longest_handshake ? HandshakeState::failed : HandshakeState::going_on;
}

HandshakeState ServerHandshake::step(std::string_view line, std::string& output) {
  const Command command = split(line);
  if (line == "BEGIN") {
    return expected_ == Expected::begin ? HandshakeState::done : HandshakeState::failed;
  }
  if (command.name == "CANCEL" || command.name == "ERROR") {
    reject(output);
  } else if (command.name == "AUTH" && expected_ == Expected::authentication) {
    authenticate(command.argument.value_or(""), output);
  } else if (command.name == "DATA" && expected_ == Expected::identity) {
    judge(command.argument.value_or(""), output);
  } else if (line == "NEGOTIATE_UNIX_FD" && expected_ == Expected::begin) {
    agree(output);
  } else {
    refuse("Unknown or unexpected command", output);
  }
  return refusals_ > most_refusals ? HandshakeState::failed : HandshakeState::going_on;
}

void ServerHandshake::authenticate(std::string_view mechanism_and_identity, std::string& output) {
  const Command mechanism = split(mechanism_and_identity);
  if (mechanism.name != "EXTERNAL") {
    reject(output);
  } else if (mechanism.argument) {
    judge(*mechanism.argument, output);
  } else {
    output += "DATA\r\n";
    expected_ = Expected::identity;
  }
}

void ServerHandshake::judge(std::string_view identity, std::string& output) {
  if (!identity.empty() && !isIdentityOf(peer_, identity)) return reject(output);
  output += "OK " + server_ + "\r\n";
  expected_ = Expected::begin;
}

void ServerHandshake::agree(std::string& output) {
  if (!takes_descriptors_) return refuse("Descriptors cannot be passed", output);
  output += "AGREE_UNIX_FD\r\n";
  passes_descriptors_ = true;
}

void ServerHandshake::reject(std::string& output) {
  output += "REJECTED EXTERNAL\r\n";
  expected_ = Expected::authentication;
  passes_descriptors_ = false;
  ++refusals_;
}

void ServerHandshake::refuse(std::string_view reason, std::string& output) {
  output.append("ERROR \"").append(reason).append("\"\r\n");
  ++refusals_;
}

ClientHandshake::ClientHandshake(uid_t self, bool passes_descriptors)
    : self_(self), asks_for_descriptors_(passes_descriptors) {}

std::string ClientHandshake::opening() const {
  std::string text;
  text.reserve(80);  // made for every connection
  text += '\0';
  text += "AUTH EXTERNAL ";
  text += identityOf(self_);
  text += asks_for_descriptors_ ? "\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n" : "\r\nBEGIN\r\n";
  return text;
}

HandshakeState ClientHandshake::advance(std::string_view& input) {
  while (const auto line = takeLine(input)) {
    used_ += line->size() + line_end.size();
    if (used_ > longest_handshake) return HandshakeState::failed;
    const HandshakeState state = step(*line);
    if (state != HandshakeState::going_on) return state;
  }
  return used_ + input.size() > longest_handshake ? HandshakeState::failed : HandshakeState::going_on;
}

HandshakeState ClientHandshake::step(std::string_view line) {
  const Command command = split(line);
  if (expected_ == Expected::ok) {
    if (command.name != "OK") return HandshakeState::failed;
    expected_ = Expected::agreement;
    return asks_for_descriptors_ ? HandshakeState::going_on : HandshakeState::done;
  }
  passes_descriptors_ = line == "AGREE_UNIX_FD";
  return passes_descriptors_ || command.name == "ERROR" ? HandshakeState::done : HandshakeState::failed;
}

}  // namespace kelvane::wire
