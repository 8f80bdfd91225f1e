// SPDX-License-Identifier: Apache-2.0
#include "snapshots/SnapshotChainLayout.h"

#include <algorithm>
#include <array>
#include <fstream>

#include "base/Localized.h"
#include "core/DorvaneError.h"
#include "snapshots/SnapshotChainFiles.h"

namespace dorvane {
namespace {

template <typename... Arguments>
[[noreturn]] void refuse(std::string_view sentence, const Arguments&... arguments) {
    throw DorvaneError(DorvaneError::Case::vmSnapshotFailed, localized(sentence, arguments...));
}

/// Whether the image's clusters stand in another file (QEMU's docs/interop/qcow2.txt: bit 2 of the
/// incompatible features, which headers have from version 3 on).
bool keepsDataElsewhere(const Path& image) {
    constexpr std::uint32_t magic = 0x514649FB;
    constexpr std::size_t versionOffset = 4, lowFeaturesOffset = 76;
    constexpr std::uint32_t externalData = 1 << 2;
    std::array<std::uint8_t, 80> header{};
    std::ifstream file(image, std::ios::binary);
    if (!file.read(reinterpret_cast<char*>(header.data()), header.size())) return false;
    return loadBE32(header.data()) == magic && loadBE32(header.data() + versionOffset) >= 3 &&
           (loadBE32(header.data() + lowFeaturesOffset) & externalData) != 0;
}

}  // namespace

void SnapshotChainLayout::requireDisk(const SnapshotChainNode& node) const {
    const auto disk = node.diskURL(bundle_);
    if (!node.isLive()) {
        for (const auto& directory : {bundle_.snapshotsDirectory(), disk.parent_path()})
            if (isThere(directory) && !chainfiles::isDirectory(directory))
                refuse("The snapshot folder %@ is not a folder.", directory.string());
    }
    if (isThere(chainfiles::rebasingMark(disk)))
        refuse("A change to the disk %@ was interrupted and is not mended yet.", disk.string());
    if (!isThere(disk)) refuse("The disk %@ is missing.", disk.string());
    if (!chainfiles::isRegularFile(disk)) refuse("The disk %@ is not a plain file.", disk.string());
    if (keepsDataElsewhere(disk)) refuse("The disk %@ keeps its data in another file.", disk.string());
}

std::optional<UUID> SnapshotChainLayout::parent(const SnapshotChainNode& node) const {
    requireDisk(node);
    const auto disk = node.diskURL(bundle_);
    const auto backing = tool_.backingPath(disk);
    if (!backing) return std::nullopt;
    const auto id = SnapshotChainNode::snapshotID(*backing);
    if (!id || *backing != node.backingPath(*id))
        refuse("The disk %@ is based on \"%@\", which is not a snapshot of this VM.", disk.string(),
               *backing);
    return id;
}

std::vector<UUID> SnapshotChainLayout::ancestors(const SnapshotChainNode& node) const {
    return ancestors(node, {});
}

std::vector<UUID> SnapshotChainLayout::ancestors(const SnapshotChainNode& node, const Layers& known) const {
    std::vector<UUID> chain;
    auto next = parent(node);
    while (next && !known.contains(*next)) {
        if (next == node.snapshotID() || std::find(chain.begin(), chain.end(), *next) != chain.end())
            refuse("The snapshots of this VM run in a circle at %@.", next->text());
        chain.push_back(*next);
        next = parent(SnapshotChainNode::snapshot(*next));
    }
    return chain;
}

void SnapshotChainLayout::requireOwnLayers() const {
    Layers sound;
    const auto check = [&](const SnapshotChainNode& node) {
        if (node.snapshotID() && sound.contains(*node.snapshotID())) return;
        if (!isThere(node.diskURL(bundle_))) return;
        const auto chain = ancestors(node, sound);
        sound.insert(chain.begin(), chain.end());
        if (node.snapshotID()) sound.insert(*node.snapshotID());
    };
    check(SnapshotChainNode::live());
    const auto folder = bundle_.snapshotsDirectory();
    if (!chainfiles::isDirectory(folder)) return;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (const auto id = UUID::parse(entry.path().filename().string()))
            check(SnapshotChainNode::snapshot(*id));
}

}  // namespace dorvane
