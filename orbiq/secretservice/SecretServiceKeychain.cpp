#include "orbiq/secretservice/SecretServiceKeychain.h"

#include <fcntl.h>
#include <libsecret/secret.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "orbiq/services/platform/base/NeverDestroyed.h"
#include "orbiq/services/platform/files/BriefLock.h"
#include "orbiq/services/platform/files/Descriptor.h"
#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/threads/Mutex.h"

namespace orbiq {
namespace {

struct Unref {
  void operator()(void* object) const { g_object_unref(object); }
};
template <class T>
using Held = std::unique_ptr<T, Unref>;

/// The status of a call that left this error; success if it left none.
KeychainStatus statusOf(const GError* error) {
  if (!error) return errSecSuccess;
  const bool isLocked = g_error_matches(error, SECRET_ERROR, SECRET_ERROR_IS_LOCKED) != 0;
  return isLocked ? errSecInteractionNotAllowed : errSecNotAvailable;
}

constinit Mutex turn;

/// The connection that GLib shares in the process, which libsecret takes and the host may have,
/// too. One visitor at a time; to be made before anything that changes the thread's main context,
/// as the connection keeps the one it is made with.
class SharedBus {
 public:
  SharedBus() : _connection(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr)) {
    if (!_connection) return;
    // The end of a bus that nobody but this visit asked for must not be the end of the process.
    _endsProcess = g_dbus_connection_get_exit_on_close(_connection.get());
    g_dbus_connection_set_exit_on_close(_connection.get(), FALSE);
  }
  ~SharedBus() {
    if (_connection) g_dbus_connection_set_exit_on_close(_connection.get(), _endsProcess);
  }
  SharedBus(const SharedBus&) = delete;
  SharedBus& operator=(const SharedBus&) = delete;

  GDBusConnection* get() const { return _connection.get(); }

 private:
  const Lock<Mutex> _turn{turn};
  const Held<GDBusConnection> _connection;
  gboolean _endsProcess = FALSE;
};

/// Takes what GLib leaves to a main loop, which may never run.
class OwnMainContext {
 public:
  OwnMainContext() { g_main_context_push_thread_default(_context); }
  /// Runs what is left first, such as releasing memory.
  ~OwnMainContext() {
    while (g_main_context_iteration(_context, FALSE)) continue;
    g_main_context_pop_thread_default(_context);
    g_main_context_unref(_context);
  }
  OwnMainContext(const OwnMainContext&) = delete;
  OwnMainContext& operator=(const OwnMainContext&) = delete;

 private:
  GMainContext* const _context = g_main_context_new();
};

GVariant* refusePrompt(SecretService*, SecretPrompt*, GCancellable*, const GVariantType*,
                       GError** error) {
  g_set_error_literal(error, SECRET_ERROR, SECRET_ERROR_IS_LOCKED, "the user is not to be asked");
  return nullptr;
}

/// A kind of service that fails where the daemon wants to ask the user.
GType quietServiceType() {
  static const GType type = g_type_register_static_simple(
      SECRET_TYPE_SERVICE, "OrbiqQuietSecretService", sizeof(SecretServiceClass),
      [](void* serviceClass, void*) {
        static_cast<SecretServiceClass*>(serviceClass)->prompt_sync = refusePrompt;
      },
      sizeof(SecretService), nullptr, GTypeFlags{});
  return type;
}

const SecretSchema* schema() {
  static const SecretSchema* const only = secret_schema_new(
      "orbiq.keychain.item", SECRET_SCHEMA_NONE, "class", SECRET_SCHEMA_ATTRIBUTE_INTEGER,
      "account", SECRET_SCHEMA_ATTRIBUTE_STRING, "service", SECRET_SCHEMA_ATTRIBUTE_STRING,
      "application", SECRET_SCHEMA_ATTRIBUTE_STRING, "access-group", SECRET_SCHEMA_ATTRIBUTE_STRING,
      nullptr);
  return only;
}

struct HashTableUnref {
  void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};
using Attributes = std::unique_ptr<GHashTable, HashTableUnref>;

Attributes attributesOf(const KeychainQuery& query) {
  // Exactly one of the two, so that neither kind of item is found where the other is meant.
  const bool isShared = !query.accessGroup.isNull();
  const std::string owner = isShared ? query.accessGroup.toStdString()
                                     : HostApplication::current().bundleIdentifier.toStdString();
  const std::string account = query.account.toStdString();
  const std::string service = query.service.toStdString();
  // D-Bus carries no other texts.
  for (const std::string& text : {owner, account, service}) {
    const auto size = static_cast<gssize>(text.size());
    if (g_utf8_validate(text.data(), size, nullptr) == FALSE) return nullptr;
  }
  return Attributes(secret_attributes_build(
      schema(), "class", static_cast<int>(query.itemClass), "account", account.c_str(), "service",
      service.c_str(), isShared ? "access-group" : "application", owner.c_str(), nullptr));
}

struct ValueUnref {
  void operator()(SecretValue* value) const { secret_value_unref(value); }
};
using Value = std::unique_ptr<SecretValue, ValueUnref>;

Value valueOf(const std::string& data) {
  return Value(secret_value_new(data.data(), static_cast<gssize>(data.size()), "text/plain"));
}

/// One visit to the keyring. `_status` is success only if the default keyring is unlocked.
class Visit {
 public:
  /// Finds the item in all keyrings; more than one only if somebody else made copies, or another
  /// keyring was the default one. Success means at least one, and all of them unlocked.
  KeychainStatus find(const KeychainQuery& query, std::vector<Held<SecretItem>>& items);
  KeychainStatus create(const KeychainQuery& query);

