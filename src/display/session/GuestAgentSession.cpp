// SPDX-License-Identifier: Apache-2.0
#include "display/session/GuestAgentSession.h"

#include "core/DorvaneError.h"

namespace dorvane {
namespace {

constexpr auto agentConnectTimeout = seconds(10);

std::optional<HostClipboardKind> kindOf(VDAgentClipboardFormat format) {
    switch (format) {
        case VDAgentClipboardFormat::utf8Text:
            return HostClipboardKind::text;
        case VDAgentClipboardFormat::png:
            return HostClipboardKind::image;
        case VDAgentClipboardFormat::fileList:
            return HostClipboardKind::files;
        default:
            return std::nullopt;
    }
}

VDAgentClipboardFormat formatOf(HostClipboardKind kind) {
    switch (kind) {
        case HostClipboardKind::text:
            return VDAgentClipboardFormat::utf8Text;
        case HostClipboardKind::image:
            return VDAgentClipboardFormat::png;
        case HostClipboardKind::files:
            return VDAgentClipboardFormat::fileList;
    }
    return VDAgentClipboardFormat::none;
}

std::set<HostClipboardKind> kindsOf(const std::vector<VDAgentClipboardFormat>& formats) {
    std::set<HostClipboardKind> kinds;
    for (const auto format : formats)
        if (const auto kind = kindOf(format)) kinds.insert(*kind);
    return kinds;
}

}  // namespace

/// A callback of the main thread that acts only while the present channel is in use.
template <typename Action>
auto GuestAgentSession::whileOpen(Action action) {
    return [weak = weak_from_this(), generation = generation_, action](const auto&... arguments) {
        const auto self = weak.lock();
        if (self && self->generation_ == generation) action(*self, arguments...);
    };
}

/// The same for a callback that comes on any thread.
template <typename Action>
auto GuestAgentSession::onMain(Action action) {
    return [&main = runtime_.main, handler = whileOpen(action)](auto... arguments) {
        main.async([=] { handler(arguments...); });
    };
}

void GuestAgentSession::open(const std::string& socketPath, Options options) {
    if (making_ == nullptr) return;
    options_ = options;
    ++generation_;
    channel_ = making_->makeChannel(socketPath);
    channel_->onReady = onMain([](GuestAgentSession& self, std::uint32_t bits) { self.becameReady(bits); });
    channel_->onMessage = onMain([](GuestAgentSession& self, const VDAgentIncomingMessage::Kind& message) {
        self.handleAgent(message);
    });
    channel_->onDisconnect =
        onMain([](GuestAgentSession& self, const std::exception_ptr&) { self.channelEnded(); });
    connectTask_ = spawn(runtime_.main.executor(), connectChannel(weak_from_this(), channel_, generation_),
                         "connectAgent");
}

Task<void> GuestAgentSession::connectChannel(std::weak_ptr<GuestAgentSession> session,
                                             std::shared_ptr<VDAgentChannel> channel,
                                             std::uint64_t generation) {
    std::exception_ptr failure;
    try {
        co_await channel->connect(agentConnectTimeout);
    } catch (...) {
        failure = std::current_exception();
    }
    const auto self = session.lock();
    if (failure && self && self->generation_ == generation)
        self->logger_.error("客体 agent 通道不可用: %{public}s", localizedDescription(failure));
}

void GuestAgentSession::becameReady(std::uint32_t capabilities) {
    if (registry_ != nullptr && options_.vmID) registry_->noteGuestTools(*options_.vmID, capabilities);
    if (options_.sharesClipboard) startClipboard();
    if (options_.acceptsFileDrops) startFileTransfers();
    changed();
}

void GuestAgentSession::startClipboard() {
    clipboard_ = making_->makeClipboardBridge();
    const auto provide = [this](HostClipboardKind kind) {
        return whileOpen([kind](GuestAgentSession& self, ByteView content) {
            self.channel_->sendClipboard(formatOf(kind), content);
        });
    };
    clipboard_->onProvideText = [text = provide(HostClipboardKind::text)](const std::string& content) {
        text(asBytes(content));
    };
    clipboard_->onProvideImage = provide(HostClipboardKind::image);
    clipboard_->onProvideFiles = provide(HostClipboardKind::files);
    clipboard_->onAnnounce =
        whileOpen([](GuestAgentSession& self, const auto& kinds) { self.announce(kinds); });
    clipboard_->onRequest = whileOpen([](GuestAgentSession& self, HostClipboardKind kind) {
        self.channel_->sendClipboardRequest(formatOf(kind));
    });
    clipboard_->onFilesDeclined = whileOpen([](GuestAgentSession& self, const std::string& message) {
        self.show({{}, message, true, true});
    });
    clipboard_->sharesFiles = options_.acceptsFileDrops;
    clipboard_->start();
}

void GuestAgentSession::startFileTransfers() {
    fileTransfer_ = making_->makeFileTransfer(channel_);
    fileTransfer_->onProgress = whileOpen([](GuestAgentSession& self, const FileTransferProgress& progress) {
        auto presentation = self.fileDrop_.value_or(FileDropPresentation{});
        presentation.progress = progress;
        presentation.isFinished = false;
        self.show(std::move(presentation));
    });
    fileTransfer_->onItemFinished =
        whileOpen([](GuestAgentSession& self, const FileTransferItem&, const std::exception_ptr& error) {
            if (!error) return;
            auto presentation = self.fileDrop_.value_or(FileDropPresentation{});
            presentation.message = localizedDescription(error);
            presentation.isError = true;
            self.show(std::move(presentation));
        });
    fileTransfer_->onQueueDrained = whileOpen([](GuestAgentSession& self) {
        auto presentation = self.fileDrop_.value_or(FileDropPresentation{});
        presentation.progress.reset();
        presentation.isFinished = true;
        self.show(std::move(presentation));
    });
    canAcceptFileDrops_ = true;
}

void GuestAgentSession::handleAgent(const VDAgentIncomingMessage::Kind& message) {
    if (const auto* status = std::get_if<VDAgentIncomingMessage::FileTransferStatus>(&message)) {
        if (fileTransfer_) fileTransfer_->handleStatus(status->id, status->status);
        return;
    }
    const auto* data = std::get_if<VDAgentIncomingMessage::ClipboardData>(&message);
    if (data != nullptr && data->format == VDAgentClipboardFormat::fileList)
        logger_.info("客体发来了文件剪贴板内容,反方向没有实现,已丢弃");
    if (!clipboard_) return;
    if (const auto* grab = std::get_if<VDAgentIncomingMessage::ClipboardGrab>(&message))
        clipboard_->guestDidGrab(kindsOf(grab->formats));
    else if (const auto* request = std::get_if<VDAgentIncomingMessage::ClipboardRequest>(&message)) {
        if (const auto kind = kindOf(request->format)) clipboard_->guestRequests(*kind);
    } else if (data != nullptr)
        handleClipboardData(*data);
    else if (std::holds_alternative<VDAgentIncomingMessage::ClipboardRelease>(message))
        clipboard_->guestDidRelease();
}

void GuestAgentSession::handleClipboardData(const VDAgentIncomingMessage::ClipboardData& data) {
    switch (data.format) {
        case VDAgentClipboardFormat::utf8Text:
            return clipboard_->guestDidProvideText(data.content);
        case VDAgentClipboardFormat::png:
            return clipboard_->guestDidProvideImage(data.content);
        default:
            return;
    }
}

void GuestAgentSession::announce(const std::set<HostClipboardKind>& kinds) {
    const bool takesFiles = channel_->guestSupports(vdAgentClipboardFileListBit);
    std::vector<VDAgentClipboardFormat> formats;
    for (const auto kind : kinds)
        if (kind != HostClipboardKind::files || takesFiles) formats.push_back(formatOf(kind));
    if (!formats.empty()) channel_->sendClipboardGrab(formats);
    if (takesFiles || !kinds.contains(HostClipboardKind::files) || didWarnAboutOutdatedGuestTools_) return;
    didWarnAboutOutdatedGuestTools_ = true;
    show({{},
          localized(
              "The guest tools inside Windows are out of date, so pasting files there does nothing. Close "
              "this window and run Install-Dorvane-Drivers in Windows"),
          true,
          true});
}

void GuestAgentSession::channelEnded() {
    if (registry_ != nullptr && options_.vmID) registry_->removeGuestTools(*options_.vmID);
    if (clipboard_) clipboard_->stop();
    canAcceptFileDrops_ = false;
    const auto transfer = fileTransfer_;
    if (transfer) transfer->agentDisconnected();
    changed();
}

void GuestAgentSession::close() {
    if (!channel_) return;
    ++generation_;
    endClipboardAndTransfers();
    fileDrop_.reset();
    canAcceptFileDrops_ = false;
    channel_->close();
    channel_.reset();
    connectTask_ = TaskHandle();
    if (registry_ != nullptr && options_.vmID) registry_->removeGuestTools(*options_.vmID);
}

void GuestAgentSession::endClipboardAndTransfers() {
    if (fileTransfer_) fileTransfer_->cancel();
    if (clipboard_) clipboard_->stop();
    // Perhaps one of their own callbacks brought us here: they go once it has returned.
    runtime_.main.async([transfer = std::move(fileTransfer_), clipboard = std::move(clipboard_)] {});
    fileTransfer_.reset();
    clipboard_.reset();
}

void GuestAgentSession::enqueue(const std::vector<Path>& files) {
    if (!canAcceptFileDrops_ || !fileTransfer_) return;
    if (fileDrop_ && fileDrop_->isFinished) fileDrop_.reset();
    fileTransfer_->enqueue(files);
}

void GuestAgentSession::dismissFileDrop() {
    const auto self = shared_from_this();  // an observer of the cancelled transfer may drop it
    if (fileTransfer_ && fileDrop_ && !fileDrop_->isFinished) fileTransfer_->cancel();
    fileDrop_.reset();
    changed();
}

void GuestAgentSession::show(FileDropPresentation presentation) {
    fileDrop_ = std::move(presentation);
    changed();
}

void GuestAgentSession::changed() const {
    if (onChange) onChange();
}

}  // namespace dorvane
