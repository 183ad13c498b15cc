#include "client/hard_links.h"

namespace kelvane::client {
namespace {

constexpr std::size_t first_slots = 1024;

/// Spreads consecutive numbers.
std::size_t spread(std::uint64_t device, std::uint64_t number) {
  std::uint64_t value = (number ^ device << 32) * 0x9E3779B97F4A7C15U;
  value ^= value >> 32;
  return static_cast<std::size_t>(value * 0xD6E8FEB86659FD93U >> 16);
}

}  // namespace

LinkedFile* HardLinks::find(std::uint64_t device, std::uint64_t number, std::uint32_t names) {
  if (names > most_names) return nullptr;
  if (slots_.empty()) slots_.resize(first_slots);
  std::size_t slot = slotOf(device, number);
  if (slots_[slot] != 0) return &files_[slots_[slot] - 1];
  if (files_.size() == most_files) return nullptr;
  if (2 * (files_.size() + 1) > slots_.size()) {
    grow();
    slot = slotOf(device, number);
  }
  LinkedFile& file = files_.emplace_back();
  file.device = device;
  file.number = number;
  file.names = names;
  slots_[slot] = static_cast<std::uint32_t>(files_.size());
  return &file;
}

LinkedFile* HardLinks::known(std::uint64_t device, std::uint64_t number) {
  if (slots_.empty()) return nullptr;
  const std::uint32_t index = slots_[slotOf(device, number)];
  return index == 0 ? nullptr : &files_[index - 1];
}

void HardLinks::grow() {
  slots_.assign(2 * slots_.size(), 0);
  for (std::size_t i = 0; i < files_.size(); ++i)
    slots_[slotOf(files_[i].device, files_[i].number)] = static_cast<std::uint32_t>(i + 1);
}

/// The slot of a file, or the free one where it belongs.
std::size_t HardLinks::slotOf(std::uint64_t device, std::uint64_t number) const {
  const std::size_t mask = slots_.size() - 1;
  std::size_t slot = spread(device, number) & mask;
  while (slots_[slot] != 0) {
    const LinkedFile& file = files_[slots_[slot] - 1];
    if (file.device == device && file.number == number) return slot;
    slot = (slot + 1) & mask;
  }
  return slot;
}

}  // namespace kelvane::client
