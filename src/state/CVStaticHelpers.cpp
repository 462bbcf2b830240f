#include "CVStaticHelpers.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utf8proc.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <stdexcept>

#include "CVConfiguration.h"
#include "CrashPoint.h"
#include "CVEventLogger.h"
#include "CVTextEscaping.h"
#include "DownloadedXMLStaticMethods.h"
#include "ServerXMLParser.h"
#include "XdgDesktop.h"
#include "Clock.h"
#include "FreedesktopTrash.h"
#include "MachineIdentity.h"

namespace fs = std::filesystem;

std::string CVStaticHelpers::HomeFolder() {
  const char* home = std::getenv("HOME");
  if (home && *home) return home;
  if (passwd* entry = getpwuid(getuid()); entry && entry->pw_dir) return entry->pw_dir;
  return "/";
}

std::string CVStaticHelpers::GenerateRootPath() {
  std::string home = HomeFolder();
  while (home.size() > 1 && home.back() == '/') home.pop_back();
  if (home == "/") return "/Corvalink";
  return home + "/Corvalink";
}

std::string CVStaticHelpers::GenerateRootPathForStorages() { return GenerateRootPath(); }

std::string CVStaticHelpers::GenerateSettingsPath() { return GenerateRootPath() + "/.Settings"; }

bool CVStaticHelpers::CreateSettingsFolder() {
  std::string settings = GenerateSettingsPath();
  std::error_code error;
  if (std::filesystem::is_directory(settings, error)) return true;
  std::filesystem::create_directories(GenerateRootPath(), error);
  // The settings hold the account: readable by the user alone.
  if (mkdir(settings.c_str(), 0700) != 0 && errno != EEXIST) return false;
  return std::filesystem::is_directory(settings, error);
}

std::string CVStaticHelpers::FormatDateTime(std::int64_t secondsSince1970) {
  std::time_t when = static_cast<std::time_t>(secondsSince1970);
  std::tm parts{};
  localtime_r(&when, &parts);
  char buffer[32];
  std::size_t length = std::strftime(buffer, sizeof buffer, "%d/%m/%Y %H:%M:%S", &parts);
  return std::string(buffer, length);
}

namespace {

const char kClassName[] = "CVStaticHelpers";

std::mutex gSourcesLock;
std::shared_ptr<const MachineIdentity> gMachineIdentity;
std::shared_ptr<Trash> gTrash;

std::shared_ptr<const MachineIdentity> CurrentMachineIdentity() {
  std::lock_guard<std::mutex> lock(gSourcesLock);
  if (!gMachineIdentity) gMachineIdentity = std::make_shared<FileMachineIdentity>();
  return gMachineIdentity;
}

std::shared_ptr<Trash> CurrentTrash() {
  std::lock_guard<std::mutex> lock(gSourcesLock);
  if (!gTrash) gTrash = std::make_shared<FreedesktopTrash>();
  return gTrash;
}

const Clock& DefaultClock() {
  static const Clock clock;
  return clock;
}

std::string ReplaceAll(std::string text, char from, char to) {
  std::replace(text.begin(), text.end(), from, to);
  return text;
}

bool PathExists(const std::string& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0;  // a dangling link still takes the name
}

// The size of a file, or -1 when it cannot be read.
std::int64_t SizeOf(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return -1;
  return static_cast<std::int64_t>(info.st_size);
}

}  // namespace

std::string CVStaticHelpers::GenerateDownloadedXMLPath() {
  return GenerateSettingsPath() + "/DownloadedFiles.xml";
}

std::string CVStaticHelpers::GeneratePathToSite(const std::string& siteName) {
  return GenerateRootPathForStorages() + "/" + siteName;
}

std::string CVStaticHelpers::GetLocalPathForSiteName(const std::string& siteName) {
  if (siteName.empty()) return "";
  return GenerateRootPathForStorages() + "/" + siteName + "/";
}

std::string CVStaticHelpers::GetLocalPathForSite(std::size_t index) {
  return GetLocalPathForSiteName(GetSiteNameByIndex(index));
}

std::string CVStaticHelpers::GetSiteNameByIndex(std::size_t index) {
  // The index only means something while the list holds still; the lock just
  // keeps the read itself free of a race.
  auto& configuration = CVConfiguration::Instance();
  std::lock_guard<std::recursive_mutex> lock(configuration.fSpSitesLock);
  if (index >= configuration.fSpSites.size() || !configuration.fSpSites[index]) return "";
  return configuration.fSpSites[index]->Name;
}

