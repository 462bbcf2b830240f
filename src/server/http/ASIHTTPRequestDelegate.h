#pragma once
// ASIHTTPRequestDelegate: the object a request reports to. In one run the events
// come in this order: requestStarted; the response headers; zero or more data
// events (only through the request's didReceiveDataSelector); then requestFinished
// or requestFailed. After a redirect or a retry the headers and data come again;
// requestStarted is not repeated. Events arrive on the thread that runs the
// request: the caller's for startSynchronous, a queue thread for startAsynchronous.
//
// A selector set on the request takes the place of the method of the same event
// here. clearDelegatesAndCancel takes off both.

#include <string>

class ASIHTTPRequest;
class ASIHeaderFields;

class ASIHTTPRequestDelegate {
 public:
  virtual ~ASIHTTPRequestDelegate() = default;

  virtual void requestStarted(ASIHTTPRequest& request) {}
  virtual void requestFinished(ASIHTTPRequest& request) {}
  virtual void requestFailed(ASIHTTPRequest& request) {}
  virtual void requestDidReceiveResponseHeaders(ASIHTTPRequest& request,
                                                const ASIHeaderFields& responseHeaders) {}
  virtual void requestWillRedirectToURL(ASIHTTPRequest& request, const std::string& newURL) {}
};

// Receives the part of the request body sent so far, from 0 to 1.
class ASIProgressDelegate {
 public:
  virtual ~ASIProgressDelegate() = default;
  virtual void setDoubleValue(double value) = 0;
};
