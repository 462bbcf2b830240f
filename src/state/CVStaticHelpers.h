#pragma once
// CVStaticHelpers: stateless helpers that map between local paths, server paths
// and storages, and the places of the client's own files; the device identity,
// conflict copy names, file hashes, Trash, and the formats of sizes and lists.
// Any thread. Failures give "" or nothing, with a line in the log.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "CVSharepoint.h"

class Clock;
class MachineIdentity;
class Trash;

class CVStaticHelpers {
 public:
  // The home folder: $HOME, else the password database's entry.
  static std::string HomeFolder();
  // "~/Corvalink", without a final "/".
  static std::string GenerateRootPath();
  // The same path; storages are looked up through this name.
  static std::string GenerateRootPathForStorages();
  // Root + "/.Settings".
  static std::string GenerateSettingsPath();
  // Makes ".Settings" (mode 0700) where it is missing; true when it stands.
  static bool CreateSettingsFolder();
  // Local time of seconds since 1970 as "dd/MM/yyyy HH:mm:ss", as tool tips show it.
  static std::string FormatDateTime(std::int64_t secondsSince1970);

  // Settings + "/DownloadedFiles.xml".
  // The endpoints of a server URL that is not saved yet, by their keys
  // ("wsUrlRes", "mobileUrlRes", "adUrlRes", "downloadFileUrl", "getFileUrl",
  // "getMyFileUrl", "uploadFileRes").
  static std::map<std::string, std::string> GenerateWSUrls(const std::string& serverUrl);
  static std::string GenerateDownloadedXMLPath();
  // Root + "/" + name, without a final "/".
  static std::string GeneratePathToSite(const std::string& siteName);
  // Root + "/" + name + "/"; "" for an empty name.
  static std::string GetLocalPathForSiteName(const std::string& siteName);
  // The same for the storage at index of fSpSites; "" past the end of the list.
  static std::string GetLocalPathForSite(std::size_t index);
  // The name of the storage at index of fSpSites; "" past the end of the list.
  static std::string GetSiteNameByIndex(std::size_t index);

  // The first folder below the storages' root in localPath: the storage's name.
  // "" (and a line in the exceptions log) for a path outside the root or the root itself.
  static std::string GetSiteNameForLocalPath(const std::string& localPath);
  // The storage that holds localPath, or nothing.
  static std::shared_ptr<CVSharepoint> GetSpSiteForLocalPath(const std::string& localPath);
  // The storage's server location followed by the path below the storage's folder,
  // with the storage's separator. "" when no storage holds the path.
  static std::string serverPathFromLocalPath(const std::string& localPath);

  // True while the file's size still changes: up to 20 rounds of size, 100 ms,
  // size (on clock's time scale). A file whose inode has not changed for those
  // two seconds is quiet at once, without a round.
  static bool isFileLockedPreUploadCheck(const std::string& localPath);
  static bool isFileLockedPreUploadCheck(const std::string& localPath, const Clock& clock);

  // A new GUID of 36 characters (upper case).
  static std::string uuid();
  // Same MD5 of both contents. A file that cannot be hashed counts as different.
  static bool FileSame(const std::string& path, const std::string& withFile);
  // MD5 of the file as 32 lower-case hex digits, read in pieces of chunkSize
  // bytes (0 means 4096); nothing when the file cannot be opened or read.
  static std::optional<std::string> FileMD5HashCreateWithPath(const std::string& path,
                                                              std::size_t chunkSize);
  // The path of the conflict copy of path: "name - localcopy.ext", then
  // " - localcopy (2)", " (3)"... An existing path is never returned.
  static std::string getLocalCopyName(const std::string& path);
  // The storage URL with its final separator ("\" for CIFS or a URL holding one,
  // else "/"), and every "\/" made one "\".
  static std::string SpSiteURLCheck(const std::string& url, bool isItCIFS);

  // The machine's identity, "" when there is none.
  static std::string GetUniqueDeviceID();
  // Moves the file or folder to the Trash; false (logged) when it stays.
  static bool MoveFileToTrash(const std::string& path);
  // Unicode canonical forms of a path: composed (NFC) and decomposed (NFD); the
  // text itself when it is not valid UTF-8.
  static std::string PrecomposedForm(const std::string& path);
  static std::string DecomposedForm(const std::string& path);
  // Whether something (a link included) stands at the path as stored, or in its
  // composed or decomposed form: names on this disk are not normalised.
  static bool ExistsInAnyForm(const std::string& path);
  // The form of the path under which something stands on the disk: as stored,
  // composed or decomposed; the path as given when none does.
  static std::string ExistingForm(const std::string& path);
  // Moves a storage's local folder to its new name and the records of the last
  // sync with it; on failure the records stay as they were. A sidebar entry
  // moves with the folder.
  static bool RenameSite(const std::string& oldName, const std::string& newName);

  // The text with A-Z as a-z: how storage names and kinds are compared.
  static std::string AsciiLower(std::string text);

  // "1023 bytes", "1 Kb", "1024 Kb", "1 Mb"... up to "Pb".
  static std::string ConvertBytesToReadableFromat(std::int64_t bytes);
  // "a", "a and b", "a, b and c" or, Oxford style, "a, b, and c".
  static std::string humanReadableListFromArray(const std::vector<std::string>& array,
                                                bool withOxfordStyle);

  // Replaces the file at path with bytes so that readers see the old or the new
  // content, never a part: a temporary file in the same folder with the given
  // mode, fsync, rename over, fsync of the folder. False (logged) when the old
  // file is left as it was.
  [[nodiscard]] static bool WriteFileAtomically(const std::string& path, std::string_view bytes,
                                                mode_t mode);
  // The same with content that fill produces piece by piece through append
  // (false once a write failed), so that a large file never stands whole in
  // memory. The old file stays when fill returns false.
  using AppendBytes = std::function<bool(std::string_view bytes)>;
  [[nodiscard]] static bool WriteFileAtomically(const std::string& path,
                                                const std::function<bool(const AppendBytes& append)>& fill,
                                                mode_t mode);

  // The sources of identity and Trash; nullptr brings back the machine's own.
  // The application and tests install theirs before use.
  static void SetMachineIdentity(std::shared_ptr<const MachineIdentity> identity);
  static void SetTrash(std::shared_ptr<Trash> trash);
};
