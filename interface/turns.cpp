#include "interface/turns.h"

#include <utility>

namespace kelvane {

void Turns::add(uid_t user, Block item) {
  const std::lock_guard lock(mutex_);
  waiting_[user].push_back(std::move(item));
}

void Turns::runNext() { takeNext()(); }

Block Turns::takeNext() {
  const std::lock_guard lock(mutex_);
  auto user = waiting_.upper_bound(last_);
  if (user == waiting_.end()) user = waiting_.begin();
  last_ = user->first;
  Block item = std::move(user->second.front());
  user->second.pop_front();
  if (user->second.empty()) waiting_.erase(user);
  return item;
}

}  // namespace kelvane
