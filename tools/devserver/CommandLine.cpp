#include "CommandLine.h"

#include <stdexcept>

#include "WireFormats.h"

namespace devserver {
namespace {

UserAccount ParseAccount(const std::string& text, const std::string& what) {
  const auto colon = text.find(':');
  if (colon == std::string::npos || colon == 0) {
    throw std::invalid_argument(what + " must be NAME:PASSWORD, got '" + text + "'");
  }
  UserAccount account{text.substr(0, colon), text.substr(colon + 1)};
  if (account.name.find('\n') != std::string::npos) throw std::invalid_argument("bad user name");
  return account;
}

long long ParseNumber(const std::string& text, const std::string& what, long long max) {
  unsigned long long value = 0;
  if (!ParseUnsigned(text, value) || value > static_cast<unsigned long long>(max)) {
    throw std::invalid_argument(what + ": not a number in range: '" + text + "'");
  }
  return static_cast<long long>(value);
}

}  // namespace

StorageConfig ParseStorageArgument(const std::string& argument) {
  const auto eq = argument.find('=');
  if (eq == std::string::npos || eq == 0) {
    throw std::invalid_argument("--storage must be NAME=FOLDER[,type=T][,user=U][,auth=U:P]");
  }
  StorageConfig config;
  config.name = argument.substr(0, eq);
  // Options follow the folder after commas; a piece that is not a known option
  // belongs to the folder's name.
  std::string folder;
  std::size_t start = eq + 1;
  bool inFolder = true;
  while (start <= argument.size()) {
    const auto comma = argument.find(',', start);
    const auto piece =
        argument.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    if (piece.rfind("type=", 0) == 0) {
      config.type = piece.substr(5);
      inFolder = false;
    } else if (piece.rfind("user=", 0) == 0) {
      config.users.push_back(piece.substr(5));
      inFolder = false;
    } else if (piece.rfind("auth=", 0) == 0) {
      config.credentials = ParseAccount(piece.substr(5), "auth=");
      inFolder = false;
    } else if (inFolder) {
      folder += (folder.empty() && start == eq + 1 ? "" : ",") + piece;
    } else {
      throw std::invalid_argument("unknown storage option '" + piece + "'");
    }
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  if (folder.empty()) throw std::invalid_argument("storage '" + config.name + "' has no folder");
  if (config.type.empty())
    throw std::invalid_argument("storage '" + config.name + "' has an empty type");
  config.folder = folder;
  return config;
}

FaultSetting ParseFaultArgument(const std::string& argument) {
  const auto first = argument.find(',');
  const auto second =
      first == std::string::npos ? std::string::npos : argument.find(',', first + 1);
  if (first == 0 || second == std::string::npos) {
    throw std::invalid_argument("--fail must be NAME,COUNT,KIND[=VALUE], got '" + argument + "'");
  }
  FaultSetting setting;
  setting.name = argument.substr(0, first);
  const auto count = argument.substr(first + 1, second - first - 1);
  setting.count =
      count == "*" ? -1 : static_cast<int>(ParseNumber(count, "--fail count", 1'000'000));
  setting.fault = Fault::Parse(argument.substr(second + 1));
  return setting;
}

CommandLine ParseCommandLine(const std::vector<std::string>& args) {
  CommandLine line;
  auto& options = line.options;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const auto& arg = args[i];
    auto value = [&]() -> const std::string& {
      if (i + 1 >= args.size()) throw std::invalid_argument(arg + " needs a value");
      return args[++i];
    };
    if (arg == "--help" || arg == "-h") {
      line.help = true;
    } else if (arg == "--verbose") {
      line.verbose = true;
    } else if (arg == "--listen") {
      const auto& address = value();
      const auto colon = address.rfind(':');
      if (colon == std::string::npos) throw std::invalid_argument("--listen must be HOST:PORT");
      options.host = address.substr(0, colon);
      if (options.host.size() >= 2 && options.host.front() == '[' && options.host.back() == ']') {
        options.host = options.host.substr(1, options.host.size() - 2);
      }
      options.port =
          static_cast<int>(ParseNumber(address.substr(colon + 1), "--listen port", 65535));
    } else if (arg == "--tls") {
      options.tlsCertificate = value();
      options.tlsKey = value();
    } else if (arg == "--allow-remote") {
      options.allowRemote = true;
    } else if (arg == "--user") {
      options.users.push_back(ParseAccount(value(), "--user"));
    } else if (arg == "--storage") {
      options.storages.push_back(ParseStorageArgument(value()));
    } else if (arg == "--version-reply") {
      options.versionReply = value();
    } else if (arg == "--compressed-types") {
      options.compressedTypes = value();
    } else if (arg == "--part-size") {
      options.partSizeKb = ParseNumber(value(), "--part-size", 1LL << 30);
    } else if (arg == "--state") {
      options.stateDir = value();
    } else if (arg == "--location-host") {
      options.locationHost = value();
    } else if (arg == "--linux-names") {
      options.linuxNames = true;
    } else if (arg == "--restricted") {
      const auto& argument = value();
      const auto slash = argument.find('/');
      if (slash == std::string::npos || slash == 0) {
        throw std::invalid_argument("--restricted must be STORAGE/PATH");
      }
      options.restricted.push_back({argument.substr(0, slash), argument.substr(slash + 1)});
    } else if (arg == "--upload-request") {
      const auto account = value();
      const auto eq = account.find('=');
      if (eq == std::string::npos || eq == 0)
        throw std::invalid_argument("--upload-request must be GUID=USER");
      options.uploadRequests.push_back({account.substr(0, eq), account.substr(eq + 1)});
    } else if (arg == "--policy") {
      const auto& argument = value();
      const auto eq = argument.find('=');
      if (eq == std::string::npos || eq == 0) throw std::invalid_argument("--policy must be USER=FILE");
      options.policies.push_back({argument.substr(0, eq), argument.substr(eq + 1)});
    } else if (arg == "--device-status") {
      const auto& argument = value();
      const auto eq = argument.find('=');
      if (eq == std::string::npos || eq == 0) throw std::invalid_argument("--device-status must be USER=REPLY");
      options.deviceStatus[argument.substr(0, eq)] = argument.substr(eq + 1);
    } else if (arg == "--lock-after") {
      options.lockAfterFailures = static_cast<int>(ParseNumber(value(), "--lock-after", 1000));
    } else if (arg == "--fail") {
      options.faults.push_back(ParseFaultArgument(value()));
    } else {
      throw std::invalid_argument("unknown argument '" + arg + "' (see --help)");
    }
  }
  if (!line.help && options.users.empty())
    throw std::invalid_argument("at least one --user is needed");
  return line;
}

std::string UsageText() {
  return R"(corvalink-devserver: the local server of the Corvalink wire protocol, for tests and demos.

  --listen HOST:PORT        address to serve on (default 127.0.0.1:8080; port 0: any free port)
  --allow-remote            allow an address other than loopback
  --tls CERT KEY            serve https with the certificate chain CERT and the key KEY (PEM)
  --user NAME:PASSWORD      an account (repeatable)
  --storage NAME=FOLDER[,type=TYPE][,user=USER][,auth=USER:PASSWORD]
                            a storage (repeatable); type CIFS (default) has the location
                            \\devserver\NAME\, any other type https://devserver/NAME/;
                            user= limits it to some accounts; auth= gives it its own login
  --state DIR               versions, pending upload parts and temporary files (default:
                            FOLDER.devserver-state beside each storage)
  --location-host NAME      host part of the storage locations (default devserver)
  --version-reply TEXT      GetVersion's reply (default 6.1.0.0; 6.0.70 older login,
                            5.0.0 no part upload)
  --compressed-types LIST   extensions of GetSystemConfig (default
                            txt,doc,docx,xls,xlsx,ppt,pptx,pdf,xml,html,csv)
  --part-size KB            part size of GetSystemConfig (default 1024)
  --policy USER=FILE        GetDefaultSettings2's document for USER, read at each call;
                            without one a user gets a policy that lists their storages
  --device-status USER=REPLY GetDeviceStatus for USER (default "1;A"; "1;B" blocked...)
  --lock-after N            refuse a user's logins after N failures in a row (default: never)
  --linux-names             every storage keeps names as a Linux folder (case-sensitive, any
                            name); without it CIFS, SP and O365 storages keep them as a
                            Windows share: compared without case, refusing \ / : * ? " < > |,
                            a final dot or space and device names (CON, NUL, COM1...)
  --restricted STORAGE/PATH a path closed as by an IP restriction (repeatable)
  --upload-request GUID=USER an upload request that LoginEx accepts (repeatable)
  --fail NAME,COUNT,KIND    make the next COUNT calls ("*": all) of a method or handler fail;
                            NAME "GetFiles", "share.asmx/Login", "DownloadStorageFile.ashx",
                            "UploadStorageFile.ashx", "GetHashes", "FinishPartialUpload"...;
                            KIND result=TEXT, status=CODE, delay=MS, drop=BYTES, drop;
                            an upload with drop=BYTES dies after BYTES of its body, nothing
                            kept; with drop it is kept and its reply lost
  --verbose                 one line per request on stderr
  --help

Signals: SIGUSR1 invalidates every token; SIGINT and SIGTERM stop the server.
)";
}

}  // namespace devserver
