#include "StorageController.h"

#include <algorithm>
#include <cctype>
#include <exception>

#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVSelectiveSync.h"
#include "CVSettingsStaticMethods.h"
#include "CVStaticHelpers.h"
#include "CVStorageNames.h"
#include "CVTextEscaping.h"
#include "XdgDesktop.h"

namespace {
constexpr const char* kClass = "AddStorageSheetDelegate";

bool Holds(const std::string& text, char c) { return text.find(c) != std::string::npos; }
bool Begins(const std::string& text, const std::string& prefix) { return CVStaticHelpers::AsciiLower(text).rfind(prefix, 0) == 0; }
}  // namespace

std::string StorageController::getStorageType(const std::string& type, const std::string& url, bool fromRadioGroup,
                                              std::string& message) {
  message.clear();
  if (fromRadioGroup && type != "SP" && type != "CIFS" && type != "O365") return "-1";
  if (type == "CIFS") {
    if (!Holds(url, '/')) return type;
    message = "Your URL is not correct for CIFS Storage.";
  } else if (type == "SP" || type == "O365") {
    if (!Holds(url, '\\')) return type;
    message = "Your URL is not correct for Sharepoint Storage.";
  } else if (type == "S3") {
    if (!Holds(url, '\\') && (Begins(url, "s3://") || url.rfind("//", 0) == 0)) return type;
    message = "Your URL is not correct for Amazone S3 Storage.";
  } else if (type == "AZURE") {
    if (!Holds(url, '\\') && (Begins(url, "azure://") || url.rfind("//", 0) == 0)) return type;
    message = "Your URL is not correct for Azure Storage.";
  }
  return "-1";
}

std::string StorageController::StoredUrl(const std::string& type, const std::string& url) {
  std::string stored = url;
  const char separator = type == "CIFS" ? '\\' : '/';
  if (stored.empty() || stored.back() != separator) stored += separator;
  if (type == "S3" && !Begins(stored, "s3:") && stored.rfind("//", 0) == 0) stored = "s3:" + stored;
  if (type == "AZURE" && !Begins(stored, "azure:") && stored.rfind("//", 0) == 0) stored = "azure:" + stored;
  return stored;
}

std::string StorageController::ShownUrl(const std::string& url) {
  if (Begins(url, "azure:")) return url.substr(6);
  if (Begins(url, "s3:")) return url.substr(3);
  return url;
}

