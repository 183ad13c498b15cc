#pragma once

#include <initializer_list>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::tools {

/// The signals, to be read when it suits instead of ending the program; those that whoever started the
/// program had it ignore stay ignored. Made before the first thread, which would take them.
[[nodiscard]] FileDescriptor takenSignals(std::initializer_list<int> numbers);
/// The next of them; 0 when there is none.
[[nodiscard]] int nextSignal(const FileDescriptor& signals);

}  // namespace kelvane::tools
