#include "ASIDataCompressor.h"

#include <zlib.h>

#include <fstream>
#include <vector>

namespace {
constexpr std::size_t kChunk = 262144;

void SetError(std::string* error, const std::string& text) {
  if (error) *error = text;
}
}  // namespace

struct ASIDataCompressor::Stream {
  z_stream z{};
  bool open = false;
};

ASIDataCompressor::ASIDataCompressor(int level) : stream_(std::make_unique<Stream>()) {
  // 15 + 16: zlib writes a gzip header and trailer around the deflate data.
  stream_->open = deflateInit2(&stream_->z, level, Z_DEFLATED, 15 + 16, 8,
                               Z_DEFAULT_STRATEGY) == Z_OK;
}

ASIDataCompressor::~ASIDataCompressor() { closeStream(); }

void ASIDataCompressor::closeStream() {
  if (stream_ && stream_->open) {
    deflateEnd(&stream_->z);
    stream_->open = false;
  }
}

std::string ASIDataCompressor::compressBytes(const char* bytes, std::size_t length,
                                             std::string* error, bool shouldFinish) {
  if (!stream_->open) {
    SetError(error, "The compression stream is not open");
    return "";
  }
  z_stream& z = stream_->z;
  std::string out;
  std::vector<unsigned char> buffer(kChunk);
  std::size_t offset = 0;
  do {
    std::size_t slice = std::min<std::size_t>(length - offset, 1u << 30);
    bool last = offset + slice == length;
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes ? bytes + offset : nullptr));
    z.avail_in = static_cast<uInt>(slice);
    int flush = (last && shouldFinish) ? Z_FINISH : Z_NO_FLUSH;
    int status = Z_OK;
    do {
      z.next_out = buffer.data();
      z.avail_out = static_cast<uInt>(buffer.size());
      status = deflate(&z, flush);
      if (status == Z_STREAM_ERROR) {
        SetError(error, "Compression of data failed with code " + std::to_string(status));
        return "";
      }
      out.append(reinterpret_cast<char*>(buffer.data()), buffer.size() - z.avail_out);
    } while (z.avail_out == 0 || (flush == Z_FINISH && status != Z_STREAM_END));
    offset += slice;
  } while (offset < length);
  return out;
}

std::string ASIDataCompressor::compressData(const std::string& data, std::string* error) {
  ASIDataCompressor compressor;
  std::string problem;
  std::string out = compressor.compressBytes(data.data(), data.size(), &problem, true);
  if (!problem.empty()) {
    SetError(error, problem);
    return "";
  }
  return out;
}

bool ASIDataCompressor::compressDataFromFile(const std::string& sourcePath,
                                             const std::string& toFile, std::string* error) {
  std::ifstream in(sourcePath, std::ios::binary);
  if (!in) {
    SetError(error, "Failed to open the file at path '" + sourcePath + "'");
    return false;
  }
  std::ofstream out(toFile, std::ios::binary | std::ios::trunc);
  if (!out) {
    SetError(error, "Failed to create the file at path '" + toFile + "'");
    return false;
  }
  ASIDataCompressor compressor;
  std::vector<char> buffer(kChunk);
  for (;;) {
    in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    std::streamsize got = in.gcount();
    bool last = !in;
    if (in.bad()) {
      SetError(error, "Failed to read the file at path '" + sourcePath + "'");
      return false;
    }
    std::string problem;
    std::string piece = compressor.compressBytes(buffer.data(), static_cast<std::size_t>(got),
                                                 &problem, last);
    if (!problem.empty()) {
      SetError(error, problem);
      return false;
    }
    out.write(piece.data(), static_cast<std::streamsize>(piece.size()));
    if (!out) {
      SetError(error, "Failed to write the file at path '" + toFile + "'");
      return false;
    }
    if (last) break;
  }
  return true;
}
