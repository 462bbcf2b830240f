#pragma once
// StorageController: adding, changing and removing a storage by hand, the work
// behind the add and edit sheet and `corvalink-sync storage`. A storage is tested
// with the server before anything changes; the change itself is made with the
// sync held still, and a storage is always found by its name, never by a row
// number taken before a wait.

#include <optional>
#include <string>
#include <vector>

#include "SettingsContext.h"

class StorageController {
 public:
  // The kinds a storage can be of; the label is what the list of five shows.
  struct Kind {
    const char* type;
    const char* label;
  };
  static constexpr Kind kKinds[] = {
      {"CIFS", "CIFS (NAS, Windows File Sharing)"},
      {"SP", "Microsoft SharePoint"},
      {"O365", "Office 365 (Sharepoint Online)"},
      {"S3", "Amazon S3"},
      {"AZURE", "Windows Azure"},
  };

  // What the sheet holds.
  struct Form {
    std::optional<std::string> editing;  // the name of the storage being changed; none to add one
    std::string name;
    std::string url;
    std::string type;  // "CIFS", "SP", "O365", "S3", "AZURE"
    bool useAlterAuth = false;
    std::string user;
    std::string password;
    // The radio group of three kinds (the default sheet) rather than the list of five.
    bool fromRadioGroup = false;
  };

  struct Result {
    bool ok = false;
    std::string message;  // why not, for the sheet or the terminal
  };

  static constexpr const char* kEmptyField = "You have empty field. Please check.";
  static constexpr const char* kReservedName =
      "Storage name should not be equal 'Shared In' or 'Shared Out' or 'External user uploads' or start with '.' "
      "symbol";
  static constexpr const char* kNameExists = "The site with specified name exists. Please change the name.";
  static constexpr const char* kInvalidConnection =
      "The storage connection settings are invalid. Please check storage url or user credentials.";
  static constexpr const char* kNotEditable = "Storages are managed by your administrator and cannot be changed here.";
  static constexpr const char* kRemoveQuestion = "Are you sure want to remove this storage?";
  static constexpr const char* kRemoveLater = "Changes will take effect after synchronization is finished.";
  static constexpr const char* kRemoveFailed = "Error. Please try again.";

  explicit StorageController(SettingsContext& context) : context_(context) {}

  // The kind of storage that the URL is entered for, or "-1" with the message
  // that says why the URL does not fit it.
  static std::string getStorageType(const std::string& type, const std::string& url, bool fromRadioGroup,
                                    std::string& message);
  // The URL as it is stored for its kind: its final separator, and the scheme of
  // "S3" and "AZURE" locations that begin with "//".
  static std::string StoredUrl(const std::string& type, const std::string& url);
  // The URL as the sheet shows it: without "azure:" or "s3:" in front.
  static std::string ShownUrl(const std::string& url);

  // Tests the storage with the server, then adds it or changes it.
  Result saveChanges(const Form& form);
  // Removes the storage of that name: its folder to the Trash, its records and rules.
  Result RemoveSite(const std::string& name);

 private:
  SettingsContext& context_;
};