std::string CVStaticHelpers::GetSiteNameForLocalPath(const std::string& localPath) {
  const std::string root = GenerateRootPathForStorages();
  // Only a path below the root names a storage; "~/Corvalink2/x" is outside it.
  if (localPath.size() > root.size() + 1 && localPath.compare(0, root.size(), root) == 0 &&
      localPath[root.size()] == '/') {
    std::size_t start = root.size() + 1;
    std::string name = localPath.substr(start, localPath.find('/', start) - start);
    if (!name.empty()) return name;
  }
  CVEventLogger::LogException(kClassName, "GetSiteNameForLocalPath",
                              "no storage folder in path " + localPath);
  return "";
}

std::shared_ptr<CVSharepoint> CVStaticHelpers::GetSpSiteForLocalPath(const std::string& localPath) {
  try {
    std::string name = GetSiteNameForLocalPath(localPath);
    if (name.empty()) return nullptr;
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return CVConfiguration::Instance().GetSiteByName(name);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "GetSpSiteForLocalPath", exception.what());
    return nullptr;
  }
}

std::string CVStaticHelpers::serverPathFromLocalPath(const std::string& localPath) {
  try {
    auto site = GetSpSiteForLocalPath(localPath);
    if (!site) return "";
    std::string rawUrl, storageType, name;
    {
      std::lock_guard<std::recursive_mutex> lock(CVConfiguration::Instance().fSpSitesLock);
      rawUrl = site->Url;
      storageType = site->StorageType;
      name = site->Name;
    }
    std::string url = CVTextEscaping::URLDecodedString(rawUrl);
    char separator = '/';
    if (storageType == "CIFS" || rawUrl.find('\\') != std::string::npos) separator = '\\';
    if (url.empty() || url.back() != separator) url += separator;

    std::string storageFolder = GenerateRootPathForStorages() + "/" + name;
    std::string prefix = storageFolder + "/";
    std::string rest = localPath;
    if (std::size_t at = localPath.find(prefix); at != std::string::npos) {
      rest = localPath.substr(0, at) + localPath.substr(at + prefix.size());
      rest = separator == '\\' ? ReplaceAll(rest, '/', '\\') : ReplaceAll(rest, '\\', '/');
    } else if (localPath == storageFolder) {
      rest.clear();  // the storage's own folder is its location on the server
    }
    return url + rest;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "serverPathFromLocalPath", exception.what());
    return "";
  }
}

bool CVStaticHelpers::isFileLockedPreUploadCheck(const std::string& localPath) {
  return isFileLockedPreUploadCheck(localPath, DefaultClock());
}

bool CVStaticHelpers::isFileLockedPreUploadCheck(const std::string& localPath, const Clock& clock) {
  constexpr int kRounds = 20;
  constexpr auto kRound = std::chrono::milliseconds(100);
  try {
    // The rounds watch whether a writer is still at the file. An inode that has
    // not changed for as long as they would watch answers that at once: every
    // write moves its change time, and nobody can set that time back.
    struct stat info {};
    if (lstat(localPath.c_str(), &info) == 0) {
      const auto changed = std::chrono::system_clock::time_point(
          std::chrono::duration_cast<std::chrono::system_clock::duration>(
              std::chrono::seconds(info.st_ctim.tv_sec) + std::chrono::nanoseconds(info.st_ctim.tv_nsec)));
      if (changed + std::chrono::duration_cast<std::chrono::system_clock::duration>(clock.Scaled(kRounds * kRound)) <
          clock.WallNow()) {
        return false;
      }
    }
    for (int round = 0; round < kRounds; ++round) {
      std::int64_t before = SizeOf(localPath);
      if (before < 0) {
        // Nothing to wait for: the caller finds out about the missing file itself.
        CVEventLogger::WriteExceptionsLog(
            "CVStaticHelpers_isFileLockedPreUploadCheck: cannot read the size of " + localPath);
        return false;
      }
      clock.Sleep(kRound);
      if (SizeOf(localPath) != before) return true;
    }
    return false;
  } catch (const std::exception& exception) {
    CVEventLogger::WriteExceptionsLog(std::string("CVStaticHelpers_isFileLockedPreUploadCheck: ") +
                                      exception.what());
    return false;
  }
}

std::string CVStaticHelpers::uuid() {
  uuid_t value;
  uuid_generate(value);
  char text[37];
  uuid_unparse_upper(value, text);
  return std::string(text, 36);
}

