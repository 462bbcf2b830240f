#include "DownloadedXMLStaticMethods.h"

#include <algorithm>
#include <atomic>
#include <exception>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "DownloadedFilesStore.h"
#include "ServerXMLParser.h"
#include "StateFileSupport.h"

namespace {
const char kClassName[] = "DownloadedXMLStaticMethods";
std::atomic<std::uint64_t> brokenReads{0};
}  // namespace

std::uint64_t DownloadedXMLStaticMethods::BrokenReads() { return brokenReads; }

void DownloadedXMLStaticMethods::NoteBrokenRead() { ++brokenReads; }

std::recursive_mutex& DownloadedXMLStaticMethods::downloadedFilesLock() {
  static std::recursive_mutex lock;
  return lock;
}

bool DownloadedXMLStaticMethods::SaveDownloadedXMLFile(const std::vector<CVFileForCompare>& array) {
  return ServerXMLParser::saveDownloadedXML(array);
}

bool DownloadedXMLStaticMethods::CleanXMLFromSite(const std::string& path) {
  try {
    std::string folder = path;
    while (!folder.empty() && folder.back() == '/') folder.pop_back();
    if (folder.empty() || folder == CVStaticHelpers::GenerateRootPath()) {
      // Would match every record: a storage's clean-up never means all of them.
      CVEventLogger::LogException(kClassName, "CleanXMLFromSite", "no storage folder given: \"" + path + "\"");
      return false;
    }
    return DownloadedFilesStore::Instance().RemoveBelow(folder);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "CleanXMLFromSite", exception.what());
    return false;
  }
}
