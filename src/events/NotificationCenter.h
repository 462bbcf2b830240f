#pragma once
// NotificationCenter: the in-process publish/subscribe of named events with a
// dictionary. Observers run synchronously on the posting thread; an observer
// that must touch a window hops to the main thread itself.

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <variant>

using NotificationValue = std::variant<std::int64_t, std::string>;
using NotificationInfo = std::map<std::string, NotificationValue>;

class NotificationCenter {
 public:
  using Observer = std::function<void(const std::string& name, const NotificationInfo& info)>;
  using Token = int;

  static NotificationCenter& Default();

  Token AddObserver(const std::string& name, Observer observer);
  void RemoveObserver(Token token);
  void Post(const std::string& name, const NotificationInfo& info = {});

 private:
  std::mutex mutex_;
  std::map<Token, std::pair<std::string, Observer>> observers_;
  Token next_ = 1;
};
