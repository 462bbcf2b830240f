#include "SyncManagerSettings.h"

#include <algorithm>
#include <cctype>
#include <exception>

#include "AccountProbe.h"
#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVSelectiveSync.h"
#include "CVStaticHelpers.h"
#include "CVStorageNames.h"
#include "Policy.h"

namespace {
constexpr const char* kClass = "CorvalinkSyncManagerContent";

bool Same(const std::string& a, const std::string& b) { return CVStaticHelpers::AsciiLower(a) == CVStaticHelpers::AsciiLower(b); }
}  // namespace

SyncManagerSettings::MergePlan SyncManagerSettings::PlanStorageMerge(const std::vector<CVSharepoint>& local,
                                                                    const std::vector<CVSharepoint>& fromServer) {
  MergePlan plan;
  std::vector<std::string> names;
  for (const auto& site : local) names.push_back(site.Name);
  std::vector<const CVSharepoint*> unmatched;
  for (const auto& server : fromServer) {
    bool found = false;
    for (std::size_t i = 0; i < local.size(); ++i) {
      const CVSharepoint& site = local[i];
      if (site.isManually || !Same(site.StorageType, server.StorageType)) continue;
      const bool sameName = Same(names[i], server.Name);
      const bool sameUrl = Same(site.Url, server.Url);
      if (!sameName && !sameUrl) continue;
      found = true;
      // The server's name wins; its location stays the one the files came from.
      if (names[i] != server.Name) {
        plan.renames.emplace_back(names[i], server.Name);
        names[i] = server.Name;
      }
    }
    if (!found) unmatched.push_back(&server);
  }
  int counter = 1;
  auto taken = [&](const std::string& name) {
    auto same = [&](const std::string& other) { return Same(other, name); };
    return std::any_of(names.begin(), names.end(), same) ||
           std::any_of(plan.added.begin(), plan.added.end(), [&](const CVSharepoint& s) { return same(s.Name); });
  };
  for (const CVSharepoint* server : unmatched) {
    CVSharepoint added = *server;
    while (taken(added.Name)) added.Name = "(" + std::to_string(counter++) + ") " + server->Name;
    plan.added.push_back(std::move(added));
  }
  return plan;
}

SyncManagerSettings::Result SyncManagerSettings::SaveSettingsNew(const Form& form, const Confirm& confirm) {
  try {
    CVEventLogger::WriteSettingsLogMessage(std::string(kClass) + " - SaveSettingsNew -> MethodRun!");
    if (form.url.find_first_not_of('/') == std::string::npos || form.user.empty() || form.password.empty()) {
      return {false, kEmptyField};
    }
    auto settingsLock = context_.Exclusive();
    AccountSwitch::Plan plan = AccountSwitch::Prepare(form.url, form.user, form.password);
    plan.interval = form.interval;
    AccountProbe probe =
        AccountProbe::Run(plan.url, plan.user, plan.password, {AccountSwitch::AcceptedPinFor(plan.url), "", {}});
    CVHandler::Instance().setDevStatus(probe.devStatus);
    if (probe.kind == AccountProbe::Kind::DeviceRefused) return {false, AccountProbe::DeviceRefusedText(probe.devStatus)};
    if (probe.kind == AccountProbe::Kind::Untrusted) return {false, probe.detail};
    if (probe.kind != AccountProbe::Kind::Ok) return {false, kAccessFailed};
    plan.policy = probe.policy;
    plan.serverKeyPin = probe.pin;
    if (plan.wipe && (!confirm || !confirm(AccountSwitch::Question(plan, context_.control())))) {
      return {false, "Nothing was changed."};
    }
    AccountSwitch::Apply(context_.control(), plan);
    return {true, ""};
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "SaveSettingsNew", failure.what());
    return {false, kAccessFailed};
  }
}

SyncManagerSettings::Result SyncManagerSettings::RetrieveSettings() {
  try {
    auto settingsLock = context_.Exclusive();
    CVConfiguration& config = CVConfiguration::Instance();
    CVConnection account;
    std::vector<CVSharepoint> local;
    {
      std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
      account = config.Corvalink;
    }
    const std::string password = config.AccountPassword();
    if (account.UserName.empty() || password.empty() || account.Url.empty()) return {false, kEmptyAccount};
    AccountProbe probe = AccountProbe::Run(account.Url, account.UserName, password, {account.ServerKeyPin, "", {}});
    CVHandler::Instance().setDevStatus(probe.devStatus);
    if (probe.kind == AccountProbe::Kind::Untrusted) return {false, probe.detail};
    if (probe.kind != AccountProbe::Kind::Ok) return {false, kOffline};
    auto storages = Policy::ParseCorvalinkConfigNewForRetrieveStoragesWithXML(probe.policy);

    SyncControl& control = context_.control();
    control.Apply([&] {
      {
        std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
        for (const auto& site : config.fSpSites) local.push_back(*site);
      }
      MergePlan plan = PlanStorageMerge(local, storages.value_or(std::vector<CVSharepoint>{}));
      CVSelectiveSync& rules = CVSelectiveSync::Instance();
      for (const auto& [from, to] : plan.renames) {
        auto site = config.GetSiteByName(from);
        if (!site) continue;
        if (auto problem = CVStorageNames::Problem(to)) {
          CVEventLogger::WriteSettingsLogMessage("RetrieveSettings -> \"" + from + "\" keeps its name: " + *problem);
          continue;
        }
        auto other = config.GetSiteByName(to);
        if (other && other != site) {
          CVEventLogger::WriteSettingsLogMessage("RetrieveSettings -> \"" + from + "\" keeps its name: \"" + to +
                                                 "\" is taken");
          continue;
        }
        if (auto siteRules = rules.GetSiteRulesByName(from)) {
          siteRules->renameSite(from, to);
          rules.SaveConfigXML();
        }
        if (!CVStaticHelpers::RenameSite(from, to)) {
          CVEventLogger::WriteSettingsLogMessage("RetrieveSettings -> the folder of \"" + from + "\" stays");
        }
        control.RenameFilesInQueue(from, to);
        std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
        site->Name = to;
      }
      for (const auto& added : plan.added) {
        if (auto problem = CVStorageNames::Problem(added.Name)) {
          CVEventLogger::WriteSettingsLogMessage("RetrieveSettings -> the storage \"" + added.Name +
                                                 "\" is left out: " + *problem);
          continue;
        }
        rules.GetSiteRulesByName(added.Name, true);
        std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
        config.fSpSites.push_back(std::make_shared<CVSharepoint>(added));
      }
      CVHandler::Instance().RemoveAllTokens();
      {
        std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
        config.Corvalink.IsFirstRun = false;
      }
      config.SaveConfigXML();
    });
    CVEventLogger::WriteSettingsLogMessage(std::string(kClass) + " - RetrieveSettings -> " + kRetrieved);
    return {true, kRetrieved};
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "RetrieveSettings", failure.what());
    return {false, kOffline};
  }
}
