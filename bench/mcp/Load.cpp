// SPDX-License-Identifier: Apache-2.0
#include "mcp/Load.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace dorvane::bench {
namespace {

using SteadyClock = std::chrono::steady_clock;

std::string requestText(const ServerChild& server) {
    const std::string body = R"({"jsonrpc":"2.0","id":1,"method":"tools/list"})";
    return "POST /mcp/" + server.token() + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) +
           "\r\nContent-Type: application/json\r\nAccept: application/json, "
           "text/event-stream\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

FileDescriptor connectTo(int port) {
    FileDescriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("could not connect");
    return fd;
}

/// Sends the request and reads until the server closes; the answer stands in `buffer`.
void exchange(int port, const std::string& request, std::string& buffer) {
    const auto fd = connectTo(port);
    if (::send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size()))
        throw std::runtime_error("could not send");
    buffer.resize(65536);
    std::size_t size = 0;
    for (;;) {
        const auto count = ::recv(fd.get(), buffer.data() + size, buffer.size() - size, 0);
        if (count < 0) throw std::runtime_error("the connection was reset");
        if (count == 0) break;
        size += static_cast<std::size_t>(count);
    }
    buffer.resize(size);
}

std::size_t countTools(const std::string& answer) {
    constexpr std::string_view mark = "\"inputSchema\"";
    std::size_t count = 0;
    for (auto at = answer.find(mark); at != std::string::npos; at = answer.find(mark, at + mark.size()))
        ++count;
    return answer.starts_with("HTTP/1.1 200 ") ? count : 0;
}

class Clients {
  public:
    Clients(const ServerChild& server, std::size_t tools)
        : port_(server.port()), request_(requestText(server)), tools_(tools) {}

    std::size_t run(int clients, SteadyClock::time_point until) {
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < clients; ++i) threads.emplace_back([&] { runOne(until); });
        }
        if (failure_) std::rethrow_exception(failure_);
        return requests_;
    }

  private:
    void runOne(SteadyClock::time_point until) {
        std::size_t done = 0;
        std::string answer;
        try {
            while (SteadyClock::now() < until) {
                exchange(port_, request_, answer);
                if (countTools(answer) < tools_)
                    throw std::runtime_error("unexpected answer: " + answer.substr(0, 200));
                ++done;
            }
        } catch (...) {
            const std::lock_guard lock(mutex_);
            failure_ = std::current_exception();
        }
        requests_ += done;
    }

    const int port_;
    const std::string request_;
    const std::size_t tools_;
    std::atomic<std::size_t> requests_ = 0;
    std::mutex mutex_;
    std::exception_ptr failure_;
};

}  // namespace

LoadResult runLoad(const ServerChild& server, int clients, double seconds, std::size_t tools) {
    LoadResult result;
    const auto cpuBefore = server.cpuSeconds();
    const auto start = SteadyClock::now();
    const auto until =
        start + std::chrono::duration_cast<SteadyClock::duration>(std::chrono::duration<double>(seconds));
    result.requests = Clients(server, tools).run(clients, until);
    result.seconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
    result.serverCPUSeconds = server.cpuSeconds() - cpuBefore;
    return result;
}

bool refusesSeventeenth(const ServerChild& server) {
    constexpr int heldConnections = 16;
    const auto request = requestText(server);
    std::string answer;
    {
        std::vector<FileDescriptor> held;
        for (int i = 0; i < heldConnections; ++i) {
            held.push_back(connectTo(server.port()));
            // The server has taken this one when it has read something of it.
            ::send(held.back().get(), "P", 1, MSG_NOSIGNAL);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const auto extra = connectTo(server.port());
        ::send(extra.get(), request.data(), request.size(), MSG_NOSIGNAL);
        char byte = 0;
        if (::recv(extra.get(), &byte, 1, 0) > 0) return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    exchange(server.port(), request, answer);
    return countTools(answer) > 0;
}

}  // namespace dorvane::bench
