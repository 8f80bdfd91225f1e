// SPDX-License-Identifier: Apache-2.0
// Talks to the MCP server at the URL given as the first argument with the public client from npm, and prints what it
// saw as one JSON object.
import { Client } from "@modelcontextprotocol/sdk/client/index.js";
import { StreamableHTTPClientTransport } from "@modelcontextprotocol/sdk/client/streamableHttp.js";

async function connect(url) {
  const client = new Client({ name: "dorvane-real-test", version: "1.0.0" });
  await client.connect(new StreamableHTTPClientTransport(new URL(url)));
  return client;
}

async function refusal(url) {
  try {
    await connect(url);
    return "none";
  } catch (error) {
    return String(error.message);
  }
}

const url = process.argv[2];
const client = await connect(url);
const seen = {
  server: client.getServerVersion(),
  instructions: client.getInstructions(),
  capabilities: client.getServerCapabilities(),
  ping: await client.ping(),
  tools: (await client.listTools()).tools,
  machines: await client.callTool({ name: "list_vms", arguments: {} }),
  unknownMachine: await client.callTool({ name: "start_vm", arguments: { vm: "no such machine" } }),
  // Several calls at once, each over a connection of its own.
  together: (await Promise.all(Array.from({ length: 12 }, () => client.listTools()))).map((list) => list.tools.length),
  staleToken: await refusal(url.slice(0, -1) + "!"),
};
await client.close();
console.log(JSON.stringify(seen));
