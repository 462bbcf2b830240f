#pragma once
// RawRangeHttpServer: cpp-httplib's server with our own connection loop, for
// two things the library does not offer:
//  - The client sends Range without the "bytes=" unit ("100-", "100-150", or
//    empty), which the library answers with 416 before any handler runs. The
//    connection stream renames the header on its way in, so the value reaches
//    the handlers untouched under kRawRangeHeader; an empty Range, which the
//    library would drop, arrives as kEmptyRangeHeader.
//  - Tests need a connection to die on purpose: DropCurrentConnection() makes the
//    calling handler's connection write nothing more and close.
// Keep-alive, time-outs and stopping behave as in the library's own loop.

#include <httplib.h>

namespace devserver {

// Exactly as long as "Range", so that the stream can rename the header in place.
inline constexpr const char* kRawRangeHeader = "X-Rng";
inline constexpr const char* kEmptyRangeHeader = "X-Rng-Empty";

class RawRangeHttpServer : public httplib::Server {
 public:
  // From inside a handler: no byte more goes out on this connection, and it
  // closes once the handler returns.
  static void DropCurrentConnection();

 private:
  bool process_and_close_socket(socket_t sock) override;
};

}  // namespace devserver
