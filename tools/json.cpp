#include "tools/json.h"

#include <fmt/format.h>
#include <charconv>
#include <nlohmann/json.hpp>
#include <optional>
#include <type_traits>

namespace kelvane::tools {
namespace {

using Json = nlohmann::json;

constexpr const char* data_key = "data";
constexpr const char* date_key = "date";
constexpr int deepest = 64;

std::string hexOf(const Data::Bytes& bytes) { return fmt::format("{:02x}", fmt::join(bytes, "")); }

std::optional<Data> dataIn(const std::string& text) {
  if (text.size() % 2 != 0) return std::nullopt;
  Data::Bytes bytes;
  for (const char* at = text.data(); at != text.data() + text.size(); at += 2) {
    if (std::from_chars(at, at + 2, bytes.emplace_back(), 16).ptr != at + 2) return std::nullopt;
  }
  return Data(std::move(bytes));
}

Json jsonOf(const Value& value);

Json jsonOf(const Dictionary& dictionary) {
  Json object = Json::object();
  for (const auto& [key, value] : dictionary) object[key] = jsonOf(value);
  return object;
}

Json jsonOf(const Array& array) {
  Json list = Json::array();
  for (const Value& value : array) list.push_back(jsonOf(value));
  return list;
}

Json jsonOf(const Value& value) {
  return std::visit(
      [](const auto& held) -> Json {
        using Kind = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Kind, std::monostate>) {
          return nullptr;
        } else if constexpr (std::is_same_v<Kind, Data>) {
          return {{data_key, hexOf(held.bytes())}};
        } else if constexpr (std::is_same_v<Kind, Date>) {
          return {{date_key, held.microseconds}};
        } else if constexpr (std::is_same_v<Kind, foundation::CopyOnWrite<std::string>>) {
          return *held;
        } else if constexpr (std::is_same_v<Kind, Dictionary> || std::is_same_v<Kind, Array>) {
          return jsonOf(held);
        } else {
          return held;
        }
      },
      value.held());
}

/// Nothing when the value is no number, text and so on that a property list holds.
std::optional<Value> valueOf(const Json& json, int depth);

std::optional<Value> objectOf(const Json& json, int depth) {
  if (json.size() == 1 && json.contains(data_key) && json[data_key].is_string()) {
    auto data = dataIn(json[data_key].get<std::string>());
    return data ? std::optional<Value>(std::move(*data)) : std::nullopt;
  }
  if (json.size() == 1 && json.contains(date_key) && json[date_key].is_number_integer())
    return Value(Date{json[date_key].get<std::int64_t>()});
  Dictionary dictionary;
  for (const auto& [key, member] : json.items()) {
    auto value = valueOf(member, depth + 1);
    if (!value) return std::nullopt;
    dictionary.set(key, std::move(*value));
  }
  return Value(std::move(dictionary));
}

std::optional<Value> arrayOf(const Json& json, int depth) {
  Array array;
  for (const Json& element : json) {
    auto value = valueOf(element, depth + 1);
    if (!value) return std::nullopt;
    array.append(std::move(*value));
  }
  return Value(std::move(array));
}

std::optional<Value> valueOf(const Json& json, int depth) {
  if (depth > deepest) return std::nullopt;
  if (json.is_object()) return objectOf(json, depth);
  if (json.is_array()) return arrayOf(json, depth);
  if (json.is_string()) return Value(json.get<std::string>());
  if (json.is_boolean()) return Value(json.get<bool>());
  if (json.is_number_unsigned()) return Value(json.get<std::uint64_t>());
  if (json.is_number_integer()) return Value(json.get<std::int64_t>());
  if (json.is_number()) return Value(json.get<double>());
  return Value();
}

}  // namespace

std::string jsonText(const Value& value) {
  return jsonOf(value).dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string jsonLine(const Value& value) {
  return jsonOf(value).dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

ReadJson readJson(const std::string& text) {
  const Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded()) return {};
  auto value = valueOf(json, 0);
  return value ? ReadJson{true, std::move(*value)} : ReadJson{};
}

}  // namespace kelvane::tools
