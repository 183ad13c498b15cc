#pragma once

#include <memory>

#include "kelvane/value.h"
#include "support/service_record.h"

namespace kelvane {

/// The record that a service descriptor declares; null when it has no ID. `selector` begins the log lines.
///
/// A value of the wrong type never makes the daemon ask more of the service: an ID that is not a
/// string counts as missing, KELVANE_SERVICES that is not an array as empty,
/// KELVANE_NOTIFICATIONS that is not an array as missing, a flag that is not a number as false.
/// Elements of an array that are not strings are ignored.
std::shared_ptr<KVService> serviceFromDescriptor(const Dictionary& descriptor, const char* selector);

}  // namespace kelvane
