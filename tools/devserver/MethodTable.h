#pragma once
// MethodTable: the SOAP methods the server answers, by endpoint and method name.
// Each family of methods adds its own in its own source file (SessionMethods,
// FileMethods...), so that new calls come as new rows, not new branches.

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "SoapEnvelope.h"

namespace devserver {

class ServerState;

enum class Endpoint {
  Main,    // CorvalinkWS.asmx
  Mobile,  // CorvalinkMobile.asmx
  Share,   // share.asmx
};

// The endpoint's file name as the server spells it.
const char* EndpointName(Endpoint endpoint);
// Matches the last segment of a request path without regard to case.
std::optional<Endpoint> EndpointForName(std::string_view fileName);

using SoapMethod = std::function<SoapReply(ServerState&, const SoapCall&)>;

class MethodTable {
 public:
  void Add(Endpoint endpoint, const std::string& method, SoapMethod handler);
  // Method names are case-sensitive, as in the service description.
  const SoapMethod* Find(Endpoint endpoint, const std::string& method) const;

 private:
  std::map<std::pair<Endpoint, std::string>, SoapMethod> methods_;
};

// The families. Each file registers what it answers.
void AddSessionMethods(MethodTable& table);
void AddFileMethods(MethodTable& table);
void AddShareMethods(MethodTable& table);

}  // namespace devserver
