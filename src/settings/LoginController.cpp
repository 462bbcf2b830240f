#include "LoginController.h"

#include <exception>

#include "AccountProbe.h"
#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVSelectiveSync.h"

namespace {
constexpr const char* kClass = "LoginController";
}  // namespace

int LoginController::ColSteps() const {
  std::lock_guard<std::mutex> lock(stateLock_);
  return ColSteps_;
}

bool LoginController::isLocked() const {
  std::lock_guard<std::mutex> lock(stateLock_);
  return isLocked_;
}

LoginController::Result LoginController::MessageNotCorrectCredentals() {
  std::lock_guard<std::mutex> lock(stateLock_);
  Result result{Outcome::WrongCredentials, "", {}, {}};
  if (ColSteps_ >= 3) {
    result.message = kFirstFailure;
  } else if (ColSteps_ == 2) {
    result.message = kSecondFailure;
  } else {
    result.outcome = Outcome::Locked;
    result.message = kLockedText;
    isLocked_ = true;
    CVEventLogger::WriteMainLogMessage("3 step password not correct - LOCKED");
  }
  --ColSteps_;
  return result;
}

LoginController::Result LoginController::LoginMethodRun(const Form& entered, const Confirm& confirm,
                                                        const TrustQuestion& trust) {
  try {
    Form form = entered;
    {
      std::lock_guard<std::mutex> lock(stateLock_);
      // Each new address gives three attempts again; the lock holds for the
      // address it was earned on.
      if (form.url != oldURL_) {
        ColSteps_ = 3;
        isLocked_ = false;
      }
      oldURL_ = form.url;
      if (isLocked_) return {Outcome::Locked, kLockedText, {}, {}};
    }
    if (form.url.find_first_not_of('/') == std::string::npos || form.user.empty() || form.password.empty()) {
      return {Outcome::EmptyField, kEmptyField, {}, {}};
    }

    auto settingsLock = context_.Exclusive();
    AccountSwitch::Plan plan = AccountSwitch::Prepare(form.url, form.user, form.password);
    CVEventLogger::WriteSettingsLogMessage(std::string(kClass) + " - LoginMethodRun -> " + kConnecting + " " +
                                           plan.url + " as " + form.user);
    AccountProbe::Trust trusting{AccountSwitch::AcceptedPinFor(plan.url), form.acceptedFingerprint, trust};
    AccountProbe probe = AccountProbe::Run(plan.url, form.user, form.password, trusting);
    CVHandler::Instance().setDevStatus(probe.devStatus);
    Result result = Judge(probe);
    result.notices = probe.notices;
    if (result.outcome != Outcome::SignedIn) return result;
    plan.policy = probe.policy;
    plan.serverKeyPin = probe.pin;
    if (plan.wipe && (!confirm || !confirm(AccountSwitch::Question(plan, context_.control())))) {
      CVEventLogger::WriteSettingsLogMessage(std::string(kClass) + " - LoginMethodRun -> the account change was declined");
      return {Outcome::Declined, "Nothing was changed.", {}, probe.notices};
    }
    AccountSwitch::Apply(context_.control(), plan);
    {
      std::lock_guard<std::mutex> lock(stateLock_);
      ColSteps_ = 3;
    }
    result.storages = StorageRows();
    return result;
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "LoginMethodRun", failure.what());
    return {Outcome::Failed, std::string("The sign-in failed: ") + failure.what(), {}, {}};
  }
}

LoginController::Result LoginController::Judge(const AccountProbe& probe) {
  switch (probe.kind) {
    case AccountProbe::Kind::Ok:
      return {Outcome::SignedIn, "", {}, {}};
    case AccountProbe::Kind::Refused:
    case AccountProbe::Kind::NoPolicy:
      return MessageNotCorrectCredentals();
    case AccountProbe::Kind::Unreachable:
      CVEventLogger::WriteSettingsLogMessage(std::string(kClass) + " - LoginMethodRun -> no answer: " + probe.detail);
      return {Outcome::Unreachable, kUnreachable, {}, {}};
    case AccountProbe::Kind::AccessRefused:
      return {Outcome::AccessRefused, kAccessRefused, {}, {}};
    case AccountProbe::Kind::DeviceRefused:
      return {Outcome::DeviceRefused, AccountProbe::DeviceRefusedText(probe.devStatus), {}, {}};
    case AccountProbe::Kind::Untrusted:
      CVEventLogger::WriteSettingsLogMessage(std::string(kClass) + " - LoginMethodRun -> " + probe.detail);
      return {Outcome::Untrusted, probe.detail, {}, {}};
  }
  return {Outcome::Failed, "", {}, {}};
}

LoginController::StorageRow LoginController::RowForStorage(const std::string& name, const std::string& type) {
  StorageRow row{name, type, "(No sync)", "storage_sync_grey"};
  auto site = CVSelectiveSync::Instance().GetSiteRulesByName(name);
  if (!site) return row;
  auto rules = site->SyncRules();
  auto dictionary = CVSelectiveSync::GetSyncRulesDictionary(*site);
  auto root = CVSelectiveSync::FindSyncRule(dictionary, site->Name());
  const std::int32_t rootRule = root ? root->Rule : CVSelectiveSyncRule::syncNone;
  for (const auto& rule : rules) {
    if (rule.Rule != rootRule) {
      row.statusType = "(Custom sync)";
      row.iconStorage = "storage_sync_yellow";
      return row;
    }
  }
  if (rootRule == CVSelectiveSyncRule::syncAll) {
    row.statusType = "(Sync all)";
    row.iconStorage = "storage_sync_green";
  }
  return row;
}

std::vector<LoginController::StorageRow> LoginController::StorageRows() {
  std::vector<StorageRow> rows;
  for (const auto& site : CVConfiguration::Instance().SitesCopy()) rows.push_back(RowForStorage(site->Name, site->StorageType));
  return rows;
}
