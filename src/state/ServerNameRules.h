#pragma once
// ServerNameRules: which names a storage can hold, by its kind, and which
// names of the server this file system can hold. Storages of the kinds "CIFS"
// (Windows file shares), "SP" and "O365" (document libraries) do not tell
// "Report.txt" from "report.txt" and refuse some names that Linux takes; the
// others take any name. Stateless; any thread.

#include <string>
#include <string_view>

class ServerNameRules {
 public:
  // True for "CIFS", "SP" and "O365", in any case.
  static bool IsShareKind(const std::string& storageType);
  // Why a storage of that kind cannot hold name, one path component: one of the
  // characters \ / : * ? " < > | or a control character, a final dot or space,
  // a device name (CON, PRN, AUX, NUL, COM1-9, LPT1-9, in any case, with any
  // extension). "" when it can.
  static std::string NameProblem(std::string_view name, const std::string& storageType);
  // A name close to name that a storage of that kind can hold.
  static std::string ValidName(std::string_view name, const std::string& storageType);
  // The form in which a storage of that kind compares names: case folded and
  // composed for a share kind, name itself for the others.
  static std::string ComparisonKey(std::string_view name, const std::string& storageType);
  // Why this file system cannot take a server item at localPath: a name longer
  // than a file name may be here (with room for the temporary name of a
  // download), or a path longer than a path may be. "" when it can.
  static std::string LocalPathProblem(const std::string& localPath, bool isFolder);
};