std::optional<std::string> CVStaticHelpers::FileMD5HashCreateWithPath(const std::string& path,
                                                                      std::size_t chunkSize) {
  if (chunkSize == 0) chunkSize = 4096;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                  EVP_MD_CTX_free);
  bool good = context && EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr) == 1;
  std::vector<unsigned char> buffer(chunkSize);
  while (good) {
    ssize_t got = read(fd, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      good = got == 0;  // the end of the file, or a failed read (a folder, an I/O error)
      break;
    }
    good = EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(got)) == 1;
  }
  close(fd);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!good || EVP_DigestFinal_ex(context.get(), digest, &length) != 1) return std::nullopt;
  std::string hex;
  char piece[3];
  for (unsigned int i = 0; i < length; ++i) {
    std::snprintf(piece, sizeof piece, "%02x", digest[i]);
    hex += piece;
  }
  return hex;
}

bool CVStaticHelpers::FileSame(const std::string& path, const std::string& withFile) {
  auto oldHash = FileMD5HashCreateWithPath(path, 4096);
  auto newHash = FileMD5HashCreateWithPath(withFile, 4096);
  CVEventLogger::WriteMainLogMessage("comparing hash for local copy (" + path +
                                     "):\nold file hash:" + oldHash.value_or("") +
                                     " \nnew file hash:" + newHash.value_or(""));
  // Unknown content is never "the same": folding it away could lose the copy.
  return oldHash && newHash && *oldHash == *newHash;
}

std::string CVStaticHelpers::getLocalCopyName(const std::string& path) {
  // Only the file name is looked at: dots and markers in folder names stay.
  std::size_t slash = path.rfind('/');
  std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  std::string name = path.substr(folder.size());
  std::string stem = name;
  std::string extension;
  std::size_t dot = name.rfind('.');
  if (dot != std::string::npos && dot > 0 && dot + 1 < name.size()) {
    stem = name.substr(0, dot);
    extension = name.substr(dot + 1);
  }

  const std::string marker = " - localcopy";
  if (stem.find(marker + " (") != std::string::npos) {
    for (int k = 2; k <= 14; ++k) {
      std::string numbered = marker + " (" + std::to_string(k) + ")";
      if (std::size_t at = stem.find(numbered); at != std::string::npos) {
        stem.erase(at, numbered.size());
        break;
      }
    }
  } else if (std::size_t at = stem.find(marker); at != std::string::npos) {
    stem.erase(at, marker.size());
  }

  std::string base = folder + stem + marker;
  std::string tail = extension.empty() ? "" : "." + extension;
  std::string candidate = base + tail;
  // Past "(15)" the count goes on: a conflict copy must never land on a file.
  for (long i = 2; PathExists(candidate); ++i) {
    candidate = base + " (" + std::to_string(i) + ")" + tail;
  }
  return candidate;
}

std::string CVStaticHelpers::SpSiteURLCheck(const std::string& url, bool isItCIFS) {
  char separator = '/';
  if (isItCIFS || url.find('\\') != std::string::npos) separator = '\\';
  std::string checked = url;
  if (checked.empty() || checked.back() != separator) checked += separator;
  std::size_t at = 0;
  while ((at = checked.find("\\/", at)) != std::string::npos) {
    checked.replace(at, 2, "\\");
    ++at;
  }
  return checked;
}

std::string CVStaticHelpers::GetUniqueDeviceID() {
  try {
    return CurrentMachineIdentity()->DeviceIdentity();
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "GetUniqueDeviceID", exception.what());
    return "";
  }
}

bool CVStaticHelpers::MoveFileToTrash(const std::string& path) {
  if (path.empty()) return false;
  try {
    std::string error;
    if (CurrentTrash()->MoveToTrash(path, error)) return true;
    CVEventLogger::WriteMainLogMessage("CVEventLogger ->\n MoveFileToTrash ->\n " + error);
    return false;
  } catch (const std::exception& exception) {
    CVEventLogger::WriteExceptionsLog(std::string("CVEventLogger ->\n MoveFileToTrash ->\n exc: ") +
                                      exception.what());
    return false;
  }
}

std::string CVStaticHelpers::AsciiLower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string CVStaticHelpers::ConvertBytesToReadableFromat(std::int64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes) + " bytes";
  static const char* const kUnits[] = {"Kb", "Mb", "Gb", "Tb", "Pb"};
  std::int64_t value = bytes;
  int divisions = 0;
  std::int64_t before;
  do {
    before = value;
    value /= 1024;
    ++divisions;
  } while (before >= 1049600 && divisions < 5);
  return std::to_string(value) + " " + kUnits[divisions - 1];
}

