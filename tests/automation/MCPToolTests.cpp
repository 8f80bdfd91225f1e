// SPDX-License-Identifier: Apache-2.0
#include "MCPToolFixture.h"

namespace dorvane::test {
namespace {

const auto beforeStart = std::string("Before agent start 2026-01-01T00:00:00Z");
constexpr auto onA = R"({"vm":"a"})";

class MachineAFixture : public MCPToolFixture {
  protected:
    /// What a start says of its snapshot.
    JSON snapshotOnStart() {
        vm->status = VMStatus::stopped;
        return value("start_vm", onA)["autoSnapshot"];
    }

    VMRecordPointer vm = vmService.add("A");
};

using MCPMachineListTest = MCPToolFixture;
using MCPMachineToolsTest = MachineAFixture;
using MCPSnapshotToolsTest = MachineAFixture;
using MCPSandboxToolsTest = MachineAFixture;

TEST_F(MCPMachineListTest, findAMachineByIdentifierNameOrFoldedName) {
    EXPECT_EQ(failure("start_vm", R"({"vm":"x"})"), "No VM named 'x'. Known VMs: (none)");
    const auto first = vmService.add("ubuntu"), second = vmService.add("Ubuntu"),
               blank = vmService.add("Blank ");
    const auto found = [&](const std::string& argument) {
        return value("get_vm_status", R"({"vm":")" + argument + "\"}")["id"];
    };
    EXPECT_EQ(found(second->id.text()), second->id.text());
    EXPECT_EQ(found("Ubuntu"), second->id.text());
    EXPECT_EQ(found("UBUNTU"), first->id.text());
    EXPECT_EQ(found("blank "), blank->id.text());
    EXPECT_EQ(failure("get_vm_status", R"({"vm":"Blank"})"),
              "No VM named 'Blank'. Known VMs: Blank , Ubuntu, ubuntu");
    for (const auto* arguments : {"{}", R"({"vm":7})", R"({"vm":" \t"})"})
        EXPECT_EQ(failure("start_vm", arguments), "Missing required argument: vm (a VM name or UUID)");
}

TEST_F(MCPMachineListTest, listMachinesWithoutAbsentKeys) {
    const auto plain = vmService.add("Plain", VMOSType::macOS);
    const auto sandbox = vmService.add("Box", VMOSType::windows, VMStatus::error);
    sandbox->osVersionLabel = "11";
    sandbox->ephemeral = EphemeralInfo{{}, *parseISO8601("2026-02-03T04:05:06Z"), std::nullopt};
    const auto list = value("list_vms", "{}");
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].dump(), R"({"cpuCount":2,"id":")" + plain->id.text() +
                                  R"(","memoryMB":4096,"name":"Plain","os":"macos","status":"stopped"})");
    EXPECT_EQ(list[1].dump(),
              R"({"cpuCount":2,"ephemeral":true,"expiresAt":"2026-02-03T04:05:06Z","id":")" +
                  sandbox->id.text() +
                  R"(","memoryMB":4096,"name":"Box","os":"windows","osVersion":"11","status":"error"})");
}

TEST_F(MCPMachineToolsTest, stopAndRestartSayWhetherTheyForced) {
    vm->status = VMStatus::running;
    EXPECT_EQ(value("stop_vm", R"({"vm":"a","force":"true"})").dump(),
              R"({"forced":false,"status":"stopped","vm":"A"})");
    vm->status = VMStatus::running;
    EXPECT_EQ(value("stop_vm", R"({"vm":"a","force":true})")["forced"], true);
    vm->status = VMStatus::running;
    EXPECT_EQ(value("restart_vm", onA).dump(), R"({"forced":false,"status":"restarted","vm":"A"})");
    vmService.guest(vm).ignoresShutdown = true;
    EXPECT_EQ(value("restart_vm", onA)["forced"], true);
    EXPECT_EQ(value("stop_vm", onA)["forced"], true);
    vm->status = VMStatus::running;
    EXPECT_EQ(value("suspend_vm", onA).dump(), R"({"status":"suspended","vm":"A"})");
    EXPECT_EQ(failure("stop_vm", onA), told(DorvaneError(Case::vmNotRunning, "A")));
}

