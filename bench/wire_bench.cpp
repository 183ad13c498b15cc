// What building and reading a message costs, beside sd-bus doing the same without a socket.
//
// The message is a call with a dictionary of eight keys, as a purge has. Reading includes the header here,
// and for sd-bus the body alone, which it has parsed already.

#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "bench/support/placement.h"
#include "bench/support/program.h"
#include "bench/support/rounds.h"
#include "platform/foundation/file_descriptor.h"
#include "platform/wire/reader.h"
#include "platform/wire/writer.h"

namespace kelvane::bench {
namespace {

constexpr int turn = 2000;  // messages measured at a stretch
constexpr const char* path = "/com/orvel/kelvane";
constexpr const char* interface = "com.orvel.KelvaneClientProtocol";
constexpr const char* member = "clientPurge";

constexpr std::array<std::pair<const char*, std::uint64_t>, 6> numbers{{{"KELVANE_AMOUNT", 104857600},
                                                                        {"KELVANE_URGENCY", 3},
                                                                        {"KELVANE_URGENCY_LIMIT", 4},
                                                                        {"KELVANE_PURGE_TIMEOUT", 30},
                                                                        {"KELVANE_FREESPACE_BEGIN", 5},
                                                                        {"KELVANE_FREESPACE_END", 6}}};
constexpr std::array<std::pair<const char*, const char*>, 2> texts{
    {{"KELVANE_VOLUME", "/var/lib/some/volume"}, {"KELVANE_TOKEN", "6f1c7f0e-3e5c-4a53-9a10-0f4d7d3c2b11"}}};

void require(int result) {
  if (result < 0) throw std::runtime_error("sd-bus refuses to build or to read the message");
}

// --- ours ---

void build(wire::Outgoing& outgoing) {
  wire::Writer writer(outgoing,
                      {.path = path, .interface = interface, .member = member, .signature = "a{sv}"});
  writer.openArray("{sv}");
  for (const auto& [key, number] : numbers) {
    writer.openEntry("sv");
    writer.writeString(key);
    writer.openVariant("t");
    writer.writeUint64(number);
    writer.closeVariant();
    writer.closeEntry();
  }
  for (const auto& [key, text] : texts) {
    writer.openEntry("sv");
    writer.writeString(key);
    writer.openVariant("s");
    writer.writeString(text);
    writer.closeVariant();
    writer.closeEntry();
  }
  writer.closeArray();
  if (writer.finish() != wire::Writer::Fault::none) throw std::runtime_error("the message cannot be built");
  wire::setSerial(outgoing, 1);
}

/// Something that depends on all that was read.
std::uint64_t read(const wire::Outgoing& outgoing) {
  const auto message = wire::parseMessage(outgoing.bytes);
  if (!message) throw std::runtime_error("the message is malformed");
  wire::Reader reader(*message, {});
  std::uint64_t sum = 0;
  reader.enterArray("{sv}");
  while (!reader.atEnd()) {
    reader.enterEntry();
    sum += reader.readString().size();
    reader.enterVariant();
    sum += reader.nextType() == 't' ? reader.readUint64() : reader.readString().size();
    reader.leave();
    reader.leave();
  }
  reader.leave();
  if (!reader.finish()) throw std::runtime_error("the message's body is malformed");
  return sum;
}

// --- sd-bus ---

struct Unref {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using BusMessage = std::unique_ptr<sd_bus_message, Unref>;

/// A bus whose peer never answers: messages are only built.
class SilentBus {
 public:
  SilentBus() {
    std::array<int, 2> ends{};
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()));
    peer_ = FileDescriptor(ends[0]);
    sd_bus* bus = nullptr;
    require(sd_bus_new(&bus));
    bus_.reset(bus);
    require(sd_bus_set_fd(bus, ends[1], ends[1]));
    require(sd_bus_start(bus));
  }
  [[nodiscard]] sd_bus* get() const { return bus_.get(); }

 private:
  FileDescriptor peer_;
  std::unique_ptr<sd_bus, Unref> bus_;
};

BusMessage build(sd_bus* bus) {
  sd_bus_message* message = nullptr;
  require(sd_bus_message_new_method_call(bus, &message, nullptr, path, interface, member));
  BusMessage owned(message);
  require(sd_bus_message_open_container(message, 'a', "{sv}"));
  const auto append = [&](const char* key, char type, const void* value) {
    const std::array<char, 2> types{type, '\0'};
    require(sd_bus_message_open_container(message, 'e', "sv"));
    require(sd_bus_message_append_basic(message, 's', key));
    require(sd_bus_message_open_container(message, 'v', types.data()));
    require(sd_bus_message_append_basic(message, type, value));
    require(sd_bus_message_close_container(message));
    require(sd_bus_message_close_container(message));
  };
  for (const auto& [key, number] : numbers) append(key, 't', &number);
  for (const auto& [key, text] : texts) append(key, 's', text);
  require(sd_bus_message_close_container(message));
  require(sd_bus_message_seal(message, 1, 0));
  return owned;
}

std::uint64_t read(sd_bus_message* message) {
  require(sd_bus_message_rewind(message, 1));
  std::uint64_t sum = 0;
  require(sd_bus_message_enter_container(message, 'a', "{sv}"));
  while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
    const char* text = nullptr;
    const char* held = nullptr;
    std::uint64_t number = 0;
    require(sd_bus_message_read_basic(message, 's', &text));
    sum += std::char_traits<char>::length(text);
    require(sd_bus_message_peek_type(message, nullptr, &held));
    const bool is_number = held[0] == 't';
    require(sd_bus_message_enter_container(message, 'v', held));
    if (is_number) {
      require(sd_bus_message_read_basic(message, 't', &number));
    } else {
      require(sd_bus_message_read_basic(message, 's', &text));
      number = std::char_traits<char>::length(text);
    }
    sum += number;
    require(sd_bus_message_exit_container(message));
    require(sd_bus_message_exit_container(message));
  }
  require(sd_bus_message_exit_container(message));
  return sum;
}

// --- both ---

template <class Ours, class Theirs>
Figure figureOf(const char* name, int rounds, Ours ours, Theirs theirs) {
  const auto found = quartilesOfRounds<3>(rounds, [&]() -> std::array<double, 3> {
    const double peer = microsecondsOf(theirs, turn);
    const double own = microsecondsOf(ours, turn);
    return {own, peer, own / peer};
  });
  return {name, "us", rounds, found[0], Peer{"sd-bus", found[1], found[2]}};
}

Report measure(int rounds) {
  place(0, Side::near);
  const SilentBus bus;
  const BusMessage message = build(bus.get());
  wire::Outgoing outgoing;
  build(outgoing);
  if (read(outgoing) != read(message.get())) throw std::runtime_error("the two read different values");
  volatile std::uint64_t sum = 0;
  return {{figureOf(
               "build a call with 8 keys", rounds, [&] { build(outgoing); },
               [&] { static_cast<void>(build(bus.get())); }),
           figureOf(
               "read a call with 8 keys", rounds, [&] { sum = sum + read(outgoing); },
               [&] { sum = sum + read(message.get()); })}};
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  int rounds = 31;
  return kelvane::bench::runProgram(
      argc, argv,
      {"wire_bench", "Measures building and reading messages against sd-bus.",
       [&](CLI::App& app) {
         app.add_option("--rounds", rounds, "rounds, each of 2,000 messages")->check(CLI::Range(3, 1000));
       },
       [&] { return kelvane::bench::measure(rounds); }});
}
