#pragma once
// ASIDataCompressor: zlib's deflate writing the gzip format, for request bodies
// that go out compressed. Fed piece by piece; the last piece finishes the stream.

#include <memory>
#include <string>

class ASIDataCompressor {
 public:
  explicit ASIDataCompressor(int level = -1 /* zlib's default */);
  ~ASIDataCompressor();
  ASIDataCompressor(const ASIDataCompressor&) = delete;
  ASIDataCompressor& operator=(const ASIDataCompressor&) = delete;

  // Deflates the next piece; with shouldFinish the gzip trailer follows. On a zlib
  // failure returns "" and sets *error (when given).
  std::string compressBytes(const char* bytes, std::size_t length, std::string* error,
                            bool shouldFinish);
  void closeStream();

  static std::string compressData(const std::string& data, std::string* error);
  static bool compressDataFromFile(const std::string& sourcePath, const std::string& toFile,
                                   std::string* error);

 private:
  struct Stream;
  std::unique_ptr<Stream> stream_;
};
