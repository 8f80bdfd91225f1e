// SPDX-License-Identifier: Apache-2.0
// Moving the running guest's system disk onto a new top layer: switched with all its links, or not at all.
#include "base/Text.h"
#include "core/DorvaneError.h"
#include "qemu/QEMUProcessSupervisor.h"

namespace dorvane {
namespace {

constexpr auto overlayTimeout = seconds(10.0);
constexpr auto topNodeTimeout = seconds(5.0);
constexpr auto systemDiskDevice = "sysdisk";

DorvaneError snapshotFailure(const std::exception_ptr& error) {
    return DorvaneError(DorvaneError::Case::vmSnapshotFailed, localizedDescription(error));
}

void repointQuietly(const Path& link, const Path& target) {
    try {
        QEMURuntimeDirectory::repointLink(link, target);
    } catch (const std::exception&) {
        // The child goes on with the file that it has open.
    }
}

/// QEMU must not open the overlay's backing chain by itself: it has the chain open already.
JSON overlayNode(const std::string& node, const Path& file) {
    JSON arguments;
    arguments["driver"] = "qcow2";
    arguments["node-name"] = node;
    arguments["file"] = {{"driver", "file"}, {"filename", file.string()}};
    arguments["backing"] = nullptr;
    return arguments;
}

JSON backingFileChange(const std::string& node, const std::string& backing) {
    return {{"device", systemDiskDevice}, {"image-node-name", node}, {"backing-file", backing}};
}

}  // namespace

struct QEMUProcessSupervisor::OverlaySwitch {
    Path overlay;
    Path movedPreviousLayerTo;
    std::optional<SnapshotParentRewrite> parentRewrite;
    std::string oldNode;
    std::string newNode = "snap" + lowercased(UUID::random().shortText());
    /// Absent when QEMU opens the disk by its own path.
    std::optional<std::pair<Path, Path>> links = {};
    /// How far it came.
    bool isNodeAdded = false;
    bool isParentRewritten = false;

    Path fileForQEMU() const { return links ? links->second : overlay; }
    void undoLinks() const {
        if (!links) return;
        repointQuietly(links->first, overlay);
        removeQuietly(links->second);
    }
};

Task<void> QEMUProcessSupervisor::attachSystemDiskOverlay(
    Path overlay, Path movedPreviousLayerTo, std::optional<SnapshotParentRewrite> parentRewrite) {
    const auto self = shared_from_this();
    const auto connection = requireConnection();
    // Half a switch is worse than a late cancellation.
    co_await ignoreCancellation();
    OverlaySwitch change{std::move(overlay), std::move(movedPreviousLayerTo), std::move(parentRewrite),
                         systemDiskTopNode_};
    prepareLinks(change);
    std::exception_ptr failure;
    try {
        co_await leaveMigratedState(connection);
        co_await switchToOverlay(connection, &change);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure && change.isNodeAdded) {
        const auto top = co_await querySystemDiskTopNode(connection);
        if (top == change.newNode) {
            logger_.error("blockdev-snapshot 报错但切盘已生效,按成功处理: %{public}s", name_);
            failure = nullptr;
        } else {
            co_await rollBackOverlay(connection, &change);
        }
    }
    if (failure) {
        change.undoLinks();
        throw snapshotFailure(failure);
    }
    systemDiskTopNode_ = change.newNode;
    if (change.links) ++systemDiskLinkIndex_;
}

/// Before any command, so that QEMU never sees a path that doesn't resolve.
void QEMUProcessSupervisor::prepareLinks(OverlaySwitch& change) const {
    if (!runtimeDirectory_) return;
    const auto oldLink = runtimeDirectory_->systemDiskLink(systemDiskLinkIndex_);
    const auto newLink = runtimeDirectory_->systemDiskLink(systemDiskLinkIndex_ + 1);
    bool isOldLinkMoved = false;
    try {
        QEMURuntimeDirectory::repointLink(oldLink, change.movedPreviousLayerTo);
        isOldLinkMoved = true;
        removeQuietly(newLink);
        std::filesystem::create_symlink(change.overlay, newLink);
    } catch (...) {
        if (isOldLinkMoved) repointQuietly(oldLink, change.overlay);
        throw snapshotFailure(std::current_exception());
    }
    change.links = {oldLink, newLink};
}

Task<void> QEMUProcessSupervisor::switchToOverlay(std::shared_ptr<QMPConnection> connection,
                                                  OverlaySwitch* change) {
    auto node = overlayNode(change->newNode, change->fileForQEMU());
    co_await connection->execute("blockdev-add", std::move(node), overlayTimeout);
    change->isNodeAdded = true;
    if (change->parentRewrite) {
        // The open layer's header is QEMU's to write, and only while the layer is still writable.
        auto rewrite = backingFileChange(change->oldNode, change->parentRewrite->newBacking);
        co_await connection->execute("change-backing-file", std::move(rewrite), overlayTimeout);
        change->isParentRewritten = true;
    }
    JSON layers{{"node", systemDiskDevice}, {"overlay", change->newNode}};
    co_await connection->execute("blockdev-snapshot", std::move(layers), overlayTimeout);
}

/// Errors are passed over: nothing better can be done, and the first failure is what counts.
Task<void> QEMUProcessSupervisor::rollBackOverlay(std::shared_ptr<QMPConnection> connection,
                                                  OverlaySwitch* change) {
    if (change->isParentRewritten) {
        auto rewrite = backingFileChange(change->oldNode, change->parentRewrite->originalBacking);
        co_await succeeds(connection, "change-backing-file", overlayTimeout, std::move(rewrite));
    }
    JSON node{{"node-name", change->newNode}};
    co_await succeeds(connection, "blockdev-del", overlayTimeout, std::move(node));
}

Task<std::optional<std::string>> QEMUProcessSupervisor::querySystemDiskTopNode(
    std::shared_ptr<QMPConnection> connection) {
    QMPObject answer;
    try {
        answer = co_await connection->execute("query-block", nullptr, topNodeTimeout);
    } catch (const std::exception&) {
        // Counts as unknown.
    }
    const auto* items = findMember(answer, "_items");
    if (items == nullptr || items->array() == nullptr) co_return std::nullopt;
    for (const auto& item : *items->array()) {
        const auto* device = item.member("device");
        if (device == nullptr || *device != systemDiskDevice) continue;
        const auto* inserted = item.member("inserted");
        const auto* node = inserted == nullptr ? nullptr : inserted->member("node-name");
        if (node != nullptr && node->string() != nullptr) co_return *node->string();
    }
    co_return std::nullopt;
}

}  // namespace dorvane
