#pragma once
// ASIError: why a request failed. The errors of the request domain are built
// once, at class start; a failure takes one of them and may add the transport's
// own detail (curl's text) for the logs.

#include <string>

class ASIError {
 public:
  static constexpr const char* kDomain = "ASIHTTPRequestErrorDomain";

  // The codes of the domain.
  enum Code : int {
    ASIConnectionFailureErrorType = 1,
    ASIRequestTimedOutErrorType = 2,
    ASIAuthenticationErrorType = 3,
    ASIRequestCancelledErrorType = 4,
    ASIUnableToCreateRequestErrorType = 5,
    ASIInternalErrorWhileBuildingRequestType = 6,
    ASIFileManagementError = 8,
    ASITooMuchRedirectionErrorType = 9,
    ASICompressionError = 11,
    // A request with a body met a redirect it may not follow.
    ASIRedirectRefusedErrorType = 12,
    // The server's certificate has another key than the one accepted for it.
    ASIServerKeyChangedErrorType = 13,
  };

  ASIError() = default;
  ASIError(std::string domain, int code, std::string localizedDescription,
           std::string underlyingDescription = "");

  // The prepared errors of the table.
  static const ASIError& ConnectionFailure();
  static const ASIError& SSLFailure();
  static const ASIError& ServerKeyChanged();
  static const ASIError& TimedOut();
  static const ASIError& AuthenticationNeeded();
  static const ASIError& Cancelled();
  static const ASIError& UnableToCreateRequest();
  static const ASIError& TooMuchRedirection();

  // The same error with the transport's detail added.
  ASIError WithUnderlying(const std::string& underlying) const;

  const std::string& domain() const { return domain_; }
  int code() const { return code_; }
  // The table text, "The request timed out".
  const std::string& localizedDescription() const { return localizedDescription_; }
  // What the transport said, "" when nothing.
  const std::string& underlyingDescription() const { return underlyingDescription_; }
  // The table text followed by the detail in parentheses, for the logs.
  std::string description() const;

 private:
  std::string domain_;
  int code_ = 0;
  std::string localizedDescription_;
  std::string underlyingDescription_;
};
