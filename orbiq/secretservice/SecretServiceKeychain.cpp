#include "orbiq/secretservice/SecretServiceKeychain.h"

#include <fcntl.h>
#include <libsecret/secret.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <new>
#include <string>

#include "orbiq/services/platform/base/NeverDestroyed.h"
#include "orbiq/services/platform/files/BriefLock.h"
#include "orbiq/services/platform/files/Descriptor.h"
#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/threads/Mutex.h"

namespace orbiq {
namespace {

/// The status of a call that left this error; success if it left none.
KeychainStatus statusOf(const GError* error) {
  if (!error) return errSecSuccess;
  const bool isLocked = g_error_matches(error, SECRET_ERROR, SECRET_ERROR_IS_LOCKED) != 0;
  return isLocked ? errSecInteractionNotAllowed : errSecNotAvailable;
}

constinit Mutex turn;

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

/// Null if D-Bus cannot carry it.
GHashTable* attributesOf(const KeychainQuery& query) {
  // Exactly one of the two, so that neither kind of item is found where the other is meant.
  const bool isShared = !query.accessGroup.isNull();
  const std::string owner = isShared ? query.accessGroup.toStdString()
                                     : HostApplication::current().bundleIdentifier.toStdString();
  const std::string account = query.account.toStdString();
  const std::string service = query.service.toStdString();
  for (const std::string& text : {owner, account, service}) {
    const auto size = static_cast<gssize>(text.size());
    if (g_utf8_validate(text.data(), size, nullptr) == FALSE) return nullptr;
  }
  return secret_attributes_build(schema(), "class", static_cast<int>(query.itemClass), "account",
                                 account.c_str(), "service", service.c_str(),
                                 isShared ? "access-group" : "application", owner.c_str(), nullptr);
}

SecretValue* valueOf(const std::string& data) {
  return secret_value_new(data.data(), static_cast<gssize>(data.size()), "text/plain");
}

const char* pathOf(const GList* keyring) {
  return g_dbus_proxy_get_object_path(static_cast<GDBusProxy*>(keyring->data));
}

struct Unref {
  void operator()(void* object) const { g_object_unref(object); }
  void operator()(GList* objects) const { g_list_free_full(objects, g_object_unref); }
};
using Objects = std::unique_ptr<GList, Unref>;

/// One visit to the keyring. One visitor at a time, as the connection is the one that GLib shares
/// in the process: libsecret takes it, and the host may have it, too.
class Visit {
 public:
  Visit();
  ~Visit();
  Visit(const Visit&) = delete;
  Visit& operator=(const Visit&) = delete;

  /// Finds the item in all keyrings; more than one only if somebody else made copies, or another
  /// keyring was the default one. Success means at least one, and all of them unlocked.
  KeychainStatus find(const KeychainQuery& query);
  /// What was found; the default keyring's come first.
  const GList* items() const { return _items.get(); }
  /// The first of them.
  SecretItem* item() const { return static_cast<SecretItem*>(_items->data); }
  KeychainStatus create(const KeychainQuery& query);

 private:
  KeychainStatus open();

  const StandardNumbersHeld _held;  // GLib opens sockets and events
  const Lock<Mutex> _turn{turn};
  // Made before the context takes its place: the connection keeps the one that it is made with.
  GDBusConnection* const _bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  gboolean _busEndsProcess = FALSE;
  /// Takes what GLib leaves to a main loop, which may never run.
  GMainContext* const _context = g_main_context_new();
  std::unique_ptr<SecretService, Unref> _service;
  Objects _keyrings;  ///< the default one first
  Objects _items;
};

Visit::Visit() {
  g_main_context_push_thread_default(_context);
  if (!_bus) return;
  // The end of a bus that nobody but this visit asked for must not be the end of the process.
  _busEndsProcess = g_dbus_connection_get_exit_on_close(_bus);
  g_dbus_connection_set_exit_on_close(_bus, FALSE);
}

Visit::~Visit() {
  _items.reset();
  _keyrings.reset();
  _service.reset();
  while (g_main_context_iteration(_context, FALSE)) continue;  // releasing memory, for example
  g_main_context_pop_thread_default(_context);
  g_main_context_unref(_context);
  if (!_bus) return;
  g_dbus_connection_set_exit_on_close(_bus, _busEndsProcess);
  g_object_unref(_bus);
}

/// Success only if the default keyring is unlocked.
KeychainStatus Visit::open() {
  if (!_bus) return errSecNotAvailable;
  // Not libsecret's shared service: that one holds on to a daemon that is gone.
  constexpr auto kFlags = static_cast<SecretServiceFlags>(SECRET_SERVICE_OPEN_SESSION |
                                                          SECRET_SERVICE_LOAD_COLLECTIONS);
  _service.reset(secret_service_open_sync(quietServiceType(), nullptr, kFlags, nullptr, nullptr));
  if (!_service) return errSecNotAvailable;
  SecretCollection* const own = secret_collection_for_alias_sync(
      _service.get(), SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, nullptr);
  if (!own) return errSecNotAvailable;
  _keyrings.reset(g_list_prepend(secret_service_get_collections(_service.get()), own));
  return secret_collection_get_locked(own) ? errSecInteractionNotAllowed : errSecSuccess;
}

KeychainStatus Visit::find(const KeychainQuery& query) {
  KeychainStatus status = open();
  if (status != errSecSuccess) return status;
  g_autoptr(GHashTable) attributes = attributesOf(query);
  if (!attributes) return errSecNotAvailable;
  for (GList* each = _keyrings.get(); each; each = each->next) {
    // The default one stands first, and once more among all.
    if (each->prev && g_str_equal(pathOf(each), pathOf(_keyrings.get()))) continue;
    g_autoptr(GError) error = nullptr;
    GList* const found =
        secret_collection_search_sync(static_cast<SecretCollection*>(each->data), schema(),
                                      attributes, SECRET_SEARCH_ALL, nullptr, &error);
    _items.reset(g_list_concat(_items.release(), found));
    if (error) return statusOf(error);
  }
  for (const GList* each = items(); each; each = each->next) {
    if (secret_item_get_locked(static_cast<SecretItem*>(each->data))) {
      return errSecInteractionNotAllowed;
    }
  }
  if (items()) return errSecSuccess;
  // A locked keyring has nothing to show either, and one may have been locked meanwhile.
  status = open();
  if (status != errSecSuccess) return status;
  for (const GList* each = _keyrings.get(); each; each = each->next) {
    if (secret_collection_get_locked(static_cast<SecretCollection*>(each->data))) {
      return errSecInteractionNotAllowed;
    }
  }
  return errSecItemNotFound;
}

KeychainStatus Visit::create(const KeychainQuery& query) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GHashTable) attributes = attributesOf(query);
  g_autoptr(SecretValue) value = valueOf(query.valueData.value_or(""));
  g_autoptr(SecretItem) item = secret_item_create_sync(
      static_cast<SecretCollection*>(_keyrings->data), schema(), attributes,
      query.service.toStdString().c_str(), value, SECRET_ITEM_CREATE_NONE, nullptr, &error);
  if (item) return errSecSuccess;
  return error ? statusOf(error) : errSecNotAvailable;
}

