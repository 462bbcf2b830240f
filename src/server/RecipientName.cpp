#include "RecipientName.h"

RecipientItem RecipientName::GetItemForRecipient(RecipientName recipient) {
  if (recipient.recName.empty()) recipient.recName = recipient.recEmail;
  auto self = std::make_shared<RecipientName>(std::move(recipient));
  return RecipientItem{self->recName, self->recEmail, self->isGroup ? "CV_users_group" : "CV_single_user",
                       self->recMobile, self->recUserId, self};
}
