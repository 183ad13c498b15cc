#include "tests/xpc/raw_peer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <array>
#include <cstring>
#include <utility>

namespace kelvane::tests {
namespace {

/// The beginning of one header field.
void field(RawWriter& out, char code, const char* type) { out.align(8).raw({&code, 1}).signature(type); }

void textField(RawWriter& out, char code, const char* type, const std::string& value) {
  if (value.empty()) return;
  field(out, code, type);
  out.text(value);
}
void numberField(RawWriter& out, char code, std::uint32_t value) {
  if (value == 0) return;
  field(out, code, "u");
  out.number(value);
}

std::uint32_t numberAt(const std::string& bytes, std::size_t at) {
  std::uint32_t value = 0;
  for (unsigned i = 0; i < 4; ++i)
    value |= std::uint32_t{static_cast<std::uint8_t>(bytes.at(at + i))} << (8 * i);
  return value;
}

/// The header field REPLY_SERIAL, wherever it stands.
std::uint32_t replySerialOf(const std::string& message) {
  static const std::string start("\x05\x01u\0", 4);
  const std::size_t found = message.find(start, 16);
  return found == std::string::npos ? 0 : numberAt(message, found + start.size());
}

}  // namespace

std::string RawMessage::bytes() const {
  RawWriter out;
  out.number(endianness, 1).number(type, 1).number(flags, 1).number(1, 1);
  out.number(static_cast<std::uint32_t>(body.size()));
  out.number(serial);
  out.number(0);  // the size of the fields
  if (type == 1) {
    textField(out, 1, "o", path);
    textField(out, 2, "s", interface);
    textField(out, 3, "s", member);
  }
  textField(out, 4, "s", error_name);
  numberField(out, 5, reply_serial);
  if (!signature.empty()) {
    field(out, 8, "g");
    out.signature(signature);
  }
  numberField(out, 9, descriptors);
  out.set(12, static_cast<std::uint32_t>(out.size() - 16));
  out.align(8);
  return out.take() + body;
}

RawWriter& RawWriter::number(std::uint64_t value, std::size_t size) {
  align(size);
  for (std::size_t i = 0; i < size; ++i) bytes_ += static_cast<char>(value >> (8 * i));
  return *this;
}
RawWriter& RawWriter::real(double value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  return number(bits, 8);
}
RawWriter& RawWriter::text(const std::string& value) {
  number(value.size());
  bytes_ += value;
  bytes_ += '\0';
  return *this;
}
RawWriter& RawWriter::signature(const std::string& value) {
  bytes_ += static_cast<char>(value.size());
  bytes_ += value;
  bytes_ += '\0';
  return *this;
}
RawWriter& RawWriter::align(std::size_t to) {
  while (bytes_.size() % to != 0) bytes_ += '\0';
  return *this;
}
RawWriter& RawWriter::raw(std::string_view bytes) {
  bytes_ += bytes;
  return *this;
}
void RawWriter::set(std::size_t at, std::uint32_t value) {
  for (unsigned i = 0; i < 4; ++i) bytes_[at + i] = static_cast<char>(value >> (8 * i));
}

RawMessage echoCallOf(std::uint32_t serial, const std::string& signature,
                      const std::function<void(RawWriter&)>& write) {
  RawWriter body;
  body.number(0).align(8);  // the size of the array, and its first entry
  body.text("value").signature(signature);
  write(body);
  body.set(0, static_cast<std::uint32_t>(body.size() - 8));
  RawMessage message;
  message.serial = serial;
  message.signature = "a{sv}";
  message.body = body.take();
  return message;
}

RawMessage echoCall(std::uint32_t serial, std::size_t text_bytes) {
  RawWriter body;
  body.number(0).align(8);
  body.text("text").signature("s").text(std::string(text_bytes, 'x'));
  body.set(0, static_cast<std::uint32_t>(body.size() - 8));
  RawMessage message;
  message.serial = serial;
  message.signature = "a{sv}";
  message.body = body.take();
  return message;
}

std::string headerClaiming(std::uint32_t body_bytes) {
  RawWriter out;
  out.number('l', 1).number(1, 1).number(0, 1).number(1, 1);
  return out.number(body_bytes).number(1).number(64).take();
}

RawPeer::RawPeer(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    socket_.reset();
}

bool RawPeer::send(std::string_view bytes, const std::vector<int>& descriptors) const {
  std::vector<char> control(CMSG_SPACE(descriptors.size() * sizeof(int)));
  bool first = !descriptors.empty();
  while (!bytes.empty()) {
    iovec data{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (std::exchange(first, false)) {
      message.msg_control = control.data();
      message.msg_controllen = control.size();
      cmsghdr* const header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
      std::memcpy(CMSG_DATA(header), descriptors.data(), descriptors.size() * sizeof(int));
    }
    const ssize_t sent = ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL);
    if (sent < 0 && errno == EAGAIN) {
      awaitRoom();
      first = !descriptors.empty() && message.msg_control != nullptr;
      continue;
    }
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

std::size_t RawPeer::sendWhatFits(std::string_view bytes) const {
  const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  return sent < 0 ? 0 : static_cast<std::size_t>(sent);
}

std::string RawPeer::firstLine() {
  std::string hexadecimal;
  for (const char digit : std::to_string(::getuid())) {
    hexadecimal += "3";
    hexadecimal += digit;
  }
  using namespace std::string_literals;
  return "\0AUTH EXTERNAL "s + hexadecimal + "\r\n";
}

void RawPeer::handshake(bool begin) {
  send(firstLine());
  readLine();
  send("NEGOTIATE_UNIX_FD\r\n");
  readLine();
  if (begin) send("BEGIN\r\n");
}

std::string RawPeer::readLine() {
  std::string line;
  while (line.size() < 2 || line.compare(line.size() - 2, 2, "\r\n") != 0) {
    const auto byte = read(1);
    if (!byte) break;
    line += *byte;
  }
  return line;
}

std::optional<std::string> RawPeer::read(std::size_t size) {
  while (unread_.size() < size) {
    std::array<char, 65536> buffer;
    const ssize_t length = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
    if (length < 0 && errno == EAGAIN) {
      awaitInput();
      continue;
    }
    if (length <= 0) return std::nullopt;
    unread_.append(buffer.data(), static_cast<std::size_t>(length));
  }
  std::string taken = unread_.substr(0, size);
  unread_.erase(0, size);
  return taken;
}

std::optional<RawReply> RawPeer::receive() {
  auto message = read(16);
  if (!message) return std::nullopt;
  const std::size_t rest = ((numberAt(*message, 12) + 7U) & ~7U) + numberAt(*message, 4);
  const auto remainder = read(rest);
  if (!remainder) return std::nullopt;
  *message += *remainder;
  return RawReply{static_cast<std::uint8_t>(message->at(1)), replySerialOf(*message), *message};
}

void RawPeer::awaitEnd() {
  while (read(1)) unread_.clear();
}

bool RawPeer::hasEnded() const {
  pollfd state{socket_.get(), POLLRDHUP, 0};
  return ::poll(&state, 1, 0) > 0;
}

void RawPeer::awaitRoom() const {
  pollfd state{socket_.get(), POLLOUT, 0};
  ::poll(&state, 1, -1);
}

void RawPeer::stopSending() const { ::shutdown(socket_.get(), SHUT_WR); }

void RawPeer::awaitInput() const {
  pollfd state{socket_.get(), POLLIN, 0};
  ::poll(&state, 1, -1);
}

}  // namespace kelvane::tests
