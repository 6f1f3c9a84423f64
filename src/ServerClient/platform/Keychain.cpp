#include "ServerClient/platform/Keychain.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <gio/gio.h>
#include <libsecret/secret.h>

#include "ServerClient/Log/ServerLog.h"

namespace kel::platform {

std::string keychainStatusName(OSStatus status) {
  switch (status) {
    case errSecSuccess:
      return "errSecSuccess";
    case errSecParam:
      return "errSecParam";
    case errSecNotAvailable:
      return "errSecNotAvailable";
    case errSecDuplicateItem:
      return "errSecDuplicateItem";
    case errSecItemNotFound:
      return "errSecItemNotFound";
    case errSecInteractionNotAllowed:
      return "errSecInteractionNotAllowed";
    case errSecInternalComponent:
      return "errSecInternalComponent";
    default:
      return "OSStatus " + std::to_string(status);
  }
}

namespace {

constexpr const char* kServiceAttribute = "service";
constexpr const char* kAccessGroupAttribute = "access-group";
// The default group's value of kAccessGroupAttribute; real groups are never empty.
constexpr const char* kDefaultGroup = "";

const SecretSchema* schema() {
  static const SecretSchema instance = [] {
    SecretSchema result{};
    result.name = "io.kelclient.sdk.GenericPassword";
    result.flags = SECRET_SCHEMA_NONE;
    result.attributes[0] = {kServiceAttribute, SECRET_SCHEMA_ATTRIBUTE_STRING};
    result.attributes[1] = {kAccessGroupAttribute, SECRET_SCHEMA_ATTRIBUTE_STRING};
    return result;
  }();
  return &instance;
}

struct ObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <class T>
using ObjectPtr = std::unique_ptr<T, ObjectUnref>;

struct HashTableUnref {
  void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};
using AttributesPtr = std::unique_ptr<GHashTable, HashTableUnref>;

struct ValueUnref {
  void operator()(SecretValue* value) const { secret_value_unref(value); }
};
using ValuePtr = std::unique_ptr<SecretValue, ValueUnref>;

/// A GError out-parameter that frees what it receives.
class ErrorSlot {
 public:
  ErrorSlot() = default;
  ErrorSlot(const ErrorSlot&) = delete;
  ErrorSlot& operator=(const ErrorSlot&) = delete;
  ~ErrorSlot() { g_clear_error(&error_); }
  GError** out() {
    g_clear_error(&error_);
    return &error_;
  }
  const GError* get() const { return error_; }

 private:
  GError* error_ = nullptr;
};

/// Cancels the libsecret calls of one operation once `timeout` has passed, from a watcher thread
/// (GCancellable may be cancelled from any thread). The watcher ends as soon as the operation
/// does.
class Deadline {
 public:
  explicit Deadline(std::chrono::milliseconds timeout)
      : cancellable_(g_cancellable_new()), watcher_([this, timeout] {
          std::unique_lock lock(mutex_);
          if (!finishedChanged_.wait_for(lock, timeout, [this] { return finished_; })) {
            g_cancellable_cancel(cancellable_.get());
          }
        }) {}
  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;
  ~Deadline() {
    {
      std::lock_guard lock(mutex_);
      finished_ = true;
    }
    finishedChanged_.notify_all();
    watcher_.join();
  }

  GCancellable* cancellable() const { return cancellable_.get(); }
  bool expired() const { return g_cancellable_is_cancelled(cancellable_.get()) != FALSE; }

 private:
  std::mutex mutex_;
  std::condition_variable finishedChanged_;
  bool finished_ = false;  // guarded by mutex_
  ObjectPtr<GCancellable> cancellable_;
  std::thread watcher_;  // last: starts once everything it reads exists
};

AttributesPtr newAttributes(const std::string& service,
                            const std::optional<std::string>& groupAttribute) {
  AttributesPtr attributes(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free));
  g_hash_table_insert(attributes.get(), g_strdup(kServiceAttribute), g_strdup(service.c_str()));
  if (groupAttribute) {
    g_hash_table_insert(attributes.get(), g_strdup(kAccessGroupAttribute),
                        g_strdup(groupAttribute->c_str()));
  }
  return attributes;
}

bool hasNul(const std::string& text) {
  return text.find('\0') != std::string::npos;
}

bool validKey(const std::string& service, const std::optional<std::string>& accessGroup) {
  // Attribute values travel as C strings: an embedded NUL would silently shorten the key.
  return !service.empty() && !hasNul(service) &&
         !(accessGroup && (accessGroup->empty() || hasNul(*accessGroup)));
}

struct FoundItem {
  ObjectPtr<SecretItem> item;
  std::string accessGroup;  // kDefaultGroup for the default group
};

/// One keychain operation against the Secret Service: its deadline, and the status and log line
/// of its first failure.
class Operation {
 public:
  Operation(const char* name, std::chrono::milliseconds timeout)
      : name_(name), deadline_(timeout) {}
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;
  ~Operation() {
    // A failure may mean that the daemon went away or restarted: forget the cached proxy and
    // its session so that the next operation connects afresh.
    if (dropConnection_) secret_service_disconnect();
  }

