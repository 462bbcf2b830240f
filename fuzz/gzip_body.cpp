// A compressed body as the server may send it: inflated whole and in two pieces
// cut where the first byte says, both must give the same bytes or both fail.

#include <cstdlib>

#include "ASIDataDecompressor.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string body = fuzz::Text(data + 1, size - 1);
  const std::size_t cut = body.empty() ? 0 : data[0] % (body.size() + 1);

  std::string wholeError;
  const std::string whole = ASIDataDecompressor::uncompressData(body, &wholeError);

  ASIDataDecompressor pieces;
  std::string error;
  std::string joined = pieces.uncompressBytes(body.data(), cut, &error);
  if (error.empty()) joined += pieces.uncompressBytes(body.data() + cut, body.size() - cut, &error);
  const bool piecesGood = error.empty() && (body.empty() || pieces.streamEnded());
  if (piecesGood != wholeError.empty() || (piecesGood && joined != whole)) std::abort();
  return 0;
}
