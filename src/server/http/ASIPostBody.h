#pragma once
// ASIPostBody: the body of a request as a list of pieces, bytes held in memory or
// a range of a file read from disk while it is sent. A file is never loaded
// whole; the body can be rewound for a retry. One request owns it, one thread
// reads it at a time.

#include <cstdint>
#include <string>
#include <vector>

#include "HTTPTransport.h"

class ASIPostBody : public HTTPBodyReader {
 public:
  ASIPostBody() = default;
  ~ASIPostBody() override;
  ASIPostBody(const ASIPostBody&) = delete;
  ASIPostBody& operator=(const ASIPostBody&) = delete;

  void AppendData(const char* bytes, std::size_t length);
  // A range of a file, sent from disk. False (and *error) when the file cannot be
  // read or is shorter than offset + length.
  bool AppendFile(const std::string& path, std::int64_t offset, std::int64_t length,
                  std::string* error);
  // The whole file as it is now.
  bool AppendFile(const std::string& path, std::string* error);
  // A file made for this body alone (a compressed copy): removed with the body.
  bool AdoptTemporaryFile(const std::string& path, std::string* error);
  void Clear();

  bool empty() const { return Size() == 0; }
  bool HasFiles() const;

  std::int64_t Size() const override;
  bool Seek(std::int64_t offset) override;
  std::int64_t Read(char* buffer, std::size_t length) override;
  std::string LastError() const override { return lastError_; }

 private:
  struct Segment {
    bool isFile = false;
    std::string bytes;
    std::string path;
    std::int64_t offset = 0;
    std::int64_t length = 0;
    std::int64_t Length() const { return isFile ? length : static_cast<std::int64_t>(bytes.size()); }
  };
  void CloseFile();

  std::vector<Segment> segments_;
  std::vector<std::string> temporaryFiles_;
  std::size_t segmentIndex_ = 0;
  std::int64_t segmentPosition_ = 0;
  int fd_ = -1;
  std::size_t fdSegment_ = static_cast<std::size_t>(-1);
  std::string lastError_;
};
