#pragma once

#include <algorithm>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>

#include "kelvane/copy_on_write.h"
#include "support/service_record.h"

namespace kelvane {

/// Service identifier to record, in the order of the identifiers. A copy is a snapshot, and costs nothing
/// until one of the two changes; the records are shared. Copies may be read on any thread; one object belongs
/// to one thread at a time.
class Services {
 public:
  using Map = std::map<std::string, std::shared_ptr<KVService>, std::less<>>;
  using value_type = Map::value_type;
  using const_iterator = Map::const_iterator;

  Services() = default;
  Services(std::initializer_list<value_type> entries) : map_(Map(entries)) {}

  [[nodiscard]] const_iterator begin() const { return map_->begin(); }
  [[nodiscard]] const_iterator end() const { return map_->end(); }
  [[nodiscard]] const_iterator find(const std::string& ID) const { return map_->find(ID); }
  [[nodiscard]] const std::shared_ptr<KVService>& at(const std::string& ID) const { return map_->at(ID); }
  [[nodiscard]] bool contains(const std::string& ID) const { return map_->contains(ID); }
  [[nodiscard]] std::size_t size() const { return map_->size(); }
  [[nodiscard]] bool empty() const { return map_->empty(); }

  [[nodiscard]] std::shared_ptr<KVService>& operator[](const std::string& ID) { return map_.mutate()[ID]; }
  void erase(const std::string& ID) {
    if (contains(ID)) map_.mutate().erase(ID);
  }
  /// Keeps the records for which `wanted` is true; if that is all of them, no copy is made.
  template <class Wanted>
  void keep(Wanted wanted) {
    const auto unwanted = [&](const value_type& entry) { return !wanted(*entry.second); };
    if (std::any_of(begin(), end(), unwanted)) std::erase_if(map_.mutate(), unwanted);
  }

 private:
  foundation::CopyOnWrite<Map> map_;
};

}  // namespace kelvane
