#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What a user keeps - snapshots, suspended guests, backups, sandboxes - through everything that goes wrong.

Usage: keeping_test.py PROGRAM DEMO_IMAGE. The program itself, a real QEMU, the demo guest."""
import json
import pathlib
import re
import signal
import subprocess
import sys
import time
import unittest
import zipfile

import service_test
from service_test import Home, guest, wait_until

here = pathlib.Path(__file__).resolve().parent
client_folder = here.parent / "mcp/client"


class KeepingTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.home = Home()
        cls.home.start_service()
        cls.home.run("demo", "--image", str(service_test.demo_image))

    @classmethod
    def tearDownClass(cls):
        cls.home.remove()

    def run_words(self, *words):
        return self.home.run(*words).stdout

    def status(self, name=guest):
        return self.home.json("status", name)

    def bundle(self, name=guest):
        return self.home.root / "vms" / name

    def console(self, name=guest):
        return (self.bundle(name) / "console.log").read_text(errors="replace")

    def in_guest(self, command, name=guest):
        """Over SSH, with the key that Dorvane made for the machine."""
        port = self.home.json_file(self.bundle(name) / "config.json")["windowsSSH"]["hostPort"]
        identifier = self.status(name)["id"]
        key = next(path for path in self.home.root.rglob("*") if identifier.lower() in str(path).lower() and
                   path.is_file() and path.suffix != ".pub" and b"PRIVATE KEY" in path.read_bytes()[:100])
        words = ["ssh", "-i", str(key), "-p", str(port), "-F", "/dev/null", "-o", "BatchMode=yes", "-o",
                 "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null", "-o", "ConnectTimeout=10",
                 "root@127.0.0.1", command]
        answer = []

        def attempt():
            result = subprocess.run(words, capture_output=True, text=True, check=False)
            answer[:] = [result.stdout.strip()]
            return result.returncode == 0
        self.assertTrue(wait_until(attempt, 120), self.home.log_tail())
        return answer[0]

    def snapshots(self, name=guest):
        return [row["name"] for row in self.home.json("snapshot", "list", name)]

    def kill_service(self):
        self.home.stop_service(signal.SIGKILL)
        self.home.start_service()

    def begin(self, *words):
        return subprocess.Popen(self.home.command(*words), env=self.home.environment, stdin=subprocess.DEVNULL,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def counts(self):
        return [int(number) for number in re.findall(r"COUNT: (\d+)", self.console())]

    def test_1_a_guest_that_counts_goes_on_after_a_suspend_and_a_new_service(self):
        self.in_guest("count")
        self.assertTrue(wait_until(lambda: len(self.counts()) >= 3, 30))
        self.run_words("suspend", guest)
        before = self.counts()
        self.assertTrue(self.status().get("suspended"), self.status())
        self.assertEqual(self.home.stop_service(), 0)
        self.home.start_service()
        self.run_words("start", guest)
        self.assertFalse(self.status().get("suspended"))
        self.assertTrue(wait_until(lambda: self.counts() and self.counts()[-1] >= before[-1] + 3, 30))
        after = self.counts()
        sequence = after if after[0] == 1 else before + after
        print(f"\ncounter: {before[-2:]} | suspended, new service, started | {sequence[len(before):len(before) + 3]}")
        self.assertEqual(sequence, list(range(1, len(sequence) + 1)))
        self.in_guest("count stop")

    def test_2_snapshots_of_the_running_guest_survive_the_death_of_the_service(self):
        self.in_guest("mark first")
        self.run_words("snapshot", "take", guest, "first")
        self.in_guest("mark second")
        self.run_words("snapshot", "take", guest, "second", "--memory")
        self.in_guest("mark third")
        for delay in (0.0, 0.05, 0.15, 0.4):
            before = self.snapshots()
            client = self.begin("snapshot", "take", guest, f"killed after {delay}", "--memory")
            time.sleep(delay)
            self.kill_service()
            client.wait()
            # Either it was never taken, or it is there as a whole.
            self.assertIn(self.snapshots()[-len(before):], [before])
            self.assertEqual(self.status()["status"], "stopped")
            self.run_words("start", guest)
            self.assertEqual(self.in_guest("mark"), "third")
        self.run_words("stop", guest)
        self.run_words("snapshot", "restore", guest, "second", "--yes")
        self.assertTrue(self.status().get("suspended"))
        self.run_words("start", guest)
        self.assertEqual(self.in_guest("mark"), "second")
        self.run_words("stop", guest)
        self.run_words("snapshot", "restore", guest, "first", "--yes")
        self.run_words("start", guest)
        self.assertEqual(self.in_guest("mark"), "first")
        self.run_words("stop", guest)

    def test_3_a_suspend_that_the_service_does_not_live_to_end_costs_the_memory_only(self):
        self.run_words("start", guest)
        self.in_guest("mark kept")
        client = self.begin("suspend", guest)
        self.assertTrue(wait_until(lambda: (self.bundle() / "state.vzvmsave").exists(), 10))
        self.kill_service()
        client.wait()
        self.run_words("start", guest)
        self.assertEqual(self.in_guest("mark"), "kept")
        self.run_words("stop", guest)

    def test_4_a_backup_is_whole_or_not_there(self):
        archive = self.home.root / "backup.zip"
        for delay in (0.1, 0.5):
            client = self.begin("backup", guest, str(archive))
            time.sleep(delay)
            self.kill_service()
            client.wait()
            self.assertFalse(archive.exists() and not zipfile.is_zipfile(archive))
        self.run_words("snapshot", "take", guest, "in the backup")
        names = self.snapshots()
        self.run_words("backup", guest, str(archive), "--yes")
        self.assertIsNone(zipfile.ZipFile(archive).testzip())
        self.assertEqual([path for path in self.home.root.iterdir() if path.name.startswith(".")], [])
        for delay in (0.1, 0.5):
            client = self.begin("restore", str(archive), "--name", "Copy")
            time.sleep(delay)
            self.kill_service()
            client.wait()
            folders = {path.name for path in (self.home.root / "vms").iterdir()}
            self.assertLessEqual(folders, {guest, "Copy"})
            if "Copy" in folders:
                self.run_words("delete", "Copy", "--yes")
        self.run_words("restore", str(archive), "--name", "Copy")
        self.assertEqual(self.snapshots("Copy"), names)
        self.assertEqual(self.snapshots(), names)
        both = [row["id"] for name in (guest, "Copy") for row in self.home.json("snapshot", "list", name)]
        self.assertEqual(len(set(both)), len(both))
        self.assertNotEqual(self.home.json_file(self.bundle("Copy") / "config.json")["macAddress"],
                            self.home.json_file(self.bundle() / "config.json")["macAddress"])
        self.run_words("start", "Copy")
        self.assertEqual(self.in_guest("mark", "Copy"), "kept")
        self.run_words("stop", "Copy", "--force")
        refused = self.home.run("restore", str(archive), "--name", "Copy", check=False)
        self.assertNotEqual(refused.returncode, 0)
        self.run_words("delete", "Copy", "--yes")

    def test_5_sandboxes_live_as_long_as_they_are_told(self):
        made = self.home.json("clone", guest, "--sandbox", "--ttl", "5", "--isolated")
        name = made["name"]
        self.assertRegex(name, rf"^{guest}-sandbox-\d{{6}}-\d{{6}}-[0-9a-f]{{4}}$")
        self.assertEqual(self.home.json_file(self.bundle(name) / "config.json")["network"]["mode"], "isolated")
        self.assertTrue((self.bundle(name) / "ephemeral.json").exists())
        self.run_words("extend", name, "1h")
        self.kill_service()
        self.assertIn(name, [vm["name"] for vm in self.home.json("list")])
        self.run_words("keep", name)
        self.assertFalse((self.bundle(name) / "ephemeral.json").exists())
        self.run_words("delete", name, "--yes")

    def test_6_links_do_what_they_say_once_they_are_allowed(self):
        link = f"DORVANE://snapshot?vm={guest.lower().replace(' ', '%20')}&name=By%20link"
        refused = self.home.run("open", link, check=False)
        self.assertNotEqual(refused.returncode, 0)
        self.assertIn("Dorvane links are turned off.", refused.stderr)
        self.run_words("settings", "set", "DorvaneURLCommandsEnabled", "true")
        self.run_words("open", link)
        self.assertEqual(self.snapshots()[0], "By link")
        unknown = self.home.run("open", "dorvane://start?vm=nobody", check=False)
        self.assertIn("There is no VM named “nobody”.", unknown.stderr)

    def node(self, script, *words):
        result = subprocess.run(["node", str(script), *words], capture_output=True, text=True, timeout=400, check=False)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr + self.home.log_tail())
        return result.stdout

    def test_7_the_public_client_understands_the_server_and_an_agent_works_in_a_sandbox_of_its_own(self):
        if not (client_folder / "node_modules/@modelcontextprotocol").exists():
            subprocess.run(["npm", "ci", "--prefix", str(client_folder)], check=True, stdout=subprocess.DEVNULL)
        url = self.run_words("mcp", "url").strip()
        seen = json.loads(self.node(client_folder / "client.mjs", url))
        self.assertEqual(seen["server"]["name"], "Dorvane")
        self.assertTrue(seen["instructions"].startswith("Drive the virtual machines on this Mac."))
        self.assertEqual(seen["capabilities"], {"tools": {}})
        self.assertEqual(seen["ping"], {})
        tools = [tool["name"] for tool in seen["tools"]]
        self.assertGreaterEqual(len(tools), 12)
        self.assertEqual((tools[0], tools[11]), ("list_vms", "screenshot"))
        self.assertEqual(seen["together"], [len(tools)] * 12)
        self.assertIs(seen["machines"]["isError"], False)
        self.assertIn(guest, [vm["name"] for vm in json.loads(seen["machines"]["content"][0]["text"])])
        self.assertIs(seen["unknownMachine"]["isError"], True)
        self.assertTrue(seen["unknownMachine"]["content"][0]["text"].startswith(
            "No VM named 'no such machine'. Known VMs: "))
        self.assertNotEqual(seen["staleToken"], "none")
        self.run_words("settings", "set", "mcpDestructiveToolsEnabled", "true")
        print("\n" + self.node(here / "agent_session.mjs", str(client_folder), url, guest))

    def test_8_a_guest_that_ignores_its_power_button_is_powered_off(self):
        self.run_words("start", guest)
        self.in_guest("ignore-power")
        begin = time.monotonic()
        self.assertIs(self.home.json("stop", guest)["forced"], True)
        self.assertGreater(time.monotonic() - begin, 25, "it had its time")
        self.run_words("start", guest)
        self.in_guest("true")
        self.assertIs(self.home.json("stop", guest)["forced"], False, self.home.log_tail())

    def test_9_snapshots_go_without_taking_anything_along(self):
        for name in self.snapshots():
            self.run_words("snapshot", "delete", guest, name, "--yes")
        self.assertEqual([str(path) for path in (self.bundle() / "Snapshots").rglob("*")], [], self.home.log_tail())
        self.run_words("start", guest)
        self.assertEqual(self.in_guest("mark"), "kept")
        self.assertEqual(self.home.stop_service(), 0)


if __name__ == "__main__":
    service_test.demo_image = pathlib.Path(sys.argv[2])
    service_test.program = pathlib.Path(sys.argv[1])
    unittest.main(argv=[sys.argv[0], "-v"] + sys.argv[3:])
