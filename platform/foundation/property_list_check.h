#pragma once

// What property_list.cpp asks before it hands bytes to libplist. Internal to this folder.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/foundation/property_list.h"

namespace kelvane::foundation {

/// Walks the object table from its root as libplist will, following shared references each time, and says
/// what is wrong with it: an offset or size outside the file, a cycle, too deep, too much once expanded.
[[nodiscard]] std::optional<std::string> checkBinaryPropertyList(std::span<const std::uint8_t> bytes,
                                                                 const PropertyListLimits& limits);

/// Walks the markup and says what is wrong with it: elements that do not nest, unknown ones, too deep, too
/// many, text that is not what its element says.
[[nodiscard]] std::optional<std::string> checkXMLPropertyList(std::string_view text,
                                                              const PropertyListLimits& limits);

/// Says what is wrong with the text of an <integer>, <real>, <date> or <data> element.
[[nodiscard]] std::optional<std::string> checkLeafText(std::string_view element, std::string_view text);

/// Says what is wrong with the entity references of `text`, which holds no markup.
[[nodiscard]] std::optional<std::string> checkEntities(std::string_view text);

}  // namespace kelvane::foundation
