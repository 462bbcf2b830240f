#pragma once
// Policy: what the server's administrator allows this client, and the storages
// the account has, as GetDefaultSettings2 sends them after each main login. The
// reply is an XML document of its own; its sections (Settings, Corvalink,
// Storages, RequestForFileUpload, ExtraSettings) may come in any order, and a
// document that breaks off keeps what was read before the break.
// The class operations copy a policy into the account of CVConfiguration and,
// where asked, its storages into the storage list; their callers hold the sync
// still while the storage list changes.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "CVConnection.h"
#include "CVSharepoint.h"
#include "WSStorage.h"

class Policy {
 public:
  // Settings
  bool EditableStorages = false;
  bool PasscodeEnabled = false;
  std::int64_t PasscodeLength = 0;
  std::string PasscodeValue;
  bool ExternalSharing = true;
  bool InternalSharing = true;
  bool UploadRequests = false;
  bool EmailDocument = false;
  bool iOSOpenIn = false;
  bool ExpireRequired = false;
  std::int64_t SyncIntervalDesktop = 0;
  std::int64_t SyncIntervalMobile = 0;
  bool OTPRequired = false;
  bool EnableSMS = false;
  // Corvalink: the "edit" attribute of URL; the texts are kept in Corvalink.
  bool EditableURL = false;
  // ExtraSettings
  bool ViewOnlySupported = false;
  std::string ViewOnlyTypes;
  std::int64_t DefaultShareDuration = 0;
  std::int64_t MaxDuration = 0;

  CVConnection Corvalink;  // URL, Username, Password and the upload request policy
  std::vector<WSStorage> Storages;

  // The first parse error, for the log; what came before it was kept.
  std::optional<std::string> parseError;

  // Parses the text of GetDefaultSettings2Result (UTF-8, as the reply carries it).
  static Policy DoParsing(const std::string& text);
  // Parses the document's bytes in any encoding the XML declaration or a
  // byte-order mark names.
  static Policy DoDataParsing(const std::string& bytes);

  // True for a reply that holds no policy: empty, or a "-1;" refusal.
  static bool IsNoPolicy(const std::string& text);

  // Copies the switches into the account; the storages stay as they are.
  static void ParseCorvalinkConfigNewBase(const std::string& text);
  // Copies most switches, and adds every storage of the reply to the storage
  // list with its rule record. For a list that was just emptied or is empty.
  static void ParseCorvalinkConfigNew(const std::string& text);
  // Copies the switches for a retrieval and gives the reply's storages, or
  // nothing when it names none; the storage list is not touched.
  static std::optional<std::vector<CVSharepoint>> ParseCorvalinkConfigNewForRetrieveStoragesWithXML(
      const std::string& text);

  // A storage of the reply as the client keeps it.
  static CVSharepoint SharepointFromWSStorage(const WSStorage& storage, std::int64_t syncCV);

 private:
  enum class Target { Base, New, Retrieve };
  void CopyInto(CVConnection& account, Target target) const;
};
