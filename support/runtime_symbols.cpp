#include "support/runtime_symbols.h"

#include <dlfcn.h>
#include <unistd.h>
#include <map>
#include <mutex>
#include <string>

namespace kelvane {
namespace {

/// The library's handle, which is never closed; null when it cannot be loaded (now: it may appear later).
void* loadedLibrary(const char* path) {
  static std::mutex mutex;
  static std::map<std::string, void*>& loaded = *new std::map<std::string, void*>;  // guarded by mutex
  const std::lock_guard lock(mutex);
  const auto found = loaded.find(path);
  if (found != loaded.end()) return found->second;
  // Asked before every operation, and most devices have none: the loader would take longer to say so.
  if (::access(path, R_OK) != 0) return nullptr;
  void* library = ::dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library != nullptr) loaded.emplace(path, library);
  return library;
}

}  // namespace

void* getFunc(const char* library, const char* symbol) {
  if (library == nullptr || symbol == nullptr) return nullptr;  // to the loader they would mean this program
  void* handle = loadedLibrary(library);
  return handle != nullptr ? ::dlsym(handle, symbol) : nullptr;
}

}  // namespace kelvane
