// SPDX-License-Identifier: Apache-2.0
#include "core/VMRecord.h"

#include "base/Localized.h"
#include "base/Text.h"

namespace dorvane {

JSON SharedFolder::encoded() const {
    return {{"id", id.text()}, {"localPath", localPath}, {"mountPoint", mountPoint}, {"readOnly", readOnly}};
}

SharedFolder SharedFolder::decoded(const JSON& value) {
    const JSONReader reader(value, "The shared folder");
    const auto id = UUID::parse(reader.required<std::string>("id"));
    if (!id) detail::throwMistyped("id", "an identifier");
    return {*id, reader.required<std::string>("localPath"), reader.required<std::string>("mountPoint"),
            reader.required<bool>("readOnly")};
}

JSON DisplayResolution::encoded() const { return {{"width", width}, {"height", height}}; }

DisplayResolution DisplayResolution::decoded(const JSON& value) {
    const JSONReader reader(value, "The display resolution");
    return {reader.required<int>("width"), reader.required<int>("height")};
}

bool VMRecord::hasPendingInstallerImage() const {
    return pendingInstallerImagePath && !trimmed(*pendingInstallerImagePath).empty();
}

std::string VMRecord::listOSDisplayName() const {
    switch (osType) {
        case VMOSType::macOS:
            return "macOS";
        case VMOSType::windows:
            return "Windows";
        case VMOSType::linux:
            break;
    }
    const auto hints = asciiLowercased(osVersionLabel.value_or("") + "\n" + imageSource.value_or(""));
    for (const auto* distribution : {"Ubuntu", "Debian", "Fedora", "Alpine"})
        if (hints.find(asciiLowercased(distribution)) != std::string::npos) return distribution;
    return "Linux";
}

void VMRecord::setBookmark(Bytes data, const std::string& path) {
    if (!bookmarksByPath) bookmarksByPath.emplace();
    bookmarksByPath->insert_or_assign(path, std::move(data));
}

}  // namespace dorvane
