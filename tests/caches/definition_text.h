#pragma once

#include <map>
#include <string>

namespace kelvane::caches::test {

/// The text of a valid definition with some lines replaced. An empty value omits the key.
class DefinitionText {
 public:
  DefinitionText& holder(const std::string& key, const std::string& value) {
    holder_[key] = value;
    return *this;
  }
  DefinitionText& urgency(std::map<std::string, std::string> ages) {
    urgency_ = std::move(ages);
    return *this;
  }
  DefinitionText& also(const std::string& text) {
    rest_ += text + "\n";
    return *this;
  }
  [[nodiscard]] std::string text() const {
    return table("holder", holder_) + table("urgency", urgency_) + rest_;
  }

 private:
  static std::string table(const std::string& name, const std::map<std::string, std::string>& entries) {
    std::string text = "[" + name + "]\n";
    for (const auto& [key, value] : entries) text += value.empty() ? "" : key + " = " + value + "\n";
    return text;
  }

  std::map<std::string, std::string> holder_ = {
      {"name", "\"npm\""},
      {"kind", "\"files\""},
      {"for", "\"user\""},
      {"class", "\"regenerable\""},
      {"summary", "\"npm's downloaded packages\""},
      {"roots", "[\"~/.npm/_cacache\"]"},
      {"include", "[\"content-v2/**\"]"},
  };
  std::map<std::string, std::string> urgency_ = {{"2", "\"30d\""}, {"3", "\"7d\""}, {"4", "\"1h\""}};
  std::string rest_;
};

}  // namespace kelvane::caches::test
