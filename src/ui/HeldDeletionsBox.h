#pragma once
// HeldDeletionsBox: the question about the deletions held back in one storage,
// opened from the tray: the files go to the Trash, go back to the server, or wait
// for a later answer. Not modal: the main loop goes on, the answer comes back
// through the callback.

#include <QMessageBox>
#include <functional>

#include "MassDeletionGuard.h"

namespace HeldDeletionsBox {

// Shown at once; answer(true) confirms the deletions, answer(false) puts the
// files back on the server; "Decide later" calls nothing. Deletes itself on close.
QMessageBox* Open(const MassDeletionGuard::Held& held, std::function<void(bool confirm)> answer);

}  // namespace HeldDeletionsBox
