// SPDX-License-Identifier: Apache-2.0
#include "rfb/Source.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "rfb/ThreadTime.h"
#include "runtime/FileDescriptor.h"
#include "runtime/SystemError.h"

namespace dorvane::bench {
namespace {

constexpr int socketBufferBytes = 8'388'608;  // as the product asks for
constexpr std::size_t writeBytes = 262'144;   // what a server sends at once
// No open descriptor; below what libvncclient puts into a descriptor set.
constexpr int memoryDescriptor = 1'000;

class MemorySource : public Source {
  public:
    explicit MemorySource(ByteView bytes) : bytes_(bytes) { current = this; }
    ~MemorySource() override { current = nullptr; }

    int descriptor() const override { return memoryDescriptor; }
    std::size_t readv(std::span<const iovec> spans) override {
        std::size_t total = 0;
        for (const auto& span : spans) {
            const auto count = take(span.iov_base, span.iov_len);
            total += count;
            if (count < span.iov_len) break;
        }
        return total;
    }
    std::size_t take(void* into, std::size_t count) {
        if (sent_.empty()) send();
        count = std::min(count, sent_.size());
        std::memcpy(into, sent_.data(), count);
        sent_ = sent_.subspan(count);
        return count;
    }
    double serverSeconds() const override { return serverSeconds_; }

    static inline MemorySource* current = nullptr;

  private:
    /// Brings the next bytes near the processor.
    void send() {
        const auto start = threadSeconds();
        const auto count = std::min(outbox_.size(), bytes_.size());
        std::memcpy(outbox_.data(), bytes_.data(), count);
        sent_ = ByteView(outbox_).first(count);
        bytes_ = bytes_.subspan(count);
        serverSeconds_ += threadSeconds() - start;
    }

    ByteView bytes_, sent_;
    Bytes outbox_ = Bytes(writeBytes);
    double serverSeconds_ = 0;
};

class SocketSource : public Source {
  public:
    explicit SocketSource(ByteView bytes) {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throw POSIXError(errno);
        reader_ = FileDescriptor(ends[0]);
        writer_ = FileDescriptor(ends[1]);
        ::setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &socketBufferBytes, sizeof socketBufferBytes);
        thread_ = std::jthread([this, bytes] { write(bytes); });
    }
    ~SocketSource() override { reader_.reset(); }

    int descriptor() const override { return reader_.get(); }
    std::size_t readv(std::span<const iovec> spans) override {
        const auto count = ::readv(reader_.get(), spans.data(), static_cast<int>(spans.size()));
        return count > 0 ? std::size_t(count) : 0;
    }

  private:
    void write(ByteView bytes) {
        while (!bytes.empty()) {
            const auto count =
                ::send(writer_.get(), bytes.data(), std::min(writeBytes, bytes.size()), MSG_NOSIGNAL);
            if (count <= 0) return;
            bytes = bytes.subspan(std::size_t(count));
        }
        writer_.reset();
    }

    FileDescriptor reader_, writer_;
    std::jthread thread_;
};

}  // namespace

std::unique_ptr<Source> memorySource(ByteView bytes) { return std::make_unique<MemorySource>(bytes); }
std::unique_ptr<Source> socketSource(ByteView bytes) { return std::make_unique<SocketSource>(bytes); }

}  // namespace dorvane::bench

/// Takes the place of the C library's function in this program, libvncclient included.
extern "C" ssize_t read(int fd, void* into, size_t count) {
    using dorvane::bench::MemorySource;
    if (fd == dorvane::bench::memoryDescriptor && MemorySource::current)
        return static_cast<ssize_t>(MemorySource::current->take(into, count));
    return ::syscall(SYS_read, fd, into, count);
}
