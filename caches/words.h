#pragma once

// The words of definitions and what they stand for.

#include <array>
#include <string>

#include "caches/definition.h"

namespace kelvane::caches {

template <class Enumeration>
struct Word {
  const char* text;
  Enumeration value;
};

inline constexpr std::array<Word<Kind>, 2> kinds{{{"files", Kind::files}, {"units", Kind::units}}};
inline constexpr std::array<Word<Owner>, 2> owners{{{"system", Owner::system}, {"user", Owner::user}}};
inline constexpr std::array<Word<CacheClass>, 3> classes{{{"regenerable", CacheClass::regenerable},
                                                          {"expirable", CacheClass::expirable},
                                                          {"personal", CacheClass::personal}}};
inline constexpr std::array<Word<InUse::Kind>, 5> signs{{{"flock", InUse::Kind::flock},
                                                         {"record", InUse::Kind::record},
                                                         {"exists", InUse::Kind::exists},
                                                         {"pid_link", InUse::Kind::pid_link},
                                                         {"process", InUse::Kind::process}}};
inline constexpr std::array<Word<client::CacheLock::Kind>, 3> locks{
    {{"flock", client::CacheLock::Kind::flock},
     {"record", client::CacheLock::Kind::record},
     {"exists", client::CacheLock::Kind::exists}}};

template <class Enumeration, std::size_t count>
const Word<Enumeration>* wordFor(const std::array<Word<Enumeration>, count>& words, const std::string& text) {
  for (const auto& word : words) {
    if (text == word.text) return &word;
  }
  return nullptr;
}

template <class Enumeration, std::size_t count>
std::string listOf(const std::array<Word<Enumeration>, count>& words) {
  std::string list;
  for (std::size_t i = 0; i < count; ++i) {
    list += (i == 0 ? "" : i + 1 == count ? " or " : ", ") + std::string(words[i].text);
  }
  return list;
}

}  // namespace kelvane::caches
