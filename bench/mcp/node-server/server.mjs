// SPDX-License-Identifier: Apache-2.0
// The same twelve tools behind the public MCP SDK, in its leanest form: the low-level server, no sessions, plain JSON
// answers, Node's own HTTP server. Prints "ready <port> <token>" and runs until its standard input ends.
import { randomBytes } from "node:crypto";
import { createServer } from "node:http";

import { Server } from "@modelcontextprotocol/sdk/server/index.js";
import { StreamableHTTPServerTransport } from "@modelcontextprotocol/sdk/server/streamableHttp.js";
import { ListToolsRequestSchema } from "@modelcontextprotocol/sdk/types.js";

const token = randomBytes(16).toString("hex");
const vm = { vm: { type: "string", description: "VM name or UUID" } };
// About as much text as the other server's list has.
const tools = Array.from({ length: 12 }, (_, index) => ({
  name: `tool_${index}`,
  description: "Runs something inside a virtual machine and tells what came of it. ".repeat(6),
  inputSchema: { type: "object", properties: vm, required: ["vm"] },
}));

async function answer(request, response) {
  if (request.url !== `/mcp/${token}`) {
    response.writeHead(401).end();
    return;
  }
  const server = new Server({ name: "bench", version: "0" }, { capabilities: { tools: {} } });
  server.setRequestHandler(ListToolsRequestSchema, () => ({ tools }));
  const transport = new StreamableHTTPServerTransport({ sessionIdGenerator: undefined, enableJsonResponse: true });
  response.on("close", () => {
    transport.close();
    server.close();
  });
  await server.connect(transport);
  await transport.handleRequest(request, response);
}

const http = createServer((request, response) => {
  answer(request, response).catch((error) => {
    console.error(error);
    if (!response.headersSent) response.writeHead(500).end();
  });
});
http.listen(0, "127.0.0.1", () => console.log(`ready ${http.address().port} ${token}`));
process.stdin.on("end", () => process.exit(0)).resume();
