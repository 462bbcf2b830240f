// SOAP replies as a server sends them: the text of a result element, arrays of
// strings and of file records (whose local paths must stay inside the storage),
// the storages shared with the user, and the fields read out of result texts.

#include <cstdlib>
#include <variant>

#include "CVHandler.h"
#include "FuzzSupport.h"
#include "ManagerDownload.h"
#include "MyParser.h"
#include "SharedStorageParser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string reply = fuzz::Text(data, size);
  static const CVSharepoint cifs = fuzz::Storage("Docs", "\\\\devserver\\Docs\\", "CIFS");
  static const CVSharepoint web = fuzz::Storage("Team", "https://devserver/Team/", "SP");
  for (const char* node : {"LoginResult", "GetFileInfoResult", "GetDefaultSettings2Result"}) {
    (void)CVHandler::ParseGetFileInfo(MyParser::GetParsedStringForNode(node, reply));
  }
  for (const CVSharepoint* site : {&cifs, &web, static_cast<const CVSharepoint*>(nullptr)}) {
    MyParser parser;
    auto items = parser.GetParsedArrayForNode("GetFiles3Result", reply, site);
    for (const auto& item : items) {
      const auto* record = std::get_if<CVFileForCompare>(&item);
      // Nothing the server sends may name a place outside the storage's folder. A
      // record without a file name (or one that maps to nothing) has no place at all.
      if (record && site && !record->localPath.empty() &&
          !ManagerDownload::StaysInsideStorage(record->localPath, fuzz::Root() + "/" + site->Name)) {
        std::abort();
      }
    }
    (void)MyParser::StringsOf(items);
  }
  SharedStorageParser shared;
  (void)SharedStorageParser::StoragesOf(shared.GetParsedArrayForNode("GetSharedStoragesResult", reply));
  (void)MyParser::ModificationTimeFromText(reply.substr(0, 64));
  return 0;
}
