// SPDX-License-Identifier: Apache-2.0
#include "MCPToolFixture.h"
#include "automation/MCPToolTable.h"

namespace dorvane::test {
namespace {

class MCPRequestHandlerTest : public MCPToolFixture {
  protected:
    MCPHTTPResponse handle(std::string method, std::string path, HTTPRequestParser::Headers headers) {
        return host.run(handler->handle({std::move(method), std::move(path), std::move(headers),
                                         toBytes(R"({"id":1,"method":"ping"})")}));
    }
    MCPHTTPResponse post(std::string_view body) {
        return host.run(handler->handle({"POST", "/mcp/secret", {}, toBytes(body)}));
    }
    JSON result(const std::string& method, const std::string& params) {
        const auto reply =
            parseJSON(post(R"({"id":7,"method":")" + method + R"(","params":)" + params + "}").body);
        return reply.value("result", JSON());
    }
};

TEST_F(MCPRequestHandlerTest, checksARequestInItsOrder) {
    using Headers = HTTPRequestParser::Headers;
    const Headers bearer{{"authorization", "Bearer secret"}};
    const Headers foreign{{"origin", "https://example.org"}};
    const struct {
        const char *method, *path;
        Headers headers;
        int status;
    } cases[] = {
        {"POST", "/mcp/secret", {}, 200},
        {"POST", "/mcp", bearer, 200},
        {"POST", "/mcp/secret", {{"origin", "http://localhost:1234"}}, 200},
        {"POST", "/mcp/secret", foreign, 403},
        {"GET", "/elsewhere", foreign, 403},
        {"GET", "/mcpx", bearer, 404},
        {"GET", "/mcp", {}, 401},
        {"GET", "/mcp/secret", {}, 405},
        {"DELETE", "/mcp", bearer, 405},
        {"post", "/mcp", bearer, 405},
    };
    for (const auto& one : cases) {
        const auto response = handle(one.method, one.path, one.headers);
        EXPECT_EQ(response.status, one.status) << one.method << " " << one.path;
        EXPECT_EQ(response.body.empty(), one.status != 200);
        EXPECT_EQ(response.headers.contains("Allow"), one.status == 405);
    }
    token.reset();
    EXPECT_EQ(handle("POST", "/mcp/", {{"authorization", "Bearer "}}).status, 401);
}

TEST_F(MCPRequestHandlerTest, repliesInOneLineWithSortedKeys) {
    const auto ponged = [](const std::string& id) {
        return R"({"id":)" + id + R"(,"jsonrpc":"2.0","result":{}})";
    };
    const auto refused = [](int code, const char* message, const char* id) {
        return R"({"error":{"code":)" + std::to_string(code) + R"(,"message":")" + message + R"("},"id":)" +
               id + R"(,"jsonrpc":"2.0"})";
    };
    const auto unreadable = refused(-32700, "Parse error", "null");
    const auto batch = refused(-32600, "Batch requests are not supported", "null");
    const std::pair<const char*, std::string> cases[] = {
        {R"({"method":"ping","id":1})", ponged("1")},
        {R"({"jsonrpc":"1.0","method":"ping","id":"a\"é"})", ponged(R"("a\"é")")},
        {R"({"method":"ping","id":18446744073709551615})", ponged("18446744073709551615")},
        {R"({"method":"ping","id":-9223372036854775808})", ponged("-9223372036854775808")},
        {R"({"p":{"id":3e1},"method":"ping","id":123456789012345678901234567890})",
         ponged("123456789012345678901234567890")},
        {R"({"method":"ping","id":1.5})", ponged("1.5")},
        {R"({"method":"ping","id":{"b":1,"a":[true]}})", ponged(R"({"a":[true],"b":1})")},
        {R"({"method":"ping","id":false,"params":[1]})", ponged("false")},
        {"{", unreadable},
        {"", unreadable},
        {"\"\xff\"", unreadable},
        {"[]", batch},
        {"3", batch},
        {R"({"id":5})", refused(-32600, "Invalid Request", "5")},
        {R"({"id":"x","method":2})", refused(-32600, "Invalid Request", R"("x")")},
        {R"({"id":1,"method":"a/b"})", refused(-32601, "Method not found: a/b", "1")},
        {R"({"id":1,"method":"tools/call","params":{"name":1}})", refused(-32602, "Missing tool name", "1")},
    };
    for (const auto& [body, reply] : cases) {
        const auto response = post(body);
        EXPECT_EQ(response.status, 200);
        EXPECT_EQ(response.headers, (MCPHTTPResponse::Headers{{"Content-Type", "application/json"}}));
        EXPECT_EQ(response.body, reply) << body;
    }
}

TEST_F(MCPRequestHandlerTest, acceptsNotificationsAndDoesNothing) {
    vmService.add("Ubuntu");
    for (const auto* body :
         {R"({"method":"notifications/initialized"})", R"({"method":"ping","id":null})",
          R"({"method":"tools/call","params":{"name":"start_vm","arguments":{"vm":"Ubuntu"}}})", "{}"}) {
        const auto response = post(body);
        EXPECT_EQ(response.status, 202) << body;
        EXPECT_EQ(response.reason, "Accepted");
        EXPECT_EQ(response.body, "");
    }
    EXPECT_TRUE(activity.entries().empty());
}

TEST_F(MCPRequestHandlerTest, speaksTheClientsVersionOrItsOwn) {
    for (const auto* known : {"2024-11-05", "2025-06-18"})
        EXPECT_EQ(
            result("initialize", R"({"protocolVersion":")" + std::string(known) + "\"}")["protocolVersion"],
            known);
    for (const auto* params :
         {"{}", R"({"protocolVersion":"1999-01-01"})", R"({"protocolVersion":20250618})", "[]"})
        EXPECT_EQ(result("initialize", params)["protocolVersion"], "2025-03-26") << params;
}

