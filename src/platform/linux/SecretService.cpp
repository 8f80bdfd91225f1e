// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/SecretService.h"

#include <future>
#include <thread>

#include "platform/linux/SecretLibrary.h"

namespace dorvane {
namespace {

const SecretSchema schema = {
    "com.dorvane.app.GenericPassword", 0, {{"service", 0}, {"account", 0}, {nullptr, 0}}, 0, {}};

/// Owns one of the libraries' objects.
template <typename T>
using Owned = std::unique_ptr<T, void (*)(T*)>;

/// What one call into the library needs besides its arguments: the right to end it, and its error.
class Call {
  public:
    explicit Call(const SecretLibrary& library)
        : library_(library), cancellable_(library.g_cancellable_new()) {}
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    ~Call() {
        library_.g_object_unref(cancellable_);
        if (error_ != nullptr) library_.g_error_free(error_);
    }

    GCancellable* cancellable() const { return cancellable_; }
    GError** error() { return &error_; }
    void check() const {
        if (error_ != nullptr) throw SecretServiceError(error_->message);
    }
    void cancel() const { library_.g_cancellable_cancel(cancellable_); }

  private:
    const SecretLibrary& library_;
    GCancellable* cancellable_;
    GError* error_ = nullptr;
};

/// Runs `work` on a thread of its own and waits for it no longer than `limit`. The library heeds a
/// cancellation in most places only, so a thread that is late is left to itself: `work` holds whatever it
/// uses.
template <typename Work>
auto runLimited(const std::shared_ptr<const SecretLibrary>& library, Duration limit, Work work) {
    const auto call = std::make_shared<Call>(*library);
    std::packaged_task task([library, call, work = std::move(work)] { return work(*library, *call); });
    auto outcome = task.get_future();
    std::thread(std::move(task)).detach();
    if (outcome.wait_for(limit) != std::future_status::ready) {
        call->cancel();
        throw SecretServiceError("it did not answer in time");
    }
    return outcome.get();
}

}  // namespace

struct SecretService::Connection {
    Connection(std::shared_ptr<const SecretLibrary> opened, Call& call);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { library->secret_service_disconnect(); }

    std::shared_ptr<const SecretLibrary> library;
    Owned<void> bus{nullptr, library->g_object_unref};
    Owned<void> service{nullptr, library->g_object_unref};
};

SecretService::Connection::Connection(std::shared_ptr<const SecretLibrary> opened, Call& call)
    : library(std::move(opened)) {
    bus.reset(library->g_bus_get_sync(sessionBus, call.cancellable(), call.error()));
    call.check();
    // The library would end this process, guests and all, when the user's bus goes away at log-out.
    library->g_dbus_connection_set_exit_on_close(bus.get(), 0);
    service.reset(library->secret_service_get_sync(openSession, call.cancellable(), call.error()));
    call.check();
    const Owned<void> collection(library->secret_collection_for_alias_sync(
                                     service.get(), defaultCollection, 0, call.cancellable(), call.error()),
                                 library->g_object_unref);
    call.check();
    if (!collection) throw SecretServiceError("there is no default keyring");
    if (library->secret_collection_get_locked(collection.get()) != 0)
        throw SecretServiceError("the keyring is locked");
}

SecretService::SecretService(Duration timeLimit) : timeLimit_(timeLimit) {
    const auto opened = std::make_shared<const SecretLibrary>();
    connection_ = runLimited(opened, timeLimit_, [opened](const SecretLibrary&, Call& call) {
        return std::make_shared<Connection>(opened, call);
    });
}

SecretService::~SecretService() = default;

std::optional<Bytes> SecretService::read(const std::string& service, const std::string& account) const {
    const auto work = [held = connection_, service, account](const SecretLibrary& library,
                                                             Call& call) -> std::optional<Bytes> {
        const Owned<SecretValue> value(
            library.secret_password_lookup_binary_sync(&schema, call.cancellable(), call.error(), "service",
                                                       service.c_str(), "account", account.c_str(), nullptr),
            library.secret_value_unref);
        call.check();
        if (!value) return std::nullopt;
        std::size_t size = 0;
        const auto* bytes =
            reinterpret_cast<const std::uint8_t*>(library.secret_value_get(value.get(), &size));
        return Bytes(bytes, bytes + size);
    };
    return runLimited(connection_->library, timeLimit_, work);
}

void SecretService::save(const std::string& service, const std::string& account, ByteView secret) const {
    const auto work = [held = connection_, service, account, bytes = std::string(asText(secret))](
                          const SecretLibrary& library, Call& call) {
        const Owned<SecretValue> value(
            library.secret_value_new(bytes.data(), static_cast<std::ptrdiff_t>(bytes.size()),
                                     "application/octet-stream"),
            library.secret_value_unref);
        const auto label = "Dorvane: " + service;
        library.secret_password_store_binary_sync(&schema, defaultCollection, label.c_str(), value.get(),
                                                  call.cancellable(), call.error(), "service",
                                                  service.c_str(), "account", account.c_str(), nullptr);
        call.check();
    };
    runLimited(connection_->library, timeLimit_, work);
}

void SecretService::remove(const std::string& service, const std::string& account) const {
    const auto work = [held = connection_, service, account](const SecretLibrary& library, Call& call) {
        library.secret_password_clear_sync(&schema, call.cancellable(), call.error(), "service",
                                           service.c_str(), "account", account.c_str(), nullptr);
        call.check();
    };
    runLimited(connection_->library, timeLimit_, work);
}

}  // namespace dorvane
