// The device is multi-user when the first word of its device-mode file says "multi-user". The file is
// $CONFIGURATION_DIRECTORY/device-mode, by default /etc/kelvane/device-mode; a device without one has a
// single user. The library stands alone, so that it can be loaded by anything.

#include "support/keybag/lorvad.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

extern "C" {
const char* const kLVDDeviceModeMultiUser = "MultiUser";
const char* const kLVDDeviceModeKey = "DeviceMode";
}

namespace {

constexpr const char* single_user = "SingleUser";
constexpr std::size_t largest_file = 4096;

struct DeviceMode : LVDDictionary {
  const char* mode = single_user;
};

const char* valueOf(const LVDDictionary* self, const char* key) {
  if (key == nullptr || std::strcmp(key, kLVDDeviceModeKey) != 0) return nullptr;
  return static_cast<const DeviceMode*>(self)->mode;
}

void release(LVDDictionary* self) { delete static_cast<DeviceMode*>(self); }

struct File {
  std::array<char, largest_file + 1> bytes{};
  std::size_t size = 0;
};

/// Null when the file was read or there is none.
const char* readDescriptor(int descriptor, File& file) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return "the device-mode file is no file";
  while (file.size < file.bytes.size()) {
    const ssize_t n = ::read(descriptor, file.bytes.data() + file.size, file.bytes.size() - file.size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return "the device-mode file cannot be read";
    if (n == 0) return nullptr;
    file.size += static_cast<std::size_t>(n);
  }
  return "the device-mode file is too large";
}

const char* readFile(const std::string& path, File& file) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) return errno == ENOENT ? nullptr : "the device-mode file cannot be opened";
  const char* error = readDescriptor(descriptor, file);
  ::close(descriptor);
  return error;
}

std::string filePath() {
  const char* directory = std::getenv("CONFIGURATION_DIRECTORY");
  if (directory == nullptr || *directory == '\0') directory = "/etc/kelvane";
  const std::string paths = directory;  // several are separated by colons
  return paths.substr(0, paths.find(':')) + "/device-mode";
}

std::string_view firstWord(std::string_view text) {
  constexpr const char* blanks = " \t\r\n";
  const std::size_t begin = text.find_first_not_of(blanks);
  if (begin == std::string_view::npos) return {};
  const std::size_t end = text.find_first_of(blanks, begin);
  return text.substr(begin, end == std::string_view::npos ? end : end - begin);
}

const char* deviceMode(DeviceMode& device) {
  File file;
  if (const char* error = readFile(filePath(), file)) return error;
  const bool is_multi_user = firstWord({file.bytes.data(), file.size}) == "multi-user";
  device.mode = is_multi_user ? kLVDDeviceModeMultiUser : single_user;
  return nullptr;
}

LVDDictionary* fail(const char** error, const char* text) {
  if (error != nullptr) *error = text;
  return nullptr;
}

}  // namespace

LVDDictionary* LVDUserTypeDeviceMode(void* reserved, const char** error) {
  if (error != nullptr) *error = nullptr;
  if (reserved != nullptr) return fail(error, "the first argument must be null");
  auto* device = new (std::nothrow) DeviceMode{{valueOf, release}, single_user};
  if (device == nullptr) return fail(error, "no memory");
  const char* problem = nullptr;
  try {
    problem = deviceMode(*device);
  } catch (const std::exception&) {  // the path is a string
    problem = "no memory";
  }
  if (problem == nullptr) return device;
  delete device;
  return fail(error, problem);
}
