// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/SecretService.h"

#include <condition_variable>
#include <thread>

#include "platform/linux/SecretLibrary.h"

namespace dorvane {
namespace {

const SecretSchema schema = {
    "com.dorvane.app.GenericPassword", 0, {{"service", 0}, {"account", 0}, {nullptr, 0}}, 0, {}};

/// Owns one of the libraries' objects.
template <typename T>
using Owned = std::unique_ptr<T, void (*)(T*)>;

}  // namespace

struct SecretService::Connection {
    SecretLibrary library;
    Owned<void> bus{nullptr, library.g_object_unref};
    Owned<void> service{nullptr, library.g_object_unref};

    explicit Connection(Duration timeLimit);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { library.secret_service_disconnect(); }
};

namespace {

/// One call into the library: its time limit and its error.
class Operation {
  public:
    Operation(const SecretLibrary& library, Duration limit)
        : library_(library),
          cancellable_(library.g_cancellable_new()),
          watcher_([this, limit](const std::stop_token& ended) {
              std::mutex mutex;
              std::condition_variable_any wake;
              std::unique_lock lock(mutex);
              wake.wait_for(lock, ended, limit, [] { return false; });
              if (!ended.stop_requested()) library_.g_cancellable_cancel(cancellable_);
          }) {}
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;
    ~Operation() {
        watcher_ = {};  // waits for its end
        library_.g_object_unref(cancellable_);
        if (error_ != nullptr) library_.g_error_free(error_);
    }

    GCancellable* limit() const { return cancellable_; }
    GError** error() { return &error_; }
    void check() const {
        if (error_ != nullptr) throw SecretServiceError(error_->message);
    }

  private:
    const SecretLibrary& library_;
    GCancellable* cancellable_;
    GError* error_ = nullptr;
    std::jthread watcher_;
};

}  // namespace

SecretService::Connection::Connection(Duration timeLimit) {
    Operation operation(library, timeLimit);
    bus.reset(library.g_bus_get_sync(sessionBus, operation.limit(), operation.error()));
    operation.check();
    // The library would end this process, guests and all, when the user's bus goes away at log-out.
    library.g_dbus_connection_set_exit_on_close(bus.get(), 0);
    service.reset(library.secret_service_get_sync(openSession, operation.limit(), operation.error()));
    operation.check();
    const Owned<void> collection(library.secret_collection_for_alias_sync(service.get(), defaultCollection, 0,
                                                                          operation.limit(), operation.error()),
                                 library.g_object_unref);
    operation.check();
    if (!collection) throw SecretServiceError("there is no default keyring");
    if (library.secret_collection_get_locked(collection.get()) != 0)
        throw SecretServiceError("the keyring is locked");
}

SecretService::SecretService(Duration timeLimit)
    : timeLimit_(timeLimit), connection_(std::make_unique<Connection>(timeLimit)) {}

SecretService::~SecretService() = default;

std::optional<Bytes> SecretService::read(const std::string& service, const std::string& account) const {
    const auto& library = connection_->library;
    Operation operation(library, timeLimit_);
    const Owned<SecretValue> value(
        library.secret_password_lookup_binary_sync(&schema, operation.limit(), operation.error(), "service",
                                                   service.c_str(), "account", account.c_str(), nullptr),
        library.secret_value_unref);
    operation.check();
    if (!value) return std::nullopt;
    std::size_t size = 0;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(library.secret_value_get(value.get(), &size));
    return Bytes(bytes, bytes + size);
}

void SecretService::save(const std::string& service, const std::string& account, ByteView secret) const {
    const auto& library = connection_->library;
    Operation operation(library, timeLimit_);
    const Owned<SecretValue> value(
        library.secret_value_new(reinterpret_cast<const char*>(secret.data()),
                                 static_cast<std::ptrdiff_t>(secret.size()), "application/octet-stream"),
        library.secret_value_unref);
    const auto label = "Dorvane: " + service;
    library.secret_password_store_binary_sync(&schema, defaultCollection, label.c_str(), value.get(),
                                              operation.limit(), operation.error(), "service", service.c_str(),
                                              "account", account.c_str(), nullptr);
    operation.check();
}

void SecretService::remove(const std::string& service, const std::string& account) const {
    const auto& library = connection_->library;
    Operation operation(library, timeLimit_);
    library.secret_password_clear_sync(&schema, operation.limit(), operation.error(), "service", service.c_str(),
                                       "account", account.c_str(), nullptr);
    operation.check();
}

}  // namespace dorvane
