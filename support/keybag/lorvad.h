#pragma once

// The device-mode library: a shared library named Lorvad with the three symbols below, loaded at run time.
// Its interface is plain C, so that it can be replaced by whatever knows the device better.

extern "C" {

/// A string-to-string dictionary that knows how to look into itself and how to go.
struct LVDDictionary {
  /// The value under `key`, or null. Valid until the dictionary is released.
  const char* (*value)(const LVDDictionary* self, const char* key);
  void (*release)(LVDDictionary* self);
};

/// The device's user type as a new dictionary, or null with `*error` set to a text that is never freed.
/// `reserved` must be null.
LVDDictionary* LVDUserTypeDeviceMode(void* reserved, const char** error);

extern const char* const kLVDDeviceModeMultiUser;
extern const char* const kLVDDeviceModeKey;
}
