// Share service and sharing methods: GetSharedStorages, sharing items inside and
// outside (both generations), extending, ending and re-sending shares, finding
// users, and the lists of shared files and of the caller's actions.
//
// Choices where the client leaves the server open (chosen):
// - Share calls take the main token only; ShareItems answers its codes alone in
//   ResultCode: "0" shared, "-1" bad token, "-4" a recipient that is missing or
//   no user of the server, "-6" an item that does not exist or lies outside the
//   caller's storages (nothing is shared then). The first-generation calls
//   answer "0;" and the links joined by ";", or "-1;..", "-4;..", "-6;..".
// - A user's address is the name when it holds "@", else NAME@<location host>;
//   user ids are the positions in the user list, from 1. Every user is internal.
// - A share's link is https://<location host>/s/<id>. Expired shares are listed
//   nowhere; they stay in the store.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "FileAccess.h"
#include "MethodTable.h"
#include "ResultTexts.h"
#include "ServerState.h"
#include "WireFormats.h"

namespace devserver {
namespace {

constexpr long kNoExpiryHours = 876000;
constexpr std::size_t kUsersPerPage = 20;
constexpr std::size_t kHistoryPerPage = 20;


// The value of one child of the Options record; "" when it is missing.
std::string OptionText(const SoapCall& call, const std::string& child) {
  if (const auto* options = call.Find("Options")) return options->tree.ChildText(child);
  return "";
}

std::optional<std::string> MainUser(const ServerState& state, const std::string& token) {
  const auto owner = state.TokenUser(token);
  if (!owner || owner->kind != TokenKind::Main) return std::nullopt;
  return owner->user;
}

std::string AddressOf(const ServerState& state, const std::string& user) {
  return user.find('@') != std::string::npos ? user : user + "@" + state.options().locationHost;
}

// The users of the server other than `self` whose name or address holds query,
// without regard to case, with their ids.
std::vector<std::pair<int, const UserAccount*>> FindUsers(const ServerState& state, const std::string& self,
                                                          const std::string& query) {
  std::vector<std::pair<int, const UserAccount*>> found;
  const auto& users = state.options().users;
  const std::string wanted = AsciiLower(TrimSpaces(query));
  for (std::size_t i = 0; i < users.size(); ++i) {
    if (EqualsIgnoreAsciiCase(users[i].name, self)) continue;
    if (AsciiLower(AddressOf(state, users[i].name)).find(wanted) == std::string::npos) continue;
    found.emplace_back(static_cast<int>(i + 1), &users[i]);
  }
  return found;
}

// The user an internal recipient names: by id, else by name or address.
const UserAccount* RecipientUser(const ServerState& state, const std::string& id, const std::string& address) {
  const auto& users = state.options().users;
  int index = 0;
  if (std::sscanf(id.c_str(), "%d", &index) == 1 && index >= 1 && index <= static_cast<int>(users.size())) {
    return &users[index - 1];
  }
  for (const auto& user : users) {
    if (EqualsIgnoreAsciiCase(user.name, address) || EqualsIgnoreAsciiCase(AddressOf(state, user.name), address)) {
      return &user;
    }
  }
  return nullptr;
}

std::string UserRecord(const ServerState& state, const char* element, int id, const UserAccount& user) {
  return std::string("<") + element + ">" + XmlElement("Username", AddressOf(state, user.name)) +
         XmlElement("Fullname", user.name) + XmlElement("IsGroup", "false") + XmlElement("UserId", std::to_string(id)) +
         XmlElement("Email", AddressOf(state, user.name)) + XmlElement("Mobile", "") + XmlElement("IsExternal", "false") +
         "</" + element + ">";
}

std::string DateText(ShareClock::time_point time) {
  return MillisecondTimeText(std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count());
}

// "yyyy-MM-ddTHH:mm:ss" in UTC.
std::optional<ShareClock::time_point> ParseDate(const std::string& text) {
  std::tm t{};
  std::istringstream in(text);
  in >> std::get_time(&t, "%Y-%m-%dT%H:%M:%S");
  if (in.fail()) return std::nullopt;
  return ShareClock::from_time_t(timegm(&t));
}

std::optional<ShareClock::time_point> ExpiryAfterHours(long hours) {
  if (hours == kNoExpiryHours) return std::nullopt;
  return ShareClock::now() + std::chrono::hours(hours);
}

std::vector<int> Ids(const std::string& text, const SoapValue* list) {
  std::vector<int> ids;
  auto add = [&](const std::string& piece) {
    int id = 0;
    if (std::sscanf(piece.c_str(), "%d", &id) == 1) ids.push_back(id);
  };
  if (list && !list->tree.children.empty()) {
    for (const auto& child : list->tree.children) add(child.text);
    return ids;
  }
  std::stringstream pieces(text);
  for (std::string piece; std::getline(pieces, piece, ';');) add(piece);
  return ids;
}

// The shares of one call, one per item and recipient, or the code that refuses it.
struct Planned {
  std::vector<ShareRecord> records;
  const char* refusal = nullptr;  // "-4", "-6"
};

struct Recipient {
  std::string name, email, mobile, id;
};

Planned Plan(ServerState& state, const std::string& owner, const SoapNode* documents,
             const std::vector<Recipient>& recipients, bool external) {
  Planned plan;
  std::vector<ShareRecord> items;
  if (documents) {
    for (const auto& info : documents->children) {
      const auto path = state.storages().Resolve(owner, info.ChildText("DocumentUrl"));
      const auto entry = path ? StatEntry(path->local) : std::nullopt;
      if (!entry) {
        plan.refusal = "-6";
        return plan;
      }
      ShareRecord item;
      const std::string& location = path->storage->location();
      std::string relative = path->relative;
      if (location.rfind("\\\\", 0) == 0) std::replace(relative.begin(), relative.end(), '/', '\\');
      item.location = location + relative;
      item.fileName = path->components.empty() ? path->storage->name() : path->components.back();
      item.size = entry->size;
      item.modified = entry->modified;
      item.isFolder = entry->isFolder;
      items.push_back(item);
    }
  }
  if (items.empty()) {
    plan.refusal = "-6";
    return plan;
  }
  if (recipients.empty()) {
    plan.refusal = "-4";
    return plan;
  }
  const std::string group = NewLowerGuid();
  for (const auto& r : recipients) {
    ShareRecord share;
    share.owner = owner;
    share.group = group;
    share.external = external;
    share.recipientName = r.name;
    share.recipientEmail = r.email;
    share.recipientMobile = r.mobile;
    if (!external) {
      const auto* user = RecipientUser(state, r.id, r.email);
      if (!user) {
        plan.refusal = "-4";
        return plan;
      }
      share.recipientUser = user->name;
      if (share.recipientEmail.empty()) share.recipientEmail = AddressOf(state, user->name);
      if (share.recipientName.empty()) share.recipientName = user->name;
    } else if (r.email.empty()) {
      plan.refusal = "-4";
      return plan;
    }
    share.sharedAt = ShareClock::now();
    for (const auto& item : items) {
      ShareRecord one = share;
      one.location = item.location;
      one.fileName = item.fileName;
      one.size = item.size;
      one.modified = item.modified;
      one.isFolder = item.isFolder;
      plan.records.push_back(one);
    }
  }
  return plan;
}

std::string LinkBase(const ServerState& state) { return "https://" + state.options().locationHost + "/s/"; }

// Options{Documents, Recipients{ShareRecipientInfo...}, SendAllNotifications,
// OtpRequired, Mode, NoExpiry, ExpiryDate, Message, Token, ...}.
SoapReply ShareItems(ServerState& state, const SoapCall& call) {
  const auto* options = call.Find("Options");
  const auto user = MainUser(state, OptionText(call, "Token"));
  if (!options || !user) return SoapReply::Xml(XmlElement("ResultCode", "-1"));
  const SoapNode& o = options->tree;
  std::vector<Recipient> recipients;
  bool external = false;
  if (const auto* list = o.Child("Recipients")) {
    for (const auto& info : list->children) {
      recipients.push_back({info.ChildText("Fullname"), info.ChildText("Email"), info.ChildText("Mobile"),
                            info.ChildText("RecipientId")});
      external = external || info.ChildText("IsExternal") == "true";
    }
  }
  Planned plan = Plan(state, *user, o.Child("Documents"), recipients, external);
  if (plan.refusal) return SoapReply::Xml(XmlElement("ResultCode", plan.refusal));
  std::optional<ShareClock::time_point> expiry;
  if (o.ChildText("NoExpiry") != "true") {
    expiry = ParseDate(o.ChildText("ExpiryDate"));
    if (!expiry) return SoapReply::Xml(XmlElement("ResultCode", "-5"));
  }
  for (auto& share : plan.records) {
    share.expiry = expiry;
    share.viewOnly = o.ChildText("Mode") == "ViewOnly";
    share.otp = o.ChildText("OtpRequired") == "true";
    share.notifyAll = o.ChildText("SendAllNotifications") == "true";
    share.message = o.ChildText("Message");
  }
  state.shares().Add(std::move(plan.records), LinkBase(state));
  return SoapReply::Xml(XmlElement("ResultCode", "0"));
}

// The first generation: Documents, Recipients, Validity (hours), Subject,
// Message, Token, and for version 2 of the external call the two flags.
SoapMethod FirstGenerationShare(bool external) {
  return [external](ServerState& state, const SoapCall& call) {
    const auto user = MainUser(state, call.Text("Token"));
    if (!user) return SoapReply::Text(kInvalidToken);
    std::vector<Recipient> recipients;
    if (const auto* list = call.Find("Recipients")) {
      for (const auto& r : list->tree.children) {
        if (external) {
          recipients.push_back({r.ChildText("Fullname"), r.ChildText("Email"), r.ChildText("Mobile"), ""});
        } else {
          recipients.push_back({"", r.text, "", r.text});
        }
      }
    }
    const auto* documents = call.Find("Documents");
    Planned plan = Plan(state, *user, documents ? &documents->tree : nullptr, recipients, external);
    if (plan.refusal) {
      return SoapReply::Text(std::string(plan.refusal) +
                             (std::string(plan.refusal) == "-6" ? ";File/Folder not found;" : ";Unknown recipient;"));
    }
    long hours = 0;
    std::sscanf(call.Text("Validity").c_str(), "%ld", &hours);
    for (auto& share : plan.records) {
      share.expiry = ExpiryAfterHours(hours);
      share.message = call.Text("Message");
      share.otp = call.Text("OtpRequired") == "true";
      share.notifyAll = call.Text("SendAllNotifications") == "true";
    }
    std::string reply = kDone;
    for (const auto& share : state.shares().Add(std::move(plan.records), LinkBase(state))) {
      if (reply.size() > 2) reply += ";";
      reply += share.link;
    }
    return SoapReply::Text(reply);
  };
}

// A call on the caller's shares that answers "0;" when it touched one, else
// notFound: the calls whose client reads only "-1;" as a failure hear "-1;" (chosen).
constexpr const char* kShareNotFound = "-6;Share not found;";
constexpr const char* kNoShareOfYours = "-1;Share not found;";
template <typename Change>
SoapReply OnShares(ServerState& state, const SoapCall& call, Change change, const char* notFound = kShareNotFound) {
  const auto user = MainUser(state, call.Text("Token"));
  if (!user) return SoapReply::Text(kInvalidToken);
  return SoapReply::Text(change(*user) > 0 ? kDone : notFound);
}

// ShareIDs as text: Validity in hours; as <int> children, the form of the
// edit sheet, in minutes (chosen).
SoapReply ShareFilesExtend(ServerState& state, const SoapCall& call) {
  long validity = 0;
  std::sscanf(call.Text("Validity").c_str(), "%ld", &validity);
  const auto* list = call.Find("ShareIDs");
  std::optional<ShareClock::time_point> expiry = ExpiryAfterHours(validity);
  if (list && !list->tree.children.empty() && validity != kNoExpiryHours) {
    expiry = ShareClock::now() + std::chrono::minutes(validity);
  }
  return OnShares(state, call, [&](const std::string& user) {
    return state.shares().Extend(user, Ids(call.Text("ShareIDs"), list), expiry);
  });
}

SoapReply ShareFilesExtend2(ServerState& state, const SoapCall& call) {
  long hours = 0;
  std::sscanf(call.Text("Validity").c_str(), "%ld", &hours);
  return OnShares(state, call, [&](const std::string& user) {
    return state.shares().ExtendGroup(user, call.Text("ShareGroupGuid"), ExpiryAfterHours(hours));
  });
}

SoapReply DeleteSharedLink(ServerState& state, const SoapCall& call) {
  return OnShares(
      state, call,
      [&](const std::string& user) { return state.shares().Remove(user, Ids(call.Text("SharedIDs"), nullptr)); },
      kNoShareOfYours);
}

SoapReply DeleteSharedLink2(ServerState& state, const SoapCall& call) {
  return OnShares(state, call, [&](const std::string& user) {
    return state.shares().RemoveGroup(user, call.Text("ShareGroupGuid"));
  });
}

SoapReply ResendEmail(ServerState& state, const SoapCall& call) {
  return OnShares(
      state, call,
      [&](const std::string& user) { return state.shares().Resend(user, Ids(call.Text("SharedIDs"), nullptr)); },
      kNoShareOfYours);
}

// "1;1;" and pairs of address and name, "1;0" when none is found.
SoapReply FindUsersMethod(ServerState& state, const SoapCall& call) {
  const auto user = MainUser(state, call.Text("Token"));
  if (!user) return SoapReply::Text(kInvalidToken);
  std::string reply;
  for (const auto& [id, found] : FindUsers(state, *user, call.Text("queryStr"))) {
    reply += ";" + AddressOf(state, found->name) + ";" + found->name;
  }
  return SoapReply::Text(reply.empty() ? "1;0" : "1;1" + reply);
}

// UserData records, kUsersPerPage to a page from pageNum 0.
SoapReply FindUsers2(ServerState& state, const SoapCall& call) {
  const auto user = MainUser(state, call.Text("Token"));
  if (!user) return SoapReply::Text(kInvalidToken);
  std::size_t page = 0;
  std::sscanf(call.Text("pageNum").c_str(), "%zu", &page);
  const auto found = FindUsers(state, *user, call.Text("queryStr"));
  std::string records;
  for (std::size_t i = page * kUsersPerPage; i < found.size() && i < (page + 1) * kUsersPerPage; ++i) {
    records += UserRecord(state, "UserData", found[i].first, *found[i].second);
  }
  return SoapReply::Xml(records);
}

// Options{Token, OnlyExternalUsers, OnlyInternalUsers, FilterQuery, ...}: UserToShare records.
SoapReply GetUsersToShare(ServerState& state, const SoapCall& call) {
  const auto user = MainUser(state, OptionText(call, "Token"));
  if (!user) return SoapReply::Xml(XmlElement("ResultCode", "-1"));
  std::string records;
  if (OptionText(call, "OnlyExternalUsers") != "true") {
    for (const auto& [id, found] : FindUsers(state, *user, OptionText(call, "FilterQuery"))) {
      records += UserRecord(state, "UserToShare", id, *found);
    }
  }
  return SoapReply::Xml(XmlElement("ResultCode", "0") + "<Users>" + records + "</Users>");
}

// folderId: 0 for a shared item itself, the share's id for an entry inside a
// shared folder. On the list of the shares one made (mine) the person is the
// recipient, whom the owner's window groups by (chosen).
std::string FileProperty(const ServerState& state, const ShareRecord& share, bool mine, int folderId = 0) {
  return "<FileProperty>" + XmlElement("file_name", share.fileName) + XmlElement("file_size", std::to_string(share.size)) +
         XmlElement("file_modified", DateText(ShareClock::from_time_t(share.modified))) +
         XmlElement("share_id", std::to_string(share.id)) +
         XmlElement("ownerId", std::to_string([&] {
                   const auto& users = state.options().users;
                   for (std::size_t i = 0; i < users.size(); ++i) {
                     if (EqualsIgnoreAsciiCase(users[i].name, share.owner)) return i + 1;
                   }
                   return std::size_t{0};
                 }())) +
         XmlElement("owner", mine ? share.recipientEmail : AddressOf(state, share.owner)) +
         XmlElement("ownerFullName", mine ? share.recipientName : share.owner) +
         XmlElement("link", share.link) + XmlElement("shared_at", DateText(share.sharedAt)) +
         (share.expiry ? XmlElement("expire_at", DateText(*share.expiry)) : "") +
         XmlElement("isExternal", share.external ? "true" : "false") + XmlElement("mobileNumber", share.recipientMobile) +
         XmlElement("isFolder", share.isFolder ? "true" : "false") + XmlElement("folderId", std::to_string(folderId)) +
         XmlElement("shareGroup", share.group) + XmlElement("recipientName", share.recipientName) +
         XmlElement("recipientEmail", share.recipientEmail) + "</FileProperty>";
}

// The entries of the folder at inner inside a shared folder, as records of that share.
std::string FolderEntries(ServerState& state, const ShareRecord& share, const std::string& inner, bool mine) {
  const auto folder = ResolveInShare(state, share, inner);
  std::error_code error;
  if (!folder || !std::filesystem::is_directory(folder->local, error)) return "";
  std::string records;
  for (const auto& entry : std::filesystem::directory_iterator(folder->local, error)) {
    const auto stat = StatEntry(entry.path());
    if (!stat) continue;
    ShareRecord item = share;
    item.fileName = entry.path().filename().string();
    item.size = stat->size;
    item.modified = stat->modified;
    item.isFolder = stat->isFolder;
    records += FileProperty(state, item, mine, share.id);
  }
  return records;
}

// Token, and optionally Path and ShareId: the shares made to (or by) the caller;
// with a ShareId only that one, or, for a shared folder, the entries at Path
// inside it (chosen: Path relative to the shared folder, "" for its top).
SoapMethod FileList(bool mine) {
  return [mine](ServerState& state, const SoapCall& call) {
    const auto user = MainUser(state, call.Text("Token"));
    if (!user) return SoapReply::Text(kInvalidToken);
    if (!call.Text("ShareId").empty()) {
      const auto share = FindShare(state, *user, call.Text("ShareId"), mine);
      if (share && share->isFolder) return SoapReply::Xml(FolderEntries(state, *share, call.Text("Path"), mine));
    }
    const auto now = ShareClock::now();
    auto shares = mine ? state.shares().OwnedBy(*user, now) : state.shares().SharedWith(*user, now);
    const std::string only = call.Text("ShareId");
    std::string records;
    for (const auto& share : shares) {
      if (only.empty() || only == std::to_string(share.id)) records += FileProperty(state, share, mine);
    }
    return SoapReply::Xml(records);
  };
}

// Token, pageNum: the caller's actions, newest first, kHistoryPerPage a page
// from page 0: those of the usage log and one "Shared" per share the caller
// made. A page past the end, or a pageNum that is no number, is empty (chosen).
SoapReply GetUsageHistory(ServerState& state, const SoapCall& call) {
  const auto user = MainUser(state, call.Text("Token"));
  if (!user) return SoapReply::Text(kInvalidToken);
  auto actions = state.usage().Of(*user);
  for (const auto& share : state.shares().OwnedBy(*user, ShareClock::now())) {
    actions.push_back({share.owner, "Shared", share.location, share.recipientEmail, share.sharedAt});
  }
  std::stable_sort(actions.begin(), actions.end(), [](const auto& a, const auto& b) { return a.at > b.at; });
  const std::string page(TrimSpaces(call.Text("pageNum")));
  std::string records;
  if (!page.empty() && page.size() < 6 && std::all_of(page.begin(), page.end(), [](unsigned char c) { return std::isdigit(c) != 0; })) {
    const std::size_t first = std::stoul(page) * kHistoryPerPage;
    for (std::size_t i = first; i < actions.size() && i < first + kHistoryPerPage; ++i) {
      records += "<UsageHistory>" + XmlElement("Action", actions[i].action) + XmlElement("Date", DateText(actions[i].at)) +
                 XmlElement("UserBy", AddressOf(state, *user)) + XmlElement("Subject", actions[i].subject) +
                 XmlElement("FileUrl", actions[i].fileUrl) + "</UsageHistory>";
    }
  }
  return SoapReply::Xml(records);
}

// Options{Token, ByRecipient, Detailed, CalculateFolderSize, RefreshCache, Path,
// NewErrorCodes}. The other options change nothing here (chosen): every shared
// storage is listed, with its location. A storage counts as shared when it is
// open to every user or to more than one (chosen). Errors come as ResultCode
// alone, in the new error codes: "-1" for a bad token.
SoapReply GetSharedStorages(ServerState& state, const SoapCall& call) {
  const auto owner = MainUser(state, OptionText(call, "Token"));
  if (!owner) return SoapReply::Xml(XmlElement("ResultCode", "-1"));
  std::string storages;
  const auto& configured = state.options().storages;
  for (std::size_t i = 0; i < configured.size(); ++i) {
    const auto* storage = state.storages().Find(configured[i].name);
    if (!storage || !storage->ServesUser(*owner)) continue;
    const auto& users = storage->config().users;
    if (!users.empty() && users.size() < 2) continue;
    // The position among the configured storages: stable for the server's run.
    storages += "<SharedStorage>" + XmlElement("SharedStorageId", std::to_string(i + 1)) +
                XmlElement("StorageName", storage->name()) + XmlElement("StorageUrl", storage->location()) +
                XmlElement("StorageType", storage->type()) + "</SharedStorage>";
  }
  return SoapReply::Xml(XmlElement("ResultCode", "0") + "<SharedStorages>" + storages + "</SharedStorages>");
}

}  // namespace

void AddShareMethods(MethodTable& table) {
  table.Add(Endpoint::Share, "GetSharedStorages", GetSharedStorages);
  table.Add(Endpoint::Share, "ShareItems", ShareItems);
  table.Add(Endpoint::Share, "GetUsersToShare", GetUsersToShare);
  for (const char* method : {"ShareFilesExternal", "ShareFilesExternal2"}) {
    table.Add(Endpoint::Main, method, FirstGenerationShare(true));
  }
  for (const char* method : {"ShareFilesInternal", "ShareFilesInternal2"}) {
    table.Add(Endpoint::Main, method, FirstGenerationShare(false));
  }
  table.Add(Endpoint::Main, "ShareFilesExtend", ShareFilesExtend);
  table.Add(Endpoint::Main, "ShareFilesExtend2", ShareFilesExtend2);
  table.Add(Endpoint::Main, "DeleteSharedLink", DeleteSharedLink);
  table.Add(Endpoint::Main, "DeleteSharedLink2", DeleteSharedLink2);
  table.Add(Endpoint::Main, "ResendEmail", ResendEmail);
  table.Add(Endpoint::Main, "FindUsers", FindUsersMethod);
  table.Add(Endpoint::Main, "FindUsers2", FindUsers2);
  // A faked result is the records themselves, so that a test can hand the client any name.
  const ResultForm records = [](std::string text) { return SoapReply::Xml(std::move(text)); };
  table.Add(Endpoint::Main, "GetFileList", FileList(false), records);
  table.Add(Endpoint::Main, "GetMyFileList", FileList(true), records);
  table.Add(Endpoint::Main, "GetUsageHistory", GetUsageHistory);
}

}  // namespace devserver
