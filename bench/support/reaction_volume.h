#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::bench {

/// A volume in memory that only this process and its children see, with folders of purgeable files.
class ReactionVolume {
 public:
  ReactionVolume(std::uint64_t bytes, std::size_t folders, std::uint64_t purgeable_bytes);
  ~ReactionVolume();
  ReactionVolume(const ReactionVolume&) = delete;
  ReactionVolume& operator=(const ReactionVolume&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string folder(std::size_t number) const { return path_ + "/" + std::to_string(number); }
  [[nodiscard]] std::uint64_t freeSpace() const;
  /// Makes the purgeable files that are missing, and takes or gives space until so much is free.
  void prepare(std::uint64_t free_bytes);

 private:
  const std::string path_;
  const std::size_t folders_;
  const std::uint64_t files_;  // in each folder
};

/// A file that grows at a given rate.
class Writer {
 public:
  static constexpr std::uint64_t block_bytes = 256 << 10;

  /// `bytes_per_second` 0: as fast as it can.
  Writer(const ReactionVolume& volume, std::uint64_t bytes_per_second);
  ~Writer();
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  /// Writes the next block, when its time has come; false when there was no space for it.
  [[nodiscard]] bool writeBlock();
  [[nodiscard]] std::uint64_t written() const { return written_; }

 private:
  const std::string path_;
  const FileDescriptor file_;
  const std::uint64_t bytes_per_second_;
  const std::vector<char> block_;
  std::uint64_t began_at_ = 0;
  std::uint64_t offered_ = 0;
  std::uint64_t written_ = 0;
};

}  // namespace kelvane::bench
