#include "YPathStatusTable.h"

namespace Agent {

YPathState YPathStatusTable::Get(const Qel::YString& path) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = states_.find(path);
  return it == states_.end() ? YPathState() : it->second;
}

void YPathStatusTable::Set(const Qel::YString& path, const YPathState& state) {
  std::lock_guard<std::mutex> lock(mutex_);
  states_[path] = state;
}

void YPathStatusTable::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  states_.clear();
}

size_t YPathStatusTable::Size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return states_.size();
}

}  // namespace Agent
