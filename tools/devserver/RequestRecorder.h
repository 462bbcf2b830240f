#pragma once
// RequestRecorder: keeps the recent requests of each SOAP method and handler
// (the last kHistory of them), and how many came, for tests to inspect what
// the client really sent (the raw Range, form fields, the parameters of an
// envelope and their order-free values). Thread-safe.

#include <httplib.h>

#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace devserver {

struct RecordedRequest {
  std::string name;          // the method ("GetFiles") or handler ("DownloadStorageFile.ashx")
  std::string endpoint;      // "CorvalinkMobile.asmx", ...; the handler's name for handlers
  std::string target;        // the request's path and query as sent
  httplib::Headers headers;  // as sent; header names compare without case
  // SOAP parameters by local name, or form fields of a handler.
  std::map<std::string, std::string> fields;
  // Child elements of list and record parameters (Options, MD5...), in order.
  std::map<std::string, std::vector<std::pair<std::string, std::string>>> children;
  std::string body;

  bool HasHeader(const std::string& header) const;
  std::string Header(const std::string& header) const;
  bool HasField(const std::string& field) const;
  std::string Field(const std::string& field) const;
  // The text of a child of a record parameter: Child("Options", "DeviceID").
  std::string Child(const std::string& field, const std::string& child) const;
};

class RequestRecorder {
 public:
  // Kept under its name and under "endpoint/name".
  void Record(const RecordedRequest& request);
  std::optional<RecordedRequest> Last(const std::string& name) const;
  // Oldest first: the parts of an upload in the order they came.
  std::vector<RecordedRequest> Recent(const std::string& name) const;
  int Count(const std::string& name) const;
  void Clear();

  static constexpr std::size_t kHistory = 256;

 private:
  static std::string Key(const std::string& name);

  mutable std::mutex mutex_;
  std::map<std::string, std::deque<RecordedRequest>> recent_;
  std::map<std::string, int> counts_;
};

}  // namespace devserver
