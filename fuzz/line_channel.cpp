// A line of the local socket's protocol, as a peer may send it: split into
// fields, and what splits must join back to the same line.

#include <cstdlib>

#include "FuzzSupport.h"
#include "LocalSocket.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string line = fuzz::Text(data, size);
  auto fields = LineChannel::Split(line);
  if (!fields) return 0;
  // Joined again and split, the fields come back unchanged.
  auto again = LineChannel::Split(LineChannel::Join(*fields));
  if (!again || *again != *fields) std::abort();
  return 0;
}