TEST_F(MCPMachineToolsTest, statusTellsWhatTheHostKnows) {
    EXPECT_FALSE(value("get_vm_status", onA).contains("ipAddress"));
    vm->status = VMStatus::running;
    auto running = value("get_vm_status", onA);
    EXPECT_TRUE(running.contains("ipAddress") && running["ipAddress"].is_null());
    EXPECT_FALSE(running.contains("resolution") || running.contains("network"));
    vmService.guest(vm) = {"10.0.0.2", "800x600", NetworkSummary{}, {}, {}};
    running = value("get_vm_status", onA);
    EXPECT_EQ(running["ipAddress"], "10.0.0.2");
    EXPECT_EQ(running["resolution"], "800x600");
    EXPECT_EQ(running["network"], NetworkSummary{}.label());
    EXPECT_EQ(value("get_vm_ip", onA).dump(), R"({"ipAddress":"10.0.0.2","vm":"A"})");
}

TEST_F(MCPMachineToolsTest, addressRefusalsSayWhatToDo) {
    EXPECT_EQ(failure("get_vm_ip", onA),
              "VM 'A' is not running, so it has no IP address. Start it first with start_vm.");
    vm->status = VMStatus::running;
    NetworkSummary shared, hidden, bridged, wireless;
    hidden.hasHostVisibleAddress = false;
    bridged.isBridged = true;
    wireless.isBridged = wireless.isBridgedOverWireless = true;
    const std::pair<std::optional<NetworkSummary>, const char*> cases[] = {
        {std::nullopt, "The guest is still booting"},
        {shared, "The guest is still booting"},
        {wireless, "The VM is bridged to a wireless interface."},
        {bridged, "The guest has not produced network traffic"},
        {hidden, "This VM uses a shared network whose guest address"}};
    for (const auto& [network, start] : cases) {
        vmService.guest(vm).network = network;
        const auto text = failure("get_vm_ip", onA);
        EXPECT_TRUE(text.starts_with("No IP address found for VM 'A'. " + std::string(start))) << text;
    }
}

TEST_F(MCPMachineToolsTest, startTakesAnAutomaticSnapshotFirst) {
    vm->status = VMStatus::error;
    EXPECT_EQ(value("start_vm", onA)["autoSnapshot"], "created: " + beforeStart);
    ASSERT_EQ(snapshots.all.size(), 1u);
    EXPECT_EQ(snapshots.all[0]->kind(), VMSnapshotKind::automatic);
    EXPECT_FALSE(gate.isBusy(vm->id));
    EXPECT_EQ(failure("start_vm", onA), told(DorvaneError(Case::vmAlreadyRunning, "A")));
    EXPECT_EQ(snapshots.all.size(), 1u) << "a running machine gets none";
}

TEST_F(MCPMachineToolsTest, theMachinesOwnSwitchBeatsTheSetting) {
    const auto summary = [&](bool setting, std::optional<bool> own) {
        defaults.set(defaultsKey::mcpAutoSnapshotEnabled, setting);
        vm->autoSnapshotBeforeAgentStart = own;
        return snapshotOnStart().get<std::string>().substr(0, 8);
    };
    EXPECT_EQ(summary(false, std::nullopt), "disabled");
    EXPECT_EQ(summary(true, false), "disabled");
    EXPECT_EQ(summary(false, true), "created:");
}

TEST_F(MCPMachineToolsTest, startKeepsAsManyAutomaticSnapshotsAsTheSettingSays) {
    for (int i = 0; i < 4; ++i) snapshots.add(vm, "auto " + std::to_string(i), VMSnapshotKind::automatic);
    snapshots.add(vm, "mine", VMSnapshotKind::manual);
    value("start_vm", onA);
    EXPECT_EQ(snapshots.names(), (std::vector<std::string>{"auto 2", "auto 3", "mine", beforeStart}));
}

TEST_F(MCPMachineToolsTest, startMakesRoomInAChainThatIsTooDeep) {
    defaults.set(defaultsKey::mcpAutoSnapshotKeepCount, 10);
    snapshots.maximumDepth = 3;
    snapshots.add(vm, "auto", VMSnapshotKind::automatic);
    snapshots.add(vm, "auto 2", VMSnapshotKind::automatic);
    snapshots.add(vm, "mine", VMSnapshotKind::manual);
    EXPECT_EQ(snapshotOnStart(), "created: " + beforeStart);
    EXPECT_EQ(snapshots.names(), (std::vector<std::string>{"auto 2", "mine", beforeStart}));
}

