#include "TerminalCommand.h"

#include <termios.h>
#include <unistd.h>

#include <iostream>
#include <map>
#include <set>
#include <memory>
#include <thread>

#include "ASIHTTPRequest.h"
#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVStaticHelpers.h"
#include "ClientCommands.h"
#include "ClientSetup.h"
#include "Clock.h"
#include "LocalSocket.h"
#include "LoginController.h"
#include "SettingsContext.h"

using namespace std::chrono_literals;

namespace {

// Splits the words into the ones that are options (with their values) and the rest.
struct Words {
  std::vector<std::string> positional;
  std::map<std::string, std::string> values;  // --type T, --user U...
  std::set<std::string> flags;                // --yes, --password-stdin...
};

std::optional<Words> ReadWords(const std::vector<std::string>& arguments, const std::set<std::string>& valued,
                               const std::set<std::string>& flags, std::string& error) {
  Words words;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& word = arguments[i];
    if (valued.count(word)) {
      if (i + 1 >= arguments.size()) {
        error = word + " needs a value";
        return std::nullopt;
      }
      words.values[word] = arguments[++i];
    } else if (flags.count(word)) {
      words.flags.insert(word);
    } else if (word.rfind("--", 0) == 0) {
      error = "unknown option \"" + word + "\"";
      return std::nullopt;
    } else {
      words.positional.push_back(word);
    }
  }
  return words;
}

// The kind a storage URL looks like when none is given.
std::string GuessType(const std::string& url) {
  if (url.find('\\') != std::string::npos) return "CIFS";
  if (url.rfind("s3:", 0) == 0) return "S3";
  if (url.rfind("azure:", 0) == 0) return "AZURE";
  return "SP";
}

// The terminal, for a command carried out in this process.
class TerminalIO : public CommandIO {
 public:
  using Asker = std::function<bool(const std::string&)>;
  TerminalIO(std::ostream& out, std::ostream& err, Asker ask, Asker askPerson)
      : out_(out), err_(err), ask_(std::move(ask)), askPerson_(std::move(askPerson)) {}
  void Out(const std::string& line) override { out_ << line << std::endl; }
  void Err(const std::string& line) override { err_ << line << std::endl; }
  bool Ask(const std::string& question) override { return ask_(question); }
  bool AskPerson(const std::string& question) override { return askPerson_(question); }

 private:
  std::ostream& out_;
  std::ostream& err_;
  Asker ask_;
  Asker askPerson_;
};

}  // namespace

TerminalCommand::TerminalCommand(const CommandLine& options, std::istream& in, std::ostream& out, std::ostream& err)
    : options_(options), in_(in), out_(out), err_(err) {}

