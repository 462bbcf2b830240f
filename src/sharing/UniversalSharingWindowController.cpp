#include "UniversalSharingWindowController.h"

#include <algorithm>
#include <sstream>

#include "CVEventLogger.h"
#include "InternalShare51WindowController.h"

namespace {
using Second = InternalShare51WindowController;

// A reply that reports no share: "-1;...", "-200", "err...", or nothing at all.
bool Failed(const std::string& result) {
  return result.empty() || result.front() == '-' || result.rfind("err", 0) == 0;
}
}  // namespace

UniversalSharingWindowController::Found UniversalSharingWindowController::SetResultStr(const std::string& reply) {
  std::vector<std::string> fields;
  std::stringstream pieces(reply);
  for (std::string piece; std::getline(pieces, piece, ';');) fields.push_back(piece);
  Found found;
  if (fields.size() >= 2 && fields[0] == "1" && (fields[1] == "1" || fields[1] == "2")) {
    for (std::size_t i = 2; i + 1 < fields.size(); i += 2) {
      RecipientName user;
      user.recEmail = fields[i];
      user.recName = fields[i + 1].empty() ? fields[i] : fields[i + 1];
      found.users.push_back(std::move(user));
    }
  } else if (fields.size() >= 2 && fields[0] == "1" && fields[1] == "0") {
    found.message = kNoUsers;
  } else {
    found.message = kUnavailable;
  }
  return found;
}

UniversalSharingWindowController::UniversalSharingWindowController(SharingService& service, WindowWorker::Post toMain,
                                                                   CVConnection policy)
    : service_(service), policy_(std::move(policy)), worker_(std::move(toMain)) {}

void UniversalSharingWindowController::setArrayFiles(std::vector<std::string> files) { arrayFiles = std::move(files); }

bool UniversalSharingWindowController::setWindowType(WindowType type) {
  windowType = type;
  if (type == kInternalShare && !policy_.InternalSharing) {
    Tell(Second::kInternalOff);
    return false;
  }
  if (type == kExternalShare && !policy_.ExternalSharing) {
    Tell(Second::kExternalOff);
    return false;
  }
  title = type == kInternalShare ? "Share to internal" : "Share to external";
  comboBoxValidity.clear();
  for (const auto& item : kValidity) comboBoxValidity.emplace_back(item.label);
  // An administrator who requires an expiry takes "No expire" away.
  if (policy_.ExpireRequired) comboBoxValidity.pop_back();
  selectedValidity = std::min<std::size_t>(selectedValidity, comboBoxValidity.size() - 1);
  Changed();
  return true;
}

void UniversalSharingWindowController::setTarget(std::function<void()> closeWindowEvent) {
  closeWindowEvent_ = std::move(closeWindowEvent);
}

long UniversalSharingWindowController::Validity() const {
  return kValidity[std::min<std::size_t>(selectedValidity, comboBoxValidity.size() - 1)].hours;
}

void UniversalSharingWindowController::FindUsers(const std::string& query) {
  const unsigned generation = ++searchGeneration_;
  worker_.Run([this, generation, query]() -> std::function<void()> {
    std::string token = service_.CheckConnectionAndGetWSToken();
    if (token.empty()) return {};
    Found found = SetResultStr(service_.FindUsers(query, token));
    return [this, generation, found = std::move(found)] {
      if (generation != searchGeneration_) return;  // a newer search is on its way
      foundUsers = found.users;
      Changed();
      if (!found.message.empty()) Tell(found.message);
    };
  });
}

void UniversalSharingWindowController::AddFoundUser(std::size_t row) {
  if (row >= foundUsers.size()) return;
  const RecipientName& chosen = foundUsers[row];
  if (std::any_of(recipients.begin(), recipients.end(),
                  [&](const RecipientName& r) { return r.recEmail == chosen.recEmail; })) {
    return;
  }
  recipients.push_back(chosen);
  Changed();
}

bool UniversalSharingWindowController::AddExternalRecipient(const std::string& name, const std::string& email,
                                                            const std::string& mobile) {
  std::vector<std::string> names;
  for (const auto& r : recipients) names.push_back(r.recName);
  // A mobile number is optional here; one that is given must be valid.
  if (const char* refusal = Second::ExternalRecipientProblem(name, email, mobile, !mobile.empty(), names)) {
    Tell(refusal);
    return false;
  }
  RecipientName recipient;
  recipient.recName = name;
  recipient.recEmail = email;
  recipient.recMobile = mobile;
  recipient.IsExternal = true;
  recipients.push_back(std::move(recipient));
  Changed();
  return true;
}

void UniversalSharingWindowController::deleteRecipient(std::size_t row) {
  if (row >= recipients.size()) return;
  recipients.erase(recipients.begin() + static_cast<std::ptrdiff_t>(row));
  Changed();
}

void UniversalSharingWindowController::Share() {
  if (recipients.empty()) {
    Tell(Second::kNoRecipient);
    return;
  }
  controlsEnabled = false;
  inProgress = true;
  Changed();
  const bool external = windowType == kExternalShare;
  worker_.Run([this, external, files = arrayFiles, people = recipients, validity = Validity(), subject = subject,
               message = message]() -> std::function<void()> {
    std::string text = Second::kShareProblem;
    bool done = false;
    try {
      std::string token = service_.CheckConnectionAndGetWSToken();
      if (!token.empty()) {
        std::string result = external ? service_.ShareFilesExternal(files, people, validity, subject, message, token)
                                      : service_.ShareFilesInternal(files, people, validity, subject, message, token);
        CVEventLogger::WriteMainLogMessage(std::string(external ? "Share to external" : "Share to internal") +
                                           " finished with result: " + result);
        done = !Failed(result);
        if (done) text = files.size() == 1 ? Second::kSharedOne : Second::kSharedMany;
      }
    } catch (const std::exception& failure) {
      CVEventLogger::WriteMainLogMessage(std::string(external ? "ShareToExternal: " : "ShareToInternal: ") +
                                         failure.what());
    }
    return [this, text, done] {
      inProgress = false;
      controlsEnabled = true;
      Changed();
      // A share made closes the window first: its message then stands alone.
      if (done && closeWindowEvent_) closeWindowEvent_();
      Tell(text);
    };
  });
}

void UniversalSharingWindowController::Tell(const std::string& text) {
  if (onMessage) onMessage(text);
}

void UniversalSharingWindowController::Changed() {
  if (onChange) onChange();
}
