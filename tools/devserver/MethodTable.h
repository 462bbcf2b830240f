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
// How a result string is put in a method's reply, for methods whose reply is
// not the plain result element (GetHashes answers in <string> elements). Used
// for injected results, so that they reach the client as real ones would.
using ResultForm = std::function<SoapReply(std::string text)>;

class MethodTable {
 public:
  // No form: the text in the <method>Result element.
  void Add(Endpoint endpoint, const std::string& method, SoapMethod handler, ResultForm form = {});
  // Method names are case-sensitive, as in the service description.
  const SoapMethod* Find(Endpoint endpoint, const std::string& method) const;
  SoapReply ResultReply(Endpoint endpoint, const std::string& method, std::string text) const;

 private:
  struct Row {
    SoapMethod handler;
    ResultForm form;
  };
  std::map<std::pair<Endpoint, std::string>, Row> methods_;
};

// The families. Each file registers what it answers.
void AddSessionMethods(MethodTable& table);
void AddFileMethods(MethodTable& table);
void AddFileChangeMethods(MethodTable& table);
void AddUploadMethods(MethodTable& table);
void AddShareMethods(MethodTable& table);
void AddUploadRequestMethods(MethodTable& table);

}  // namespace devserver
