#include "ASIFormDataRequest.h"

#include <cstring>

#include "ASIPostBody.h"

namespace {

// Escaped on top of what a URL cannot hold anyway, so a value never reads as
// syntax of the form or of the URL.
constexpr const char* kExtraEscapes = ":/?#[]@!$ &'()*+,;=\"<>%{}|\\^~`";

// UTF-8 text to single bytes; what the encoding cannot hold becomes "?".
std::string ToSingleBytes(const std::string& text, unsigned int highest) {
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    unsigned char lead = static_cast<unsigned char>(text[i]);
    unsigned int code = lead;
    std::size_t length = 1;
    if (lead >= 0xF0) {
      code = lead & 0x07;
      length = 4;
    } else if (lead >= 0xE0) {
      code = lead & 0x0F;
      length = 3;
    } else if (lead >= 0xC0) {
      code = lead & 0x1F;
      length = 2;
    } else if (lead >= 0x80) {
      code = 0xFFFD;  // a stray continuation byte
    }
    for (std::size_t k = 1; k < length && i + k < text.size(); ++k) {
      code = (code << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    }
    out.push_back(code <= highest ? static_cast<char>(code) : '?');
    i += length;
  }
  return out;
}

}  // namespace

std::shared_ptr<ASIFormDataRequest> ASIFormDataRequest::requestWithURL(const std::string& url) {
  return std::make_shared<ASIFormDataRequest>(ConstructionKey(), url);
}

ASIFormDataRequest::ASIFormDataRequest(ConstructionKey key, std::string url)
    : ASIHTTPRequest(key, std::move(url)) {}

void ASIFormDataRequest::setPostValue(const std::string& value, const std::string& forKey) {
  for (auto& [key, existing] : postData_) {
    if (key == forKey) {
      existing = value;
      setHaveBuiltPostBody(false);
      return;
    }
  }
  postData_.emplace_back(forKey, value);
  setHaveBuiltPostBody(false);
}

std::string ASIFormDataRequest::CharsetName(ASIStringEncoding encoding) {
  switch (encoding) {
    case ASILatin1StringEncoding:
      return "iso-8859-1";
    case ASIASCIIStringEncoding:
      return "us-ascii";
    case ASIUTF8StringEncoding:
      break;
  }
  return "utf-8";
}

std::string ASIFormDataRequest::encodeURL(const std::string& text) const {
  std::string bytes = text;
  if (stringEncoding_ == ASILatin1StringEncoding) bytes = ToSingleBytes(text, 0xFF);
  if (stringEncoding_ == ASIASCIIStringEncoding) bytes = ToSingleBytes(text, 0x7F);
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  out.reserve(bytes.size() * 3);
  for (unsigned char c : bytes) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '-' || c == '.' || c == '_';
    if (plain && std::strchr(kExtraEscapes, c) == nullptr) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(hex[c >> 4]);
      out.push_back(hex[c & 0x0F]);
    }
  }
  return out;
}

void ASIFormDataRequest::buildPostBody() {
  if (haveBuiltPostBody()) return;
  if (postData_.empty()) {
    ASIHTTPRequest::buildPostBody();
    return;
  }
  addRequestHeader("Content-Type",
                   "application/x-www-form-urlencoded; charset=" + CharsetName(stringEncoding_));
  std::string body;
  for (std::size_t i = 0; i < postData_.size(); ++i) {
    body += encodeURL(postData_[i].first) + "=" + encodeURL(postData_[i].second) +
            (i + 1 < postData_.size() ? "&" : "");
  }
  postBody().Clear();
  appendPostData(body);
  ASIHTTPRequest::buildPostBody();
}
