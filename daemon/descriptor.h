#pragma once

#include <memory>

#include "kelvane/value.h"
#include "support/service_record.h"

namespace kelvane {

/// The record that a service descriptor declares; null when it names no ID. `selector` speaks in the log.
///
/// A value of another type than its key wants is a fault of the file, and is read so that the service is
/// asked for less rather than more: an ID that is no string is none, KELVANE_SERVICES that is no array is an
/// empty one, KELVANE_NOTIFICATIONS that is no array is absent, a flag that is no number is false. An element
/// of an array that is no string says nothing.
std::shared_ptr<KVService> serviceFromDescriptor(const Dictionary& descriptor, const char* selector);

}  // namespace kelvane
