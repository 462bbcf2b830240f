#include "ShareCommand.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <memory>

#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "ClientCommands.h"
#include "ClientSetup.h"
#include "Clock.h"
#include "CorvalinkWS.h"
#include "FileManagerBridge.h"
#include "LocalSocket.h"
#include "InternalShare51WindowController.h"
#include "PollMainLoop.h"
#include "SharingService.h"

namespace {

using Controller = InternalShare51WindowController;

std::string LocalTimeText(Controller::Clock::time_point time) {
  std::time_t seconds = Controller::Clock::to_time_t(time);
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
  return text;
}

}  // namespace

std::optional<ShareCommand::Options> ShareCommand::Parse(const std::vector<std::string>& arguments,
                                                         std::string& error) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& word = arguments[i];
    auto value = [&]() -> std::optional<std::string> {
      if (i + 1 < arguments.size()) return arguments[++i];
      error = word + " needs a value";
      return std::nullopt;
    };
    if (word == "--external") {
      options.external = true;
    } else if (word == "--view-only") {
      options.viewOnly = true;
    } else if (word == "--to") {
      // Every word up to the next option is an address.
      if (i + 1 >= arguments.size()) return (error = "--to needs an address"), std::nullopt;
      while (i + 1 < arguments.size() && arguments[i + 1].rfind("--", 0) != 0) options.to.push_back(arguments[++i]);
    } else if (word == "--days" || word == "--message") {
      auto text = value();
      if (!text) return std::nullopt;
      if (word == "--message") {
        options.message = *text;
        continue;
      }
      char* end = nullptr;
      long days = std::strtol(text->c_str(), &end, 10);
      if (text->empty() || *end != '\0' || days < 0 || days > 36500) {
        error = "--days needs a number of days (0 for no expiry), not \"" + *text + "\"";
        return std::nullopt;
      }
      options.days = days;
    } else if (word.rfind("--", 0) == 0) {
      error = "unknown option \"" + word + "\"";
      return std::nullopt;
    } else {
      options.paths.push_back(word);
    }
  }
  if (options.paths.empty()) {
    error = "say which files to share: share PATH... --to EMAIL...";
    return std::nullopt;
  }
  return options;
}

ShareCommand::ShareCommand(const CommandLine& line, std::ostream& out, std::ostream& err)
    : line_(line), out_(out), err_(err) {}

int ShareCommand::Run() {
  std::string error;
  auto options = Parse(line_.commandArguments, error);
  if (!options) {
    err_ << "corvalink-sync: " << error << std::endl;
    return ClientCommands::kUsage;
  }
  if (!ClientSetup::PrepareCommand(line_.timeScale, err_)) return ClientCommands::kNoAccount;
  return Share(*options);
}

int ShareCommand::Share(const Options& options) {
  auto fail = [this](const std::string& text) {
    err_ << text << std::endl;
    return ClientCommands::kFailed;
  };
  std::vector<std::string> files;
  for (const auto& path : options.paths) {
    std::error_code ec;
    std::string absolute = std::filesystem::absolute(path, ec).lexically_normal().string();
    if (!std::filesystem::exists(absolute, ec)) return fail("No such file: " + path);
    if (CVStaticHelpers::serverPathFromLocalPath(absolute).empty()) {
      return fail(path + " is not in a synced storage.");
    }
    files.push_back(absolute);
  }
  if (options.to.empty()) {
    // No recipient named: the running desktop client's share window takes the files.
    std::vector<std::string> request{"OPEN", options.external ? FileManagerBridge::kShareToExternal
                                                              : FileManagerBridge::kShareToInternal};
    request.insert(request.end(), files.begin(), files.end());
    std::string error;
    auto channel = LineChannel::Connect(LocalEndpoint::SocketPath(CVStaticHelpers::GenerateSettingsPath()), error);
    if (channel && channel->WriteLine({FileManagerBridge::kSessionWord}) && channel->WriteLine(request)) {
      auto answer = channel->ReadLine(std::chrono::seconds(10));
      if (answer && answer->size() == 1 && (*answer)[0] == "OPENED") {
        out_ << "The share window is open." << std::endl;
        return 0;
      }
      if (answer && answer->size() == 2 && (*answer)[1] != FileManagerBridge::kNoWindows) return fail((*answer)[1]);
    }
    return fail(Controller::kNoRecipient);
  }

  // The sign-in brings the policy up to date before the window reads it.
  ServerSharingService service;
  const std::string token = service.CheckConnectionAndGetWSToken();
  if (token.empty()) return fail(Controller::kShareProblem);
  CorvalinkWS ws;
  int before = 0;
  for (const auto& share : ws.GetMyFileList(token).GetFilePropertyCollection()) {
    before = std::max(before, std::atoi(share.share_id.c_str()));
  }

  Clock clock(line_.timeScale);
  PollMainLoop loop(clock);
  std::vector<std::string> messages;
  Controller window(service, [&loop](std::function<void()> callback) { loop.Post(std::move(callback)); },
                    CVConfiguration::Instance().Corvalink);
  // A message with nothing in progress is the end of the share, after the callback that told it.
  window.onMessage = [&](const std::string& text) {
    messages.push_back(text);
    loop.Post([&] {
      if (!window.inProgress) loop.Quit(0);
    });
  };
  window.setArrayFiles(files);
  if (!window.setWindowType(options.external ? Controller::kExternalShare : Controller::kInternalShare)) {
    return fail(messages.back());
  }
  for (const auto& address : options.to) {
    if (options.external) {
      window.nameField = window.emailField = address;
      window.addRecipients(0);
      if (window.arrayRecipients.empty() || window.arrayRecipients.back().eMail != address) {
        return fail(address + ": " + messages.back());
      }
      continue;
    }
    // Inside the organisation a recipient is a user the server knows.
    window.arraySearch = service.GetUsersToShare(address, token).GetRecipientItemCollection();
    auto found = std::find_if(window.arraySearch.begin(), window.arraySearch.end(), [&](const RecipientItem& row) {
      return ::strcasecmp(row.eMail.c_str(), address.c_str()) == 0 ||
             ::strcasecmp(row.fullname.c_str(), address.c_str()) == 0;
    });
    if (found == window.arraySearch.end()) return fail("No user \"" + address + "\" was found on the server.");
    window.addRecipients(static_cast<std::size_t>(found - window.arraySearch.begin()));
  }
  if (options.days) {
    if (*options.days == 0 && !window.expiresCheckBox.enabled) {
      return fail("The administrator requires every share to expire; give --days 1 or more.");
    }
    window.expirationCheckBoxAction(*options.days > 0);
    window.setDateForExpires(window.minDate + std::chrono::hours(24 * *options.days));
  }
  if (options.viewOnly) {
    if (!window.viewOnly.enabled) return fail("View-only does not apply to these items.");
    window.viewOnlyCheckBoxClick(true);
  }
  window.messageField = options.message;

  std::size_t told = messages.size();
  bool closed = false;
  window.setTarget([&] { closed = true; });
  window.Share();
  if (window.inProgress) loop.Run();
  for (std::size_t i = told; i < messages.size(); ++i) (closed ? out_ : err_) << messages[i] << std::endl;
  if (!closed || messages.back() == Controller::kShareProblem) return ClientCommands::kFailed;

  for (const auto& share : ws.GetMyFileList(token).GetFilePropertyCollection()) {
    if (std::atoi(share.share_id.c_str()) <= before) continue;
    out_ << share.file_name << ": " << share.link
         << (share.expire_at ? " (expires " + LocalTimeText(*share.expire_at) + ")" : std::string(" (no expiry)"))
         << std::endl;
  }
  return 0;
}
