#include "RequestRecorder.h"

#include "WireFormats.h"

namespace devserver {

bool RecordedRequest::HasHeader(const std::string& header) const {
  return headers.find(header) != headers.end();
}

std::string RecordedRequest::Header(const std::string& header) const {
  const auto it = headers.find(header);
  return it == headers.end() ? std::string() : it->second;
}

bool RecordedRequest::HasField(const std::string& field) const { return fields.count(field) > 0; }

std::string RecordedRequest::Field(const std::string& field) const {
  const auto it = fields.find(field);
  return it == fields.end() ? std::string() : it->second;
}

std::string RecordedRequest::Child(const std::string& field, const std::string& child) const {
  const auto it = children.find(field);
  if (it == children.end()) return {};
  for (const auto& [name, text] : it->second) {
    if (name == child) return text;
  }
  return {};
}

std::string RequestRecorder::Key(const std::string& name) {
  // Endpoint and handler names are case-insensitive on the wire.
  return AsciiLower(name);
}

void RequestRecorder::Record(const RecordedRequest& request) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> keys{Key(request.name)};
  if (!request.endpoint.empty() && !EqualsIgnoreAsciiCase(request.endpoint, request.name)) {
    keys.push_back(Key(request.endpoint + "/" + request.name));
  }
  for (const auto& key : keys) {
    auto& recent = recent_[key];
    recent.push_back(request);
    if (recent.size() > kHistory) recent.pop_front();
    ++counts_[key];
  }
}

std::optional<RecordedRequest> RequestRecorder::Last(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = recent_.find(Key(name));
  if (it == recent_.end() || it->second.empty()) return std::nullopt;
  return it->second.back();
}

std::vector<RecordedRequest> RequestRecorder::Recent(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = recent_.find(Key(name));
  if (it == recent_.end()) return {};
  return {it->second.begin(), it->second.end()};
}

int RequestRecorder::Count(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = counts_.find(Key(name));
  return it == counts_.end() ? 0 : it->second;
}

void RequestRecorder::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  recent_.clear();
  counts_.clear();
}

}  // namespace devserver
