#pragma once
// MyParser: event-driven readers of SOAP replies: the text of one element, or the
// entries of an array reply (the texts of `string` elements, or the records of
// `CVFileInfo` elements). Array mode keeps the reply's ResultCode and fault
// texts on the parser object, so make one object per reply.

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "CVSharepoint.h"
#include "CVStateXMLFile.h"
#include "SyncRecords.h"

class MyParser {
 public:
  // One entry of an array reply: the text of a `string` element (or the result
  // code that stands in for an empty array), or the record of a CVFileInfo.
  using ArrayItem = std::variant<std::string, CVFileForCompare>;

  // The text of the last element of that name, unescaped; "" when there is none.
  // A reply that does not parse keeps the text found before the error.
  static std::string GetParsedStringForNode(const std::string& nodeName, const std::string& dataToParse);

  // Every `string` element adds its text, every CVFileInfo one record whose local
  // path lies in WithSiteName's folder (no storage: no local path). When nothing
  // was added and ResultCode held "-7", "-100" or "-1", that code is the one entry.
  // A record whose path would leave the storage's folder is dropped and logged.
  std::vector<ArrayItem> GetParsedArrayForNode(const std::string& nodeName, const std::string& dataToParse,
                                               const CVSharepoint* WithSiteName = nullptr);

  // The texts of the string entries, in order.
  static std::vector<std::string> StringsOf(const std::vector<ArrayItem>& items);

  // "/a/b/c.txt" gives "/a/b/.c.txt.cvtemp"; a name that already begins with "."
  // or ends in ".cvtemp" does not get it twice. "" for a bare file name.
  static std::string GetFileCVTempForFileLocalPath(const std::string& localPath);
  // "" for a folder, else the temporary name of nFilePath.
  static std::string GetFileCVTempForFileWithAction(const CVFileWithAction& file);

  // A lastModificationTime ("yyyy-MM-ddTHH:mm:ss" in UTC, with an optional
  // fraction that rounds to a whole second) as seconds since 1970; nothing when
  // the text is no such date.
  static std::optional<std::int64_t> ModificationTimeFromText(const std::string& text);

  // "Error:<class> - <method> -> (MyParser XML parser [<node>]) Error ..." in the main log.
  static void LogParseError(const std::string& className, const std::string& method,
                            const std::string& nodeName, const CVStateXMLFile::ParseError& error);

  // Of the last array reply; "" when the element was missing or empty.
  std::string ResultCode;
  std::string faultcode;
  std::string faultstring;
};
