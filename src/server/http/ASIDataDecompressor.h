#pragma once
// ASIDataDecompressor: zlib's inflate over gzip bodies (a zlib stream is read as
// well). Fed piece by piece as a body arrives, or in one go over a buffer or a
// file. A stream that breaks off before its end counts as an error, so a cut
// response is never taken for a whole one.

#include <memory>
#include <string>

class ASIDataDecompressor {
 public:
  ASIDataDecompressor();
  ~ASIDataDecompressor();
  ASIDataDecompressor(const ASIDataDecompressor&) = delete;
  ASIDataDecompressor& operator=(const ASIDataDecompressor&) = delete;

  // Inflates the next piece of the stream; on a broken stream returns "" and sets
  // *error (when given). Bytes after the end of a gzip member start a new member.
  std::string uncompressBytes(const char* bytes, std::size_t length, std::string* error);
  // True once the last member has ended and nothing is pending.
  bool streamEnded() const;
  void closeStream();

  // A whole buffer; "" and *error on a broken or cut stream.
  static std::string uncompressData(const std::string& data, std::string* error);
  // Streams a compressed file into another file; false and *error on failure.
  static bool uncompressDataFromFile(const std::string& sourcePath, const std::string& toFile,
                                     std::string* error);

 private:
  struct Stream;
  std::unique_ptr<Stream> stream_;
};
