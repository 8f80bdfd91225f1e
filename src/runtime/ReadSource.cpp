// SPDX-License-Identifier: Apache-2.0
#include "runtime/ReadSource.h"

#include <boost/asio/posix/stream_descriptor.hpp>

#include "runtime/Logger.h"

namespace dorvane {

struct ReadSource::State : std::enable_shared_from_this<State> {
    State(const SerialQueue& queue, FileDescriptor fd, std::function<void()> handler)
        : stream(queue.executor(), fd.release()), onReadable(std::move(handler)) {}

    void watch() {
        stream.async_wait(
            asio::posix::stream_descriptor::wait_read,
            [self = shared_from_this()](const boost::system::error_code& error) {
                if (error || !self->onReadable) return;
                // A copy keeps the handler alive while it cancels its own source.
                const auto handler = self->onReadable;
                try {
                    handler();
                } catch (const std::exception& failure) {
                    Logger("ReadSource").error("A read handler failed: %{public}s", failure.what());
                    self->cancel();
                }
                if (self->onReadable) self->watch();
            });
    }

    void cancel() {
        onReadable = nullptr;
        boost::system::error_code ignored;
        stream.close(ignored);
    }

    asio::posix::stream_descriptor stream;
    std::function<void()> onReadable;
};

ReadSource::ReadSource(const SerialQueue& queue, FileDescriptor fd, std::function<void()> onReadable)
    : state_(std::make_shared<State>(queue, std::move(fd), std::move(onReadable))) {
    state_->watch();
}

ReadSource::~ReadSource() { cancel(); }

int ReadSource::descriptor() const { return state_->stream.is_open() ? state_->stream.native_handle() : -1; }

void ReadSource::cancel() { state_->cancel(); }

}  // namespace dorvane
