// A read of the inotify descriptor: records of any lengths and names must be
// cut at their bounds, and no name that could leave its folder comes out.

#include <cstdlib>

#include "FuzzSupport.h"
#include "InotifyEventStream.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  for (const auto& record : InotifyEventStream::Decode(reinterpret_cast<const char*>(data), size)) {
    if (record.name == "." || record.name == ".." || record.name.find('/') != std::string::npos ||
        record.name.find('\0') != std::string::npos || record.name.size() > size) {
      std::abort();
    }
  }
  return 0;
}
