#pragma once
// Helpers of the request engine's tests: a delegate that records its events in
// order, gzip and MD5 made independently of the engine, files of random bytes.

#include <openssl/evp.h>
#include <zlib.h>

#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "ASIHTTPRequest.h"

class EventRecorder : public ASIHTTPRequestDelegate {
 public:
  void requestStarted(ASIHTTPRequest&) override { Add("started"); }
  void requestFinished(ASIHTTPRequest&) override { Add("finished"); }
  void requestFailed(ASIHTTPRequest&) override { Add("failed"); }
  void requestDidReceiveResponseHeaders(ASIHTTPRequest&, const ASIHeaderFields&) override {
    Add("headers");
  }
  void requestWillRedirectToURL(ASIHTTPRequest&, const std::string& url) override {
    Add("redirect " + url);
  }
  void Add(const std::string& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
  }
  std::vector<std::string> Events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> events_;
};

inline std::string HexMD5(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(data.data(), data.size(), digest, &length, EVP_md5(), nullptr);
  static const char* hex = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < length; ++i) {
    text.push_back(hex[digest[i] >> 4]);
    text.push_back(hex[digest[i] & 15]);
  }
  return text;
}

// gzip straight from zlib, so the engine's inflate is checked against another writer.
inline std::string Gzip(const std::string& data) {
  z_stream stream{};
  deflateInit2(&stream, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&stream, data.size()) + 64, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

inline std::string Gunzip(const std::string& data) {
  z_stream stream{};
  inflateInit2(&stream, 15 + 16);
  std::string out;
  char buffer[65536];
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  int status = Z_OK;
  while (status == Z_OK) {
    stream.next_out = reinterpret_cast<Bytef*>(buffer);
    stream.avail_out = sizeof buffer;
    status = inflate(&stream, Z_NO_FLUSH);
    out.append(buffer, sizeof buffer - stream.avail_out);
  }
  inflateEnd(&stream);
  return status == Z_STREAM_END ? out : "<broken>";
}

inline std::string RandomBytes(std::size_t size, unsigned seed = 7) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (auto& byte : bytes) byte = static_cast<char>(generator() & 0xFF);
  return bytes;
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}
