// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUChildEnvironment.h"

namespace dorvane {

std::optional<Environment> qemuChildEnvironment(const Environment& own, const Environment& package,
                                                const QEMURuntimePaths& paths) {
    if (package.empty() && !paths.renderServer) return std::nullopt;
    auto result = own;
    for (const auto& [key, value] : package) result[key] = value;
    if (!paths.renderServer) return result;
    result["RENDER_SERVER_EXEC_PATH"] = paths.renderServer->string();
    result.erase("APP_SANDBOX_GROUP_ID");
    if (paths.sandboxGroupID) result["APP_SANDBOX_GROUP_ID"] = *paths.sandboxGroupID;
    return result;
}

}  // namespace dorvane
