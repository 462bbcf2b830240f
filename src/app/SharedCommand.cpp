#include "SharedCommand.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <optional>

#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "ClientCommands.h"
#include "ClientSetup.h"
#include "Clock.h"
#include "PollMainLoop.h"
#include "SharedFilesService.h"
#include "ViewSharedFilesController.h"

namespace {

using Controller = ViewSharedFilesController;
using Row = Controller::Row;

std::string DateText(const WSDate& date) {
  if (!date) return "no expiry";
  std::time_t seconds = std::chrono::system_clock::to_time_t(*date);
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  std::strftime(text, sizeof text, "expires %Y-%m-%d %H:%M", &local);
  return text;
}

// The controller driven from a terminal: each step waits for its worker.
class Session {
 public:
  Session(double timeScale, std::ostream& out, std::ostream& err)
      : clock_(timeScale), loop_(clock_), view_(service_, [this](std::function<void()> f) { loop_.Post(std::move(f)); }),
        out_(out), err_(err) {
    view_.onChange = [this] {
      if (!view_.isBusy) loop_.Quit(0);
    };
    view_.onMessage = [this](const std::string& text) { messages_.push_back(text); };
  }

  void Wait() {
    if (view_.isBusy) loop_.Run();
  }
  Controller& view() { return view_; }

  // Every item at the top, with its person, from the current tab.
  std::vector<std::pair<std::string, WSFileProperty>> TopItems() {
    view_.GetRecipientsList();
    Wait();
    std::vector<std::string> people;
    for (const auto& row : view_.rows) {
      if (row.kind == Row::Person) people.push_back(row.name);
    }
    std::vector<std::pair<std::string, WSFileProperty>> items;
    for (const auto& person : people) {
      view_.DoubleClickRecipient(person);
      Wait();
      for (const auto& row : view_.rows) items.emplace_back(person, row.item);
    }
    return items;
  }

  // Leaves the view at the parent of ID[/PATH] and gives the item, or says why not.
  std::optional<WSFileProperty> Find(const std::string& spec) {
    const auto slash = spec.find('/');
    const std::string id = spec.substr(0, slash);
    std::optional<WSFileProperty> found;
    for (const auto& [person, item] : TopItems()) {
      if (item.share_id != id) continue;
      view_.DoubleClickRecipient(person);
      Wait();
      found = item;
      break;
    }
    if (!found) {
      err_ << "No shared item " << id << "." << std::endl;
      return std::nullopt;
    }
    std::string rest = slash == std::string::npos ? "" : spec.substr(slash + 1);
    while (!rest.empty()) {
      if (!found->isFolder) {
        err_ << found->file_name << " is not a folder." << std::endl;
        return std::nullopt;
      }
      view_.DoubleClickFolder(*found);
      Wait();
      const auto next = rest.find('/');
      const std::string name = rest.substr(0, next);
      rest = next == std::string::npos ? "" : rest.substr(next + 1);
      if (name.empty()) continue;
      found.reset();
      for (const auto& row : view_.rows) {
        if (row.kind == Row::Item && row.name == name) found = row.item;
      }
      if (!found) {
        err_ << "Nothing named \"" << name << "\" in " << spec << "." << std::endl;
        return std::nullopt;
      }
    }
    return found;
  }

  void PrintItem(const Row& row) {
    const auto& item = row.item;
    out_ << "    " << item.share_id << "  " << item.file_name << (item.isFolder ? "/" : "");
    if (!item.isFolder) out_ << "  " << item.file_size << " bytes";
    if (view_.level != Controller::Level::Folder) out_ << "  (" << DateText(item.expire_at) << ")";
    if (!row.localPath.empty() && std::filesystem::exists(row.localPath)) out_ << "  in the cache: " << row.localPath;
    out_ << std::endl;
  }

  // The messages told since the last call; false when one of them tells a failure.
  bool Report() {
    bool good = true;
    for (const auto& text : messages_) {
      const bool failure = text == Controller::kUnshareError || text == Controller::kNoConnection ||
                           text.find("failed") != std::string::npos;
      (failure ? err_ : out_) << text << std::endl;
      good = good && !failure;
    }
    messages_.clear();
    return good;
  }

  ServerSharedFilesService service_;

 private:
  Clock clock_;
  PollMainLoop loop_;
  Controller view_;
  std::ostream& out_;
  std::ostream& err_;
  std::vector<std::string> messages_;
};

}  // namespace

SharedCommand::SharedCommand(const CommandLine& line, std::ostream& out, std::ostream& err)
    : line_(line), out_(out), err_(err) {}

