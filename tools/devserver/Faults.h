#pragma once
// FaultInjector: makes the next calls of a method or handler fail on purpose, so
// that tests can see the client's failure paths against a real server. A fault
// is looked up by the qualified name ("share.asmx/Login") first, then by the
// plain one ("Login", "DownloadStorageFile.ashx"); each match uses up one count.
// Thread-safe: the server's connection threads take faults while tests add them.

#include <chrono>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace devserver {

struct Fault {
  enum class Kind {
    Result,  // a SOAP method answers this result string instead of running
    Status,  // the call answers this HTTP status instead of running
    Delay,   // the call waits, then runs and answers as usual
    Drop,    // the call runs, but its connection closes part way through the reply;
             // for an upload, part way through the request's body (see below)
  };

  Kind kind = Kind::Result;
  std::string result;
  int status = 0;
  std::chrono::milliseconds delay{0};
  // Drop: the headers and this many body bytes go out before the close;
  // nothing at all (not even the headers) when empty, or when the body is.
  // An upload's reply has no body, so there the count cuts the request: the
  // connection dies once this many body bytes came in, and nothing is kept.
  // Without a count the upload is kept and only its reply is lost.
  std::optional<std::size_t> dropAfterBodyBytes;

  static Fault Result(std::string text);
  static Fault Status(int httpStatus);
  static Fault Delay(std::chrono::milliseconds wait);
  static Fault Drop(std::size_t afterBodyBytes);
  static Fault DropBeforeReply();

  // The textual form of the command line: "result=TEXT", "status=CODE",
  // "delay=MS", "drop=BYTES", "drop". Throws std::invalid_argument.
  static Fault Parse(std::string_view argument);
};

class FaultInjector {
 public:
  // count < 0: every call from now on.
  void Add(std::string name, Fault fault, int count = 1);
  std::optional<Fault> Take(std::string_view qualifiedName, std::string_view plainName);
  void Clear();

 private:
  struct Entry {
    std::string name;
    Fault fault;
    int remaining;
  };
  std::optional<Fault> TakeLocked(std::string_view name);

  std::mutex mutex_;
  std::deque<Entry> entries_;
};

}  // namespace devserver