  GCancellable* cancellable() const { return deadline_.cancellable(); }

  /// Logs the failure of `step` and returns its status.
  OSStatus fail(const char* step, const GError* error) {
    OSStatus status = errSecInternalComponent;
    std::string reason = error != nullptr ? error->message : "no error reported";
    if (deadline_.expired()) {
      status = errSecNotAvailable;
      reason = "no answer in time";
    } else if (error != nullptr && error->domain == SECRET_ERROR) {
      if (error->code == SECRET_ERROR_IS_LOCKED) status = errSecInteractionNotAllowed;
      if (error->code == SECRET_ERROR_NO_SUCH_OBJECT) status = errSecItemNotFound;
    } else if (error != nullptr && (error->domain == G_IO_ERROR || error->domain == G_DBUS_ERROR)) {
      status = errSecNotAvailable;
    }
    if (status == errSecNotAvailable || status == errSecInternalComponent) dropConnection_ = true;
    return fail(step, status, reason);
  }

  OSStatus fail(const char* step, OSStatus status, const std::string& reason) {
    KEL_LOG_ERROR("call(_:)", std::string("Keychain ") + name_ + ": " + step + " failed (" +
                                  keychainStatusName(status) + "): " + reason);
    return status;
  }

  /// The Secret Service proxy, or nothing with `status` set.
  ObjectPtr<SecretService> connect(OSStatus& status) {
    ErrorSlot error;
    ObjectPtr<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SESSION, cancellable(), error.out()));
    if (!bus) {
      status = fail("connecting to the session bus", error.get());
      return nullptr;
    }
    // GLib's shared bus connection kills the process when the bus goes away; a keychain that
    // disappears must only fail its calls.
    g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    ObjectPtr<SecretService> service(
        secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, cancellable(), error.out()));
    if (!service) status = fail("connecting to the Secret Service", error.get());
    return service;
  }

  /// Our items of `service` whose group attribute equals `groupAttribute` (any group when
  /// absent), sorted by group; nothing with `status` set on failure.
  std::optional<std::vector<FoundItem>> search(SecretService* secretService,
                                               const std::string& service,
                                               const std::optional<std::string>& groupAttribute,
                                               bool loadSecrets, OSStatus& status) {
    const AttributesPtr attributes = newAttributes(service, groupAttribute);
    const auto flags = static_cast<SecretSearchFlags>(
        SECRET_SEARCH_ALL | (loadSecrets ? SECRET_SEARCH_LOAD_SECRETS : SECRET_SEARCH_NONE));
    ErrorSlot error;
    GList* list = secret_service_search_sync(secretService, schema(), attributes.get(), flags,
                                             cancellable(), error.out());
    std::vector<FoundItem> found;
    for (GList* node = list; node != nullptr; node = node->next) {
      ObjectPtr<SecretItem> item(static_cast<SecretItem*>(node->data));  // takes the list's ref
      const AttributesPtr itemAttributes(secret_item_get_attributes(item.get()));
      const auto* group = static_cast<const char*>(
          itemAttributes ? g_hash_table_lookup(itemAttributes.get(), kAccessGroupAttribute)
                         : nullptr);
      found.push_back({std::move(item), group != nullptr ? group : kDefaultGroup});
    }
    g_list_free(list);
    if (error.get() != nullptr) {
      status = fail("searching", error.get());
      return std::nullopt;
    }
    std::sort(found.begin(), found.end(),
              [](const FoundItem& a, const FoundItem& b) { return a.accessGroup < b.accessGroup; });
    return found;
  }

 private:
  const char* name_;
  Deadline deadline_;
  bool dropConnection_ = false;
};

}  // namespace

struct SecretServiceKeychain::State {
  std::chrono::milliseconds timeout;
  // Serialises the operations: libsecret's shared proxy may only be dropped while no other
  // thread uses it, and one operation's duplicate check and create must not interleave with
  // another's.
  std::mutex mutex;
};

SecretServiceKeychain::SecretServiceKeychain(std::chrono::milliseconds timeout)
    : state_(std::make_unique<State>()) {
  state_->timeout = timeout;
}

SecretServiceKeychain::~SecretServiceKeychain() = default;

std::shared_ptr<SecretServiceKeychain> SecretServiceKeychain::shared() {
  static const auto instance = std::make_shared<SecretServiceKeychain>();
  return instance;
}

