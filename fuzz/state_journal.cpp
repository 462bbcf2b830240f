// The journals beside DownloadedFiles.xml and NewFiles.xml, replayed at start.
// The first byte chooses the state file (bit 0) and whether the rest is the
// journal's body as it stands on disk (bit 1 clear: frames, torn ends, wrong
// CRCs) or payloads that the target frames with their right CRC (bit 1 set:
// each a 2-byte length and its bytes), so that the entries' readers are reached.
// Seeds: journals that crash points left behind, and entries of each kind.
// The header is written for the state file as it is, as the client writes it.

#include <zlib.h>

#include <fstream>

#include "CVStateJournal.h"
#include "DownloadedFilesStore.h"
#include "FuzzSupport.h"
#include "NewFilesParser.h"
#include "NewFilesStore.h"
#include "ServerXMLParser.h"

namespace {

void PutUnsigned(std::string& out, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
}

std::string Framed(std::string_view rest) {
  std::string body;
  while (rest.size() >= 2) {
    std::size_t length = static_cast<unsigned char>(rest[0]) | static_cast<std::size_t>(static_cast<unsigned char>(rest[1])) << 8;
    rest.remove_prefix(2);
    length = std::min(length, rest.size());
    const std::string_view payload = rest.substr(0, length);
    rest.remove_prefix(length);
    PutUnsigned(body, payload.size(), 4);
    PutUnsigned(body, crc32(crc32(0L, Z_NULL, 0), reinterpret_cast<const Bytef*>(payload.data()),
                            static_cast<uInt>(payload.size())),
                4);
    body.append(payload);
  }
  return body;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const bool downloaded = (data[0] & 1) == 0;
  const std::string text = fuzz::Text(data + 1, size - 1);
  fuzz::ClearSettings();
  DownloadedFilesStore::Instance().Forget();
  NewFilesStore::Instance().Forget();
  const std::string name = downloaded ? "DownloadedFiles.xml" : "NewFiles.xml";
  const std::string path = fuzz::Settings() + "/" + name;
  {
    CVStateJournal journal(path);
    if (!journal.Restart(CVStateJournal::FileVersion::Of(path))) return 0;
  }
  std::ofstream(CVStateJournal::PathFor(path), std::ios::binary | std::ios::app)
      << ((data[0] & 2) ? Framed(text) : text);
  if (downloaded) {
    ServerXMLParser parser;
    (void)parser.readDownloadedFiles();
  } else {
    NewFilesParser parser;
    (void)parser.readNewFiles();
  }
  return 0;
}
