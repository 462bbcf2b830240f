#include "ASIDataDecompressor.h"

#include <zlib.h>

#include <cstdio>
#include <fstream>
#include <vector>

namespace {
constexpr std::size_t kChunk = 262144;

void SetError(std::string* error, const std::string& text) {
  if (error) *error = text;
}
}  // namespace

struct ASIDataDecompressor::Stream {
  z_stream z{};
  bool open = false;
  bool ended = false;  // the last member ended and no byte followed
};

ASIDataDecompressor::ASIDataDecompressor() : stream_(std::make_unique<Stream>()) {
  // 15 + 32: the window of gzip and zlib alike, the format told by the header.
  stream_->open = inflateInit2(&stream_->z, 15 + 32) == Z_OK;
}

ASIDataDecompressor::~ASIDataDecompressor() { closeStream(); }

void ASIDataDecompressor::closeStream() {
  if (stream_ && stream_->open) {
    inflateEnd(&stream_->z);
    stream_->open = false;
  }
}

bool ASIDataDecompressor::streamEnded() const { return stream_->ended; }

std::string ASIDataDecompressor::uncompressBytes(const char* bytes, std::size_t length,
                                                 std::string* error) {
  std::string out;
  if (!stream_->open) {
    SetError(error, "The decompression stream is not open");
    return "";
  }
  z_stream& z = stream_->z;
  std::vector<unsigned char> buffer(kChunk);
  std::size_t offset = 0;
  while (offset < length) {
    // zlib counts in unsigned int; feed very large buffers in slices.
    std::size_t slice = std::min<std::size_t>(length - offset, 1u << 30);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes + offset));
    z.avail_in = static_cast<uInt>(slice);
    while (z.avail_in > 0) {
      if (stream_->ended) {
        // Another gzip member follows the one that ended.
        inflateReset(&z);
        stream_->ended = false;
      }
      z.next_out = buffer.data();
      z.avail_out = static_cast<uInt>(buffer.size());
      int status = inflate(&z, Z_NO_FLUSH);
      out.append(reinterpret_cast<char*>(buffer.data()), buffer.size() - z.avail_out);
      if (status == Z_STREAM_END) {
        stream_->ended = true;
      } else if (status == Z_BUF_ERROR && z.avail_out != 0) {
        break;  // needs more input
      } else if (status != Z_OK && status != Z_BUF_ERROR) {
        SetError(error, std::string("Decompression of data failed with code ") +
                            std::to_string(status) + (z.msg ? std::string(": ") + z.msg : ""));
        return "";
      }
    }
    offset += slice;
  }
  // Output still held inside zlib when the input ran out with a full buffer.
  for (;;) {
    z.next_in = nullptr;
    z.avail_in = 0;
    z.next_out = buffer.data();
    z.avail_out = static_cast<uInt>(buffer.size());
    int status = inflate(&z, Z_NO_FLUSH);
    std::size_t produced = buffer.size() - z.avail_out;
    out.append(reinterpret_cast<char*>(buffer.data()), produced);
    if (status == Z_STREAM_END) stream_->ended = true;
    if (produced == 0 || status != Z_OK) break;
  }
  return out;
}

std::string ASIDataDecompressor::uncompressData(const std::string& data, std::string* error) {
  if (data.empty()) return "";
  ASIDataDecompressor decompressor;
  std::string problem;
  std::string out = decompressor.uncompressBytes(data.data(), data.size(), &problem);
  if (!problem.empty()) {
    SetError(error, problem);
    return "";
  }
  if (!decompressor.streamEnded()) {
    SetError(error, "The compressed data ended before the end of its stream");
    return "";
  }
  return out;
}

bool ASIDataDecompressor::uncompressDataFromFile(const std::string& sourcePath,
                                                 const std::string& toFile, std::string* error) {
  std::ifstream in(sourcePath, std::ios::binary);
  if (!in) {
    SetError(error, "Failed to open the compressed file at path '" + sourcePath + "'");
    return false;
  }
  std::ofstream out(toFile, std::ios::binary | std::ios::trunc);
  if (!out) {
    SetError(error, "Failed to create the file at path '" + toFile + "'");
    return false;
  }
  ASIDataDecompressor decompressor;
  std::vector<char> buffer(kChunk);
  bool any = false;
  while (in) {
    in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    std::streamsize got = in.gcount();
    if (got <= 0) break;
    any = true;
    std::string problem;
    std::string piece =
        decompressor.uncompressBytes(buffer.data(), static_cast<std::size_t>(got), &problem);
    if (!problem.empty()) {
      SetError(error, problem);
      return false;
    }
    out.write(piece.data(), static_cast<std::streamsize>(piece.size()));
    if (!out) {
      SetError(error, "Failed to write the file at path '" + toFile + "'");
      return false;
    }
  }
  if (any && !decompressor.streamEnded()) {
    SetError(error, "The compressed data ended before the end of its stream");
    return false;
  }
  out.flush();
  if (!out) {
    SetError(error, "Failed to write the file at path '" + toFile + "'");
    return false;
  }
  return true;
}
