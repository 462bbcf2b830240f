#pragma once
// WSCommonMethods: every SOAP call of the client goes through here. The envelope
// is written by hand, byte for byte; the request runs synchronously on the calling
// thread. String calls give the whole reply text or a text starting with "err";
// data calls give the reply's bytes whatever the status, or nothing. A call made
// on a thread with a cancel flag bound (CancelFlag::Binding) ends at once when the
// flag is raised, and is not sent at all when it is raised already.
//
// Values are inserted as they are: the caller escapes plain text once with
// AddSpecialSymbols, and XML fragments (Options, MD5...) go in raw.

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class ASIHTTPRequest;

class WSCommonMethods {
 public:
  static constexpr const char* kServiceNamespace = "http://tempuri.org/";
  static constexpr const char* kEnvelopeNamespace = "http://schemas.xmlsoap.org/soap/envelope/";
  static constexpr const char* kSchemaInstanceNamespace = "http://www.w3.org/2001/XMLSchema-instance";
  static constexpr double kStringCallTimeOut = 20.0;

  using Parameters = std::vector<std::pair<std::string, std::string>>;  // key, value

  // The envelope of a call: no XML declaration, no white space.
  static std::string BuildEnvelope(const std::string& methodName, const Parameters& parameters);
  // One element of an envelope or of a fragment: "<key/>" for an empty value.
  static std::string Element(const std::string& key, const std::string& value);

  // A prepared POST of the envelope, not started.
  static std::shared_ptr<ASIHTTPRequest> CreateASIHTTPRequestForMethod(
      const std::string& methodName, const Parameters& parameters, const std::string& withURL);

  static constexpr const char* kCancelledReply = "errCancelled";

  // The whole reply text, or "errOther...", "errNon200...", "errException", or
  // kCancelledReply.
  static std::string ProcessWebServiceRequest(const std::vector<std::string>& values,
                                              const std::vector<std::string>& forKeys,
                                              const std::string& methodName,
                                              const std::string& withUrl);
  // The reply's bytes whatever the status; nothing after an exception or a cancel.
  static std::optional<std::string> ProcessDataWebServiceRequest(
      const std::vector<std::string>& values, const std::vector<std::string>& forKeys,
      const std::string& methodName, const std::string& withUrl);

  // A composed call, whose values are fragments it built itself: "-200" for a
  // status outside 200-299, "" after a transport error, "err..." after an
  // exception or a stop; else the reply's text.
  static std::string ProcessComposedRequest(const Parameters& parameters, const std::string& methodName,
                                            const std::string& withUrl);
  static constexpr const char* kBadStatusReply = "-200";

  // Data calls wait 600 s for listings and hash lists, 120 s for the rest.
  static double DataCallTimeOut(const std::string& methodName);

 private:
  // Runs request on this thread under the thread's cancel flag; false when the
  // flag is raised already (nothing is sent) or ends the call before its reply.
  static bool RunUnlessCancelled(const std::shared_ptr<ASIHTTPRequest>& request, const std::string& methodName);
  static Parameters Zip(const std::vector<std::string>& values, const std::vector<std::string>& keys);
};