OSStatus SecretServiceKeychain::add(const KeychainItem& item) {
  if (!validKey(item.service, item.accessGroup)) return errSecParam;
  try {
    std::lock_guard lock(state_->mutex);
    Operation operation("add", state_->timeout);
    OSStatus status = errSecSuccess;
    const ObjectPtr<SecretService> service = operation.connect(status);
    if (!service) return status;

    const std::string group = item.accessGroup.value_or(kDefaultGroup);
    const auto existing = operation.search(service.get(), item.service, group, false, status);
    if (!existing) return status;
    if (!existing->empty()) return errSecDuplicateItem;

    ErrorSlot error;
    const ObjectPtr<SecretCollection> collection(secret_collection_for_alias_sync(
        service.get(), SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, operation.cancellable(),
        error.out()));
    if (!collection) {
      if (error.get() != nullptr) return operation.fail("opening the default keyring", error.get());
      return operation.fail("opening the default keyring", errSecNotAvailable,
                            "the Secret Service has no default keyring");
    }
    if (secret_collection_get_locked(collection.get())) {
      return operation.fail("opening the default keyring", errSecInteractionNotAllowed,
                            "the default keyring is locked");
    }

    const ValuePtr value(secret_value_new(item.data.data(), static_cast<gssize>(item.data.size()),
                                          "application/octet-stream"));
    const AttributesPtr attributes = newAttributes(item.service, group);
    const std::string label = item.accessGroup ? item.service + " (" + group + ")" : item.service;
    const ObjectPtr<SecretItem> created(secret_item_create_sync(
        collection.get(), schema(), attributes.get(), label.c_str(), value.get(),
        SECRET_ITEM_CREATE_NONE, operation.cancellable(), error.out()));
    if (!created) return operation.fail("creating the item", error.get());
    return errSecSuccess;
  } catch (const std::exception& e) {
    KEL_LOG_ERROR("SecItemAdd(_:)", std::string("Keychain add: ") + e.what());
    return errSecInternalComponent;
  }
}

KeychainMatch SecretServiceKeychain::copyMatching(const KeychainQuery& query) {
  if (!validKey(query.service, query.accessGroup)) return {errSecParam, {}};
  try {
    std::lock_guard lock(state_->mutex);
    Operation operation("copyMatching", state_->timeout);
    OSStatus status = errSecSuccess;
    const ObjectPtr<SecretService> service = operation.connect(status);
    if (!service) return {status, {}};

    const auto found = operation.search(service.get(), query.service,
                                        query.accessGroup.value_or(kDefaultGroup), true, status);
    if (!found) return {status, {}};
    if (found->empty()) return {errSecItemNotFound, {}};
    SecretItem* item = found->front().item.get();
    if (secret_item_get_locked(item)) {
      return {operation.fail("reading the item", errSecInteractionNotAllowed, "the item is locked"),
              {}};
    }
    const ValuePtr value(secret_item_get_secret(item));
    if (!value) {
      return {operation.fail("reading the item", errSecInternalComponent, "no secret was loaded"),
              {}};
    }
    gsize length = 0;
    const gchar* bytes = secret_value_get(value.get(), &length);
    return {errSecSuccess, std::string(bytes, length)};
  } catch (const std::exception& e) {
    KEL_LOG_ERROR("SecItemCopyMatching(_:)", std::string("Keychain copyMatching: ") + e.what());
    return {errSecInternalComponent, {}};
  }
}

OSStatus SecretServiceKeychain::deleteItems(const KeychainQuery& query) {
  if (!validKey(query.service, query.accessGroup)) return errSecParam;
  try {
    std::lock_guard lock(state_->mutex);
    Operation operation("deleteItems", state_->timeout);
    OSStatus status = errSecSuccess;
    const ObjectPtr<SecretService> service = operation.connect(status);
    if (!service) return status;

    const auto found = operation.search(service.get(), query.service,
                                        query.accessGroup.value_or(kDefaultGroup), false, status);
    if (!found) return status;
    if (found->empty()) return errSecItemNotFound;
    // All or nothing where we can tell beforehand: a locked item keeps every match in place.
    for (const FoundItem& each : *found) {
      if (secret_item_get_locked(each.item.get())) {
        return operation.fail("deleting", errSecInteractionNotAllowed, "an item is locked");
      }
    }
    for (const FoundItem& each : *found) {
      ErrorSlot error;
      if (!secret_item_delete_sync(each.item.get(), operation.cancellable(), error.out())) {
        const GError* cause = error.get();
        // Someone else deleted it first: the outcome we wanted.
        if (cause != nullptr && cause->domain == SECRET_ERROR &&
            cause->code == SECRET_ERROR_NO_SUCH_OBJECT) {
          continue;
        }
        return operation.fail("deleting an item", cause);
      }
    }
    return errSecSuccess;
  } catch (const std::exception& e) {
    KEL_LOG_ERROR("SecItemDelete(_:)", std::string("Keychain deleteItems: ") + e.what());
    return errSecInternalComponent;
  }
}

}  // namespace kel::platform