std::optional<TerminalCommand::Parsed> TerminalCommand::Parse(const std::string& command,
                                                              const std::vector<std::string>& arguments,
                                                              std::string& error) {
  Parsed parsed;
  auto expect = [&](const Words& words, std::size_t least, std::size_t most) {
    if (words.positional.size() < least || words.positional.size() > most) {
      error = "wrong number of words for \"" + command + "\"; see --help";
      return false;
    }
    return true;
  };
  if (command == "login") {
    auto words = ReadWords(arguments, {"--accept-fingerprint"}, {"--password-stdin", "--yes"}, error);
    if (!words || !expect(*words, 0, 2)) return std::nullopt;
    parsed.request = {"login", "", "", "", words->values.count("--accept-fingerprint") ? words->values.at("--accept-fingerprint") : ""};
    for (std::size_t i = 0; i < words->positional.size(); ++i) parsed.request[1 + i] = words->positional[i];
    parsed.askUrlAndUser = words->positional.size() < 2;
    parsed.passwordField = 3;
    parsed.passwordFromStdin = words->flags.count("--password-stdin") > 0;
    parsed.assumeYes = words->flags.count("--yes") > 0;
    return parsed;
  }
  if (command == "logout" || command == "status" || command == "sync-now" || command == "pause" ||
      command == "resume" || command == "show" || command == "quit") {
    if (!arguments.empty()) {
      error = "\"" + command + "\" takes no words";
      return std::nullopt;
    }
    parsed.request = {command};
    return parsed;
  }
  if (command == "folders" || command == "select" || command == "confirm-deletes" || command == "decline-deletes") {
    auto words = ReadWords(arguments, {}, {}, error);
    const std::size_t count = command == "select" ? 2 : 1;
    if (!words || !expect(*words, count, count)) return std::nullopt;
    parsed.request = {command};
    for (const auto& word : words->positional) parsed.request.push_back(word);
    return parsed;
  }
  if (command != "storage") {
    error = "unknown command \"" + command + "\"";
    return std::nullopt;
  }
  auto words = ReadWords(arguments, {"--type", "--user", "--name", "--url"},
                         {"--password-stdin", "--yes", "--account-credentials"}, error);
  if (!words) return std::nullopt;
  if (words->positional.empty()) {
    error = "say which: storage list, add, edit, remove or retrieve";
    return std::nullopt;
  }
  const std::string what = words->positional[0];
  parsed.assumeYes = words->flags.count("--yes") > 0;
  parsed.passwordFromStdin = words->flags.count("--password-stdin") > 0;
  auto value = [&](const char* name) { return words->values.count(name) ? words->values.at(name) : ""; };
  if (what == "list" || what == "retrieve") {
    if (!expect(*words, 1, 1)) return std::nullopt;
    parsed.request = {"storage-" + what};
  } else if (what == "remove") {
    if (!expect(*words, 2, 2)) return std::nullopt;
    parsed.request = {"storage-remove", words->positional[1]};
  } else if (what == "add") {
    if (!expect(*words, 3, 3)) return std::nullopt;
    const std::string url = words->positional[2];
    const std::string type = value("--type").empty() ? GuessType(url) : value("--type");
    const bool own = !value("--user").empty();
    parsed.request = {"storage-add", words->positional[1], url, type, own ? "1" : "0", value("--user"), ""};
    if (own) parsed.passwordField = 6;
  } else if (what == "edit") {
    if (!expect(*words, 2, 2)) return std::nullopt;
    const bool own = !value("--user").empty();
    if (own && words->flags.count("--account-credentials")) {
      error = "--user and --account-credentials exclude each other";
      return std::nullopt;
    }
    std::string alter = own ? "1" : (words->flags.count("--account-credentials") ? "0" : "keep");
    parsed.request = {"storage-edit", words->positional[1], value("--name"), value("--url"), value("--type"),
                      alter,          value("--user"),      ""};
    if (own) parsed.passwordField = 7;
  } else {
    error = "unknown storage command \"" + what + "\"";
    return std::nullopt;
  }
  return parsed;
}

std::string TerminalCommand::Prompt(const std::string& question, const std::string& fallback) {
  out_ << question << (fallback.empty() ? "" : " [" + fallback + "]") << ": " << std::flush;
  std::string answer;
  if (!std::getline(in_, answer)) return fallback;
  return answer.empty() ? fallback : answer;
}

std::optional<std::string> TerminalCommand::ReadPassword(bool fromStdin) {
  std::string password;
  if (fromStdin) {
    if (!std::getline(in_, password)) return std::nullopt;
    return password;
  }
  if (&in_ != &std::cin || !isatty(STDIN_FILENO)) {
    err_ << "There is no terminal to ask the password on; give it with --password-stdin." << std::endl;
    return std::nullopt;
  }
  termios saved{};
  tcgetattr(STDIN_FILENO, &saved);
  termios quiet = saved;
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  out_ << "Password: " << std::flush;
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
  bool got = static_cast<bool>(std::getline(in_, password));
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
  out_ << std::endl;
  if (!got) return std::nullopt;
  return password;
}

bool TerminalCommand::AskYesNo(const std::string& question, bool assumeYes, bool personOnly) {
  if (assumeYes && !personOnly) {
    out_ << question << " yes (--yes)" << std::endl;
    return true;
  }
  if (&in_ != &std::cin || !isatty(STDIN_FILENO)) {
    out_ << question << " no: there is no terminal to answer on; "
         << (personOnly ? "give --accept-fingerprint with the fingerprint above to accept it."
                        : "give --yes to agree.")
         << std::endl;
    return false;
  }
  out_ << question << " [y/N] " << std::flush;
  std::string answer;
  if (!std::getline(in_, answer)) return false;
  return answer == "y" || answer == "Y" || answer == "yes" || answer == "Yes";
}

