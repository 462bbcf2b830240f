// The replies of the sharing calls: shared files, users to share with, usage
// history, versions and upload requests, and the dates in them.

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "FuzzSupport.h"
#include "ShareReplyParsers.h"

namespace {

// The text of a date in the form it was read from.
std::string Text(const WSDate& date) {
  // Whole seconds rounded down, so that dates before 1970 keep their milliseconds.
  auto ms = date->time_since_epoch().count();
  auto rest = ms % 1000;
  if (rest < 0) rest += 1000;
  std::time_t seconds = static_cast<std::time_t>((ms - rest) / 1000);
  std::tm t{};
  gmtime_r(&seconds, &t);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", t.tm_year + 1900, t.tm_mon + 1,
                t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, static_cast<int>(rest));
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string reply = fuzz::Text(data, size);
  WSFilePropertyArray files(reply);
  WSUserDataArray users(reply);
  // Every row stands for a user with an address, and shows a name.
  for (const auto& row : users.GetRecipientItemCollection()) {
    if (row.eMail.empty() || row.fullname.empty() || !row.selfRec) std::abort();
  }
  (void)WSUsageHistoryArray(reply);
  (void)StorageVersionInfoArray(reply);
  (void)WSUploadRequestParser(reply);
  // A date that reads is a real one: written back, it is the text it came from.
  if (size >= 24) {
    const std::string text = reply.substr(0, 24);
    WSDate date = ParseWSDate(text);
    if (date && Text(date) != text) std::abort();
  }
  return 0;
}
