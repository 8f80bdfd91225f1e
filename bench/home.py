# SPDX-License-Identifier: Apache-2.0
"""A user with nothing but a home, for the benchmarks that measure the release program as a whole."""
import contextlib
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

root = pathlib.Path(__file__).resolve().parents[1]
program = root / "build/release/dorvane"


def made_by(script):
    """The path that a script of the project prints last: of what it has made, or found made."""
    result = subprocess.run([root / "scripts" / script], check=True, capture_output=True, text=True)
    return pathlib.Path(result.stdout.splitlines()[-1])


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def timed(action):
    started = time.monotonic()
    action()
    return time.monotonic() - started


def call(url, tool, **arguments):
    """What the MCP tool answers."""
    body = json.dumps({"jsonrpc": "2.0", "id": 1, "method": "tools/call",
                       "params": {"name": tool, "arguments": arguments}}).encode()
    with urllib.request.urlopen(urllib.request.Request(url, body), timeout=60) as answer:
        result = json.load(answer)["result"]
    if result["isError"]:
        sys.exit(f"{tool}: {result['content'][0]['text']}")
    return result["content"][0]


class Home:
    """Everything of the user's lies below `path`, which goes with the `with` block. `environment` leads there."""

    def __init__(self):
        self.path = pathlib.Path(tempfile.mkdtemp(prefix="dvnbench"))
        self.log = self.path / "log"
        self.environment = dict(os.environ, XDG_RUNTIME_DIR=str(self.path))
        for name in ("DATA", "CONFIG", "STATE"):
            self.environment[f"XDG_{name}_HOME"] = str(self.path / name.lower())
        self.environment.pop("DBUS_SESSION_BUS_ADDRESS", None)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.path)

    def command(self, *words):
        return subprocess.run([program, *words], env=self.environment, stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, check=False)

    def run(self, *words):
        result = self.command(*words)
        if result.returncode != 0:
            sys.exit(f"dorvane {' '.join(map(str, words))}: {result.stderr}\n{self.log.read_text()[-2000:]}")
        return result.stdout.strip()

    @contextlib.contextmanager
    def service(self):
        """A service that answers; at the end of the block it stops its guests and itself."""
        words = [program, "serve", "--storage", self.path / "vms", "--port", str(free_port())]
        with self.log.open("w") as log:
            service = subprocess.Popen(words, env=self.environment, stdout=log, stderr=log)
        try:
            deadline = time.monotonic() + 10
            while self.command("status").returncode != 0:
                if time.monotonic() > deadline:
                    sys.exit("the service did not come up\n" + self.log.read_text()[-2000:])
                time.sleep(0.05)
            yield
        finally:
            service.send_signal(signal.SIGTERM)
            service.wait()

    def bundle(self, name):
        return self.path / "vms" / name

    def remove_tpm(self, name):
        config = self.bundle(name) / "config.json"
        description = json.loads(config.read_text())
        description["windowsPlatform"]["hasTPM"] = False
        config.write_text(json.dumps(description))

    def emulator(self):
        """The process of the one running guest."""
        for entry in pathlib.Path("/proc").iterdir():
            with contextlib.suppress(OSError):
                line = (entry / "cmdline").read_bytes() if entry.name.isdigit() else b""
                if b"qemu-system-aarch64" in line and str(self.path).encode() in line:
                    return entry
        sys.exit("no emulator runs")
