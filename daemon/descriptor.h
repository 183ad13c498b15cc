#pragma once

#include <memory>

#include "kelvane/value.h"
#include "support/service_record.h"

namespace kelvane {

/// The record that a service descriptor declares; null when it has no ID. `selector` begins the log lines.
///
/// A value of another type than its key expects means that the service is asked for less rather than more: an
/// ID that is not a string is missing, KELVANE_SERVICES that is not an array is an empty one,
/// KELVANE_NOTIFICATIONS that is not an array is missing, a flag that is not a number is false. Elements of
/// an array that are not strings are ignored.
std::shared_ptr<KVService> serviceFromDescriptor(const Dictionary& descriptor, const char* selector);

}  // namespace kelvane
