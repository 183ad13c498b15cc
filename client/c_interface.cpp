#include "client/c_interface.h"

#include <algorithm>
#include <cstddef>
#include <new>

#include "kelvane/volume.h"
#include "platform/foundation/utf8.h"

namespace kelvane::client {
namespace {

kelvane_failure failureOf(Failure kind) {
  switch (kind) {
    case Failure::noDaemon:
      return KELVANE_NO_DAEMON;
    case Failure::refused:
      return KELVANE_REFUSED;
    case Failure::badRequest:
      return KELVANE_BAD_REQUEST;
    case Failure::connectionLost:
      return KELVANE_CONNECTION_LOST;
  }
  return KELVANE_INTERNAL;
}

/// The length that fits into `room` bytes without a partial character at the end.
std::size_t whole(std::string_view text, std::size_t room) {
  if (text.size() <= room) return text.size();
  while (room > 0 && (static_cast<unsigned char>(text[room]) & 0xC0U) == 0x80U) --room;
  return room;
}

}  // namespace

void refuse(std::string reason) { throw Refused{KELVANE_BAD_REQUEST, std::move(reason)}; }
void refuse(const Error& error) { throw Refused{failureOf(error.kind), error.reason}; }

void report(kelvane_error* error, kelvane_failure failure, std::string_view message) noexcept {
  constexpr std::size_t before = offsetof(kelvane_error, message);
  if (error == nullptr || error->size <= before) return;
  error->failure = failure;
  const std::size_t room = std::min(error->size - before, sizeof error->message);
  const std::size_t length = whole(message, room - 1);
  std::memcpy(error->message, message.data(), length);
  error->message[length] = '\0';
}

kelvane_failure reportThrown(kelvane_error* error) noexcept {
  const auto reported = [error](kelvane_failure failure, std::string_view message) {
    report(error, failure, message);
    return failure;
  };
  try {
    throw;
  } catch (const Refused& refused) {
    return reported(refused.failure, refused.reason);
  } catch (const std::bad_alloc&) {
    return reported(KELVANE_NO_MEMORY, "out of memory");
  } catch (const std::exception& exception) {
    return reported(KELVANE_INTERNAL, exception.what());
  } catch (...) {
    return reported(KELVANE_INTERNAL, "unknown error");
  }
}

std::string bytesOf(const char* argument, const char* name) {
  std::string bytes = &required(argument, name);
  if (bytes.empty()) refuse(std::string(name) + " is empty");
  return bytes;
}

std::string textOf(const char* argument, const char* name) {
  std::string text = bytesOf(argument, name);
  if (!isMessageText(text)) refuse("invalid " + std::string(name) + " " + quoted(text) + ": not UTF-8");
  return text;
}

std::string optionalBytes(const char* argument) { return argument != nullptr ? argument : ""; }

std::string quoted(std::string_view bytes) {
  std::string text(bytes);
  if (!isMessageText(text)) {
    std::replace_if(
        text.begin(), text.end(), [](char byte) { return (static_cast<unsigned char>(byte) & 0x80U) != 0; },
        '?');
  }
  return '"' + text + '"';
}

int checkedUrgency(int urgency) {
  if (urgency < 1 || urgency > most_urgent)
    refuse("invalid urgency " + std::to_string(urgency) + ": expected 1 to 4");
  return urgency;
}

}  // namespace kelvane::client

using namespace kelvane::client;

const char* kelvane_version() { return KELVANE_LIBRARY_VERSION; }

kelvane_failure kelvane_volume_of(const char* path, char* volume, std::size_t size, kelvane_error* error) {
  return guarded(error, [&] {
    required(volume, "volume");
    const std::string found = valueOf(volumeOf(bytesOf(path, "path")));
    if (found.size() >= size) {
      refuse("size is " + std::to_string(size) + ": the volume's name takes " +
             std::to_string(found.size() + 1));
    }
    std::memcpy(volume, found.c_str(), found.size() + 1);
  });
}
