#include "operations/device_mode.h"

#include <cstring>

#include "support/keybag/lorvad.h"
#include "support/log.h"
#include "support/runtime_symbols.h"

namespace kelvane {
namespace {

SymbolLookup lookup = getFunc;

/// The text constant at a symbol's address; null when the symbol is missing.
const char* constantAt(void* address) {
  return address == nullptr ? nullptr : *static_cast<const char* const*>(address);
}

/// Whether the dictionary that the function returns says "multi-user"; the dictionary is released.
bool saysMultiUser(decltype(&LVDUserTypeDeviceMode) deviceMode, const char* multi_user, const char* key,
                   const char* selector) {
  const char* error = nullptr;
  LVDDictionary* const mode = deviceMode(nullptr, &error);
  if (mode == nullptr || error != nullptr) {
    KVLog(3, "%s LVDUserTypeDeviceMode error; %@", selector, error);
    if (mode != nullptr) mode->release(mode);
    return false;
  }
  const char* const value = mode->value(mode, key);
  const bool is_multi_user = value != nullptr && std::strcmp(value, multi_user) == 0;
  mode->release(mode);
  return is_multi_user;
}

}  // namespace

bool deviceIsMultiUser(const char* selector) {
  void* const function = lookup(device_mode_library, "LVDUserTypeDeviceMode");
  const char* const multi_user = constantAt(lookup(device_mode_library, "kLVDDeviceModeMultiUser"));
  const char* const key = constantAt(lookup(device_mode_library, "kLVDDeviceModeKey"));
  if (function == nullptr || multi_user == nullptr || key == nullptr) {
    // The second address is that of the multi-user text, whatever the line calls it.
    KVLog(3,
          "%s Unable to get symbols from Lorvad, _LVDUserTypeDeviceMode: %p, _kLVDDeviceModeSingleUser: %p, "
          "_kLVDDeviceModeKey: %p",
          selector, static_cast<const void*>(function), static_cast<const void*>(multi_user),
          static_cast<const void*>(key));
    return false;
  }
  return saysMultiUser(reinterpret_cast<decltype(&LVDUserTypeDeviceMode)>(function), multi_user, key,
                       selector);
}

void setDeviceModeLookup(SymbolLookup look_up) { lookup = look_up != nullptr ? look_up : getFunc; }

}  // namespace kelvane