/// GLib's threads do not come along into a forked child, and a call there would wait in vain.
bool isForkedAway() {
  // One for all stores: a child may make another.
  static const pid_t firstUser = getpid();
  return firstUser != getpid();
}

/// Runs an operation. A forked child or a lack of memory gives "not available".
template <class Operation>
KeychainStatus guarded(const Operation& operation) try {
  return isForkedAway() ? errSecNotAvailable : operation();
} catch (const std::bad_alloc&) {
  return errSecNotAvailable;
}

class SecretServiceKeychain final : public Keychain {
 public:
  KeychainMatch copyMatching(const KeychainQuery& query) override {
    KeychainMatch match;
    match.status = guarded([&]() -> KeychainStatus {
      Visit visit;
      const KeychainStatus status = visit.find(query);
      if (status != errSecSuccess || !query.returnData) return status;
      g_autoptr(GError) error = nullptr;
      secret_item_load_secret_sync(visit.item(), nullptr, &error);
      if (error) return statusOf(error);
      g_autoptr(SecretValue) value = secret_item_get_secret(visit.item());
      if (!value) return errSecNotAvailable;
      gsize size = 0;
      const gchar* const bytes = secret_value_get(value, &size);
      if (size > 0) match.data.emplace(bytes, size);
      return errSecSuccess;
    });
    return match;
  }

  KeychainStatus add(const KeychainQuery& query) override {
    return guarded([&]() -> KeychainStatus {
      // The keyring itself would take a second item with the same attributes.
      const std::string directory = g_get_user_runtime_dir();
      const BriefLock lock(AT_FDCWD, directory + "/orbiq-keychain.lock", std::chrono::seconds(30));
      if (!lock.isHeld()) return errSecNotAvailable;
      Visit visit;
      const KeychainStatus status = visit.find(query);
      if (status == errSecSuccess) return errSecDuplicateItem;
      return status == errSecItemNotFound ? visit.create(query) : status;
    });
  }

  KeychainStatus update(const KeychainQuery& query, const KeychainAttributes& changes) override {
    return guarded([&]() -> KeychainStatus {
      Visit visit;
      const KeychainStatus status = visit.find(query);
      if (status != errSecSuccess || !changes.valueData) return status;
      g_autoptr(GError) error = nullptr;
      g_autoptr(SecretValue) value = valueOf(*changes.valueData);
      secret_item_set_secret_sync(visit.item(), value, nullptr, &error);
      return statusOf(error);
    });
  }

  KeychainStatus deleteMatching(const KeychainQuery& query) override {
    return guarded([&]() -> KeychainStatus {
      Visit visit;
      KeychainStatus status = visit.find(query);
      for (auto item = visit.items(); status == errSecSuccess && item; item = item->next) {
        g_autoptr(GError) error = nullptr;
        secret_item_delete_sync(static_cast<SecretItem*>(item->data), nullptr, &error);
        status = statusOf(error);
      }
      return status;
    });
  }
};

}  // namespace

std::shared_ptr<Keychain> makeSecretServiceKeychain() {
  // It has nothing of its own, so that one serves all, and making it takes no memory.
  static NeverDestroyed<SecretServiceKeychain> only;
  return {std::shared_ptr<Keychain>(), &*only};
}

}  // namespace orbiq
