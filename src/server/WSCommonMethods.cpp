#include "WSCommonMethods.h"

#include <exception>

#include "ASIError.h"
#include "ASIHTTPRequest.h"
#include "CVEventLogger.h"
#include "LogRedaction.h"
#include "WorkerThreads.h"

namespace {
constexpr const char* kClass = "WSCommonMethods";
}

WSCommonMethods::Parameters WSCommonMethods::Zip(const std::vector<std::string>& values,
                                                 const std::vector<std::string>& keys) {
  Parameters parameters;
  for (std::size_t i = 0; i < keys.size() && i < values.size(); ++i) {
    parameters.emplace_back(keys[i], values[i]);
  }
  return parameters;
}

std::string WSCommonMethods::BuildEnvelope(const std::string& methodName, const Parameters& parameters) {
  std::string body;
  body += "<s:Envelope xmlns:s=\"";
  body += kEnvelopeNamespace;
  body += "\"><s:Body><" + methodName + " xmlns=\"" + kServiceNamespace + "\" xmlns:i=\"" +
          kSchemaInstanceNamespace + "\">";
  for (const auto& [key, value] : parameters) {
    // What goes out as a password or token never reaches a log line.
    if (key == "Password" || key == "Token" || key == "CVToken") LogRedaction::AddSecret(value);
    body += Element(key, value);
  }
  body += "</" + methodName + "></s:Body></s:Envelope>";
  return body;
}

std::string WSCommonMethods::Element(const std::string& key, const std::string& value) {
  return value.empty() ? "<" + key + "/>" : "<" + key + ">" + value + "</" + key + ">";
}

std::shared_ptr<ASIHTTPRequest> WSCommonMethods::CreateASIHTTPRequestForMethod(
    const std::string& methodName, const Parameters& parameters, const std::string& withURL) {
  std::string envelope = BuildEnvelope(methodName, parameters);
  auto request = ASIHTTPRequest::requestWithURL(withURL);
  request->setRequestMethod("POST");
  request->addRequestHeader("Content-Type", "text/xml; charset=utf-8");
  request->addRequestHeader("SOAPAction", std::string(kServiceNamespace) + methodName);
  request->addRequestHeader("Content-Length", std::to_string(envelope.size()));
  request->appendPostData(envelope);
  request->setTimeOutSeconds(kStringCallTimeOut);
  return request;
}

bool WSCommonMethods::RunUnlessCancelled(const std::shared_ptr<ASIHTTPRequest>& request,
                                          const std::string& methodName) {
  CancelFlag* flag = CancelFlag::ForThisThread();
  CancelFlag::HookId hook = 0;
  if (flag) {
    hook = flag->AddHook([request] { request->cancel(); });
    if (hook == 0) {
      CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - " + methodName + " -> not sent, the work was stopped");
      return false;
    }
  }
  request->startSynchronous();
  if (flag) flag->RemoveHook(hook);
  // A reply that came whole before the stop is kept: the server has acted on it.
  auto error = request->error();
  if (error && error->code() == ASIError::ASIRequestCancelledErrorType) {
    CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - " + methodName + " -> ended, the work was stopped");
    return false;
  }
  return true;
}

std::string WSCommonMethods::ProcessWebServiceRequest(const std::vector<std::string>& values,
                                                      const std::vector<std::string>& forKeys,
                                                      const std::string& methodName,
                                                      const std::string& withUrl) {
  std::string result;
  try {
    auto request = CreateASIHTTPRequestForMethod(methodName, Zip(values, forKeys), withUrl);
    if (!RunUnlessCancelled(request, methodName)) return kCancelledReply;
    int status = request->responseStatusCode();
    auto error = request->error();
    std::string statusMessage = request->responseStatusMessage();
    if (status >= 200 && status <= 299 && !error) {
      return request->responseString();
    }
    if (status >= 200 && status <= 299) {
      result = "errOther";
      if (!statusMessage.empty()) result += " (" + statusMessage + ")";
      return result;
    }
    result = "errNon200 status code: (" + std::to_string(status) + ")";
    result += "code error: " + (error ? error->localizedDescription() : std::string()) +
              ", description: " + std::to_string(error ? error->code() : 0);
    if (!statusMessage.empty()) result += " (" + statusMessage + ")";
    CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - ProcessWebServiceRequest -> " + result);
    return result;
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "ProcessWebServiceRequest", failure.what());
    return result.empty() ? "errException" : result;
  }
}

std::string WSCommonMethods::ProcessComposedRequest(const Parameters& parameters, const std::string& methodName,
                                                    const std::string& withUrl) {
  try {
    auto request = CreateASIHTTPRequestForMethod(methodName, parameters, withUrl);
    if (!RunUnlessCancelled(request, methodName)) return kCancelledReply;
    int status = request->responseStatusCode();
    if (status < 200 || status >= 300) return kBadStatusReply;
    if (request->error()) {
      CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - " + methodName + " -> " +
                                         request->error()->localizedDescription());
      return "";
    }
    return request->responseString();
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "ProcessComposedRequest", failure.what());
    return "err";
  }
}

double WSCommonMethods::DataCallTimeOut(const std::string& methodName) {
  if (methodName.rfind("GetFiles", 0) == 0 || methodName.rfind("GetHashes", 0) == 0) return 600.0;
  return 120.0;
}

std::optional<std::string> WSCommonMethods::ProcessDataWebServiceRequest(
    const std::vector<std::string>& values, const std::vector<std::string>& forKeys,
    const std::string& methodName, const std::string& withUrl) {
  int status = 0;
  try {
    auto request = CreateASIHTTPRequestForMethod(methodName, Zip(values, forKeys), withUrl);
    request->setTimeOutSeconds(DataCallTimeOut(methodName));
    if (!RunUnlessCancelled(request, methodName)) return std::nullopt;
    status = request->responseStatusCode();
    return request->responseData();
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "ProcessDataWebServiceRequest", failure.what());
    CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - ProcessDataWebServiceRequest -> " +
                                       std::to_string(status));
    return std::nullopt;
  }
}
