#pragma once
// CVSelectiveSyncRule: whether a folder or file of a storage is kept locally.
// ItemUrl is relative to the root, without a leading "/": the storage's name for
// the storage itself, else name + "/" + path.

#include <cstdint>
#include <string>
#include <unordered_map>

struct CVSelectiveSyncRule {
  static constexpr std::int32_t syncAll = 1;
  static constexpr std::int32_t syncNone = 2;

  std::int32_t Rule = syncNone;
  std::string ItemUrl;
};

// ItemUrl -> rule, made once per comparison; of two rules of one ItemUrl the later wins.
using CVSyncRulesDictionary = std::unordered_map<std::string, CVSelectiveSyncRule>;