StorageController::Result StorageController::saveChanges(const Form& form) {
  try {
    auto settingsLock = context_.Exclusive();
    CVConfiguration& config = CVConfiguration::Instance();
    CVConnection account;
    {
      std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
      account = config.Corvalink;
    }
    if (!account.EditableStorages) return {false, kNotEditable};

    std::string user = account.UserName, password = config.AccountPassword();
    if (form.useAlterAuth) {
      if (form.user.empty() || form.password.empty()) return {false, kEmptyField};
      user = form.user;
      password = form.password;
    }
    if (form.url.empty() || form.name.empty()) return {false, kEmptyField};
    if (CVStorageNames::IsReservedName(form.name) || form.name.front() == '.') return {false, kReservedName};
    if (auto problem = CVStorageNames::Problem(form.name)) return {false, "The storage name cannot be used: " + *problem + "."};

    std::shared_ptr<CVSharepoint> current;
    if (form.editing) {
      current = config.GetSiteByName(*form.editing);
      if (!current) return {false, "There is no storage named \"" + *form.editing + "\"."};
    }
    const bool renamed = !form.editing || form.name != *form.editing;
    // A change of case only is the same storage under its own name.
    if (renamed && config.isNameExists(form.name) && !(form.editing && CVStaticHelpers::AsciiLower(form.name) == CVStaticHelpers::AsciiLower(*form.editing))) {
      return {false, kNameExists};
    }

    std::string message;
    const std::string type = getStorageType(form.type, form.url, form.fromRadioGroup, message);
    if (type == "-1") return {false, message.empty() ? "Please choose the kind of storage." : message};
    const std::string url = StoredUrl(type, form.url);

    if (!CVHandler::Instance().LoginMobile(CVTextEscaping::URLDecodedString(url), user, password, type)) {
      return {false, kInvalidConnection};
    }

    context_.control().Apply([&] {
      std::shared_ptr<CVSharepoint> site = current;
      const std::string oldName = current ? current->Name : "";
      if (!current) {
        site = std::make_shared<CVSharepoint>();
        site->Name = form.name;
        site->isManually = true;
        CVSelectiveSync::Instance().GetSiteRulesByName(form.name, true);
      } else if (renamed) {
        CVSelectiveSync& rules = CVSelectiveSync::Instance();
        if (auto siteRules = rules.GetSiteRulesByName(oldName)) {
          siteRules->renameSite(oldName, form.name);
          rules.SaveConfigXML();
        }
        // A renamed storage takes part in the server's storage list from now on.
        site->isManually = false;
        if (!CVStaticHelpers::RenameSite(oldName, form.name)) {
          CVEventLogger::WriteMainLogMessage("The folder of \"" + oldName + "\" could not be renamed to \"" +
                                             form.name + "\"");
        }
        context_.control().RenameFilesInQueue(oldName, form.name);
      }
      {
        std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
        site->Name = form.name;
        site->isInFavorites = XdgDesktop::HasFavourite("Corvalink_" + form.name);
        site->UseAlterAuth = form.useAlterAuth;
        site->StorageType = type;
        site->Url = url;
        site->UserName = form.useAlterAuth ? form.user : "";
        site->Password = form.useAlterAuth ? form.password : "";
        site->SyncDelay = config.Corvalink.SyncCV;
        if (!current) config.fSpSites.push_back(site);
      }
      CVHandler::Instance().RemoveCVToken(form.name);
      if (current && renamed) CVHandler::Instance().RemoveCVToken(oldName);
      config.SaveConfigXML();
    });
    CVEventLogger::WriteSettingsLogMessage(std::string(kClass) + " - saveChanges -> " +
                                           (current ? "changed " + *form.editing : "added " + form.name));
    return {true, ""};
  } catch (const std::exception& failure) {
    CVEventLogger::WriteExceptionsLog(std::string("AddStorageSheetDelegate->saveChangesSepartedThread:") +
                                      failure.what());
    return {false, kRemoveFailed};
  }
}

StorageController::Result StorageController::RemoveSite(const std::string& name) {
  try {
    auto settingsLock = context_.Exclusive();
    CVConfiguration& config = CVConfiguration::Instance();
    {
      std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
      if (!config.Corvalink.EditableStorages) return {false, kNotEditable};
    }
    auto site = config.GetSiteByName(name);
    if (!site) return {false, "There is no storage named \"" + name + "\"."};
    bool removed = false;
    context_.control().Apply([&] {
      const std::string exact = site->Name;
      {
        std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
        auto& sites = config.fSpSites;
        auto it = std::find(sites.begin(), sites.end(), site);
        if (it == sites.end()) return;  // removed meanwhile
        sites.erase(it);
      }
      CVHandler::Instance().RemoveCVToken(exact);
      CVSettingsStaticMethods::RemoveFavourite(exact);
      CVSettingsStaticMethods::DeleteSiteData(exact);
      config.SaveConfigXML();
      removed = true;
    });
    if (!removed) return {false, "There is no storage named \"" + name + "\"."};
    CVEventLogger::WriteSettingsLogMessage("CorvalinkSyncManagerContent - RemoveSiteThread -> removed " + name);
    return {true, ""};
  } catch (const std::exception& failure) {
    CVEventLogger::LogException("CorvalinkSyncManagerContent", "RemoveSiteThread", failure.what());
    return {false, kRemoveFailed};
  }
}