std::string CVStaticHelpers::humanReadableListFromArray(const std::vector<std::string>& array,
                                                        bool withOxfordStyle) {
  if (array.empty()) return "";
  if (array.size() == 1) return array[0];
  if (array.size() == 2) return array[0] + " and " + array[1];
  std::string text;
  for (std::size_t i = 0; i + 1 < array.size(); ++i) {
    if (i > 0) text += ", ";
    text += array[i];
  }
  text += withOxfordStyle ? ", and " : " and ";
  return text + array.back();
}

bool CVStaticHelpers::WriteFileAtomically(const std::string& path, std::string_view bytes,
                                          mode_t mode) {
  return WriteFileAtomically(path, [bytes](const AppendBytes& append) { return append(bytes); }, mode);
}

bool CVStaticHelpers::WriteFileAtomically(const std::string& path,
                                          const std::function<bool(const AppendBytes& append)>& fill,
                                          mode_t mode) {
  fs::path target(path);
  std::string folder = target.parent_path().empty() ? "." : target.parent_path().string();
  std::string temp = folder + "/." + target.filename().string() + ".XXXXXX";
  auto fail = [&](const std::string& what, int code, bool removeTemp) {
    if (removeTemp) unlink(temp.c_str());
    CVEventLogger::WriteMainLogMessage("CVStaticHelpers - WriteFileAtomically -> " + what + " " +
                                       path + ": " + std::strerror(code));
    return false;
  };

  int fd = mkostemp(temp.data(), O_CLOEXEC);
  if (fd < 0) return fail("cannot create a temporary file for", errno, false);
  if (fchmod(fd, mode) != 0) {
    int code = errno;
    close(fd);
    return fail("cannot set the mode of", code, true);
  }
  int writeError = 0;
  auto writeOut = [&](std::string_view bytes) {
    while (writeError == 0 && !bytes.empty()) {
      ssize_t written = write(fd, bytes.data(), bytes.size());
      if (written < 0) {
        if (errno != EINTR) writeError = errno;
        continue;
      }
      bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return writeError == 0;
  };
  // Small pieces are gathered, so that a large file costs few writes.
  constexpr std::size_t kGather = 64 * 1024;
  std::string gathered;
  auto append = [&](std::string_view bytes) {
    if (gathered.size() + bytes.size() < kGather) {
      gathered.append(bytes);
      return writeError == 0;
    }
    bool written = writeOut(gathered) && writeOut(bytes);
    gathered.clear();
    return written;
  };
  bool filled = false;
  try {
    filled = fill(append);
    const std::string_view rest(gathered);
    filled = filled && writeOut(rest.substr(0, rest.size() / 2));
    CrashPoint("state-file-half-written");
    filled = filled && writeOut(rest.substr(rest.size() / 2));
  } catch (...) {
    close(fd);
    unlink(temp.c_str());
    throw;
  }
  if (writeError != 0) {
    close(fd);
    return fail("cannot write", writeError, true);
  }
  if (!filled) {
    close(fd);
    unlink(temp.c_str());
    return false;  // the producer has said why
  }
  if (fsync(fd) != 0) {
    int code = errno;
    close(fd);
    return fail("cannot flush", code, true);
  }
  if (close(fd) != 0) return fail("cannot close", errno, true);
  if (std::rename(temp.c_str(), path.c_str()) != 0) return fail("cannot replace", errno, true);
  // The rename itself must survive a crash, or the old file could come back.
  int folderFd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folderFd >= 0) {
    fsync(folderFd);
    close(folderFd);
  }
  return true;
}

void CVStaticHelpers::SetMachineIdentity(std::shared_ptr<const MachineIdentity> identity) {
  std::lock_guard<std::mutex> lock(gSourcesLock);
  gMachineIdentity = std::move(identity);
}

void CVStaticHelpers::SetTrash(std::shared_ptr<Trash> trash) {
  std::lock_guard<std::mutex> lock(gSourcesLock);
  gTrash = std::move(trash);
}

