#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <array>
#include <bit>
#include <string_view>

#include "fuzz/body_text.h"
#include "fuzz/peers.h"
#include "fuzz/target.h"
#include "platform/wire/writer.h"

namespace kelvane::fuzz {
namespace {

std::string orEmpty(const char* text) { return text == nullptr ? "" : text; }

std::string headerOf(sd_bus_message* message) {
  HeaderFields header;
  sd_bus_message_get_type(message, &header.type);
  std::uint64_t serial = 0;
  if (sd_bus_message_get_cookie(message, &serial) >= 0) header.serial = static_cast<std::uint32_t>(serial);
  if (sd_bus_message_get_reply_cookie(message, &serial) >= 0)
    header.reply_serial = static_cast<std::uint32_t>(serial);
  header.expects_reply = sd_bus_message_get_expect_reply(message) > 0;
  header.path = orEmpty(sd_bus_message_get_path(message));
  header.interface = orEmpty(sd_bus_message_get_interface(message));
  header.member = orEmpty(sd_bus_message_get_member(message));
  const sd_bus_error* error = sd_bus_message_get_error(message);
  if (error != nullptr) header.error_name = orEmpty(error->name);
  header.destination = orEmpty(sd_bus_message_get_destination(message));
  header.sender = orEmpty(sd_bus_message_get_sender(message));
  header.signature = orEmpty(sd_bus_message_get_signature(message, 1));
  return headerText(header);
}

/// Reads all values of a message; `failed` once sd-bus cannot.
class Walk {
 public:
  explicit Walk(sd_bus_message* message) : message_(message) {}

  std::string values() {
    std::string text;
    for (;;) {
      char type = 0;
      const char* contents = nullptr;
      const int result = sd_bus_message_peek_type(message_, &type, &contents);
      failed_ = failed_ || result < 0;
      if (failed_ || result == 0) return text;
      text += contents != nullptr ? container(type, contents) : basic(type);
    }
  }
  [[nodiscard]] bool failed() const { return failed_; }

 private:
  std::string container(char type, const char* contents) {
    const std::string inside = contents;
    if (sd_bus_message_enter_container(message_, type, contents) <= 0) return fail();
    const std::string held = values();
    if (failed_ || sd_bus_message_exit_container(message_) < 0) return fail();
    switch (type) {
      case 'a':
        return "[" + held + "]";
      case 'r':
        return "(" + held + ")";
      case 'e':
        return "{" + held + "}";
      default:
        return "<" + inside + "  " + held + ">";
    }
  }

  std::string basic(char type) {
    union {
      std::uint8_t byte;
      int boolean;
      std::uint16_t number16;
      std::uint32_t number32;
      std::uint64_t number64;
      const char* text;
    } value{};
    if (sd_bus_message_read_basic(message_, type, &value) <= 0) return fail();
    switch (type) {
      case 'y':
        return numberText(type, value.byte);
      case 'b':
        return numberText(type, value.boolean != 0 ? 1 : 0);
      case 'n':
      case 'q':
        return numberText(type, value.number16);
      case 'i':
      case 'u':
        return numberText(type, value.number32);
      case 'x':
      case 't':
      case 'd':
        return numberText(type, value.number64);
      case 'h':
        return "h ";
      default:
        return stringText(type, value.text);
    }
  }

  std::string fail() {
    failed_ = true;
    return {};
  }

  sd_bus_message* const message_;
  bool failed_ = false;
};

constexpr const char* marker_member = "BehindTheMessageInQuestion";

std::vector<std::uint8_t> markerMessage() {
  wire::Outgoing message;
  wire::Writer writer(message, {.path = "/a", .interface = "i.j", .member = marker_member});
  require(writer.finish() == wire::Writer::Fault::none, "a message can be written");
  wire::setSerial(message, 1);
  std::vector<std::uint8_t> bytes;
  for (const std::byte byte : message.bytes) bytes.push_back(std::to_integer<std::uint8_t>(byte));
  return bytes;
}

}  // namespace

int SdBus::take(sd_bus_message* message, void* inbox, sd_bus_error* /*error*/) {
  auto* const into = static_cast<Inbox*>(inbox);
  if (orEmpty(sd_bus_message_get_member(message)) == marker_member) {
    into->is_in_step = true;
    return 1;
  }
  Walk walk(message);
  std::string body = walk.values();
  if (!walk.failed()) into->opinion = Opinion{headerOf(message), std::move(body)};
  return 1;
}

SdBus::SdBus() : marker_(markerMessage()) {}
SdBus::~SdBus() = default;

void SdBus::CloseBus::operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }

void SdBus::connect() {
  std::array<int, 2> ends{};
  require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0,
          "a socket pair can be made");
  socket_ = FileDescriptor(ends[0]);
  sd_bus* bus = nullptr;
  require(sd_bus_new(&bus) >= 0, "sd-bus can be used");
  bus_.reset(bus);
  require(sd_bus_set_fd(bus, ends[1], ends[1]) >= 0 && sd_bus_negotiate_fds(bus, 0) >= 0 &&
              sd_bus_add_filter(bus, nullptr, take, &inbox_) >= 0 && sd_bus_start(bus) >= 0,
          "sd-bus can be started");
  constexpr std::string_view answer = "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\n";
  require(::send(socket_.get(), answer.data(), answer.size(), 0) == static_cast<ssize_t>(answer.size()),
          "sd-bus can be answered");
  while (sd_bus_is_ready(bus) == 0) require(sd_bus_process(bus, nullptr) >= 0, "sd-bus takes the handshake");
}

/// False when the connection cannot be used any more.
bool SdBus::process() {
  for (;;) {
    const int result = sd_bus_process(bus_.get(), nullptr);
    if (result <= 0) return result == 0;
  }
}

void SdBus::send(std::span<const std::uint8_t> message) const {
  const ssize_t sent = ::send(socket_.get(), message.data(), message.size(), MSG_NOSIGNAL);
  require(sent == static_cast<ssize_t>(message.size()), "a message fits the socket");
}

std::optional<Opinion> SdBus::opinion(std::span<const std::uint8_t> message) {
  if (bus_ == nullptr) connect();
  inbox_ = {};
  send(message);
  send(marker_);
  const bool alive = process();
  std::array<char, 4096> unread{};
  while (::recv(socket_.get(), unread.data(), unread.size(), 0) > 0) {
  }
  if (!alive || !inbox_.is_in_step) bus_.reset();
  return std::move(inbox_.opinion);
}

}  // namespace kelvane::fuzz
