// SPDX-License-Identifier: Apache-2.0
// The few operations of libsecret and GLib that the secret service needs, opened while running.
#pragma once

#include <cstddef>

namespace dorvane {

// The libraries' public types, as far as their callers see them (libsecret 0.18 and later, GLib 2.26 and
// later).
struct GError {
    unsigned domain;
    int code;
    char* message;
};
struct GCancellable;
struct SecretValue;
struct SecretSchema {
    const char* name;
    int flags;
    struct {
        const char* name;
        int type;
    } attributes[32];
    int reserved;
    void* moreReserved[7];
};

constexpr int sessionBus = 2;                  // G_BUS_TYPE_SESSION
constexpr int openSession = 1 << 1;            // SECRET_SERVICE_OPEN_SESSION
constexpr auto defaultCollection = "default";  // SECRET_COLLECTION_DEFAULT

/// Opened only in sessions that have a message bus, so that no other start pays for these libraries, and a
/// host without them still runs. They stay loaded: GLib can't be unloaded.
struct SecretLibrary {
    /// Throws SecretServiceError when the library, or an operation in it, is missing.
    SecretLibrary();

    GCancellable* (*g_cancellable_new)();
    void (*g_cancellable_cancel)(GCancellable*);
    void (*g_object_unref)(void*);
    void (*g_error_free)(GError*);
    void* (*g_bus_get_sync)(int type, GCancellable*, GError**);
    void (*g_dbus_connection_set_exit_on_close)(void* connection, int exitOnClose);
    void* (*secret_service_get_sync)(int flags, GCancellable*, GError**);
    void (*secret_service_disconnect)();
    void* (*secret_collection_for_alias_sync)(void* service, const char* alias, int flags, GCancellable*,
                                              GError**);
    int (*secret_collection_get_locked)(void* collection);
    SecretValue* (*secret_value_new)(const char* secret, std::ptrdiff_t length, const char* contentType);
    const char* (*secret_value_get)(SecretValue*, std::size_t* length);
    void (*secret_value_unref)(SecretValue*);
    SecretValue* (*secret_password_lookup_binary_sync)(const SecretSchema*, GCancellable*, GError**, ...);
    int (*secret_password_store_binary_sync)(const SecretSchema*, const char* collection, const char* label,
                                             SecretValue*, GCancellable*, GError**, ...);
    int (*secret_password_clear_sync)(const SecretSchema*, GCancellable*, GError**, ...);
};

}  // namespace dorvane
