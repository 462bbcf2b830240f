#pragma once
// ASIHeaderFields: the headers of a request or a response, in their order, with
// names compared without regard to case ("content-length" finds "Content-Length").
// A name given twice in a response keeps one entry, the values joined by ", ".

#include <optional>
#include <string>
#include <utility>
#include <vector>

class ASIHeaderFields {
 public:
  using Field = std::pair<std::string, std::string>;

  // Replaces the value of a header of that name, or adds it at the end.
  void set(const std::string& name, const std::string& value);
  // Adds a value the way a response repeats a header: joined to an existing one.
  void append(const std::string& name, const std::string& value);
  void remove(const std::string& name);
  void clear() { fields_.clear(); }

  bool contains(const std::string& name) const;
  std::optional<std::string> find(const std::string& name) const;
  // The value, or "" when the header is missing.
  std::string valueForKey(const std::string& name) const;

  const std::vector<Field>& fields() const { return fields_; }
  bool empty() const { return fields_.empty(); }
  std::size_t size() const { return fields_.size(); }

  // "Name: value" lines joined by "\n", for the logs.
  std::string description() const;

  static bool NamesEqual(const std::string& a, const std::string& b);

 private:
  std::vector<Field>::iterator Locate(const std::string& name);
  std::vector<Field>::const_iterator Locate(const std::string& name) const;

  std::vector<Field> fields_;
};
