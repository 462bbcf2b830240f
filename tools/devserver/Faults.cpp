#include "Faults.h"

#include <stdexcept>

#include "WireFormats.h"

namespace devserver {

Fault Fault::Result(std::string text) {
  Fault f;
  f.kind = Kind::Result;
  f.result = std::move(text);
  return f;
}

Fault Fault::Status(int httpStatus) {
  if (httpStatus < 100 || httpStatus > 599) throw std::invalid_argument("HTTP status out of range");
  Fault f;
  f.kind = Kind::Status;
  f.status = httpStatus;
  return f;
}

Fault Fault::Delay(std::chrono::milliseconds wait) {
  Fault f;
  f.kind = Kind::Delay;
  f.delay = wait;
  return f;
}

Fault Fault::Drop(std::size_t afterBodyBytes) {
  Fault f;
  f.kind = Kind::Drop;
  f.dropAfterBodyBytes = afterBodyBytes;
  return f;
}

Fault Fault::DropBeforeReply() {
  Fault f;
  f.kind = Kind::Drop;
  return f;
}

Fault Fault::Parse(std::string_view argument) {
  const auto eq = argument.find('=');
  const auto kind = argument.substr(0, eq);
  const auto value = eq == std::string_view::npos ? std::string_view{} : argument.substr(eq + 1);
  unsigned long long number = 0;
  if (kind == "result" && eq != std::string_view::npos) return Result(std::string(value));
  if (kind == "status" && ParseUnsigned(value, number) && number <= 999) {
    return Status(static_cast<int>(number));
  }
  if (kind == "delay" && ParseUnsigned(value, number)) {
    return Delay(std::chrono::milliseconds(number));
  }
  if (kind == "drop" && eq == std::string_view::npos) return DropBeforeReply();
  if (kind == "drop" && ParseUnsigned(value, number)) return Drop(number);
  throw std::invalid_argument("bad fault '" + std::string(argument) +
                              "': use result=TEXT, status=CODE, delay=MS, drop or drop=BYTES");
}

void FaultInjector::Add(std::string name, Fault fault, int count) {
  if (count == 0) return;
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.push_back(Entry{std::move(name), std::move(fault), count});
}

std::optional<Fault> FaultInjector::Take(std::string_view qualifiedName,
                                         std::string_view plainName) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (auto fault = TakeLocked(qualifiedName)) return fault;
  return TakeLocked(plainName);
}

std::optional<Fault> FaultInjector::TakeLocked(std::string_view name) {
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    // Endpoint and handler names are matched without regard to case, as URLs are.
    if (!EqualsIgnoreAsciiCase(it->name, name)) continue;
    Fault fault = it->fault;
    if (it->remaining > 0 && --it->remaining == 0) entries_.erase(it);
    return fault;
  }
  return std::nullopt;
}

void FaultInjector::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
}

}  // namespace devserver
