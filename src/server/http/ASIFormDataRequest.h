#pragma once
// ASIFormDataRequest: a request whose body is a URL-encoded form,
// "key=value&key=value", sent as a POST with
// "Content-Type: application/x-www-form-urlencoded; charset=<encoding>".

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ASIHTTPRequest.h"

class ASIFormDataRequest : public ASIHTTPRequest {
 public:
  static std::shared_ptr<ASIFormDataRequest> requestWithURL(const std::string& url);
  ASIFormDataRequest(ConstructionKey key, std::string url);

  // Sets the value of a form field, replacing one of the same name.
  void setPostValue(const std::string& value, const std::string& forKey);
  const std::vector<std::pair<std::string, std::string>>& postData() const { return postData_; }

  // The encoding of the form's text; UTF-8 unless set.
  ASIStringEncoding stringEncoding() const { return stringEncoding_; }
  void setStringEncoding(ASIStringEncoding encoding) { stringEncoding_ = encoding; }

  void buildPostBody() override;

  // Percent-encodes text in the form's encoding: only letters, digits, "-", "."
  // and "_" stay as they are.
  std::string encodeURL(const std::string& text) const;
  // The charset name of an encoding: "utf-8", "iso-8859-1", "us-ascii".
  static std::string CharsetName(ASIStringEncoding encoding);

 private:
  std::vector<std::pair<std::string, std::string>> postData_;
  ASIStringEncoding stringEncoding_ = ASIUTF8StringEncoding;
};
