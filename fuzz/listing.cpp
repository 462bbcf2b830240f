// The entries of a GetFiles reply ("0;" then entries of ":" fields), for a
// storage at a "\" location and one at a URL, and in upload request mode: every
// record must lie inside its storage's folder, and a reply is used whole or not
// at all.

#include <cstdlib>

#include "Clock.h"
#include "FuzzSupport.h"
#include "ManagerDownload.h"

namespace {

// The listing pauses a millisecond per entry; here it must not.
class NoPauseClock : public Clock {
 public:
  void Sleep(std::chrono::nanoseconds) const override {}
};

void Read(const std::string& reply, const char* name, const char* url, const char* type, bool uploadRequest) {
  static const NoPauseClock clock;
  CVSharepoint site = fuzz::Storage(name, url, type);
  ManagerDownload listing(clock);
  auto read = listing.ReadListingEntries(reply, name, url, uploadRequest, site);
  if (!read.usable && !read.records.empty()) std::abort();
  const std::string root = uploadRequest ? std::string(url) : fuzz::Root() + "/" + name;
  for (const auto& record : read.records) {
    if (!ManagerDownload::StaysInsideStorage(record.localPath, root)) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string reply = fuzz::Text(data, size);
  Read(reply, "Docs", "\\\\devserver\\Docs\\", "CIFS", false);
  Read(reply, "Team", "https://devserver/Team/", "SP", false);
  Read(reply, "Requests", (fuzz::Root() + "/External user uploads").c_str(), "CIFS", true);
  return 0;
}
