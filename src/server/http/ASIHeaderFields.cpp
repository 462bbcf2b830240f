#include "ASIHeaderFields.h"

#include <algorithm>
#include <cctype>

bool ASIHeaderFields::NamesEqual(const std::string& a, const std::string& b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

std::vector<ASIHeaderFields::Field>::iterator ASIHeaderFields::Locate(const std::string& name) {
  return std::find_if(fields_.begin(), fields_.end(),
                      [&](const Field& field) { return NamesEqual(field.first, name); });
}

std::vector<ASIHeaderFields::Field>::const_iterator ASIHeaderFields::Locate(
    const std::string& name) const {
  return std::find_if(fields_.begin(), fields_.end(),
                      [&](const Field& field) { return NamesEqual(field.first, name); });
}

void ASIHeaderFields::set(const std::string& name, const std::string& value) {
  auto it = Locate(name);
  if (it == fields_.end()) {
    fields_.emplace_back(name, value);
  } else {
    it->second = value;
  }
}

void ASIHeaderFields::append(const std::string& name, const std::string& value) {
  auto it = Locate(name);
  if (it == fields_.end()) {
    fields_.emplace_back(name, value);
  } else {
    it->second += ", " + value;
  }
}

void ASIHeaderFields::remove(const std::string& name) {
  fields_.erase(std::remove_if(fields_.begin(), fields_.end(),
                               [&](const Field& field) { return NamesEqual(field.first, name); }),
                fields_.end());
}

bool ASIHeaderFields::contains(const std::string& name) const { return Locate(name) != fields_.end(); }

std::optional<std::string> ASIHeaderFields::find(const std::string& name) const {
  auto it = Locate(name);
  if (it == fields_.end()) return std::nullopt;
  return it->second;
}

std::string ASIHeaderFields::valueForKey(const std::string& name) const {
  auto it = Locate(name);
  return it == fields_.end() ? std::string() : it->second;
}

std::string ASIHeaderFields::description() const {
  std::string text;
  for (const auto& [name, value] : fields_) {
    if (!text.empty()) text += "\n";
    text += name + ": " + value;
  }
  return text;
}
