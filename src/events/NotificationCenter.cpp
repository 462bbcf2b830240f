#include "NotificationCenter.h"

#include <vector>

NotificationCenter& NotificationCenter::Default() {
  static NotificationCenter center;
  return center;
}

NotificationCenter::Token NotificationCenter::AddObserver(const std::string& name,
                                                          Observer observer) {
  std::lock_guard<std::mutex> lock(mutex_);
  Token token = next_++;
  observers_[token] = {name, std::move(observer)};
  return token;
}

void NotificationCenter::RemoveObserver(Token token) {
  std::lock_guard<std::mutex> lock(mutex_);
  observers_.erase(token);
}

void NotificationCenter::Post(const std::string& name, const NotificationInfo& info) {
  // Observers are called outside the lock, so that one may add or remove observers.
  std::vector<Observer> matching;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [token, entry] : observers_) {
      if (entry.first == name) matching.push_back(entry.second);
    }
  }
  for (const auto& observer : matching) observer(name, info);
}