bool TerminalCommand::Complete(Parsed& parsed) {
  if (parsed.askUrlAndUser) {
    CVConfiguration& config = CVConfiguration::Instance();
    EnsureConfigRead();
    if (parsed.request[1].empty()) parsed.request[1] = Prompt("Server URL", config.Corvalink.Url);
    if (parsed.request[2].empty()) parsed.request[2] = Prompt("User name", config.Corvalink.UserName);
  }
  if (parsed.passwordField >= 0) {
    auto password = ReadPassword(parsed.passwordFromStdin);
    if (!password) return false;
    parsed.request[static_cast<std::size_t>(parsed.passwordField)] = *password;
  }
  return true;
}

void TerminalCommand::EnsureConfigRead() {
  if (configRead_) return;
  ClientSetup::InstallKeyring();
  CVConfiguration::Instance().ReadConfigFromFile();
  configRead_ = true;
}

int TerminalCommand::Run() {
  std::string error;
  auto parsed = Parse(options_.command, options_.commandArguments, error);
  if (!parsed) {
    err_ << "corvalink-sync: " << error << std::endl;
    return ClientCommands::kUsage;
  }
  CVEventLogger::SetConsoleEcho(false);
  CVStaticHelpers::CreateSettingsFolder();
  while (true) {
    if (!Complete(*parsed)) return ClientCommands::kFailed;
    int code = Execute(*parsed);
    // A password typed at the terminal may be typed again, until the lock.
    if (code != ClientCommands::kWrongPassword || parsed->passwordFromStdin || parsed->request[0] != "login") {
      return code;
    }
    parsed->askUrlAndUser = false;
  }
}

int TerminalCommand::Execute(const Parsed& parsed) {
  const std::string settings = CVStaticHelpers::GenerateSettingsPath();
  const std::string socketPath = LocalEndpoint::SocketPath(settings);
  std::string error;
  // A client that is starting holds the lock before its socket listens: wait for it.
  for (int attempt = 0; attempt < 50; ++attempt) {
    if (auto channel = LineChannel::Connect(socketPath, error)) return Remote(*channel, parsed);
    if (auto lock = InstanceLock::TryAcquire(LocalEndpoint::LockPath(settings), error)) return Local(parsed);
    if (!error.empty()) break;
    std::this_thread::sleep_for(100ms);
  }
  err_ << "corvalink-sync: Corvalink Sync is running but does not answer" << (error.empty() ? "" : ": " + error)
       << std::endl;
  return ClientCommands::kFailed;
}

int TerminalCommand::Remote(LineChannel& channel, const Parsed& parsed) {
  if (!channel.WriteLine(parsed.request)) {
    err_ << "corvalink-sync: the running client did not take the command" << std::endl;
    return ClientCommands::kFailed;
  }
  while (true) {
    // A command may take long (a sign-in against a slow server, a large folder
    // listing); the client ends it, not this side.
    auto line = channel.ReadLine(24h);
    if (!line || line->empty()) {
      err_ << "corvalink-sync: the connection to Corvalink Sync was lost" << std::endl;
      return ClientCommands::kFailed;
    }
    const std::string& kind = (*line)[0];
    const std::string text = line->size() > 1 ? (*line)[1] : "";
    if (kind == "OUT") {
      out_ << text << std::endl;
    } else if (kind == "ERR") {
      err_ << text << std::endl;
    } else if (kind == "ASK" || kind == "ASK-PERSON") {
      channel.WriteLine({"ANSWER", AskYesNo(text, parsed.assumeYes, kind == "ASK-PERSON") ? "yes" : "no"});
    } else if (kind == "END") {
      try {
        return std::stoi(text);
      } catch (...) {
        return ClientCommands::kFailed;
      }
    }
  }
}

int TerminalCommand::Local(const Parsed& parsed) {
  TerminalIO io(
      out_, err_, [this, &parsed](const std::string& question) { return AskYesNo(question, parsed.assumeYes, false); },
      [this](const std::string& question) { return AskYesNo(question, false, true); });
  if (ClientCommands::NeedsRunningClient(parsed.request[0])) {
    io.Err("Corvalink Sync is not running.");
    return ClientCommands::kNotRunning;
  }
  auto clock = std::make_shared<Clock>(options_.timeScale);
  ClientSetup::PrepareProcess(clock);
  EnsureConfigRead();
  SettingsContext settings(SyncControl::FilesOnly());
  LoginController login(settings);
  CommandEnvironment environment{settings, login, nullptr, nullptr, nullptr, nullptr, nullptr};
  return ClientCommands::Run(parsed.request, environment, io);
}
