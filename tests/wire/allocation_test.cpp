// What the codec takes from the heap. This replaces the whole program's operator new.

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

#include <gtest/gtest.h>

#include "platform/wire/reader.h"
#include "platform/wire/writer.h"

namespace {
std::atomic<std::size_t> allocations = 0;
}

// Not inlined: the compiler would see memory of `operator new` being freed.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocations;
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace kelvane::wire {
namespace {

void writeDictionary(Outgoing& outgoing) {
  Writer writer(outgoing, {.path = "/com/orvel/kelvane",
                           .interface = "com.orvel.KelvaneClientProtocol",
                           .member = "clientPurge",
                           .signature = "a{sv}"});
  writer.openArray("{sv}");
  for (std::uint64_t i = 0; i < 8; ++i) {
    writer.openEntry("sv");
    writer.writeString("KELVANE_SOME_KEY");
    writer.openVariant("t");
    writer.writeUint64(i);
    writer.closeVariant();
    writer.closeEntry();
  }
  writer.closeArray();
  EXPECT_EQ(writer.finish(), Writer::Fault::none);
  setSerial(outgoing, 1);
}

std::uint64_t readDictionary(const Outgoing& outgoing) {
  const auto message = parseMessage(outgoing.bytes);
  Reader reader(*message, {});
  std::uint64_t sum = 0;
  reader.enterArray("{sv}");
  while (!reader.atEnd()) {
    reader.enterEntry();
    reader.readString();
    reader.enterVariant();
    sum += reader.readUint64();
    reader.leave();
    reader.leave();
  }
  reader.leave();
  EXPECT_TRUE(reader.finish());
  EXPECT_TRUE(isBodyValid(*message, 0));
  return sum;
}

TEST(Allocation, WritingIntoUsedMemoryAndReadingTakeNone) {
  Outgoing outgoing;
  const std::size_t before_first = allocations;
  writeDictionary(outgoing);
  EXPECT_GT(allocations, before_first) << "the vector's own";
  const std::size_t before = allocations;
  writeDictionary(outgoing);
  EXPECT_EQ(readDictionary(outgoing), 28u);
  EXPECT_EQ(allocations, before);
}

}  // namespace
}  // namespace kelvane::wire