std::map<std::string, std::string> CVStaticHelpers::GenerateWSUrls(const std::string& serverUrl) {
  std::string base = CVTextEscaping::URLDecodedString(serverUrl);
  if (!base.empty() && base.back() != '/') base += "/";
  return {{"wsUrlRes", base + "CorvalinkWS.asmx"},
          {"mobileUrlRes", base + "CorvalinkMobile.asmx"},
          {"adUrlRes", base + "CorvalinkAD.asmx"},
          {"downloadFileUrl", base + "DownloadStorageFile.ashx"},
          {"getFileUrl", base + "getFile.ashx"},
          {"getMyFileUrl", base + "getMyFile.ashx"},
          {"uploadFileRes", base + "UploadStorageFile.ashx"}};
}

bool CVStaticHelpers::RenameSite(const std::string& oldName, const std::string& newName) {
  std::string oldFolder = GeneratePathToSite(oldName);
  std::string newFolder = GeneratePathToSite(newName);
  // One read-change-save of the records, with the move inside it, so that no
  // other writer's change is lost or undone.
  std::lock_guard<std::recursive_mutex> lock(DownloadedXMLStaticMethods::downloadedFilesLock());
  ServerXMLParser parser;
  auto records = parser.readDownloadedFiles();
  if (parser.lastRead() == StateFileRead::Unreadable) {
    CVEventLogger::LogException("CVStaticHelpers", "RenameSite",
                                "the record of the last sync cannot be read; the storage is not renamed");
    return false;
  }
  std::vector<CVFileForCompare> before = records.value_or(std::vector<CVFileForCompare>{});
  std::vector<CVFileForCompare> after = before;
  bool changed = false;
  for (auto& record : after) {
    // "Docs" must not take the records of "Docs2" with it.
    if (record.localPath == oldFolder || record.localPath.rfind(oldFolder + "/", 0) == 0) {
      record.localPath = newFolder + record.localPath.substr(oldFolder.size());
      changed = true;
    }
  }
  if (changed && !ServerXMLParser::saveDownloadedXML(after)) return false;
  bool inSidebar = XdgDesktop::HasFavourite("Corvalink_" + oldName);

  std::error_code error;
  if (!std::filesystem::exists(std::filesystem::symlink_status(oldFolder, error))) {
    // Never synced yet: there is no folder to move, only the name changes.
    error.clear();
  } else if (std::filesystem::exists(std::filesystem::symlink_status(newFolder, error))) {
    error = std::make_error_code(std::errc::file_exists);
  } else {
    std::filesystem::rename(oldFolder, newFolder, error);
  }
  if (error) {
    CVEventLogger::LogException("CVStaticHelpers", "RenameSite",
                                "moving " + oldFolder + " to " + newFolder + " failed: " + error.message());
    if (changed && !ServerXMLParser::saveDownloadedXML(before)) {
      CVEventLogger::LogException("CVStaticHelpers", "RenameSite", "the records could not be put back");
    }
    return false;
  }
  if (inSidebar && !XdgDesktop::RenameFavourite("Corvalink_" + oldName, "Corvalink_" + newName, newFolder)) {
    CVEventLogger::WriteMainLogMessage("RenameSite: the sidebar entry of \"" + oldName + "\" could not be renamed");
  }
  return true;
}

namespace {
std::string Normalised(const std::string& text, utf8proc_option_t form) {
  if (std::all_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x80; })) return text;
  utf8proc_uint8_t* result = nullptr;
  utf8proc_ssize_t length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                         static_cast<utf8proc_ssize_t>(text.size()), &result,
                                         static_cast<utf8proc_option_t>(UTF8PROC_STABLE | form));
  if (length < 0 || !result) {
    std::free(result);
    return text;
  }
  std::string normalised(reinterpret_cast<const char*>(result), static_cast<std::size_t>(length));
  std::free(result);
  return normalised;
}

bool Stands(const std::string& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0;
}
}  // namespace

std::string CVStaticHelpers::PrecomposedForm(const std::string& path) {
  return Normalised(path, UTF8PROC_COMPOSE);
}

std::string CVStaticHelpers::DecomposedForm(const std::string& path) {
  return Normalised(path, UTF8PROC_DECOMPOSE);
}

bool CVStaticHelpers::ExistsInAnyForm(const std::string& path) {
  return !path.empty() && Stands(ExistingForm(path));
}

std::string CVStaticHelpers::ExistingForm(const std::string& path) {
  if (path.empty() || Stands(path)) return path;
  std::string composed = PrecomposedForm(path);
  if (composed != path && Stands(composed)) return composed;
  std::string decomposed = DecomposedForm(path);
  if (decomposed != path && Stands(decomposed)) return decomposed;
  return path;
}
