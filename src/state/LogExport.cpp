#include "LogExport.h"

#include <fcntl.h>
#include <minizip/zip.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "LogRedaction.h"
#include "XdgDesktop.h"

namespace fs = std::filesystem;

namespace {

zip_fileinfo InfoFor(const fs::path& file) {
  zip_fileinfo info{};
  struct stat status {};
  std::time_t time = ::stat(file.c_str(), &status) == 0 ? status.st_mtime : std::time(nullptr);
  std::tm local{};
  localtime_r(&time, &local);
  info.tmz_date.tm_sec = static_cast<uInt>(local.tm_sec);
  info.tmz_date.tm_min = static_cast<uInt>(local.tm_min);
  info.tmz_date.tm_hour = static_cast<uInt>(local.tm_hour);
  info.tmz_date.tm_mday = static_cast<uInt>(local.tm_mday);
  info.tmz_date.tm_mon = static_cast<uInt>(local.tm_mon);
  info.tmz_date.tm_year = static_cast<uInt>(local.tm_year + 1900);
  return info;
}

// The log files, sorted, with their names in the archive.
std::vector<std::pair<fs::path, std::string>> LogFiles(const fs::path& logger) {
  std::vector<std::pair<fs::path, std::string>> files;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(logger, ec), end; !ec && it != end; it.increment(ec)) {
    if (!it->is_regular_file(ec) || it->path().extension() != ".txt") continue;
    files.emplace_back(it->path(), "CVLogs/" + it->path().lexically_relative(logger).generic_string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

std::string LogExport::ArchiveName() { return "Corvalink_macOS_app_logs-" + CVEventLogger::DayText() + ".zip"; }

std::string LogExport::SavedText(const Result& result) {
  const fs::path path(result.path);
  const std::string where = path.parent_path() == fs::path(XdgDesktop::DownloadFolder())
                                ? kSaved
                                : "Logs files were saved to " + path.parent_path().string();
  return where + "\nFile name: " + path.filename().string();
}

LogExport::Result LogExport::sendLogs(const std::string& destination) {
  Result result;
  std::error_code ec;
  fs::path target = destination.empty() ? fs::path(XdgDesktop::DownloadFolder()) : fs::absolute(destination, ec);
  if (destination.empty() || fs::is_directory(target, ec) || destination.back() == '/') {
    fs::create_directories(target, ec);
    target /= ArchiveName();
  }
  result.path = target.lexically_normal().string();
  auto fail = [&](const std::string& problem) {
    result.problem = problem;
    CVEventLogger::WriteMainLogMessage("LogExport - sendLogs -> " + result.path + ": " + problem);
    return result;
  };

  std::string temporary = target.parent_path() / ("." + target.filename().string() + ".XXXXXX");
  const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) return fail(std::string("cannot write in the folder: ") + std::strerror(errno));
  ::close(fd);
  zipFile archive = zipOpen(temporary.c_str(), APPEND_STATUS_CREATE);
  if (!archive) {
    ::unlink(temporary.c_str());
    return fail("cannot create the archive");
  }
  bool written = true;
  const fs::path logger = CVStaticHelpers::GenerateSettingsPath() + "/CVLogger";
  for (const auto& [file, name] : LogFiles(logger)) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    if (!in) continue;  // a log that went away meanwhile
    const std::string text = LogRedaction::Redacted(bytes.str());
    const zip_fileinfo info = InfoFor(file);
    written = zipOpenNewFileInZip(archive, name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED,
                                  Z_BEST_COMPRESSION) == ZIP_OK &&
              zipWriteInFileInZip(archive, text.data(), static_cast<unsigned>(text.size())) == ZIP_OK &&
              zipCloseFileInZip(archive) == ZIP_OK;
    if (!written) break;
    ++result.files;
  }
  written = zipClose(archive, nullptr) == ZIP_OK && written;
  // The archive is durable before it takes the place of an earlier one.
  const int check = ::open(temporary.c_str(), O_RDONLY | O_CLOEXEC);
  written = written && check >= 0 && ::fsync(check) == 0;
  if (check >= 0) ::close(check);
  if (!written || ::rename(temporary.c_str(), target.c_str()) != 0) {
    const std::string reason = std::strerror(errno);
    ::unlink(temporary.c_str());
    return fail("the archive could not be written whole (" + reason + ")");
  }
  result.saved = true;
  CVEventLogger::WriteMainLogMessage("LogExport - sendLogs -> " + std::to_string(result.files) + " files to " +
                                     result.path);
  return result;
}
