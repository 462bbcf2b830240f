#include "AccountSwitch.h"

#include "AccountIdentity.h"
#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVSelectiveSync.h"
#include "CVSettingsStaticMethods.h"
#include "CVStaticHelpers.h"
#include "CVTextEscaping.h"
#include "HTTPURLHelpers.h"
#include "Policy.h"
#include "ServerTrust.h"
#include "SyncControl.h"

std::string AccountSwitch::AccountChange::Details() const {
  std::string text = "Signed in now: " + oldUser + " on " + oldUrl + ". Signing in: " + newUser + " on " + newUrl + ".";
  if (storages.empty()) {
    text += "\nNo storage folder is removed.";
  } else {
    text += "\nThese storage folders go to the Trash: " + CVStaticHelpers::humanReadableListFromArray(storages, false) +
            ".";
  }
  if (pendingChanges > 0) {
    text += "\n" + std::to_string(pendingChanges) +
            (pendingChanges == 1 ? " local change was" : " local changes were") + " not sent to the server yet.";
  }
  return text;
}

AccountSwitch::Plan AccountSwitch::Prepare(const std::string& url, const std::string& user,
                                           const std::string& password) {
  Plan plan;
  plan.url = url;
  while (!plan.url.empty() && plan.url.back() == '/') plan.url.pop_back();
  plan.user = user;
  plan.password = password;
  CVConfiguration& config = CVConfiguration::Instance();
  std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
  const CVConnection& account = config.Corvalink;
  plan.firstRun = account.IsFirstRun || account.Url.empty() || account.UserName.empty();
  plan.wipe = !plan.firstRun &&
              !(AccountIdentity::Of(plan.url, plan.user) == AccountIdentity::Of(account.Url, account.UserName));
  return plan;
}

std::string AccountSwitch::AcceptedPinFor(const std::string& url) {
  CVConfiguration& config = CVConfiguration::Instance();
  std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
  const std::string origin = HTTPURLHelpers::Origin(CVTextEscaping::URLDecodedString(url));
  if (origin.empty() || origin != HTTPURLHelpers::Origin(CVTextEscaping::URLDecodedString(config.Corvalink.Url))) {
    return "";
  }
  return config.Corvalink.ServerKeyPin;
}

AccountSwitch::AccountChange AccountSwitch::Question(const Plan& plan, SyncControl& control) {
  CVConfiguration& config = CVConfiguration::Instance();
  AccountChange change;
  {
    std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
    change.oldUser = config.Corvalink.UserName;
    change.oldUrl = config.Corvalink.Url;
    for (const auto& site : config.fSpSites) change.storages.push_back(site->Name);
  }
  change.newUser = plan.user;
  change.newUrl = plan.url;
  change.pendingChanges = control.PendingLocalChanges();
  return change;
}

void AccountSwitch::Apply(SyncControl& control, const Plan& plan) {
  CVConfiguration& config = CVConfiguration::Instance();
  control.Apply([&] {
    if (plan.wipe) {
      control.ForgetQueuedWork();
      CVSettingsStaticMethods::WipeAccountData();
      std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
      config.fSpSites.clear();
    }
    {
      std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
      if (plan.interval) {
        config.Corvalink.SyncCV = *plan.interval;
      } else if (plan.wipe || plan.firstRun) {
        config.Corvalink.SyncCV = 5;
      }
      config.Corvalink.Url = plan.url;
      config.Corvalink.UserName = plan.user;
      config.Corvalink.Password = plan.password;
      config.Corvalink.ServerKeyPin = plan.serverKeyPin;
    }
    // The server was checked just now: a stop for its certificate is over.
    ServerTrust::SetPin(CVTextEscaping::URLDecodedString(plan.url), plan.serverKeyPin);
    ServerTrust::ClearFailure(CVTextEscaping::URLDecodedString(plan.url));
    Policy::ParseCorvalinkConfigNewBase(plan.policy);
    // Storages of the policy that the list lacks come in; those it has stay as they are.
    Policy::ParseCorvalinkConfigNew(plan.policy);
    CVHandler::Instance().RemoveAllTokens();
    {
      std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
      config.Corvalink.IsFirstRun = false;
    }
    config.SaveConfigXML();
    CVHandler::Instance().RegenWsURL();
    CVSelectiveSync::InitSelectiveSync();
  });
  control.StartAfterLogin();
  CVEventLogger::WriteSettingsLogMessage("The account is now " + plan.user + " on " + plan.url +
                                         (plan.wipe ? " (the previous account's data was removed)" : ""));
}
