// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/SecretLibrary.h"

#include <dlfcn.h>

#include "platform/linux/SecretService.h"

namespace dorvane {
namespace {

template <typename Function>
void find(void* library, const char* name, Function*& function) {
    function = reinterpret_cast<Function*>(::dlsym(library, name));
    if (function == nullptr) throw SecretServiceError("libsecret is too old: it has no " + std::string(name));
}

}  // namespace

SecretLibrary::SecretLibrary() {
    void* library = ::dlopen("libsecret-1.so.0", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (library == nullptr) throw SecretServiceError("libsecret is not installed");
    find(library, "g_cancellable_new", g_cancellable_new);
    find(library, "g_cancellable_cancel", g_cancellable_cancel);
    find(library, "g_object_unref", g_object_unref);
    find(library, "g_error_free", g_error_free);
    find(library, "g_bus_get_sync", g_bus_get_sync);
    find(library, "g_dbus_connection_set_exit_on_close", g_dbus_connection_set_exit_on_close);
    find(library, "secret_service_get_sync", secret_service_get_sync);
    find(library, "secret_service_disconnect", secret_service_disconnect);
    find(library, "secret_collection_for_alias_sync", secret_collection_for_alias_sync);
    find(library, "secret_collection_get_locked", secret_collection_get_locked);
    find(library, "secret_value_new", secret_value_new);
    find(library, "secret_value_get", secret_value_get);
    find(library, "secret_value_unref", secret_value_unref);
    find(library, "secret_password_lookup_binary_sync", secret_password_lookup_binary_sync);
    find(library, "secret_password_store_binary_sync", secret_password_store_binary_sync);
    find(library, "secret_password_clear_sync", secret_password_clear_sync);
}

}  // namespace dorvane