TEST_F(MCPMachineToolsTest, startGoesAheadWithoutASnapshotThatCannotBeTaken) {
    snapshots.add(vm, "mine", VMSnapshotKind::manual);
    snapshots.maximumDepth = 1;
    const auto tooDeep = told(DorvaneError::snapshotChainTooDeep(16));
    EXPECT_EQ(snapshotOnStart(), "skipped: " + tooDeep);
    EXPECT_EQ(vm->status, VMStatus::running);
    EXPECT_TRUE(log.contains("Automatic snapshot skipped for A: " + tooDeep));
    snapshots.listFailure = std::make_exception_ptr(std::runtime_error("store closed"));
    EXPECT_EQ(snapshotOnStart(), "skipped: " + tooDeep);
    const VMOperationGate::Hold hold(gate, vm->id, vm->name);
    EXPECT_EQ(snapshotOnStart(), "skipped: " + told(DorvaneError(Case::vmBusy, "A")));
}

TEST_F(MCPMachineToolsTest, aFailedStartLeavesNoSnapshotBehind) {
    const DorvaneError failed(Case::vmStartupFailed, "A", "no disk");
    vmService.nextFailure = std::make_exception_ptr(failed);
    EXPECT_EQ(failure("start_vm", onA), told(failed));
    EXPECT_TRUE(snapshots.all.empty());
    vmService.nextFailure = std::make_exception_ptr(failed);
    snapshots.deleteFailure = std::make_exception_ptr(std::runtime_error("disk is gone"));
    failure("start_vm", onA);
    EXPECT_TRUE(
        log.contains("Could not remove the automatic snapshot after a failed start of A: disk is gone"));
}

TEST_F(MCPSnapshotToolsTest, takeListAndRestore) {
    vm->status = VMStatus::running;
    const auto taken = value("take_snapshot", R"({"vm":"A","name":"one","include_memory":true})");
    ASSERT_EQ(snapshots.all.size(), 1u);
    const auto id = snapshots.all[0]->id.text();
    EXPECT_EQ(taken.dump(),
              R"({"createdAt":"2026-01-01T00:00:00Z","id":")" + id +
                  R"(","includesRAMState":true,"logicalDiskSizeBytes":68719476736,"name":"one",)"
                  R"("takenWhileRunning":true})");
    EXPECT_EQ(snapshots.all[0]->kind(), VMSnapshotKind::manual);
    EXPECT_EQ(value("take_snapshot", R"({"vm":"A","name":"two","include_memory":"yes"})")["includesRAMState"],
              false);
    EXPECT_EQ(value("list_snapshots", onA)[1], taken) << "newest first";
    EXPECT_EQ(value("restore_snapshot", R"({"vm":"A","snapshot":"two"})").dump(),
              R"({"snapshot":"two","status":"restored","vm":"A"})");
    EXPECT_EQ(value("restore_snapshot", R"({"vm":"A","snapshot":")" + id + "\"}")["snapshot"], "one");
    EXPECT_EQ(snapshots.restored.size(), 2u);
    EXPECT_FALSE(gate.isBusy(vm->id));
}

TEST_F(MCPSnapshotToolsTest, refuseInTheirOrder) {
    EXPECT_TRUE(failure("take_snapshot", R"({"vm":"B"})").starts_with("No VM named 'B'."));
    EXPECT_EQ(failure("take_snapshot", R"({"vm":"A","name":""})"), "Missing required argument: name");
    EXPECT_EQ(failure("restore_snapshot", onA),
              "Missing required argument: snapshot (a snapshot name or UUID)");
    EXPECT_EQ(failure("restore_snapshot", R"({"vm":"A","snapshot":"x"})"),
              "No snapshot named 'x' for VM 'A'. Known snapshots: (none)");
    snapshots.add(vm, "b", VMSnapshotKind::manual);
    snapshots.add(vm, "a", VMSnapshotKind::manual);
    EXPECT_EQ(failure("restore_snapshot", R"({"vm":"A","snapshot":"B"})"),
              "No snapshot named 'B' for VM 'A'. Known snapshots: a, b");
    const VMOperationGate::Hold hold(gate, vm->id, vm->name);
    EXPECT_EQ(failure("take_snapshot", R"({"vm":"A","name":"n"})"), told(DorvaneError(Case::vmBusy, "A")));
}

TEST_F(MCPSnapshotToolsTest, sayThatThisBuildHasNone) {
    makeHandler(false);
    for (const auto* tool : {"list_snapshots", "take_snapshot", "restore_snapshot"})
        EXPECT_EQ(failure(tool, R"({"vm":"A","name":"n","snapshot":"s"})"),
                  "Snapshots are not available in this build yet.");
    EXPECT_EQ(snapshotOnStart(), "skipped: Snapshots are not available in this build yet.");
}

