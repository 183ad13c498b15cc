#include "tests/attack/requests.h"

#include <cstring>

namespace kelvane::tests {

RawMessage request(const char* member, std::uint32_t serial) {
  RawMessage message;
  message.serial = serial;
  message.path = "/com/orvel/kelvane";
  message.interface = "com.orvel.KelvaneClientProtocol";
  message.member = member;
  return message;
}

RawMessage getState(std::uint32_t serial, const std::string& key) {
  RawMessage message = request("clientGetState", serial);
  message.signature = "v";
  message.body = RawWriter().signature("s").text(key).take();
  return message;
}

RawMessage setState(std::uint32_t serial, const std::string& key, std::size_t bytes) {
  std::string data(bytes, 'x');
  std::memcpy(data.data(), &serial, std::min(bytes, sizeof serial));
  RawWriter body;
  body.number(0).signature("ay").number(bytes).raw(data);
  body.set(0, static_cast<std::uint32_t>(body.size() - 4));
  body.text(key);
  RawMessage message = request("clientSetState", serial);
  message.signature = "avs";
  message.body = body.take();
  return message;
}

RawMessage setStateToNumbers(std::uint32_t serial, const std::string& key, std::size_t count) {
  RawWriter body;
  body.number(0).signature("an").number(2 * count).raw(std::string(2 * count, '\1'));
  body.set(0, static_cast<std::uint32_t>(body.size() - 4));
  body.text(key);
  RawMessage message = request("clientSetState", serial);
  message.signature = "avs";
  message.body = body.take();
  return message;
}

RawMessage checkIn(std::uint32_t serial, const std::string& ID, const std::string& notification) {
  RawWriter body;
  body.text(ID).number(0);
  const std::size_t size_at = body.align(4).size();
  body.number(0).align(8);
  const std::size_t entries_at = body.size();
  if (!notification.empty()) {
    body.text("KELVANE_NOTIFICATIONS").signature("as").number(0);
    const std::size_t names_at = body.size();
    body.text(notification);
    body.set(names_at - 4, static_cast<std::uint32_t>(body.size() - names_at));
  }
  body.set(size_at, static_cast<std::uint32_t>(body.size() - entries_at));
  RawMessage message = request("clientCheckin", serial);
  message.signature = "sha{sv}";
  message.body = body.take();
  message.descriptors = 1;
  return message;
}

RawMessage requestAbout(const char* member, std::uint32_t serial, const std::string& volume) {
  RawWriter body;
  const std::size_t entries_at = body.number(0).align(8).size();
  body.text("KELVANE_VOLUME").signature("s").text(volume);
  body.align(8).text("KELVANE_AMOUNT").signature("t").number(1, 8);
  body.align(8).text("KELVANE_URGENCY").signature("i").number(1);
  body.align(8).text("KELVANE_PURGE_TIMEOUT").signature("i").number(300);
  body.set(0, static_cast<std::uint32_t>(body.size() - entries_at));
  RawMessage message = request(member, serial);
  message.signature = "a{sv}";
  message.body = body.take();
  return message;
}

RawMessage emptyReply(std::uint32_t serial, std::uint32_t to) {
  RawMessage message;
  message.type = 2;
  message.serial = serial;
  message.reply_serial = to;
  return message;
}

}  // namespace kelvane::tests
