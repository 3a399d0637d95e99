"""What the peer tests share: the lab, a device, and programs that somebody else wrote.

A test is a script: peers.run(test_function, ...) runs each with a fresh folder and exits 0 when all
passed, 1 when one failed, 77 when the peer is not there (ctest then reports it as skipped).
"""
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

SKIPPED = 77
BIN = pathlib.Path(os.environ.get("TOOL_DIR", "build/release/bin"))
SECRET = b"peer-test-secret-0123"


class Skipped(Exception):
    pass


def need(program, package):
    """The path of a peer's program, or the end of the test."""
    found = shutil.which(program, path=os.environ["PATH"] + ":/usr/sbin:/usr/lib/certmonger")
    if not found:
        raise Skipped(f"{program} is not here: install the Debian package {package}")
    return found


def call(*command, ok=True, text=True, **more):
    """Runs a command and returns (exit code, output of both streams)."""
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=60, text=text, **more)
    if ok and done.returncode != 0:
        raise AssertionError(f"{command[0]} failed ({done.returncode}):\n{done.stdout}")
    return done.returncode, done.stdout


def post(url, octets):
    """(status, body) of a POST."""
    request = urllib.request.Request(url, data=octets,
                                     headers={"Content-Type": "application/x-pki-message"})
    try:
        with urllib.request.urlopen(request, timeout=30) as answer:
            return answer.status, answer.read()
    except urllib.error.HTTPError as error:
        return error.code, error.read()


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


class Server:
    """A child process that serves until the block ends."""

    def __init__(self, command, ready, **more):
        self.command, self.ready, self.more = [str(word) for word in command], ready, more

    def __enter__(self):
        self.process = subprocess.Popen(self.command, stdout=subprocess.DEVNULL, **self.more)
        deadline = time.monotonic() + 30
        while not self.ready():
            if self.process.poll() is not None or time.monotonic() > deadline:
                self.process.kill()
                raise AssertionError(f"{self.command[0]} did not start")
            time.sleep(0.05)
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(timeout=30)


def answers(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Lab(Server):
    """pkilab in a folder; every SCEP message and answer is kept in `saved`."""

    def __init__(self, folder, *options):
        self.folder, self.saved = folder / "lab", folder / "saved"
        self.ready_file = folder / "ready"
        super().__init__([BIN / "pkilab", "serve", "--dir", self.folder, "--quiet", "--ready-file",
                          self.ready_file, "--scep-save", self.saved, *options],
                         self.ready_file.exists)

    def url(self, path=""):
        return self.ready_file.read_text().strip() + path

    def messages(self):
        return sorted(self.saved.glob("*.der"))


class Device:
    """pkictl with a board and a state folder of its own."""

    def __init__(self, folder):
        self.state = folder / "state"
        board = folder / "board"
        board.mkdir()
        (board / "serialnumber").write_text("PEER-0001\n")
        (board / "secret").write_bytes(SECRET)
        self.environment = dict(os.environ, BOARD_INFO_DIR=str(board))

    def pkictl(self, *words, ok=True):
        return call(BIN / "pkictl", *words, "--state", self.state, ok=ok, env=self.environment)

    def provision(self, lab, label="ca"):
        self.pkictl("provision", lab.url("/ca-info"), "--doc-key", lab.folder / "doc-key.pub.pem",
                    "--label", label)

    def make_key(self, label="key", bits=2048):
        self.pkictl("key", "generate", label, "--bits", bits)
        exported = self.state.parent / f"{label}.pem"
        self.pkictl("key", "export", label, "--out", exported)
        return exported

    def enroll(self, *more, ok=True):
        return self.pkictl("enroll", "--key", "key", "--ca", "ca", "--subject",
                           "CN=device,O=Example,C=US", *more, ok=ok)


def decode(file, *more, ok=True):
    return call(BIN / "pkictl", "scep", "decode", file, *more, ok=ok)


def run(*tests):
    failed = 0
    for test in tests:
        with tempfile.TemporaryDirectory(prefix="pki-peers-") as folder:
            try:
                test(pathlib.Path(folder))
                print(f"passed: {test.__name__}")
            except Skipped as reason:
                print(f"skipped: {reason}")
                sys.exit(SKIPPED)
            except Exception as error:  # a test's own failure, or a peer's
                print(f"FAILED: {test.__name__}: {error}")
                failed += 1
    sys.exit(1 if failed else 0)
