#include "CommandLine.h"

#include <cstdlib>
#include <set>

bool CommandLine::IsCommand(const std::string& word) {
  static const std::set<std::string> kCommands = {"login",    "logout",  "status",          "storage",
                                                  "folders",  "select",  "sync-now",        "pause",
                                                  "resume",   "show",    "quit",            "share",
                                                  "shared",   "fetch",   "requests",        "request",
                                                  "versions", "export-logs", "confirm-deletes", "decline-deletes",
                                                  "activity"};
  return kCommands.count(word) > 0;
}

std::optional<CommandLine> CommandLine::Parse(const std::vector<std::string>& arguments,
                                              std::string& error) {
  CommandLine line;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--headless") {
      line.headless = true;
    } else if (argument == "--once") {
      line.once = true;
    } else if (argument == "--version") {
      line.showVersion = true;
    } else if (argument == "--help" || argument == "-h") {
      line.showHelp = true;
    } else if (argument == "--time-scale") {
      if (i + 1 >= arguments.size()) {
        error = "--time-scale needs a factor, for example --time-scale 0.01";
        return std::nullopt;
      }
      const std::string& value = arguments[++i];
      char* end = nullptr;
      double scale = std::strtod(value.c_str(), &end);
      if (end == value.c_str() || *end != '\0' || !(scale > 0) || scale > 1000) {
        error = "--time-scale needs a positive factor, not \"" + value + "\"";
        return std::nullopt;
      }
      line.timeScale = scale;
    } else if (IsCommand(argument)) {
      line.command = argument;
      line.commandArguments.assign(arguments.begin() + static_cast<std::ptrdiff_t>(i) + 1, arguments.end());
      break;
    } else {
      error = (argument.rfind("-", 0) == 0 ? "unknown option \"" : "unknown command \"") + argument + "\"";
      return std::nullopt;
    }
  }
  if (!line.command.empty() && (line.headless || line.once)) {
    error = "a command runs on its own, without --headless or --once";
    return std::nullopt;
  }
  if (line.once && !line.headless) {
    error = "--once runs only with --headless";
    return std::nullopt;
  }
  return line;
}

std::string CommandLine::Usage() {
  return "Usage: corvalink-sync [--headless [--once]] [--time-scale F] [--version] [--help]\n"
         "       corvalink-sync COMMAND [ARGUMENTS]\n"
         "\n"
         "  (no option)    the desktop client with its tray icon\n"
         "  --headless     the same client without windows; states and texts go to the\n"
         "                 console and to the logs under ~/Corvalink/.Settings/CVLogger\n"
         "  --once         with --headless: run one whole pass and exit\n"
         "                 (0 in step, 1 errors or offline, 2 no account signed in)\n"
         "  --time-scale F multiply every duration of the client by F (for tests)\n"
         "  --version      print the version\n"
         "  --help         print this text\n"
         "\n"
         "Commands go to the client that is running, or, when none runs, to the files:\n"
         "  login [URL [USER]] [--password-stdin] [--yes] [--accept-fingerprint SHA256]\n"
         "                 sign in; asks for what is missing, the password without echo\n"
         "                 (or reads it from standard input); signing in as another\n"
         "                 account removes the previous one's data after a question\n"
         "                 (--yes answers it). A server whose certificate no authority\n"
         "                 of this computer vouches for shows its SHA-256 fingerprint\n"
         "                 and is trusted only when you answer yes, or when it has the\n"
         "                 fingerprint given with --accept-fingerprint (--yes does not)\n"
         "  logout         forget the password and the session; files and records stay\n"
         "  status         the account, the client's state, what waits, the storages\n"
         "  storage list\n"
         "  storage add NAME URL [--type CIFS|SP|O365|S3|AZURE] [--user USER]\n"
         "                 [--password-stdin]   a storage of your own; --user gives it\n"
         "                 credentials of its own (the password is asked)\n"
         "  storage edit NAME [--name NEW] [--url URL] [--type TYPE]\n"
         "                 [--user USER | --account-credentials] [--password-stdin]\n"
         "  storage remove NAME [--yes]   the storage's folder goes to the Trash\n"
         "  storage retrieve [--yes]      take the server's storages into the list\n"
         "  folders STORAGE[/PATH]        the server's folders there, with what is synced\n"
         "                                ([x] all, [-] some, [ ] none)\n"
         "  select STORAGE[/PATH] all|none   sync that folder, or stop syncing it\n"
         "  share PATH... --to EMAIL... [--external] [--days N] [--view-only] [--message TEXT]\n"
         "                 share files of the storages with users of the server, or\n"
         "                 with --external with anyone by e-mail; --days 0: no expiry.\n"
         "                 Prints the links, or why the share was not made; without\n"
         "                 --to the running desktop client opens its share window\n"
         "  shared in|out [ID[/PATH]]   what others shared with you (in), by person, or what\n"
         "                 you shared (out), by recipient; with ID the inside of a shared folder\n"
         "  shared in clear [ID[/PATH]...] [--yes]   remove cached copies (all without ID)\n"
         "  shared out unshare|resend ID... [--yes] | shared out expire ID... --days N\n"
         "  fetch ID[/PATH]... | fetch --all   download shared files into ~/Corvalink/Shared In\n"
         "  requests       your upload requests: sessions, people, what came in\n"
         "  request create FOLDER --to EMAIL... [--days N] [--message TEXT]\n"
         "                 ask people outside to send files into the session FOLDER\n"
         "  request resend|delete ID... [--yes] | request fetch ID...   what came in goes\n"
         "                 to ~/Corvalink/External user uploads\n"
         "  versions PATH [--restore N | --save N DEST]\n"
         "                 the versions the server keeps of a file of a storage; --restore\n"
         "                 makes version N the file's content again (the file here\n"
         "                 follows with the sync), --save writes it to DEST instead\n"
         "  export-logs [DEST]   the client's logs in one zip file, in the download\n"
         "                 folder or DEST (a folder or a file name)\n"
         "  activity [--page N]   a page of your account's usage history (from 0), and\n"
         "                 the files the sync newly created or updated here\n"
         "  sync-now | pause | resume | quit   the running client\n"
         "  show           bring the running client's window forward\n"
         "  confirm-deletes STORAGE   the running client holds the deletions of a pass\n"
         "                 that would remove all of a storage's files, or more than half\n"
         "                 and more than 100: this moves them to the Trash\n"
         "  decline-deletes STORAGE   keeps them instead and puts them back on the server\n"
         "\n"
         "Exit codes of commands: 0 done, 1 failed (the line says why; nothing changed),\n"
         "2 no account signed in, 3 the client is not running, 4 a client runs already\n"
         "(when starting one), 5 wrong user name or password, 6 sign-in locked after\n"
         "three wrong passwords, 7 the server's certificate is not trusted, 64 a wrong\n"
         "command line.\n";
}
