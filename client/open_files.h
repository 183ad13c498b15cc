#pragma once

#include <sys/types.h>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kelvane::client {

/// The files that processes have open or mapped, as far as this process may see it: those of its own user,
/// or, for root, all.
class OpenFiles {
 public:
  static constexpr std::size_t most_files = 65'536;  // with more, every file counts as open

  void refresh();
  /// Does nothing when the last reading is recent.
  void refreshWhenOld();
  [[nodiscard]] bool have(dev_t device, ino_t number) const;

 private:
  struct File {
    std::uint64_t device = 0;  // 0: any. The device of a mapping may differ from that of stat.
    std::uint64_t number = 0;
    bool operator==(const File& other) const { return device == other.device && number == other.number; }
    bool operator<(const File& other) const {
      return device != other.device ? device < other.device : number < other.number;
    }
  };

  void addProcess(int process);
  void addDescriptors(int process);
  void addMappings(int process);
  void add(File file);
  void dropRepeated();

  std::vector<File> files_;  // sorted, once complete
  bool too_many_ = false;
  std::chrono::steady_clock::time_point refreshed_at_{};
};

}  // namespace kelvane::client
