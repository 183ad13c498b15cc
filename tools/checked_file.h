#pragma once

// Service descriptors and grants, as an administrator writes them: what the daemon makes of a file, and what
// it would pass over without a word.

#include <cstddef>
#include <string>
#include <vector>

#include "kelvane/value.h"
#include "tools/screen.h"

namespace kelvane::tools {

struct Fault {
  std::size_t line = 0;  // counted from 1; 0 where the file does not say, as a binary one
  std::string text;
};

enum class FileKind : std::uint8_t { unreadable, descriptor, grant };

struct CheckedFile {
  std::string path;
  FileKind kind = FileKind::unreadable;
  Dictionary contents;
  std::vector<Fault> faults;
};

/// Reads the file. A dictionary with any key of a grant is one, any other a descriptor.
[[nodiscard]] CheckedFile checkFile(const std::string& path);

/// A line for each fault as compilers write them, and one for each file without.
[[nodiscard]] std::string checkScreen(const std::vector<CheckedFile>& files, const Screen& screen);
[[nodiscard]] Value checkValue(const std::vector<CheckedFile>& files);

}  // namespace kelvane::tools
