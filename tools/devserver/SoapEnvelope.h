#pragma once
// SoapEnvelope: reading a SOAP 1.1 request and writing the reply, as a .NET
// web service does. Requests are read by local names only (any prefix, any
// namespace), parameters in any order; a reply is compact UTF-8 with the result
// text escaped once, so that a reader that keeps white space gets exactly the text.

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace devserver {

// An element with its children, for parameters nested deeper than one level
// (Options > Documents > ShareFileInfo > DocumentUrl).
struct SoapNode {
  std::string name;  // local name
  std::string text;  // all text inside, as SoapValue::children has it
  std::vector<SoapNode> children;

  const SoapNode* Child(const std::string& childName) const;
  // The text of a child; "" when it is missing.
  std::string ChildText(const std::string& childName) const;
};

struct SoapValue {
  std::string text;  // the element's own text; "" for <X/>
  // Child elements in order (Options' DeviceID..., MD5's string...).
  std::vector<std::pair<std::string, std::string>> children;
  SoapNode tree;  // the whole parameter
};

struct SoapCall {
  std::string method;  // local name of the Body's first child element
  std::map<std::string, SoapValue> params;

  bool Has(const std::string& name) const { return params.count(name) > 0; }
  // The parameter's text; "" when it is missing.
  std::string Text(const std::string& name) const;
  const SoapValue* Find(const std::string& name) const;
};

// Throws SoapParseError for anything that is not an envelope with a body and a
// method element, and for documents with a DTD (never part of SOAP).
struct SoapParseError {
  std::string message;
};
SoapCall ParseSoapRequest(std::string_view body);

struct SoapReply {
  std::string element;  // the result element; "" means "<method>Result"
  std::string text;     // escaped once when written
  std::string rawXml;   // written as it is instead of text when not empty
  bool isFault = false;
  std::string faultCode;  // "soap:Client", "soap:Server"
  std::string faultString;

  static SoapReply Text(std::string text);
  static SoapReply Xml(std::string rawXml, std::string element = {});
  static SoapReply ClientFault(std::string message);
  static SoapReply ServerFault(std::string message);
};

// The whole reply document. A fault is answered with HTTP 500, as SOAP 1.1 says.
std::string BuildSoapReply(const std::string& method, const SoapReply& reply);
int SoapReplyStatus(const SoapReply& reply);

inline constexpr const char* kSoapContentType = "text/xml; charset=utf-8";

}  // namespace devserver
