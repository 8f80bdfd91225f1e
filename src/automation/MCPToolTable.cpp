// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPToolTable.h"

#include <span>

namespace dorvane {
namespace {

enum class Need { required, optional };

struct Property {
    const char* name;
    const char* type;
    Need need;
    const char* description;
    const char* choices[2] = {};
};

/// Unused places have no name.
struct Tool {
    const char* name;
    const char* description;
    Property properties[5] = {};
};

constexpr Property theVM{"vm", "string", Need::required, "VM name or UUID"};
constexpr Property sshUsername{"username", "string", Need::optional,
                               "SSH username. Defaults to the VM's configured username."};

constexpr Tool tools[] = {
    {"list_vms", "List all virtual machines with their OS type, status, CPU, and memory.", {}},
    {"start_vm", "Start a stopped virtual machine.", {theVM}},
    {"stop_vm",
     "Stop a running virtual machine. A graceful stop that the guest ignores for 30 seconds becomes a "
     "forced one; the result's forced field says which happened. A logged-in macOS guest answers a "
     "graceful stop by asking for confirmation inside the VM, which you cannot click, so it is powered off "
     "after 30 seconds; to keep its state, use suspend_vm instead. Set force=true only if a graceful stop "
     "fails.",
     {theVM, {"force", "boolean", Need::optional, "Force stop (like pulling the power). Default false."}}},
    {"restart_vm",
     "Restart a running virtual machine. The result's forced field is true when the guest ignored the "
     "shutdown request and was powered off instead.",
     {theVM}},
    {"suspend_vm",
     "Suspend a running or paused VM to disk: its memory is saved into the VM bundle and the VM powers "
     "off. The next start_vm resumes exactly where it left off; until then list_vms and get_vm_status "
     "report the VM as stopped with \"suspended\": true. macOS and Linux VMs can only be suspended, and "
     "resumed, while this Mac is unlocked; use stop_vm when it is locked.",
     {theVM}},
    {"get_vm_status",
     "Get a VM's current status, IP address, display resolution, and network mode.",
     {theVM}},
    {"get_vm_ip", "Get a running VM's guest IP address, e.g. to reach it over SSH.", {theVM}},
    {"list_snapshots", "List the snapshots of a virtual machine.", {theVM}},
    {"take_snapshot",
     "Take a disk-only snapshot of a virtual machine. On a running VM the snapshot is crash-consistent (as "
     "if the power had been cut, no memory captured) unless include_memory is true and the guest supports "
     "it; the VM keeps running either way, and restoring requires the VM to be stopped.",
     {theVM,
      {"name", "string", Need::required, "Name for the new snapshot"},
      {"include_memory", "boolean", Need::optional,
       "Also save the running VM's memory so a restore resumes exactly where it was (Windows VMs; the VM "
       "freezes while memory is written, about half a minute for 4 GB and longer for more, and the "
       "snapshot is about as large as its memory). Default false."}}},
    {"restore_snapshot",
     "Restore a stopped virtual machine to a previous snapshot. The current disk state is replaced.",
     {theVM, {"snapshot", "string", Need::required, "Snapshot name or UUID"}}},
    {"exec_shell",
     "Run a shell command inside a running guest and return exit code, stdout, and stderr. Linux guests "
     "with the Dorvane guest agent installed use a direct channel that needs no network address and no "
     "SSH; otherwise this falls back to SSH, which requires SSH credentials configured for the VM in "
     "Dorvane. Windows guests are reached over SSH on a loopback-only forwarded port, which requires "
     "running Install-Dorvane-Drivers inside Windows once and an SSH username made of plain ASCII (OpenSSH "
     "refuses account names containing quotes, spaces or shell metacharacters, which Windows itself "
     "allows).",
     {theVM,
      {"command", "string", Need::required, "Shell command to run in the guest"},
      sshUsername,
      {"timeout", "number", Need::optional, "Timeout in seconds (default 60, max 600)."}}},
    {"screenshot",
     "Capture a screenshot of a running guest's desktop and return it as a PNG image. Windows guests are "
     "captured on the host side and need nothing installed in the guest, no network address and no display "
     "window open. macOS and Linux guests are captured from inside: Linux guests with the Dorvane guest "
     "agent use a direct channel and can be captured with no display server at all (the agent reads the "
     "kernel framebuffer); otherwise this uses SSH and the guest needs a graphical session and a capture "
     "tool (macOS: built in; Linux: grim on Wayland, scrot or import on X11).",
     {theVM, sshUsername}},
};

constexpr Tool destructiveTools[] = {
    {"clone_vm",
     "Clone a stopped VM into a disposable sandbox and return the new VM's name. The clone is "
     "copy-on-write, so it is near-instant and costs almost no disk until the guest writes. The sandbox is "
     "marked disposable: delete_vm can remove it, and Dorvane reclaims it automatically once it expires "
     "and is stopped. This is the right way to get a clean, ready-to-use environment for an agent to work "
     "in.",
     {{"vm", "string", Need::required, "Name or UUID of the VM to clone. It must be stopped."},
      {"ttlMinutes", "number", Need::optional,
       "How long the sandbox should live before Dorvane may reclaim it, in minutes. Default 1440 (one "
       "day), maximum 10080 (one week). Reclaiming only happens while the sandbox is stopped."},
      {"network",
       "string",
       Need::optional,
       "\"inherit\" (default) keeps the source VM's network. \"isolated\" cuts the sandbox off from the "
       "internet and the local network, for untrusted work; the source VM is not affected. An isolated "
       "macOS or Linux sandbox has no network interface at all, so exec_shell and screenshot work only "
       "through the Dorvane guest agent there; an isolated Windows sandbox keeps its host-only SSH.",
       {"inherit", "isolated"}}}},
    {"delete_vm",
     "Delete a disposable sandbox created by clone_vm and move it to the Trash. Refuses to touch regular "
     "VMs.",
     {{"vm", "string", Need::required, "Name or UUID of the sandbox to delete"}}},
    {"create_vm",
     "Create a new, EMPTY virtual machine. The result has no operating system on it, and installing one is "
     "an interactive process that cannot be driven through MCP. If you want an environment to work in, use "
     "clone_vm on a VM that already has an OS installed instead.",
     {{"name", "string", Need::required, "Name for the new VM"},
      {"os", "string", Need::required, "Guest OS: macOS, linux, or windows"},
      {"cpuCount", "number", Need::optional, "Virtual CPU count"},
      {"memoryMB", "number", Need::optional, "Memory in MB"},
      {"diskSizeGB", "number", Need::optional, "Disk size in GB"}}},
};

JSON propertyDefinition(const Property& property) {
    JSON definition;
    definition["type"] = property.type;
    definition["description"] = property.description;
    for (const auto* choice : property.choices)
        if (choice != nullptr) definition["enum"].push_back(choice);
    return definition;
}

JSON toolDefinition(const Tool& tool) {
    JSON schema;
    schema["type"] = "object";
    schema["properties"] = JSON::object();
    schema["required"] = JSON::array();
    for (const auto& property : tool.properties) {
        if (property.name == nullptr) break;
        schema["properties"][property.name] = propertyDefinition(property);
        if (property.need == Need::required) schema["required"].push_back(property.name);
    }
    JSON definition;
    definition["name"] = tool.name;
    definition["description"] = tool.description;
    definition["inputSchema"] = std::move(schema);
    return definition;
}

JSON definitions(std::span<const Tool> list) {
    auto result = JSON::array();
    for (const auto& tool : list) result.push_back(toolDefinition(tool));
    return result;
}

std::string listResult(bool includesDestructive) {
    JSON result;
    result["tools"] = MCPToolTable::toolDefinitions();
    if (includesDestructive)
        for (const auto& tool : MCPToolTable::destructiveToolDefinitions()) result["tools"].push_back(tool);
    return compactJSON(result);
}

}  // namespace

const JSON& MCPToolTable::toolDefinitions() {
    static const auto list = definitions(tools);
    return list;
}

const JSON& MCPToolTable::destructiveToolDefinitions() {
    static const auto list = definitions(destructiveTools);
    return list;
}

const std::string& MCPToolTable::listText(bool includesDestructive) {
    static const auto whole = listResult(true), usual = listResult(false);
    return includesDestructive ? whole : usual;
}

const std::string& MCPToolTable::instructions() {
    static const std::string text =
        "Drive the virtual machines on this Mac.\n\n"
        "Inventory and lifecycle: list_vms, get_vm_status, get_vm_ip, start_vm, stop_vm, restart_vm, "
        "suspend_vm.\n"
        "Snapshots: list_snapshots, take_snapshot, restore_snapshot.\n"
        "Inside a running guest: exec_shell, screenshot.\n\n"
        "Disposable sandboxes (only when the user has turned them on in Settings): clone_vm, delete_vm, "
        "create_vm.\n\n"
        "VMs are identified by name (case-insensitive) or UUID. suspend_vm, and resuming a suspended macOS "
        "or Linux VM, need this Mac to be unlocked. Snapshots are near-instant regardless of disk size, so "
        "taking one before a risky change is cheap; taking one works on a running VM (crash-consistent, "
        "disk only) but restoring requires the VM to be stopped. By default start_vm takes one "
        "automatically and reports it back, so a VM an agent started can be rolled back with "
        "restore_snapshot. exec_shell prefers the Dorvane guest agent on Linux, which needs neither a "
        "network address nor SSH, and otherwise falls back to SSH using the credentials configured for "
        "that VM in Dorvane; Windows guests are reached over SSH on a forwarded loopback port once "
        "Install-Dorvane-Drivers has been run inside them. screenshot works on every guest, and on Windows "
        "it needs nothing installed in the guest at all.\n\n"
        "When you need somewhere to work that you can safely break, clone_vm an existing VM rather than "
        "create_vm: the clone is instant, arrives with an OS already installed, and can be deleted "
        "afterwards. delete_vm only ever removes sandboxes clone_vm made, and moves them to the Trash.";
    return text;
}

}  // namespace dorvane
