#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The commands as a person and as a program meet them, and the door for agents byte by byte.

Usage: commands_test.py PROGRAM DEMO_IMAGE. The program itself, a real QEMU, the demo guest."""
import json
import pathlib
import re
import shlex
import socket
import sys
import typing
import unittest
import zipfile

import service_test
from service_test import Home, guest, wait_until

uuid = re.compile(r"[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}").fullmatch
date = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ").fullmatch
question = re.compile(r"There is no terminal to ask on\. To do it without a question: dorvane (.+)\n")


class Row(typing.NamedTuple):
    """A command, what a person reads (a pattern), what a program gets, and the state of its machine afterwards."""
    words: str
    said: str
    result: object = None
    leaves: str = ""
    status: int = 0


def refused(words, said, status=1):
    return Row(words, said, status=status)


def machine(name, **others):
    return {"id": uuid, "name": name, "os": "windows", "status": "stopped", "cpuCount": 2, "memoryMB": 2048,
            "diskSizeBytes": 8 << 30} | others


def named(name, **others):
    return {"id": uuid, "name": name} | others


def fits(value, shape):
    """Whether it has just these members, each of a type, passing a check or equal."""
    if isinstance(shape, dict):
        return isinstance(value, dict) and value.keys() == shape.keys() and all(
            fits(value[key], shape[key]) for key in shape)
    if isinstance(shape, list):
        return isinstance(value, list) and len(value) == len(shape) and all(map(fits, value, shape))
    if isinstance(shape, type):
        return type(value) is shape
    return bool(shape(value)) if callable(shape) else value == shape


class CommandsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.home = Home()
        cls.home.start_service()

    @classmethod
    def tearDownClass(cls):
        cls.home.remove()

    def check(self, row, as_json):
        words = shlex.split(row.words)
        if as_json:
            words.insert(1 if words[0] == "exec" else len(words), "--json")
        got = self.home.run(*words, check=False)
        told = f"{words}: {got.returncode}\n{got.stdout}{got.stderr}"
        self.assertEqual(got.returncode, row.status, told)
        text, silent = (got.stderr, got.stdout) if row.status else (got.stdout, got.stderr)
        self.assertEqual(silent, "", told)
        if as_json and not row.status:
            self.assertTrue(fits(json.loads(text), row.result), told)
        else:
            self.assertRegex(text, rf"\A{row.said}\n\Z", told)
        if row.leaves:
            self.assertEqual(self.state(), row.leaves, told)

    def check_both(self, rows):
        """First as a person, then as a program: the rows end where they began."""
        for as_json in (False, True):
            for row in rows:
                self.check(row, as_json)

    def state(self):
        status = self.home.json("status", guest)
        return status["status"] + (" (suspended)" if status.get("suspended") else "")

    def names(self, *words):
        return [row["name"] for row in self.home.json(*words)]

    def token(self):
        return self.home.json("mcp", "token")["text"]

    def ask(self, tool, arguments, *headers, token=None):
        """One request over a socket: the response's status line, its other lines and its body."""
        body = json.dumps({"jsonrpc": "2.0", "id": 1, "method": "tools/call",
                           "params": {"name": tool, "arguments": arguments}})
        head = [f"POST /mcp/{token or self.token()} HTTP/1.1", f"Host: 127.0.0.1:{self.home.port}",
                "Content-Type: application/json", f"Content-Length: {len(body)}", *headers]
        with socket.create_connection(("127.0.0.1", self.home.port), timeout=60) as connection:
            connection.sendall("\r\n".join([*head, "", body]).encode())
            with connection.makefile("rb") as stream:
                answer = stream.read().decode()
        lines, _, text = answer.partition("\r\n\r\n")
        status, _, others = lines.partition("\r\n")
        return status, others, text

    def agent(self, tool, **arguments):
        return json.loads(self.ask(tool, arguments)[2])["result"]

    def test_1_commands_on_a_stopped_machine(self):
        token, port = self.token(), self.home.port
        self.assertRegex(token, r"\A[0-9a-f]{32}\Z")
        url = f"http://127.0.0.1:{port}/mcp/{token}"
        config = json.dumps({"mcpServers": {"dorvane": {"type": "http", "url": url}}}, indent=2)
        unknown = "There is no VM named “nobody”\\."
        tools = r"The MCP server answered with \d+ tools\."
        keep_count = "mcpAutoSnapshotKeepCount"
        self.check_both([
            Row("create One --cpus 2 --memory 2048 --disk 8", r"Created One\.", machine("One")),
            refused("create One", r"A VM named 'One' already exists\."),
            refused("create a/b", "Invalid configuration: VM names cannot be empty, .*"),
            refused("create Two --os beos", r"The guest must be one of macos, linux and windows\."),
            refused("rename One Two", r"There is no command “rename”\.\nRun dorvane --help for the commands\.", 2),
            refused("mcp frob", r"There is no command “frob”\.\nRun dorvane --help for the commands\.", 2),
            refused("create", r"name is required\nRun dorvane --help for the commands\.", 2),
            Row("clone One Two", r"Cloned to Two\.", machine("Two")),
            refused("clone One Two", r"A VM named 'Two' already exists\."),
            refused("clone nobody Three", unknown),
            refused("clone One", r"The copy needs a name: dorvane clone One NAME\nRun dorvane --help .*", 2),
            *(refused(f"{verb} One", "VM 'One' is not running")
              for verb in ("pause", "resume", "restart", "suspend", "stop")),
            Row("discard --yes One", r"One had no memory to discard\.", named("One", discarded=False)),
            refused("discard --yes nobody", unknown),
            refused("exec One dir", "SSH is not available for VM 'One'.*"),
            refused("exec nobody dir", "No VM named 'nobody'. Known VMs: One, Two"),
            Row(f"settings set {keep_count} 5", "5", {"key": keep_count, "value": 5}),
            Row(f"settings get {keep_count}", "5", {"key": keep_count, "value": 5}),
            refused(f"settings set {keep_count} five", r"“five” is not a whole number\."),
            refused("settings set mcpServerPort 80", r"The port must be between 1024 and 65535\."),
            refused("settings get nothing", r"There is no setting named “nothing”\."),
            refused("settings set nothing 1", r"There is no setting named “nothing”\."),
            Row("settings list", rf"(\w+: +\S+\n)*{keep_count}: +5\n(\w+: +\S+\n)*mcpServerPort: +{port}\n"
                r"(\w+: +\S+\n)*vmStoragePath: +\S+/vms",
                lambda values: (values[keep_count], values["mcpServerPort"]) == (5, port)),
            Row("mcp url", re.escape(url), {"text": url}),
            Row("mcp config", re.escape(config), {"text": config}),
            Row("mcp token", token, {"text": token}),
            Row("mcp probe", tools, {"ok": True, "text": re.compile(tools).fullmatch, "toolCount": int}),
            Row("log", "WHEN +TOOL +MACHINE +TOOK +RESULT", []),
            Row("logs One", r"(?:.*\n)*\S+Z \[VMService\] Created VM: One\n(?:.*\n)*.*",
                named("One", text=re.compile("(?s).*Created VM: One\n.*").fullmatch)),
            refused("logs nobody", unknown),
            Row("snapshot prune One", r"Deleted 0 automatic snapshot\(s\) of One\.",
                named("One", kept=5, removed=0)),
            refused("snapshot prune nobody", unknown),
            Row("delete --yes Two", r"Moved Two to the Trash\.", named("Two")),
            Row("delete --yes --permanently One", r"Erased One\.", named("One")),
            refused("delete --yes One", "There is no VM named “One”\\."),
        ])

    def test_2_automatic_snapshots_are_pruned_and_the_log_tells_what_agents_did(self):
        self.home.run("create", "Box", "--cpus", "1", "--memory", "512")
        self.home.run("snapshot", "take", "Box", "by hand")
        for _ in range(3):
            self.assertIs(self.agent("start_vm", vm="Box")["isError"], False)
            self.home.run("stop", "--force", "Box")
        self.assertIs(self.agent("start_vm", vm="nobody")["isError"], True)
        names = self.names("snapshot", "list", "Box")
        self.assertEqual((len(names), names[3:]), (4, ["by hand"]))
        self.home.run("settings", "set", "mcpAutoSnapshotKeepCount", "2")
        self.check(Row("snapshot prune Box", r"Deleted 1 automatic snapshot\(s\) of Box\."), False)
        self.check(Row("snapshot prune Box --keep 1", "", named("Box", kept=1, removed=1)), True)
        self.assertEqual(self.names("snapshot", "list", "Box"), [names[0], "by hand"])
        head = "WHEN +TOOL +MACHINE +TOOK +RESULT"
        entry = {"date": date, "durationMilliseconds": int, "id": uuid, "tool": "start_vm", "summary": str}
        reason = "No VM named 'nobody'. Known VMs: Box"
        self.check_both([
            Row("log Box -n 2", head + r"(\n\S+Z +start_vm +Box +\d+ ms.*){2}",
                [entry | {"vm": "Box", "succeeded": True}] * 2),
            Row("log -n 1", head + rf"\n\S+Z +start_vm +nobody +\d+ ms +failed: {reason}",
                [entry | {"vm": "nobody", "succeeded": False, "error": reason}]),
        ])
        self.home.run("delete", "Box", "--yes")

    def test_3_only_pages_of_this_machine_and_holders_of_the_token_are_served(self):
        before = len(self.home.json("log"))
        served = ([], ["Origin: http://localhost:3000"], ["Origin: http://127.0.0.1"], ["origin: http://[::1]:8080"])
        for headers in served:
            status, _, body = self.ask("list_vms", {}, *headers)
            self.assertEqual(status, "HTTP/1.1 200 OK", headers)
            self.assertIs(json.loads(body)["result"]["isError"], False, headers)
        for origin in ("http://example.org", "http://127.0.0.1.example.org", "http://localhost@example.org", "null",
                       ""):
            status, others, body = self.ask("list_vms", {}, f"Origin: {origin}")
            self.assertEqual((status, body), ("HTTP/1.1 403 Forbidden", ""), origin)
            self.assertNotIn("access-control", others.lower())
        old = self.token()
        self.assertNotEqual(self.home.json("mcp", "token", "--regenerate")["text"], old)
        self.assertTrue(self.ask("list_vms", {}, token=old)[0].startswith("HTTP/1.1 401 "))
        self.assertEqual(self.ask("list_vms", {})[0], "HTTP/1.1 200 OK")
        # What was refused did nothing.
        self.assertEqual(len(self.home.json("log")), before + len(served) + 1)
        self.home.run("settings", "set", "mcpServerEnabled", "false")
        self.assertTrue(wait_until(lambda: "The MCP server is off." in self.home.run("mcp", "probe", check=False).stderr))
        self.home.run("settings", "set", "mcpServerEnabled", "true")
        self.assertTrue(wait_until(lambda: self.home.run("mcp", "probe", check=False).returncode == 0))

    def test_4_commands_on_a_running_machine(self):
        picture = self.home.root / "demo.png"
        self.home.run("demo", "--image", str(service_test.demo_image), "--screenshot", str(picture))
        # The guest may be in the middle of a line.
        for text in (self.home.run("logs", guest).stdout, self.home.json("logs", guest)["text"]):
            self.assertRegex(text, rf"(?s)Started VM: {guest}\n.*\n=== Guest console .*DORVANE DEMO READY")
        # Going back to this is quicker than booting again.
        self.home.run("snapshot", "take", guest, "booted", "--memory")
        self.home.run("stop", guest)
        vm, result = shlex.quote(guest), named(guest)
        not_running = f"VM '{guest}' is not running"
        snapshot = named("booted", kind="manual", createdAt=date, includesRAMState=True, takenWhileRunning=True,
                         logicalDiskSizeBytes=64 << 30)
        no_commands = r"Commands and screenshots inside guests are not available in this build yet\."
        self.check_both([
            Row(f"snapshot restore --yes {vm} booted", r"Restored booted\.", snapshot, "stopped (suspended)"),
            Row(f"start {vm}", rf"Started {guest}\.", result, "running"),
            refused(f"start {vm}", f"VM '{guest}' is already running"),
            refused(f"resume {vm}", not_running),
            refused(f"exec {vm} echo hello", no_commands),
            refused(f"snapshot restore --yes {vm} booted",
                    r"Failed to restore snapshot: Shut down the VM before restoring a snapshot\."),
            refused(f"clone {vm} Copy", r"Failed to clone VM: Shut down the VM before cloning it\."),
            Row(f"discard --yes {vm}", rf"{guest} had no memory to discard\.", result | {"discarded": False},
                "running"),
            Row(f"pause {vm}", rf"Paused {guest}\.", result, "paused"),
            refused(f"pause {vm}", not_running),
            refused(f"exec {vm} echo hello", no_commands),
            Row(f"resume {vm}", rf"Resumed {guest}\.", result, "running"),
            Row(f"restart {vm}", rf"Restarted {guest}\.", result, "running"),
            Row(f"suspend {vm}", rf"Suspended {guest}\.", result, "stopped (suspended)"),
            refused(f"pause {vm}", not_running),
            refused(f"restart {vm}", not_running),
            Row(f"discard --yes {vm}", rf"Discarded what {guest} had in memory\.", result | {"discarded": True},
                "stopped"),
        ])
        # The first boot, and twice a start and a restart: each was a QEMU of its own.
        self.assertEqual(self.home.log.read_text().count(f"[QEMUEngine] Launched QEMU VM {guest}\n"), 5)

    def files(self):
        """Everything of the user's, so that any change to it shows."""
        stats = {path: path.stat() for path in self.home.root.rglob("*") if path.is_file() and path != self.home.log}
        return {str(path): (stat.st_ino, stat.st_size, stat.st_mtime_ns) for path, stat in stats.items()}

    def test_5_without_a_terminal_a_question_loses_nothing_and_names_the_command_that_works(self):
        pc, snapshot, archive = "Bob's PC", 'the "first"', self.home.root / "a backup.zip"
        archive.write_text("kept")
        self.home.run("create", pc)
        self.home.run("create", "Spare")
        self.home.run("snapshot", "take", pc, snapshot)
        trash = self.home.root / "data/Trash/files"
        self.assertTrue(wait_until(lambda: not self.home.children()), self.home.children())
        for words, is_done in (
                (["snapshot", "restore", guest, "booted"], lambda: self.state() == "stopped (suspended)"),
                (["discard", guest], lambda: self.state() == "stopped"),
                (["snapshot", "delete", pc, snapshot], lambda: not self.names("snapshot", "list", pc)),
                (["backup", pc, str(archive)], lambda: zipfile.is_zipfile(archive)),
                (["delete", pc], lambda: pc not in self.names("list") and (trash / pc).exists()),
                (["delete", "--permanently", "Spare"],
                 lambda: "Spare" not in self.names("list") and not (trash / "Spare").exists())):
            before = self.files()
            for form in ([], ["--json"]):
                got = self.home.run(*words, *form, check=False)
                self.assertEqual((got.returncode, got.stdout), (1, ""), words)
                told = question.fullmatch(got.stderr)
                self.assertTrue(told, got.stderr)
            self.assertFalse(is_done(), words)
            self.assertEqual(self.files(), before, words)
            self.home.run(*shlex.split(told[1]))
            self.assertTrue(is_done(), told[1])


if __name__ == "__main__":
    service_test.demo_image = pathlib.Path(sys.argv[2])
    service_test.program = pathlib.Path(sys.argv[1])
    unittest.main(argv=[sys.argv[0], "-v"] + sys.argv[3:])
