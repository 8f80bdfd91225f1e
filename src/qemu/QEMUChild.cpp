// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUChild.h"

#include <unistd.h>

#include <array>

#include "runtime/ReadSource.h"
#include "runtime/Sockets.h"

namespace dorvane {
namespace {

constexpr auto lastWordsLimit = seconds(1.0);

}  // namespace

/// Moves what arrives in the pipe to the tail, on a queue of its own.
class QEMUChild::ErrorReader : public std::enable_shared_from_this<ErrorReader> {
  public:
    explicit ErrorReader(const Runtime& runtime) : queue_(runtime.makeQueue("com.dorvane.qemu.stderr")) {}

    const QEMUStderrTail& tail() const { return tail_; }

    void start(FileDescriptor pipe) {
        setNonBlocking(pipe.get(), true);
        auto shared = std::make_shared<FileDescriptor>(std::move(pipe));
        queue_.async([self = shared_from_this(), shared] {
            auto onReadable = [weak = self->weak_from_this()] {
                if (const auto reader = weak.lock()) reader->readAvailable();
            };
            self->source_ =
                std::make_unique<ReadSource>(self->queue_, std::move(*shared), std::move(onReadable));
        });
    }

    void stop() {
        queue_.async([self = shared_from_this()] { self->source_.reset(); });
    }

  private:
    void readAvailable() {
        std::array<std::uint8_t, 16384> chunk;
        const auto count = ::read(source_->descriptor(), chunk.data(), chunk.size());
        if (count > 0) {
            tail_.append(ByteView(chunk).first(static_cast<std::size_t>(count)));
        } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
            source_.reset();
            tail_.markEndOfFile();
        }
    }

    SerialQueue queue_;
    QEMUStderrTail tail_;
    std::unique_ptr<ReadSource> source_;  // touched only on the queue
};

std::shared_ptr<QEMUChild> QEMUChild::start(const Runtime& runtime, ProcessCommand command) {
    command.standardOutput = StandardStream::null;
    command.standardError = StandardStream::pipe;
    return std::shared_ptr<QEMUChild>(new QEMUChild(runtime, ChildProcess::start(command)));
}

QEMUChild::QEMUChild(const Runtime& runtime, std::shared_ptr<ChildProcess> process)
    : runtime_(runtime), process_(std::move(process)), reader_(std::make_shared<ErrorReader>(runtime)) {
    reader_->start(process_->takeStandardError());
}

QEMUChild::~QEMUChild() { reader_->stop(); }

Task<QEMUChild::End> QEMUChild::waitForEnd() const {
    const auto process = process_;
    const auto reader = reader_;
    auto& clock = runtime_.clock;
    const auto status = co_await process->wait();
    co_await reader->tail().waitForEndOfFile(clock, lastWordsLimit);
    reader->stop();
    co_return End{status, reader->tail().text()};
}

}  // namespace dorvane
