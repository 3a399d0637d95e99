#!/usr/bin/env python3
"""Runs the programs of the documents against pkilab, as a reader would, and compares what they
print with what the page says.

    try_docs.py BUILD_DIR [COMPILER_OPTION...]

CC in the environment names the compiler. RUN_WITH is a command, in shell words, that runs what it
makes, where that is for another machine; TRY_SECONDS how long a program may take.
"""

import os
import re
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.dont_write_bytecode = True  # scripts leave nothing in their folder
from check_docs import program_of  # noqa: E402

ROOT = Path(__file__).resolve().parent.parent
COMPILE = [os.environ.get("CC", "cc"), "-std=c99", "-pedantic", "-Wall", "-Wextra", "-Werror", f"-I{ROOT / 'include'}"]
LIBRARIES = ["-lpki", "-lssl", "-lcrypto"]
DEADLINE_SECONDS = int(os.environ.get("TRY_SECONDS", "60"))


def outputs_of(page):
    """The page's blocks without a language that show what a program prints."""
    blocks = re.findall(r"^```(\w*)\n(.*?)^```$", page.read_text(encoding="utf-8"),
                        re.DOTALL | re.MULTILINE)
    return [sorted(normal(block).splitlines()) for language, block in blocks if not language]


def normal(text):
    """Without what differs from run to run."""
    text = re.sub(r"http://127\.0\.0\.1:\d+", "http://127.0.0.1:8080", text)
    return re.sub(r"^[0-9A-F]+:error:", "error:", text, flags=re.MULTILINE)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for(what, is_there):
    end = time.monotonic() + DEADLINE_SECONDS
    while not is_there():
        if time.monotonic() > end:
            raise TimeoutError(f"{what} did not start")
        time.sleep(0.1)


def answers(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Trial:
    def __init__(self, build, options, folder):
        self.build, self.options, self.folder, self.failures = build, options, folder, 0
        self.children = []
        (folder / "board").mkdir()
        (folder / "board" / "serialnumber").write_text("SN-0001\n", encoding="ascii")
        (folder / "board" / "secret").write_text("device-secret", encoding="ascii")
        self.environment = {**os.environ, "BOARD_INFO_DIR": str(folder / "board")}

    def start(self, *command):
        with open(self.folder / "children.log", "ab") as log:
            self.children.append(subprocess.Popen(command, cwd=self.folder, env=self.environment,
                                                  stdin=subprocess.DEVNULL, stdout=log, stderr=log))

    def end(self):
        for child in self.children:
            child.terminate()
            child.wait()

    def run(self, *command):
        return subprocess.run(command, cwd=self.folder, env=self.environment, text=True,
                              capture_output=True, check=False, timeout=DEADLINE_SECONDS)

    def must_run(self, *command):
        result = self.run(*command)
        if result.returncode:
            raise RuntimeError(f"{command}: {result.stdout}{result.stderr}")

    def tool(self, name):
        return str(self.build / "bin" / name)

    def compile(self, page):
        program = self.folder / page.stem
        source = program.with_suffix(".c")
        source.write_text(program_of(page), encoding="utf-8")
        self.must_run(*COMPILE, *self.options, str(source), "-o", str(program), f"-L{self.build / 'lib'}",
                      f"-Wl,-rpath,{self.build / 'lib'}", *LIBRARIES)
        if "RUN_WITH" not in os.environ:
            return str(program)
        script = program.with_suffix(".sh")
        script.write_text(f"#!/bin/sh\nexec {os.environ['RUN_WITH']} '{program}' \"$@\"\n",
                          encoding="utf-8")
        script.chmod(0o755)
        return str(script)

    def expect(self, page, which, code, *command):
        """The command's exit code, and the page's output number `which` (None: not shown)."""
        result = self.run(*command)
        printed = sorted(normal(result.stdout + result.stderr).splitlines())
        wanted = outputs_of(page)[which] if which is not None else printed
        if result.returncode == code and printed == wanted:
            return
        self.failures += 1
        print(f"{page.relative_to(ROOT)}: its program ended with {result.returncode} and printed\n"
              f"{result.stdout}{result.stderr}, where {code} and the page's text were expected")


def try_pages(trial):
    docs, folder = ROOT / "docs", trial.folder
    trial.start(trial.tool("pkilab"), "serve", "--dir", "lab", "--quiet", "--ready-file", "ready")
    wait_for("pkilab", (folder / "ready").exists)
    url = (folder / "ready").read_text(encoding="ascii").strip()
    document, key, crl = f"{url}/ca-info", "lab/doc-key.pub.pem", f"{url}/crl/issuing.crl"
    trial.must_run(trial.tool("pkilab"), "issue", "--dir", "lab", "--new-key", "server-key.pem",
                   "--subject", "CN=server, O=Example", "--alt-name", "DNS:localhost",
                   "--out", "server.pem")
    port = free_port()
    trial.start("openssl", "s_server", "-accept", str(port), "-www", "-cert", "server.pem",
                "-key", "server-key.pem", "-Verify", "1", "-verify_return_error",
                "-CAfile", "lab/issuing-cert.pem")
    wait_for("openssl s_server", lambda: answers(port))

    trial.expect(ROOT / "README.md", None, 0, trial.compile(ROOT / "README.md"), document, key)
    trial.must_run(trial.tool("pkilab"), "issue", "--dir", "lab", "--ca", "additional", "--new-key",
                   "deep-key.pem", "--subject", "CN=deep, O=Example", "--out", "deep.pem")
    page = docs / "provisioning.md"
    trial.expect(page, 0, 0, trial.compile(page), document, key, "deep.pem")
    page = docs / "enrollment.md"
    trial.expect(page, 0, 0, trial.compile(page), document, key)
    page = docs / "marshalling.md"
    trial.expect(page, 0, 0, trial.compile(page))

    quick_start, validation = docs / "quick-start.md", docs / "validation.md"
    host = [trial.compile(quick_start), document, key, crl, "localhost", f"127.0.0.1:{port}"]
    judge = [trial.compile(validation), "lab/issuing-cert.pem", "server.pem"]
    trial.expect(quick_start, 0, 0, *host)
    trial.expect(validation, 0, 0, *judge, f"{url}/ocsp", crl)
    trial.must_run(trial.tool("pkilab"), "revoke", "--dir", "lab", "server.pem")
    trial.expect(quick_start, 1, 1, *host)
    trial.expect(validation, 1, 1, *judge, "http://127.0.0.1:9/ocsp", crl)


def main():
    if len(sys.argv) < 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    with tempfile.TemporaryDirectory(prefix="pki-docs.") as folder:
        options = [option for option in sys.argv[2:] if option]
        trial = Trial(Path(sys.argv[1]).resolve(), options, Path(folder))
        try:
            try_pages(trial)
        finally:
            trial.end()
    return 1 if trial.failures else 0


if __name__ == "__main__":
    sys.exit(main())
