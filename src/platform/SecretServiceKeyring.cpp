#include <libsecret/secret.h>
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <set>
#include <thread>

#include "Keyring.h"

namespace {

// One kind of item: the client's passwords, by server and user.
const SecretSchema* Schema() {
  static const SecretSchema schema = {
      "org.corvalink.Sync.Password",
      SECRET_SCHEMA_NONE,
      {{"server", SECRET_SCHEMA_ATTRIBUTE_STRING}, {"user", SECRET_SCHEMA_ATTRIBUTE_STRING}, {nullptr, {}}},
      0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
  return &schema;
}

// Takes GLib's error into text and frees it; true when there was one.
bool Failed(GError* failure, std::string& error) {
  if (!failure) return false;
  error = failure->message ? failure->message : "unknown error";
  g_error_free(failure);
  return true;
}

// A session bus is named, or stands at its usual place; nothing is started to find one.
bool SessionBusThere() {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address && *address) return true;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  struct stat info {};
  return runtime && *runtime && stat((std::string(runtime) + "/bus").c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

// A locked keyring asks the user to unlock it, and its call waits for the answer.
// Nobody may answer (no one at the desk, a prompt that cannot be shown): the wait
// ends after this long, and at once when the client quits.
constexpr auto kAnswerWait = std::chrono::minutes(2);

struct Waits {
  std::mutex lock;
  std::condition_variable changed;
  std::set<GCancellable*> open;
  bool quitting = false;
};
Waits& TheWaits() {
  static Waits waits;
  return waits;
}

// Runs one call of the keyring with a cancellable that the time limit or a quit cancels.
template <typename Call>
auto Bounded(Call call) {
  Waits& waits = TheWaits();
  GCancellable* cancellable = g_cancellable_new();
  bool done = false;
  {
    std::lock_guard<std::mutex> guard(waits.lock);
    if (waits.quitting) g_cancellable_cancel(cancellable);
    waits.open.insert(cancellable);
  }
  std::thread limit([&] {
    std::unique_lock<std::mutex> guard(waits.lock);
    if (!waits.changed.wait_for(guard, kAnswerWait, [&] { return done; })) g_cancellable_cancel(cancellable);
  });
  auto result = call(cancellable);
  {
    std::lock_guard<std::mutex> guard(waits.lock);
    done = true;
    waits.open.erase(cancellable);
  }
  waits.changed.notify_all();
  limit.join();
  g_object_unref(cancellable);
  return result;
}

}  // namespace

void SecretServiceKeyring::CancelWaits() {
  Waits& waits = TheWaits();
  std::lock_guard<std::mutex> guard(waits.lock);
  waits.quitting = true;
  for (GCancellable* cancellable : waits.open) g_cancellable_cancel(cancellable);
}

std::unique_ptr<Keyring> SecretServiceKeyring::IfOnSessionBus(std::string& reason) {
  if (!SessionBusThere()) {
    reason = "no session bus";
    return nullptr;
  }
  auto keyring = std::make_unique<SecretServiceKeyring>();
  // A lookup of nothing answers only where a Secret Service is there.
  if (!keyring->Lookup("", "", reason)) return nullptr;
  return keyring;
}

std::optional<std::string> SecretServiceKeyring::Lookup(const std::string& server, const std::string& user,
                                                        std::string& error) {
  GError* failure = nullptr;
  gchar* password = Bounded([&](GCancellable* cancellable) {
    return secret_password_lookup_sync(Schema(), cancellable, &failure, "server", server.c_str(), "user",
                                       user.c_str(), nullptr);
  });
  if (Failed(failure, error)) return std::nullopt;
  if (!password) return std::string();
  std::string text(password);
  secret_password_free(password);
  return text;
}

bool SecretServiceKeyring::Store(const std::string& server, const std::string& user, const std::string& label,
                                 const std::string& password, std::string& error) {
  GError* failure = nullptr;
  gboolean stored = Bounded([&](GCancellable* cancellable) {
    return secret_password_store_sync(Schema(), SECRET_COLLECTION_DEFAULT, label.c_str(), password.c_str(),
                                      cancellable, &failure, "server", server.c_str(), "user", user.c_str(), nullptr);
  });
  if (Failed(failure, error)) return false;
  if (!stored) error = "the keyring did not keep the password";
  return stored;
}

bool SecretServiceKeyring::Clear(const std::string& server, const std::string& user, std::string& error) {
  GError* failure = nullptr;
  // False without an error when there was nothing to remove: that is done too.
  Bounded([&](GCancellable* cancellable) {
    return secret_password_clear_sync(Schema(), cancellable, &failure, "server", server.c_str(), "user",
                                      user.c_str(), nullptr);
  });
  return !Failed(failure, error);
}
