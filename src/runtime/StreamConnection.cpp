// SPDX-License-Identifier: Apache-2.0
#include "runtime/StreamConnection.h"

#include <sys/socket.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/write.hpp>

#include "runtime/Sockets.h"

namespace dorvane {
namespace {

using AwaitableToken = asio::use_awaitable_t<Executor>;

void throwIfFailed(const boost::system::error_code& error) {
    if (error) throw POSIXError(error.value());
}

}  // namespace

StreamConnection::StreamConnection(SerialQueue queue, FileDescriptor fd, int family)
    : queue_(std::move(queue)), fd_(std::move(fd)), family_(family) {}

StreamConnection::Socket& StreamConnection::socket() {
    if (!socket_) {
        if (!fd_) throw POSIXError(EBADF);
        socket_.emplace(queue_.executor(), asio::generic::stream_protocol(family_, 0), fd_.release());
    }
    return *socket_;
}

Task<std::size_t> StreamConnection::read(Bytes& into, std::size_t maximum) {
    const auto size = into.size();
    into.resize(size + maximum);
    boost::system::error_code error;
    const auto count = co_await socket().async_read_some(asio::buffer(into.data() + size, maximum),
                                                         asio::redirect_error(AwaitableToken{}, error));
    into.resize(size + count);
    if (error == asio::error::eof) co_return 0;
    throwIfFailed(error);
    co_return count;
}

Task<void> StreamConnection::write(ByteView bytes) {
    boost::system::error_code error;
    co_await asio::async_write(socket(), asio::buffer(bytes.data(), bytes.size()),
                               asio::redirect_error(AwaitableToken{}, error));
    throwIfFailed(error);
}

Task<void> StreamConnection::waitReadable() {
    boost::system::error_code error;
    co_await socket().async_wait(asio::socket_base::wait_read, asio::redirect_error(AwaitableToken{}, error));
    throwIfFailed(error);
}

void StreamConnection::close() {
    fd_.reset();
    boost::system::error_code ignored;
    if (socket_) socket_->close(ignored);
}

StreamListener::StreamListener(const SerialQueue& queue, FileDescriptor listeningSocket, int family)
    : queue_(queue), listener_(queue.executor(), listeningSocket.release()), family_(family) {
    listener_.native_non_blocking(true);
}

Task<std::shared_ptr<StreamConnection>> StreamListener::accept() {
    for (;;) {
        FileDescriptor fd(::accept4(listener_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC));
        if (fd) co_return std::make_shared<StreamConnection>(queue_, std::move(fd), family_);
        const int number = errno;
        if (number == EINTR || number == ECONNABORTED) continue;
        if (number != EAGAIN && number != EWOULDBLOCK) throw POSIXError(number);
        boost::system::error_code error;
        co_await listener_.async_wait(asio::posix::stream_descriptor::wait_read,
                                      asio::redirect_error(AwaitableToken{}, error));
        if (!listener_.is_open()) throw POSIXError(ECANCELED);
        throwIfFailed(error);
    }
}

void StreamListener::close() {
    boost::system::error_code ignored;
    listener_.close(ignored);
}

}  // namespace dorvane