TEST_F(MCPSandboxToolsTest, areOffUntilTheUserTurnsThemOn) {
    const auto* off =
        "Creating and deleting VMs is turned off. Turn on \"Allow creating and deleting VMs\" in "
        "Dorvane → Settings → Automation.";
    for (const auto* tool : {"create_vm", "clone_vm", "delete_vm"})
        EXPECT_EQ(failure(tool, R"({"vm":"Nobody"})"), off);
    allowSandboxes();
    makeHandler(false);
    EXPECT_EQ(failure("delete_vm", R"({"vm":"Nobody"})"), off);
}

TEST_F(MCPSandboxToolsTest, createAnEmptyMachine) {
    allowSandboxes();
    const auto made =
        value("create_vm", R"({"name":" N ","os":"linux","cpuCount":4,"memoryMB":8192.0,"diskSizeGB":"64"})");
    EXPECT_EQ(made["vm"], " N ");
    EXPECT_EQ(made["os"], "linux");
    EXPECT_EQ(made["status"], "created");
    EXPECT_EQ(made["note"].get<std::string>().find("This VM has no operating system installed yet."), 0u);
    const auto& asked = vmService.lastConfiguration;
    EXPECT_EQ(asked.cpuCount, 4);
    EXPECT_EQ(asked.memoryMB, 8192);
    EXPECT_FALSE(asked.diskSizeGB);
    value("create_vm", R"({"name":"M","os":"windows","cpuCount":1.5,"memoryMB":true,"diskSizeGB":1e30})");
    EXPECT_FALSE(asked.cpuCount || asked.memoryMB);
    EXPECT_EQ(asked.diskSizeGB, std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(failure("create_vm", R"({"name":" \n","os":"linux"})"), "Missing required argument: name");
    for (const auto* arguments : {R"({"name":"x"})", R"({"name":"x","os":"beos"})", R"({"name":"x","os":1})"})
        EXPECT_EQ(failure("create_vm", arguments),
                  "Missing or unknown argument: os. Expected one of macOS, linux, windows.");
}

TEST_F(MCPSandboxToolsTest, cloneAndDeleteASandbox) {
    allowSandboxes();
    vm->status = VMStatus::error;
    const auto made = value("clone_vm", R"({"vm":"a","ttlMinutes":90,"network":"isolated"})");
    EXPECT_EQ(made["clonedFrom"], "A");
    EXPECT_EQ(made["ephemeral"], true);
    EXPECT_EQ(made["network"], "isolated");
    EXPECT_EQ(made["expiresAt"], "2026-01-01T01:30:00Z");
    EXPECT_EQ(sandboxes.isolated.size(), 1u);
    EXPECT_EQ(value("delete_vm", R"({"vm":"A-sandbox"})").dump(),
              R"({"movedToTrash":true,"status":"deleted","vm":"A-sandbox"})");
    EXPECT_EQ(vmService.trashed, std::vector<std::string>{"A-sandbox"});
    EXPECT_EQ(failure("delete_vm", onA),
              "Dorvane only deletes sandboxes it created. 'A' is a regular VM; delete it from the Dorvane "
              "window if you meant to.");
}

TEST_F(MCPSandboxToolsTest, cloneChecksItsArgumentsInOrder) {
    allowSandboxes();
    vm->status = VMStatus::running;
    EXPECT_EQ(failure("clone_vm", R"({"vm":"A","ttlMinutes":0})"),
              "VM 'A' must be stopped before it can be cloned. Stop it first with stop_vm.");
    vm->status = VMStatus::stopped;
    for (const auto* arguments :
         {R"({"vm":"A","ttlMinutes":0,"network":"x"})", R"({"vm":"A","ttlMinutes":10081})",
          R"({"vm":"A","ttlMinutes":99999999999999999999})"})
        EXPECT_EQ(failure("clone_vm", arguments), "ttlMinutes must be between 1 and 10080 (one week).");
    EXPECT_EQ(failure("clone_vm", R"({"vm":"A","network":"Isolated"})"),
              R"(network must be "inherit" or "isolated".)");
    for (const auto* arguments :
         {R"({"vm":"A","ttlMinutes":1.5})", R"({"vm":"A","ttlMinutes":"5","network":3})"}) {
        const auto made = value("clone_vm", arguments);
        EXPECT_EQ(made["expiresAt"], "2026-01-02T00:00:00Z");
        EXPECT_EQ(made["network"], "inherit");
    }
    EXPECT_EQ(value("clone_vm", R"({"vm":"A","ttlMinutes":10080})")["expiresAt"], "2026-01-08T00:00:00Z");
    EXPECT_TRUE(sandboxes.isolated.empty());
}

}  // namespace
}  // namespace dorvane::test
