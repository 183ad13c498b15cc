#include "platform/foundation/suite_mark.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kelvane::foundation {
namespace {

using Words = std::array<std::uint32_t, 4>;

Words wordsOf(LogPosition position) {
  constexpr std::uint32_t mark = 0x4b4d4b31;
  return {position.generation, position.salt, position.frames,
          position.generation ^ position.salt ^ position.frames ^ mark};
}

}  // namespace

SuiteMark::SuiteMark(const std::string& path)
    : file_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR)) {}

/// Small enough to be written whole. When writing fails, the old mark remains.
void SuiteMark::set(LogPosition position) const {
  const Words words = wordsOf(position);
  if (file_) static_cast<void>(!::pwrite(file_.get(), words.data(), sizeof words, 0));
}

std::optional<LogPosition> SuiteMark::get() const {
  Words words{};
  if (!file_ || ::pread(file_.get(), words.data(), sizeof words, 0) != sizeof words) return std::nullopt;
  const LogPosition position{words[0], words[1], words[2]};
  if (wordsOf(position) != words || position.frames == 0) return std::nullopt;
  return position;
}

bool SuiteMark::isBeyond(LogPosition position) const {
  const std::optional<LogPosition> mark = get();
  if (!mark) return false;
  const bool is_empty = position.generation == 0 && position.salt == 0;
  if (is_empty) return true;
  if (position.generation == mark->generation && position.salt == mark->salt)
    return position.frames < mark->frames;
  constexpr std::uint32_t half = 1U << 31;
  const std::uint32_t later = position.generation - mark->generation;
  return later == 0 || later >= half;
}

}  // namespace kelvane::foundation