TEST_F(MCPRequestHandlerTest, listsTheToolsThatTheUserAllows) {
    const auto names = [&] {
        std::string all;
        const auto list = result("tools/list", "{}");
        for (const auto& tool : list["tools"]) all += tool["name"].get<std::string>() + " ";
        return all;
    };
    const std::string usual =
        "list_vms start_vm stop_vm restart_vm suspend_vm get_vm_status get_vm_ip list_snapshots "
        "take_snapshot restore_snapshot exec_shell screenshot ";
    EXPECT_EQ(names(), usual);
    allowSandboxes();
    EXPECT_EQ(names(), usual + "clone_vm delete_vm create_vm ");
    makeHandler(false);
    EXPECT_EQ(names(), usual) << "the switch alone doesn't bring them: there is no sandbox service";
}

TEST_F(MCPRequestHandlerTest, describesEveryToolWithASchema) {
    auto all = MCPToolTable::toolDefinitions();
    for (const auto& tool : MCPToolTable::destructiveToolDefinitions()) all.push_back(tool);
    for (const auto& tool : all) {
        EXPECT_EQ(tool.size(), 3u) << tool;
        EXPECT_FALSE(tool["description"].get<std::string>().empty());
        const auto& schema = tool["inputSchema"];
        EXPECT_EQ(schema["type"], "object");
        for (const auto& name : schema["required"]) EXPECT_TRUE(schema["properties"].contains(name)) << tool;
        EXPECT_NE(call(tool["name"], "{}").firstText(), "Unknown tool: " + tool["name"].get<std::string>());
    }
    EXPECT_EQ(all[0]["inputSchema"].dump(), R"({"properties":{},"required":[],"type":"object"})");
    EXPECT_EQ(
        all[9]["inputSchema"].dump(),
        R"({"properties":{"snapshot":{"description":"Snapshot name or UUID","type":"string"},)"
        R"("vm":{"description":"VM name or UUID","type":"string"}},"required":["vm","snapshot"],"type":"object"})");
}

TEST_F(MCPRequestHandlerTest, wrapsAToolsResult) {
    vmService.add("Ubuntu")->id = *UUID::parse("00000000-0000-4000-8000-00000000000a");
    EXPECT_EQ(
        post(R"({"id":1,"method":"tools/call","params":{"name":"start_vm","arguments":{"vm":"ubuntu"}}})")
            .body,
        R"({"id":1,"jsonrpc":"2.0","result":{"content":[{"text":"{\n  \"autoSnapshot\": \"created: Before agent )"
        R"(start 2026-01-01T00:00:00Z\",\n  \"status\": \"started\",\n  \"vm\": \"Ubuntu\"\n}","type":"text"}],)"
        R"("isError":false}})");
    EXPECT_EQ(
        post(R"({"id":2,"method":"tools/call","params":{"name":"Start_VM","arguments":3}})").body,
        R"({"id":2,"jsonrpc":"2.0","result":{"content":[{"text":"Unknown tool: Start_VM","type":"text"}],)"
        R"("isError":true}})");
}

TEST_F(MCPRequestHandlerTest, recordsEachCall) {
    vmService.add("Ubuntu");
    const struct {
        const char *tool, *arguments, *summary;
    } cases[] = {
        {"exec_shell", R"({"vm":"Ubuntu","command":"ls -l"})", "ls -l"},
        {"exec_shell", R"({"vm":"Ubuntu","command":3})", ""},
        {"take_snapshot", R"({"vm":"Ubuntu","name":"before"})", "before"},
        {"restore_snapshot", R"({"vm":"Ubuntu","snapshot":"before"})", "before"},
        {"stop_vm", R"({"vm":"Ubuntu","force":true})", "force"},
        {"stop_vm", R"({"vm":"Ubuntu","force":"true"})", ""},
        {"clone_vm", R"({"vm":"Ubuntu","network":"isolated"})", "isolated"},
        {"create_vm", R"({"name":"New","os":"linux"})", "New · linux"},
        {"create_vm", R"({"os":"linux"})", "linux"},
        {"list_vms", R"({"name":"x"})", ""},
    };
    for (const auto& one : cases) {
        call(one.tool, one.arguments);
        EXPECT_EQ(activity.entries().back().summary, one.summary) << one.tool << one.arguments;
    }
    const auto& listed = activity.entries().back();
    EXPECT_TRUE(listed.succeeded && !listed.vm && !listed.error);
    call("start_vm", R"({"vm":"Nobody"})");
    const auto& failed = activity.entries().back();
    EXPECT_EQ(failed.tool, "start_vm");
    EXPECT_EQ(failed.vm, "Nobody");
    EXPECT_FALSE(failed.succeeded);
    EXPECT_EQ(failed.error, "No VM named 'Nobody'. Known VMs: Ubuntu");
    EXPECT_EQ(iso8601Text(failed.date), "2026-01-01T00:00:00Z");
}

}  // namespace
}  // namespace dorvane::test
