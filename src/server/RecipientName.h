#pragma once
// RecipientName: one recipient of a share as the share calls take it, and the
// entry the recipient lists of the share window show for it.

#include <memory>
#include <string>

struct RecipientName;

// One row of a recipient list or of the search results.
struct RecipientItem {
  std::string fullname;
  std::string eMail;
  std::string iconRoot;  // "CV_users_group" or "CV_single_user"
  std::string mobile;
  std::string UserId;
  std::shared_ptr<RecipientName> selfRec;
};

struct RecipientName {
  bool isGroup = false;
  bool invalidContact = false;
  bool IsExternal = false;
  int fieldType = 0;
  std::string recName;
  std::string recEmail;
  std::string recMobile;
  std::string recUserId;

  // The row for this recipient; an empty name shows the e-mail address.
  static RecipientItem GetItemForRecipient(RecipientName recipient);
};
