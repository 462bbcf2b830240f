#include "CVSettingsStaticMethods.h"

#include <exception>
#include <filesystem>

#include "AsyncFileCommonPart.h"
#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVIPRestriction.h"
#include "CVSelectiveSync.h"
#include "CVStaticHelpers.h"
#include "CVStorageNames.h"
#include "DownloadedXMLStaticMethods.h"
#include "NewFilesParser.h"
#include "XdgDesktop.h"

namespace {
constexpr const char* kClass = "CVSettingsStaticMethods";

// The client's own caches beside the storages, filled from shares and requests.
constexpr const char* kCacheFolders[] = {"Shared In", "Shared Out", "External user uploads"};
}  // namespace

void CVSettingsStaticMethods::RemoveFavourite(const std::string& name) {
  if (!XdgDesktop::RemoveFavourite("Corvalink_" + name)) {
    CVEventLogger::WriteMainLogMessage("The sidebar entry of \"" + name + "\" could not be removed");
  }
}

void CVSettingsStaticMethods::DeleteSiteData(const std::string& name) {
  const std::string folder = CVStaticHelpers::GeneratePathToSite(name);
  if (!CVStorageNames::RemoveStorageFolder(name)) {
    CVEventLogger::WriteMainLogMessage("DeleteSiteData: " + folder + " stays where it is");
  }
  DownloadedXMLStaticMethods::CleanXMLFromSite(folder);
  AsyncFileCommonPart::RemoveItemNewFilesForSite(folder);
  CVSelectiveSync& rules = CVSelectiveSync::Instance();
  if (rules.RemoveSite(name)) rules.SaveConfigXML();
}

void CVSettingsStaticMethods::DeleteAllSitesData() {
  try {
    for (const auto& site : CVConfiguration::Instance().SitesCopy()) DeleteSiteData(site->Name);
    CVSelectiveSync::RemoveAll();
    CVSelectiveSync::Instance().SaveConfigXML();
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "DeleteAllSitesData", failure.what());
  }
}

void CVSettingsStaticMethods::WipeAccountData() {
  for (const auto& site : CVConfiguration::Instance().SitesCopy()) RemoveFavourite(site->Name);
  DeleteAllSitesData();
  // Records and queued changes of storages that are no longer in the list go too:
  // nothing of the old account may look deleted to the new one.
  if (!DownloadedXMLStaticMethods::SaveDownloadedXMLFile({})) {
    CVEventLogger::LogException(kClass, "WipeAccountData", "the record of the last sync could not be emptied");
  }
  if (!NewFilesParser::saveNewFilesXML({})) {
    CVEventLogger::LogException(kClass, "WipeAccountData", "the queue of local changes could not be emptied");
  }
  std::error_code error;
  std::filesystem::remove(CVIPRestriction::RestrictedFoldersXMLPath(), error);
  CVIPRestriction::RemoveAll();
  const std::string root = CVStaticHelpers::GenerateRootPathForStorages();
  for (const char* cache : kCacheFolders) {
    const std::string path = root + "/" + cache;
    if (std::filesystem::exists(std::filesystem::symlink_status(path, error)) &&
        !CVStaticHelpers::MoveFileToTrash(path)) {
      CVEventLogger::WriteMainLogMessage("WipeAccountData: " + path + " could not be moved to the Trash");
    }
  }
  CVEventLogger::WriteMainLogMessage("The data of the previous account was removed");
}