int SharedCommand::Run() {
  std::vector<std::string> words = line_.commandArguments;
  bool yes = false, all = false;
  std::optional<long> days;
  std::vector<std::string> rest;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "--yes") {
      yes = true;
    } else if (words[i] == "--all") {
      all = true;
    } else if (words[i] == "--days" && i + 1 < words.size()) {
      char* end = nullptr;
      days = std::strtol(words[++i].c_str(), &end, 10);
      if (*end != '\0' || *days < 0 || *days > 36500) days.reset();
      if (!days) return err_ << "corvalink-sync: --days needs a number of days (0 for no expiry)" << std::endl, 64;
    } else {
      rest.push_back(words[i]);
    }
  }
  const bool fetch = line_.command == "fetch";
  std::string tab = fetch ? "in" : (rest.empty() ? "" : rest[0]);
  if (!fetch && !rest.empty()) rest.erase(rest.begin());
  std::string action;
  if (!rest.empty() && (rest[0] == "clear" || rest[0] == "unshare" || rest[0] == "resend" || rest[0] == "expire")) {
    action = rest[0];
    rest.erase(rest.begin());
  }
  const bool badAction = (tab == "in" && !action.empty() && action != "clear") || (tab == "out" && action == "clear");
  if ((tab != "in" && tab != "out") || badAction || (fetch && rest.empty() && !all) ||
      (action == "expire" && !days) || ((action == "unshare" || action == "resend" || action == "expire") && rest.empty())) {
    err_ << "corvalink-sync: usage: shared in|out [ID[/PATH]] | shared in clear [ID[/PATH]...] [--yes] |\n"
            "  shared out unshare|resend ID... [--yes] | shared out expire ID... --days N | fetch ID[/PATH]... | fetch --all"
         << std::endl;
    return ClientCommands::kUsage;
  }

  if (!ClientSetup::PrepareCommand(line_.timeScale, err_)) return ClientCommands::kNoAccount;

  Session session(line_.timeScale, out_, err_);
  Controller& view = session.view();
  view.currentWindowState = tab == "in" ? Controller::kSharedIn : Controller::kSharedOut;
  view.labelTitleTable = tab == "in" ? Controller::kOwners : Controller::kRecipients;
  auto answer = [&](const std::string&, const std::string& question) {
    if (!yes) err_ << question << " (give --yes to answer yes)" << std::endl;
    return yes;
  };
  auto lookUp = [&](std::vector<WSFileProperty>& items) {
    for (const auto& spec : rest) {
      auto item = session.Find(spec);
      if (!item) return false;
      items.push_back(*item);
    }
    return true;
  };

  if (fetch) {
    bool good = true;
    if (all) {
      std::map<std::string, std::vector<WSFileProperty>> byPerson;
      for (const auto& [person, item] : session.TopItems()) byPerson[person].push_back(item);
      for (const auto& [person, items] : byPerson) {
        view.DoubleClickRecipient(person);
        session.Wait();
        view.DownloadFileAsync(items);
        session.Wait();
        good = session.Report() && good;
      }
    }
    for (const auto& spec : rest) {
      auto item = session.Find(spec);
      if (!item) return ClientCommands::kFailed;
      view.DownloadFileAsync({*item});
      session.Wait();
      good = session.Report() && good;
    }
    return good ? 0 : ClientCommands::kFailed;
  }

  if (action.empty()) {
    if (!rest.empty()) {
      auto item = session.Find(rest[0]);
      if (!item) return ClientCommands::kFailed;
      if (!item->isFolder) {
        session.PrintItem({Row::Item, item->file_name, *item, view.GetLocalPathForWSFileProperty(*item)});
        return 0;
      }
      view.DoubleClickFolder(*item);
      session.Wait();
      for (const auto& row : view.rows) {
        if (row.kind == Row::Item) session.PrintItem(row);
      }
      return session.Report() ? 0 : ClientCommands::kFailed;
    }
    view.GetRecipientsList();
    session.Wait();
    if (!session.Report()) return ClientCommands::kFailed;
    out_ << view.labelTitleTable << std::endl;
    std::vector<Row> people = view.rows;
    if (people.empty()) out_ << "  (none)" << std::endl;
    for (const auto& row : people) {
      if (row.kind == Row::Group) {
        out_ << row.name << std::endl;
        continue;
      }
      out_ << "  " << row.name << std::endl;
      view.DoubleClickRecipient(row.name);
      session.Wait();
      for (const auto& item : view.rows) session.PrintItem(item);
    }
    return session.Report() ? 0 : ClientCommands::kFailed;
  }

  if (action == "clear") {
    if (rest.empty()) {
      view.ClearCache({}, answer);
      if (!yes) return ClientCommands::kFailed;
    }
    // Each item's place in the cache follows from where the view stands.
    for (const auto& spec : rest) {
      auto item = session.Find(spec);
      if (!item) return ClientCommands::kFailed;
      view.ClearCache({*item}, answer);
    }
    out_ << "Cleared." << std::endl;
    return 0;
  }
  std::vector<WSFileProperty> items;
  if (!lookUp(items)) return ClientCommands::kFailed;
  if (action == "unshare") {
    view.UnshareSlectedFiles(items, answer);
    if (!yes) return ClientCommands::kFailed;
  } else if (action == "resend") {
    view.ResendEmail(Controller::RecipientsOf(items, {}));  // exactly the shares named
  } else {
    view.ExtendShare(Controller::RecipientsOf(items, {}), *days == 0 ? std::nullopt
                                       : std::optional(std::chrono::system_clock::now() + std::chrono::hours(24 * *days)));
  }
  session.Wait();
  return session.Report() ? 0 : ClientCommands::kFailed;
}