 private:
  KeychainStatus open();
  KeychainStatus search(SecretCollection* keyring, GHashTable* attributes,
                        std::vector<Held<SecretItem>>& items);
  std::vector<Held<SecretCollection>> keyrings() const;

  const StandardNumbersHeld _held;  // GLib opens sockets and events
  const SharedBus _bus;
  const OwnMainContext _context;  // ends last, as the others leave it something to do
  Held<SecretService> _service;
  Held<SecretCollection> _keyring;
  KeychainStatus _status = open();
};

KeychainStatus Visit::open() {
  if (!_bus.get()) return errSecNotAvailable;
  // Not libsecret's shared service: that one holds on to a daemon that is gone.
  constexpr auto kFlags = static_cast<SecretServiceFlags>(SECRET_SERVICE_OPEN_SESSION |
                                                          SECRET_SERVICE_LOAD_COLLECTIONS);
  _service.reset(secret_service_open_sync(quietServiceType(), nullptr, kFlags, nullptr, nullptr));
  if (!_service) return errSecNotAvailable;
  _keyring.reset(secret_collection_for_alias_sync(_service.get(), SECRET_COLLECTION_DEFAULT,
                                                  SECRET_COLLECTION_NONE, nullptr, nullptr));
  if (!_keyring) return errSecNotAvailable;
  return secret_collection_get_locked(_keyring.get()) ? errSecInteractionNotAllowed : errSecSuccess;
}

KeychainStatus Visit::find(const KeychainQuery& query, std::vector<Held<SecretItem>>& items) {
  if (_status != errSecSuccess) return _status;
  const Attributes attributes = attributesOf(query);
  if (!attributes) return errSecNotAvailable;
  KeychainStatus status = search(_keyring.get(), attributes.get(), items);
  const char* const ownPath = g_dbus_proxy_get_object_path(G_DBUS_PROXY(_keyring.get()));
  for (const auto& keyring : keyrings()) {
    const char* const path = g_dbus_proxy_get_object_path(G_DBUS_PROXY(keyring.get()));
    if (status != errSecSuccess) return status;
    if (std::strcmp(path, ownPath) != 0) status = search(keyring.get(), attributes.get(), items);
  }
  if (status != errSecSuccess) return status;
  const auto isLocked = [](const auto& item) { return secret_item_get_locked(item.get()) != 0; };
  if (!items.empty()) {
    return std::ranges::any_of(items, isLocked) ? errSecInteractionNotAllowed : errSecSuccess;
  }
  // A locked keyring has nothing to show either, and one may have been locked meanwhile.
  _status = open();
  if (_status != errSecSuccess) return _status;
  const bool anyIsLocked = std::ranges::any_of(keyrings(), [](const auto& keyring) {
    return secret_collection_get_locked(keyring.get()) != 0;
  });
  return anyIsLocked ? errSecInteractionNotAllowed : errSecItemNotFound;
}

KeychainStatus Visit::search(SecretCollection* keyring, GHashTable* attributes,
                             std::vector<Held<SecretItem>>& items) {
  g_autoptr(GError) error = nullptr;
  GList* const found = secret_collection_search_sync(keyring, schema(), attributes,
                                                     SECRET_SEARCH_ALL, nullptr, &error);
  for (const GList* entry = found; entry; entry = entry->next) {
    items.emplace_back(static_cast<SecretItem*>(entry->data));
  }
  g_list_free(found);
  return statusOf(error);
}

std::vector<Held<SecretCollection>> Visit::keyrings() const {
  std::vector<Held<SecretCollection>> all;
  GList* const found = secret_service_get_collections(_service.get());
  for (const GList* entry = found; entry; entry = entry->next) {
    all.emplace_back(static_cast<SecretCollection*>(entry->data));
  }
  g_list_free(found);
  return all;
}

KeychainStatus Visit::create(const KeychainQuery& query) {
  g_autoptr(GError) error = nullptr;
  const Held<SecretItem> item(secret_item_create_sync(
      _keyring.get(), schema(), attributesOf(query).get(), query.service.toStdString().c_str(),
      valueOf(query.valueData.value_or("")).get(), SECRET_ITEM_CREATE_NONE, nullptr, &error));
  if (item) return errSecSuccess;
  return error ? statusOf(error) : errSecNotAvailable;
}

class SecretServiceKeychain final : public Keychain {
 public:
  KeychainMatch copyMatching(const KeychainQuery& query) override;
  KeychainStatus add(const KeychainQuery& query) override;
  KeychainStatus update(const KeychainQuery& query, const KeychainAttributes& changes) override;
  KeychainStatus deleteMatching(const KeychainQuery& query) override;

