// SPDX-License-Identifier: Apache-2.0
// An agent's session with the public MCP client from npm: a sandbox is cloned, started, looked at, captured, taken back
// and thrown away. Prints each call with its answer. Arguments: the client's folder, the server's URL, the machine.
const [folder, url, source] = process.argv.slice(2);
const { Client } = await import(`${folder}/node_modules/@modelcontextprotocol/sdk/dist/esm/client/index.js`);
const { StreamableHTTPClientTransport } = await import(
  `${folder}/node_modules/@modelcontextprotocol/sdk/dist/esm/client/streamableHttp.js`
);

const client = new Client({ name: "dorvane-agent-session", version: "1.0.0" });
await client.connect(new StreamableHTTPClientTransport(new URL(url)));

async function call(name, args) {
  const result = await client.callTool({ name, arguments: args }, undefined, { timeout: 240000 });
  const first = result.content[0];
  const shown = first.type === "image" ? `[${first.mimeType}, ${first.data.length} base64 characters]` : first.text;
  console.log(`${name} ${JSON.stringify(args)}\n  -> ${result.isError ? "FAILED: " : ""}${shown.replace(/\s+/g, " ")}`);
  if (result.isError) process.exit(1);
  return first.type === "image" ? first : JSON.parse(first.text);
}

const sandbox = (await call("clone_vm", { vm: source, ttlMinutes: 60, network: "isolated" })).vm;
await call("start_vm", { vm: sandbox });
await new Promise((resolve) => setTimeout(resolve, 12000));
await call("screenshot", { vm: sandbox });
await call("take_snapshot", { vm: sandbox, name: "before", include_memory: true });
await call("list_snapshots", { vm: sandbox });
await call("stop_vm", { vm: sandbox, force: true });
await call("restore_snapshot", { vm: sandbox, snapshot: "before" });
await call("start_vm", { vm: sandbox });
await call("get_vm_status", { vm: sandbox });
await call("suspend_vm", { vm: sandbox });
await call("delete_vm", { vm: sandbox });
const left = await call("list_vms", {});
if (JSON.stringify(left).includes(sandbox)) process.exit(1);
await client.close();
