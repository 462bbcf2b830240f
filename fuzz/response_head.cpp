// The head of a response as a server may send it, line by line, and how long
// the connection is kept after it.

#include <cstdlib>

#include "CurlTransport.h"
#include "FuzzSupport.h"

using namespace std::chrono_literals;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = fuzz::Text(data, size);
  ResponseHeadReader reader;
  for (std::size_t start = 0; start < text.size();) {
    std::size_t end = text.find('\n', start);
    end = end == std::string::npos ? text.size() : end + 1;
    reader.AddLine(text.substr(start, end - start));
    start = end;
  }
  const HTTPResponseHead& head = reader.head();
  if (head.statusCode < 0 || head.statusCode > 999) std::abort();
  (void)head.headers.description();
  if (auto keep = ResponseHeadReader::KeepFor(head, 30s); keep && *keep <= 0s) std::abort();
  return 0;
}
