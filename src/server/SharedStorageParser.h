#pragma once
// SharedStorageParser: reader of the GetSharedStorages reply. Each SharedStorage
// element gives one WSStorage; `string` elements give their text; a reply with no
// entries whose ResultCode held "-7", "-100" or "-1" gives that code as its one
// entry. Keeps the reply's ResultCode and fault texts, so make one per reply.

#include <string>
#include <variant>
#include <vector>

#include "WSStorage.h"

class SharedStorageParser {
 public:
  using Item = std::variant<std::string, WSStorage>;

  std::vector<Item> GetParsedArrayForNode(const std::string& nodeName, const std::string& dataToParse);

  // The storages of an array, in order.
  static std::vector<WSStorage> StoragesOf(const std::vector<Item>& items);

  // Of the last reply; "" when the element was missing or empty.
  std::string ResultCode;
  std::string faultcode;
  std::string faultstring;
};
