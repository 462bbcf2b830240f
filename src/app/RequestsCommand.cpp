#include "RequestsCommand.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>

#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "CVViewUploadRequest.h"
#include "ClientCommands.h"
#include "ClientSetup.h"
#include "Clock.h"
#include "InternalShare51WindowController.h"
#include "PollMainLoop.h"
#include "UploadRequestService.h"

namespace {

using View = CVViewUploadRequest;

constexpr const char* kUsage =
    "corvalink-sync: usage: requests | request create FOLDER --to EMAIL... [--days N] [--message TEXT] |\n"
    "  request resend|delete ID... [--yes] | request fetch ID...";

}  // namespace

RequestsCommand::RequestsCommand(const CommandLine& line, std::ostream& out, std::ostream& err)
    : line_(line), out_(out), err_(err) {}

int RequestsCommand::Run() {
  std::vector<std::string> words = line_.commandArguments;
  const bool list = line_.command == "requests";
  if ((list && !words.empty()) || (!list && words.size() < 2)) {
    err_ << kUsage << std::endl;
    return ClientCommands::kUsage;
  }
  const std::string action = list ? "" : words[0];
  if (!list && action != "create" && action != "resend" && action != "delete" && action != "fetch") {
    err_ << kUsage << std::endl;
    return ClientCommands::kUsage;
  }
  if (!ClientSetup::PrepareCommand(line_.timeScale, err_)) return ClientCommands::kNoAccount;
  if (action == "create") return Create({words.begin() + 1, words.end()});

  Clock clock(line_.timeScale);
  PollMainLoop loop(clock);
  ServerUploadRequestService service;
  View view(service, [&loop](std::function<void()> f) { loop.Post(std::move(f)); });
  std::vector<std::string> messages;
  view.onMessage = [&](const std::string& text) { messages.push_back(text); };
  view.onChange = [&] {
    if (!view.isBusy) loop.Quit(0);
  };
  auto wait = [&] {
    if (view.isBusy) loop.Run();
  };
  auto report = [&] {
    bool good = true;
    for (const auto& text : messages) {
      const bool failure = text == View::kFailed || text == View::kNoConnection || text.find("failed") != std::string::npos;
      (failure ? err_ : out_) << text << std::endl;
      good = good && !failure;
    }
    messages.clear();
    return good ? 0 : ClientCommands::kFailed;
  };
  view.RefreshArrayData();
  wait();
  if (!messages.empty()) return report();

  std::vector<std::string> ids;
  bool yes = false;
  for (std::size_t i = 1; i < words.size(); ++i) {
    if (words[i] == "--yes") {
      yes = true;
      continue;
    }
    const bool known = std::any_of(view.arrayData.begin(), view.arrayData.end(),
                                   [&](const CVUploadRequest& r) { return r.reqID == words[i]; });
    if (!known) {
      err_ << "No upload request " << words[i] << "." << std::endl;
      return ClientCommands::kFailed;
    }
    ids.push_back(words[i]);
  }
  if (action == "resend") {
    view.ResendEmailMethod(ids);
    wait();
    return report();
  }
  if (action == "delete") {
    view.DeleteMethodTrash(ids, [&](const std::string&, const std::string& question) {
      if (!yes) err_ << question << " (give --yes to answer yes)" << std::endl;
      return yes;
    });
    wait();
    return yes ? report() : ClientCommands::kFailed;
  }
  if (action == "fetch") {
    int code = 0;
    for (const auto& request : view.arrayData) {
      if (std::find(ids.begin(), ids.end(), request.reqID) == ids.end()) continue;
      view.GetFilesListForUser(request.reqGuid);
      wait();
      std::vector<std::size_t> all;
      for (std::size_t i = 0; i < view.arrayFileForDownload.size(); ++i) all.push_back(i);
      view.methodDownload(all);
      wait();
      code = std::max(code, report());
    }
    return code;
  }

  // The list: sessions, their people, what came in from each.
  const auto requests = view.arrayData;
  if (requests.empty()) out_ << "No upload requests." << std::endl;
  view.GetSessionListForArray();
  for (const auto& session : std::vector<View::Row>(view.rows)) {
    out_ << session.labelText << std::endl;
    view.GetUsersListForSession(session.ids);
    for (const auto& person : std::vector<View::Row>(view.rows)) {
      out_ << "  " << person.ids << "  " << person.labelText << "  " << person.expir << std::endl;
      view.GetFilesListForUser(person.goid);
      wait();
      for (const auto& file : view.arrayFileForDownload) {
        out_ << "      " << file.localPath.substr(file.localPath.rfind('/') + 1) << "  " << file.size << " bytes"
             << (std::filesystem::exists(file.localPath) ? "  in the cache: " + file.localPath : "") << std::endl;
      }
    }
  }
  return report();
}

int RequestsCommand::Create(const std::vector<std::string>& words) {
  using Controller = InternalShare51WindowController;
  std::string folder, message;
  std::vector<std::string> to;
  std::optional<long> days;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "--to") {
      while (i + 1 < words.size() && words[i + 1].rfind("--", 0) != 0) to.push_back(words[++i]);
    } else if (words[i] == "--message" && i + 1 < words.size()) {
      message = words[++i];
    } else if (words[i] == "--days" && i + 1 < words.size()) {
      char* end = nullptr;
      days = std::strtol(words[++i].c_str(), &end, 10);
      if (*end != '\0' || *days < 1 || *days > 36500) {
        err_ << "corvalink-sync: --days needs a number of days from 1" << std::endl;
        return ClientCommands::kUsage;
      }
    } else if (folder.empty() && words[i].rfind("--", 0) != 0) {
      folder = words[i];
    } else {
      err_ << kUsage << std::endl;
      return ClientCommands::kUsage;
    }
  }
  Clock clock(line_.timeScale);
  PollMainLoop loop(clock);
  ServerSharingService service;
  std::vector<std::string> messages;
  Controller window(service, [&loop](std::function<void()> f) { loop.Post(std::move(f)); },
                    CVConfiguration::Instance().Corvalink);
  window.onMessage = [&](const std::string& text) {
    messages.push_back(text);
    loop.Post([&] {
      if (!window.inProgress) loop.Quit(0);
    });
  };
  if (!window.setWindowType(Controller::kUploadRequest)) return err_ << messages.back() << std::endl, ClientCommands::kFailed;
  window.titleText = folder;
  for (const auto& address : to) {
    window.nameField = window.emailField = address;
    window.addRecipients(0);
    if (window.arrayRecipients.empty() || window.arrayRecipients.back().eMail != address) {
      err_ << address << ": " << messages.back() << std::endl;
      return ClientCommands::kFailed;
    }
  }
  if (days) {
    window.expirationCheckBoxAction(true);
    window.setDateForExpires(window.minDate + std::chrono::hours(24 * *days));
  }
  window.messageField = message;
  bool closed = false;
  window.setTarget([&] { closed = true; });
  const std::size_t told = messages.size();
  window.Share();
  if (window.inProgress) loop.Run();
  for (std::size_t i = told; i < messages.size(); ++i) (closed ? out_ : err_) << messages[i] << std::endl;
  return closed ? 0 : ClientCommands::kFailed;
}