 private:
  /// GLib's threads do not come along into a forked child, and a call there would wait in vain.
  static bool isForkedAway();
};

bool SecretServiceKeychain::isForkedAway() {
  // One for all stores: a child may make another.
  static const pid_t firstUser = getpid();
  return firstUser != getpid();
}

KeychainMatch SecretServiceKeychain::copyMatching(const KeychainQuery& query) try {
  if (isForkedAway()) return {};
  Visit visit;
  std::vector<Held<SecretItem>> items;
  KeychainMatch match{.status = visit.find(query, items)};
  if (match.status != errSecSuccess || !query.returnData) return match;

  g_autoptr(GError) error = nullptr;
  secret_item_load_secret_sync(items.front().get(), nullptr, &error);
  match.status = statusOf(error);
  const Value value(match.status == errSecSuccess ? secret_item_get_secret(items.front().get())
                                                  : nullptr);
  if (!value) return {.status = match.status == errSecSuccess ? errSecNotAvailable : match.status};
  gsize size = 0;
  const gchar* const bytes = secret_value_get(value.get(), &size);
  if (size > 0) match.data.emplace(bytes, size);
  return match;
} catch (const std::bad_alloc&) {
  return {};
}

KeychainStatus SecretServiceKeychain::add(const KeychainQuery& query) try {
  if (isForkedAway()) return errSecNotAvailable;
  // The keyring itself would take a second item with the same attributes.
  const std::string directory = g_get_user_runtime_dir();
  const BriefLock lock(AT_FDCWD, directory + "/orbiq-keychain.lock", std::chrono::seconds(30));
  if (!lock.isHeld()) return errSecNotAvailable;
  Visit visit;
  std::vector<Held<SecretItem>> items;
  const KeychainStatus status = visit.find(query, items);
  if (status == errSecSuccess) return errSecDuplicateItem;
  return status == errSecItemNotFound ? visit.create(query) : status;
} catch (const std::bad_alloc&) {
  return errSecNotAvailable;
}

KeychainStatus SecretServiceKeychain::update(const KeychainQuery& query,
                                             const KeychainAttributes& changes) try {
  if (isForkedAway()) return errSecNotAvailable;
  Visit visit;
  std::vector<Held<SecretItem>> items;
  const KeychainStatus status = visit.find(query, items);
  if (status != errSecSuccess || !changes.valueData) return status;
  g_autoptr(GError) error = nullptr;
  const Value value = valueOf(*changes.valueData);
  secret_item_set_secret_sync(items.front().get(), value.get(), nullptr, &error);
  return statusOf(error);
} catch (const std::bad_alloc&) {
  return errSecNotAvailable;
}

KeychainStatus SecretServiceKeychain::deleteMatching(const KeychainQuery& query) try {
  if (isForkedAway()) return errSecNotAvailable;
  Visit visit;
  std::vector<Held<SecretItem>> items;
  KeychainStatus status = visit.find(query, items);
  for (auto item = items.begin(); status == errSecSuccess && item != items.end(); ++item) {
    g_autoptr(GError) error = nullptr;
    secret_item_delete_sync(item->get(), nullptr, &error);
    status = statusOf(error);
  }
  return status;
} catch (const std::bad_alloc&) {
  return errSecNotAvailable;
}

}  // namespace

std::shared_ptr<Keychain> makeSecretServiceKeychain() {
  // It has nothing of its own, so that one serves all, and making it takes no memory.
  static NeverDestroyed<SecretServiceKeychain> only;
  return {std::shared_ptr<Keychain>(), &*only};
}

}  // namespace orbiq
