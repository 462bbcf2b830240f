#include "ASIError.h"

#include <utility>

namespace {

const char* const kConnectionFailureText = "A connection failure occurred";

struct ErrorTable {
  ASIError connectionFailure{ASIError::kDomain, ASIError::ASIConnectionFailureErrorType,
                             kConnectionFailureText};
  ASIError sslFailure{ASIError::kDomain, ASIError::ASIConnectionFailureErrorType,
                      std::string(kConnectionFailureText) +
                          ": SSL problem (Possible causes may include a bad/expired/self-signed "
                          "certificate, clock set to wrong date)"};
  ASIError serverKeyChanged{ASIError::kDomain, ASIError::ASIServerKeyChangedErrorType,
                            "The server's certificate has another key than the one accepted for it"};
  ASIError timedOut{ASIError::kDomain, ASIError::ASIRequestTimedOutErrorType,
                    "The request timed out"};
  ASIError authenticationNeeded{ASIError::kDomain, ASIError::ASIAuthenticationErrorType,
                                "Authentication needed"};
  ASIError cancelled{ASIError::kDomain, ASIError::ASIRequestCancelledErrorType,
                     "The request was cancelled"};
  ASIError unableToCreate{ASIError::kDomain, ASIError::ASIUnableToCreateRequestErrorType,
                          "Unable to create request (bad url?)"};
  ASIError tooMuchRedirection{ASIError::kDomain, ASIError::ASITooMuchRedirectionErrorType,
                              "The request failed because it redirected too many times"};
};

const ErrorTable& Table() {
  static const ErrorTable table;
  return table;
}

}  // namespace

ASIError::ASIError(std::string domain, int code, std::string localizedDescription,
                   std::string underlyingDescription)
    : domain_(std::move(domain)),
      code_(code),
      localizedDescription_(std::move(localizedDescription)),
      underlyingDescription_(std::move(underlyingDescription)) {}

const ASIError& ASIError::ConnectionFailure() { return Table().connectionFailure; }
const ASIError& ASIError::SSLFailure() { return Table().sslFailure; }
const ASIError& ASIError::ServerKeyChanged() { return Table().serverKeyChanged; }
const ASIError& ASIError::TimedOut() { return Table().timedOut; }
const ASIError& ASIError::AuthenticationNeeded() { return Table().authenticationNeeded; }
const ASIError& ASIError::Cancelled() { return Table().cancelled; }
const ASIError& ASIError::UnableToCreateRequest() { return Table().unableToCreate; }
const ASIError& ASIError::TooMuchRedirection() { return Table().tooMuchRedirection; }

ASIError ASIError::WithUnderlying(const std::string& underlying) const {
  ASIError copy = *this;
  copy.underlyingDescription_ = underlying;
  return copy;
}

std::string ASIError::description() const {
  if (underlyingDescription_.empty()) return localizedDescription_;
  return localizedDescription_ + " (" + underlyingDescription_ + ")";
}
