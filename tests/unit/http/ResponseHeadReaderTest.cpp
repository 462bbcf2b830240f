// The head of a response as the server sends it, and how long its connection is
// kept: the server's figure, bounded, or not at all.

#include <gtest/gtest.h>

#include "CurlTransport.h"

using namespace std::chrono_literals;

namespace {

HTTPResponseHead Read(std::initializer_list<const char*> lines) {
  ResponseHeadReader reader;
  for (const char* line : lines) reader.AddLine(line);
  return reader.head();
}

}  // namespace

TEST(ResponseHeadReader, AnInterimResponseIsReplacedAndFoldedLinesJoin) {
  auto head = Read({"HTTP/1.1 100 Continue\r\n", "X-Old: gone\r\n", "\r\n", "HTTP/1.1 200 OK\r\n",
                    "Content-Type: text/xml\r\n", " ; charset=utf-8\r\n", "no colon here\r\n", ": no name\r\n"});
  EXPECT_EQ(head.statusCode, 200);
  EXPECT_EQ(head.statusLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(head.headers.valueForKey("content-type"), "text/xml ; charset=utf-8");
  EXPECT_FALSE(head.headers.contains("X-Old"));
  EXPECT_EQ(head.headers.size(), 1u);
  EXPECT_EQ(Read({"HTTP/1.1 2x0 Odd\r\n"}).statusCode, 0);
}

TEST(ResponseHeadReader, TheConnectionIsKeptForTheServersFigureAtMostAnHour) {
  struct Case {
    const char* connection;
    const char* keepAlive;
    std::optional<std::chrono::nanoseconds> expected;
  } cases[] = {
      {"", "", 30s},                                     // no figure: ours
      {"keep-alive", "timeout=5, max=100", 5s},
      {"Close", "timeout=5, max=100", std::nullopt},     // the server closes it
      {"", "timeout=0, max=100", std::nullopt},
      {"", "timeout=5", 30s},
      {"", "timeout=99999999999999999999999, max=1", 1h},  // once overflowed in nanoseconds
  };
  for (const Case& c : cases) {
    ResponseHeadReader reader;
    reader.AddLine("HTTP/1.1 200 OK");
    if (*c.connection) reader.AddLine(std::string("Connection: ") + c.connection);
    if (*c.keepAlive) reader.AddLine(std::string("Keep-Alive: ") + c.keepAlive);
    EXPECT_EQ(ResponseHeadReader::KeepFor(reader.head(), 30s), c.expected) << c.keepAlive;
  }
}
