// SPDX-License-Identifier: Apache-2.0
// The network side of the MCP server: its listener and its connections, all on one serial queue.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "automation/HTTPRequestParser.h"
#include "automation/LockedString.h"
#include "automation/MCPHTTPResponse.h"
#include "automation/ReceiveDeadline.h"
#include "runtime/Runtime.h"
#include "runtime/StreamConnection.h"
#include "runtime/TaskHandle.h"

namespace dorvane {

/// One request per connection, read with a limit in size and time, then one response. Public operations may
/// be called from any thread. Held by shared pointers: its tasks keep it until they have ended.
class MCPConnectionHost : public std::enable_shared_from_this<MCPConnectionHost> {
  public:
    static constexpr std::size_t maximumConnections = 16;
    static constexpr auto receiveDeadline = seconds(15);
    /// How long a refused client may go on sending before the connection is closed under it.
    static constexpr auto lingerLimit = seconds(1);

    /// Answers a complete request; started on the main thread. Absent closes the connection without a reply.
    using Responder = std::function<Task<std::optional<MCPHTTPResponse>>(HTTPRequestParser::Request)>;
    /// News of one listener, told on the queue: either it is ready, and may fail later, or it fails at once.
    struct ListenerEvents {
        std::function<void()> ready;
        std::function<void(std::string description)> failed;
    };

    /// `token` is what a request's head is checked against at the moment when it arrives.
    MCPConnectionHost(const Runtime& runtime, std::shared_ptr<LockedString> token, Responder responder);

    /// Listens on 127.0.0.1; a listener that stands already is closed.
    void listen(std::uint16_t port, ListenerEvents events);
    /// Takes no new connections; those accepted run to their end.
    void stopListening();
    /// Closes the listener and ends every connection, with the call that it waits for.
    void endAll();
    /// `endAll`, and returns once all of it has ended.
    Task<void> shutdown();

  private:
    using Self = std::shared_ptr<MCPConnectionHost>;
    using Connection = std::shared_ptr<StreamConnection>;
    class Slot;

    static Task<void> acceptConnections(Self self, std::shared_ptr<StreamListener> listener,
                                        ListenerEvents events);
    static Task<void> serve(Self self, Connection connection, std::unique_ptr<Slot> slot);
    static Task<void> converse(Self self, Connection connection);
    static Task<std::optional<MCPHTTPResponse>> call(Self self, HTTPRequestParser::Request request);
    static Task<void> answer(Self self, Connection connection, HTTPRequestParser::Request request);
    static Task<void> refuse(Self self, Connection connection, bool isUnauthorized);
    static Task<void> endTasks(Self self);

    void openListener(std::uint16_t port, ListenerEvents events);
    void closeListener();
    void welcome(Connection connection);
    bool authorizes(const std::string& path, const HTTPRequestParser::Headers& headers) const;

    const Runtime& runtime_;
    const SerialQueue networkQueue_;
    const std::shared_ptr<ReceiveDeadlines> deadlines_;
    const std::shared_ptr<LockedString> tokenForNetwork_;
    const Responder responder_;

    // Touched only on the queue.
    std::shared_ptr<StreamListener> listener_;
    TaskHandle acceptTask_;
    std::vector<TaskHandle> connectionTasks_;
    /// Of the open connections.
    std::set<Slot*> slots_;
};

}  // namespace dorvane
