#include "fuzz/scratch_directory.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <filesystem>

#include "fuzz/target.h"
#include "platform/foundation/file_descriptor.h"

namespace kelvane::fuzz {

ScratchDirectory::ScratchDirectory() : path_("/dev/shm/kelvane-fuzz-XXXXXX") {
  require(::mkdtemp(path_.data()) != nullptr, "a directory can be made in /dev/shm");
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void ScratchDirectory::makeDirectory(const std::string& name) const {
  std::filesystem::create_directories(*this / name);
}

void ScratchDirectory::write(const std::string& name, std::span<const std::uint8_t> content) const {
  const FileDescriptor file(::open((*this / name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  require(file && ::write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()),
          "a file in /dev/shm can be written");
}

}  // namespace kelvane::fuzz
