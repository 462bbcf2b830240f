#pragma once
// ClientCommands: what `corvalink-sync COMMAND ...` does. A command is a request
// of fields (its word first); it runs inside the client that is running, which
// gets it over the local socket, or, when none runs, in the command's own process
// on the files. Either way the same code runs, through the settings controllers,
// and talks to the user through CommandIO: lines out, lines of errors, and
// yes-or-no questions.

#include <functional>
#include <optional>
#include <string>
#include <vector>

class AppDelegate;
class LoginController;
class SettingsContext;

class CommandIO {
 public:
  virtual ~CommandIO() = default;
  virtual void Out(const std::string& line) = 0;
  virtual void Err(const std::string& line) = 0;
  // A question for the user; false when it cannot be asked.
  virtual bool Ask(const std::string& question) = 0;
  // A question only a person may answer, never --yes (trusting a certificate);
  // false when nobody can be asked.
  virtual bool AskPerson(const std::string& question) = 0;
};

struct CommandEnvironment {
  SettingsContext& settings;
  LoginController& login;
  AppDelegate* app = nullptr;  // the running client; null when working on the files
  // Ends the running client; called by whoever carries the answer of "quit"
  // once the answer is out.
  std::function<void()> quit;
  // Brings the client's window forward (a desktop client; the headless one has none).
  std::function<void()> show;
  // Tells the user something (title, text) the way the client tells its
  // notifications; callable from any thread.
  std::function<void(const std::string&, const std::string&)> notify;
  // Opens the window of a file manager command ("ShareToInternal",
  // "ShareToExternal") on those paths, on the main thread; false when this client
  // shows no windows. Callable from any thread; it never waits for the window.
  std::function<bool(const std::string& command, const std::vector<std::string>& paths)> openWindow;
};

class ClientCommands {
 public:
  // Exit codes of the command line.
  static constexpr int kDone = 0;
  static constexpr int kFailed = 1;
  static constexpr int kNoAccount = 2;
  static constexpr int kNotRunning = 3;
  static constexpr int kAlreadyRunning = 4;
  static constexpr int kWrongPassword = 5;
  static constexpr int kLocked = 6;
  static constexpr int kUntrusted = 7;  // the server's certificate was refused or not accepted
  static constexpr int kUsage = 64;

  // The request words; "login" carries url, user, password and a fingerprint
  // accepted beforehand ("" for none) as fields.
  static bool IsRequest(const std::string& word);
  // Requests that only a running client can carry out.
  static bool NeedsRunningClient(const std::string& word);

  static int Run(const std::vector<std::string>& request, CommandEnvironment& env, CommandIO& io);

  // What to tell a user with no account: that Configuration.xml could not be
  // read and where its copy is, when that is why; else that nobody signed in.
  static std::string HowToSignIn();
  // "Configuration.xml could not be read" and where its copy is; none when it was read.
  static std::optional<std::string> UnreadableConfiguration();

 private:
  static int Login(const std::vector<std::string>& request, CommandEnvironment& env, CommandIO& io);
  static int Logout(CommandEnvironment& env, CommandIO& io);
  static int Status(CommandEnvironment& env, CommandIO& io);
  static int StorageList(CommandIO& io);
  static int StorageChange(const std::vector<std::string>& request, CommandEnvironment& env, CommandIO& io);
  static int StorageRemove(const std::string& name, CommandEnvironment& env, CommandIO& io);
  static int StorageRetrieve(CommandEnvironment& env, CommandIO& io);
  static int Folders(const std::string& path, CommandIO& io);
  static int Select(const std::string& path, const std::string& choice, CommandEnvironment& env, CommandIO& io);
  static int Runtime(const std::vector<std::string>& request, CommandEnvironment& env, CommandIO& io);
  // confirm-deletes and decline-deletes: the user's answer to deletions held in storage.
  static int AnswerDeletions(const std::string& storage, bool confirm, AppDelegate& app, CommandIO& io);
};
