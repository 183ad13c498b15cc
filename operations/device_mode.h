#pragma once

namespace kelvane {

inline constexpr const char* device_mode_library =
    "/System/Library/PrivateFrameworks/Lorvad.framework/Lorvad";

/// Whether the device is used by several users. False when the key-bag library is missing, incomplete or
/// fails, each of which is logged at level 3 under the name of the method that asks. Any thread.
[[nodiscard]] bool deviceIsMultiUser(const char* selector);

/// The only access to the key-bag library: how its symbols are resolved (`getFunc`'s arguments and result).
/// Null restores `getFunc`. Must not be called while an operation is being created.
using SymbolLookup = void* (*)(const char* library, const char* symbol);
void setDeviceModeLookup(SymbolLookup look_up);

}  // namespace kelvane
