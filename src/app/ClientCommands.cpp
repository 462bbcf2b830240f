#include "ClientCommands.h"

#include <algorithm>
#include <set>
#include <sstream>

#include "AppDelegate.h"
#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVStaticHelpers.h"
#include "FSW_Queues.h"
#include "HeldBackNames.h"
#include "LoginController.h"
#include "SERVER_Queues.h"
#include "SelectiveSyncTree.h"
#include "SettingsContext.h"
#include "SmartSync.h"
#include "StorageController.h"
#include "SyncListenerAddInfo.h"
#include "SyncManagerSettings.h"

namespace {

const std::set<std::string> kRuntimeWords = {"sync-now", "pause",           "resume", "quit",
                                             "show",     "confirm-deletes", "decline-deletes"};
const std::set<std::string> kRequestWords = {"login",         "logout",        "status", "storage-list",
                                             "storage-add",   "storage-edit",  "storage-remove",
                                             "storage-retrieve", "folders",    "select"};

std::string Padded(std::string text, std::size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

void StorageLines(CommandIO& io) {
  auto sites = CVConfiguration::Instance().SitesCopy();
  if (sites.empty()) {
    io.Out("No storages.");
    return;
  }
  std::size_t width = 4;
  for (const auto& site : sites) width = std::max(width, site->Name.size());
  for (const auto& site : sites) {
    auto row = LoginController::RowForStorage(site->Name, site->StorageType);
    io.Out("  " + Padded(site->Name, width) + "  " + Padded(site->StorageType, 5) + "  " +
           Padded(row.statusType, 13) + "  " + site->Url + (site->isManually ? "  (added by hand)" : ""));
  }
}

// "Docs/Reports/2026" as the storage and the path below it.
std::pair<std::string, std::string> StorageAndPath(const std::string& text) {
  std::string trimmed = text;
  while (!trimmed.empty() && trimmed.back() == '/') trimmed.pop_back();
  auto slash = trimmed.find('/');
  if (slash == std::string::npos) return {trimmed, ""};
  return {trimmed.substr(0, slash), trimmed.substr(slash + 1)};
}

// The row of the path, loading from the server each folder on the way that the
// tree does not know yet. Null when the server has no such folder.
SelectiveSyncTree::Row* Reach(SelectiveSyncTree& tree, const std::string& path, bool loadTarget) {
  SelectiveSyncTree::Row* row = &tree.root();
  std::stringstream parts(path);
  std::string name;
  std::string walked;
  while (std::getline(parts, name, '/')) {
    if (name.empty()) continue;
    if (row->NeedsLoading() && !tree.loadFilesForExpandedItem(*row)) return nullptr;
    walked += (walked.empty() ? "" : "/") + name;
    row = tree.Find(walked);
    if (!row) return nullptr;
  }
  if (loadTarget && row->NeedsLoading()) tree.loadFilesForExpandedItem(*row);
  return row;
}

const char* Mark(int state) {
  if (state == SelectiveSyncTree::kChecked) return "[x]";
  if (state == SelectiveSyncTree::kMixed) return "[-]";
  return "[ ]";
}

}  // namespace

bool ClientCommands::IsRequest(const std::string& word) {
  return kRequestWords.count(word) > 0 || kRuntimeWords.count(word) > 0;
}

bool ClientCommands::NeedsRunningClient(const std::string& word) { return kRuntimeWords.count(word) > 0; }

int ClientCommands::Run(const std::vector<std::string>& request, CommandEnvironment& env, CommandIO& io) {
  if (request.empty() || !IsRequest(request[0])) {
    io.Err("Unknown command.");
    return kUsage;
  }
  const std::string& word = request[0];
  auto needs = [&](std::size_t fields) {
    if (request.size() >= fields) return true;
    io.Err("The command \"" + word + "\" is missing a value.");
    return false;
  };
  CVEventLogger::WriteSettingsLogMessage("Command: " + word);
  if (NeedsRunningClient(word)) return Runtime(request, env, io);
  if (word == "login") return needs(4) ? Login(request, env, io) : kUsage;
  if (word == "logout") return Logout(env, io);
  if (word == "status") return Status(env, io);
  if (word == "storage-list") return StorageList(io);
  if (word == "storage-add" || word == "storage-edit") return StorageChange(request, env, io);
  if (word == "storage-remove") return needs(2) ? StorageRemove(request[1], env, io) : kUsage;
  if (word == "storage-retrieve") return StorageRetrieve(env, io);
  if (word == "folders") return needs(2) ? Folders(request[1], io) : kUsage;
  if (word == "select") return needs(3) ? Select(request[1], request[2], env, io) : kUsage;
  return kUsage;
}

int ClientCommands::Login(const std::vector<std::string>& request, CommandEnvironment& env, CommandIO& io) {
  LoginController::Form form{request[1], request[2], request[3], request.size() > 4 ? request[4] : ""};
  io.Out(LoginController::kConnecting);
  auto result = env.login.LoginMethodRun(
      form,
      [&io](const LoginController::AccountChange& change) {
        io.Out(std::string(LoginController::kWarningTitle) + ": " + LoginController::kWarningText);
        io.Out(change.Details());
        return io.Ask("Sign in as " + change.newUser + " and remove the data of " + change.oldUser + "?");
      },
      [&io](const CertificateQuestion& question) {
        io.Out(question.Details());
        return io.AskPerson(question.Question());
      });
  for (const auto& notice : result.notices) io.Out("Note: " + notice);
  switch (result.outcome) {
    case LoginController::Outcome::SignedIn:
      break;
    case LoginController::Outcome::WrongCredentials:
      io.Err(result.message);
      return kWrongPassword;
    case LoginController::Outcome::Locked:
      io.Err(result.message);
      return kLocked;
    case LoginController::Outcome::Untrusted:
      io.Err(result.message);
      return kUntrusted;
    default:
      io.Err(result.message);
      return kFailed;
  }
  io.Out("Signed in as " + form.user + " on " + CVConfiguration::Instance().Corvalink.Url + ".");
  io.Out("Storages:");
  StorageLines(io);
  for (const auto& row : result.storages) {
    if (row.statusType == "(No sync)") {
      io.Out("Nothing of \"" + row.name + "\" is synced yet; choose with: corvalink-sync select \"" + row.name +
             "\" all");
    }
  }
  if (!env.app) io.Out("Corvalink Sync is not running; it syncs once it is started.");
  return kDone;
}

int ClientCommands::Logout(CommandEnvironment& env, CommandIO& io) {
  auto settingsLock = env.settings.Exclusive();
  CVConfiguration& config = CVConfiguration::Instance();
  if (!config.IsSignedIn()) {
    io.Out("No account is signed in.");
    return kDone;
  }
  env.settings.control().Apply([&config] {
    config.ForgetPassword();
    CVHandler::Instance().RemoveAllTokens();
    config.SaveConfigXML();
  });
  io.Out("Signed out. The files and the record of the last sync stay; signing in again as " +
         config.Corvalink.UserName + " needs no new download.");
  return kDone;
}

std::optional<std::string> ClientCommands::UnreadableConfiguration() {
  auto copy = CVConfiguration::Instance().UnreadableFileCopy();
  if (!copy) return std::nullopt;
  return "Configuration.xml could not be read" +
         (copy->empty() ? std::string(" and could not be copied") : "; its copy is kept in " + *copy);
}

std::string ClientCommands::HowToSignIn() {
  auto unreadable = UnreadableConfiguration();
  if (!unreadable) return "No account is signed in. Sign in with: corvalink-sync login URL USER";
  return *unreadable + ". Sign in again with: corvalink-sync login URL USER";
}

int ClientCommands::Status(CommandEnvironment& env, CommandIO& io) {
  CVConfiguration& config = CVConfiguration::Instance();
  CVConnection account;
  {
    std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
    account = config.Corvalink;
  }
  if (account.Url.empty() || account.UserName.empty()) {
    io.Out(HowToSignIn());
    return kNoAccount;
  }
  std::string signedIn = config.IsSignedIn() ? "" : " (signed out)";
  if (config.PasswordUnreachable()) signedIn = " (the password is in the desktop's keyring, which does not answer)";
  io.Out("Account: " + account.UserName + " on " + account.Url + signedIn);
  std::size_t localWaiting = env.settings.control().PendingLocalChanges();
  if (AppDelegate* app = env.app) {
    std::string state = "in step";
    auto certificate = app->CertificateProblem();
    if (!app->IsSyncStarted() || !config.IsSignedIn()) {
      state = "waiting for a sign-in";
    } else if (certificate) {
      state = "stopped: " + *certificate;
    } else if (app->syncWasPaused) {
      state = "paused";
    } else if (app->isAppOffline) {
      state = "offline";
    } else if (app->isSyncRunning || app->mainSyncWorking) {
      state = "syncing";
    }
    SmartSync* sync = app->mainSyncObject();
    const auto held = app->HeldDeletions();
    if (state == "in step" && !held.empty()) state = "deletions wait for your answer";
    io.Out("Client: running, " + state);
    auto progress = SyncListenerAddInfo::Instance().Snapshot();
    if (!progress.currentFileName.empty() && state == "syncing") {
      std::string line = "Now: " + progress.currentFileName;
      if (progress.currentFileSize > 0) {
        line += " (" + std::to_string(progress.currentFileProgress * 100 / progress.currentFileSize) + "% of " +
                CVStaticHelpers::ConvertBytesToReadableFromat(progress.currentFileSize) + ")";
      }
      io.Out(line);
    }
    const std::size_t serverWaiting = sync ? sync->serverQueue().ServerQueueSize() : 0;
    io.Out("Waiting: " + std::to_string(localWaiting) + " local changes, " + std::to_string(serverWaiting) +
           " server items");
    for (const auto& storage : held) io.Out("Deletions held: " + MassDeletionGuard::Describe(storage));
  } else {
    io.Out("Client: not running");
    io.Out("Waiting: " + std::to_string(localWaiting) + " local changes");
  }
  io.Out("Last sync: " + (account.LastSync > 0 ? CVStaticHelpers::FormatDateTime(account.LastSync) : "never"));
  io.Out("Storages:");
  StorageLines(io);
  const auto held = HeldBackNames::Instance().All();
  if (!held.empty()) {
    io.Out("Held back (" + std::to_string(held.size()) + "):");
    for (const auto& name : held) io.Out("  " + HeldBackNames::Describe(name));
  }
  return kDone;
}

int ClientCommands::AnswerDeletions(const std::string& storage, bool confirm, AppDelegate& app, CommandIO& io) {
  const std::size_t files = app.AnswerHeldDeletions(storage, confirm);
  if (files == 0) {
    io.Err("No deletions wait for an answer in \"" + storage + "\".");
    return kFailed;
  }
  io.Out(confirm ? "The " + std::to_string(files) + " files of \"" + storage +
                       "\" that the server no longer lists go to the Trash now."
                 : "The " + std::to_string(files) + " files of \"" + storage +
                       "\" that the server no longer lists are put back on the server now.");
  return kDone;
}

int ClientCommands::StorageList(CommandIO& io) {
  StorageLines(io);
  return kDone;
}

int ClientCommands::StorageChange(const std::vector<std::string>& request, CommandEnvironment& env, CommandIO& io) {
  // storage-add NAME URL TYPE ALTER USER PASSWORD
  // storage-edit NAME NEWNAME URL TYPE ALTER USER PASSWORD; empty fields and ALTER "keep" keep what is there
  const bool add = request[0] == "storage-add";
  if (request.size() < (add ? 7u : 8u)) {
    io.Err("The command \"" + request[0] + "\" is missing a value.");
    return kUsage;
  }
  StorageController::Form form;
  std::size_t at = 1;
  if (!add) {
    auto current = CVConfiguration::Instance().GetSiteByName(request[at]);
    if (!current) {
      io.Err("There is no storage named \"" + request[at] + "\".");
      return kFailed;
    }
    form.editing = current->Name;
    form.name = current->Name;
    form.url = StorageController::ShownUrl(current->Url);
    form.type = current->StorageType;
    form.useAlterAuth = current->UseAlterAuth;
    form.user = current->UserName;
    form.password = current->Password;
    ++at;
  }
  auto take = [&](std::string& field) {
    if (!request[at].empty()) field = request[at];
    ++at;
  };
  take(form.name);
  take(form.url);
  take(form.type);
  if (request[at] == "1") form.useAlterAuth = true;
  if (request[at] == "0") form.useAlterAuth = false;
  ++at;
  take(form.user);
  take(form.password);
  StorageController controller(env.settings);
  auto result = controller.saveChanges(form);
  if (!result.ok) {
    io.Err(result.message);
    return kFailed;
  }
  io.Out(add ? "Storage \"" + form.name + "\" added." : "Storage \"" + form.name + "\" saved.");
  auto row = LoginController::RowForStorage(form.name, form.type);
  if (row.statusType == "(No sync)") {
    io.Out("Nothing of it is synced yet; choose with: corvalink-sync select \"" + form.name + "\" all");
  }
  return kDone;
}

int ClientCommands::StorageRemove(const std::string& name, CommandEnvironment& env, CommandIO& io) {
  if (!CVConfiguration::Instance().GetSiteByName(name)) {
    io.Err("There is no storage named \"" + name + "\".");
    return kFailed;
  }
  if (!io.Ask(std::string(StorageController::kRemoveQuestion) + " (" + name + ")")) {
    io.Out("Nothing was changed.");
    return kFailed;
  }
  StorageController controller(env.settings);
  auto result = controller.RemoveSite(name);
  if (!result.ok) {
    io.Err(result.message);
    return kFailed;
  }
  io.Out("Storage \"" + name + "\" removed; its folder is in the Trash.");
  return kDone;
}

int ClientCommands::StorageRetrieve(CommandEnvironment& env, CommandIO& io) {
  if (!io.Ask(std::string(SyncManagerSettings::kRetrieveTitle) + ": " + SyncManagerSettings::kRetrieveText)) {
    io.Out("Nothing was changed.");
    return kFailed;
  }
  SyncManagerSettings settings(env.settings);
  auto result = settings.RetrieveSettings();
  if (!result.ok) {
    io.Err(result.message);
    return kFailed;
  }
  io.Out(result.message);
  StorageLines(io);
  return kDone;
}

int ClientCommands::Folders(const std::string& text, CommandIO& io) {
  auto [storage, path] = StorageAndPath(text);
  auto site = CVConfiguration::Instance().GetSiteByName(storage);
  if (!site) {
    io.Err("There is no storage named \"" + storage + "\".");
    return kFailed;
  }
  SelectiveSyncTree tree(site->Name);
  tree.loadChanges();
  SelectiveSyncTree::Row* row = Reach(tree, path, true);
  if (!row) {
    io.Err("The server lists no folder \"" + path + "\" in \"" + site->Name + "\".");
    return kFailed;
  }
  io.Out(std::string(Mark(row->itemSynced)) + " " + site->Name + (path.empty() ? "" : "/" + path));
  std::size_t files = 0;
  for (const auto& child : row->children) {
    if (child->placeholder) continue;
    if (!child->itemIsFolder) {
      ++files;
      continue;
    }
    io.Out("    " + std::string(Mark(child->itemSynced)) + " " + child->itemName + "/");
  }
  if (files > 0) io.Out("    and " + std::to_string(files) + (files == 1 ? " file" : " files"));
  return kDone;
}

int ClientCommands::Select(const std::string& text, const std::string& choice, CommandEnvironment& env,
                           CommandIO& io) {
  if (choice != "all" && choice != "none") {
    io.Err("Say \"all\" or \"none\" after the folder.");
    return kUsage;
  }
  auto [storage, path] = StorageAndPath(text);
  auto site = CVConfiguration::Instance().GetSiteByName(storage);
  if (!site) {
    io.Err("There is no storage named \"" + storage + "\".");
    return kFailed;
  }
  auto settingsLock = env.settings.Exclusive();
  SelectiveSyncTree tree(site->Name);
  tree.loadChanges();
  SelectiveSyncTree::Row* row = Reach(tree, path, false);
  if (!row) {
    io.Err("The server lists no folder \"" + path + "\" in \"" + site->Name + "\".");
    return kFailed;
  }
  tree.SetChecked(*row, choice == "all");
  tree.saveChanges(env.settings.control());
  const std::string shown = site->Name + (path.empty() ? "" : "/" + path);
  io.Out(choice == "all" ? "\"" + shown + "\" is synced from now on."
                         : "\"" + shown + "\" is not synced from now on.");
  return kDone;
}

int ClientCommands::Runtime(const std::vector<std::string>& request, CommandEnvironment& env, CommandIO& io) {
  const std::string& word = request[0];
  AppDelegate* app = env.app;
  if (!app) {
    io.Err("Corvalink Sync is not running.");
    return kNotRunning;
  }
  if (word == "confirm-deletes" || word == "decline-deletes") {
    if (request.size() < 2) {
      io.Err("The command \"" + word + "\" is missing a value.");
      return kUsage;
    }
    return AnswerDeletions(request[1], word == "confirm-deletes", *app, io);
  }
  if (word == "sync-now") {
    if (!app->IsSyncStarted()) {
      io.Err("No account is signed in. Sign in with: corvalink-sync login URL USER");
      return kNoAccount;
    }
    if (auto certificate = app->CertificateProblem()) {
      io.Err(*certificate);
      return kUntrusted;
    }
    app->syncNowCommand();
    io.Out("A sync pass starts now.");
  } else if (word == "pause") {
    if (app->syncWasPaused) {
      io.Out("The sync is paused already.");
    } else {
      app->pauseSync();
      io.Out("The sync is paused.");
    }
  } else if (word == "resume") {
    if (!app->syncWasPaused) {
      io.Out("The sync is not paused.");
    } else {
      app->pauseSync();
      io.Out("The sync goes on.");
    }
  } else if (word == "quit") {
    // The client ends once this answer has gone out (see quit of the environment).
    io.Out("Corvalink Sync quits.");
  } else if (word == "show") {
    if (env.show) env.show();
    io.Out("Corvalink Sync is running.");
  }
  return kDone;
}
