#!/usr/bin/env python3
"""Checks the manual: a page for each function of the library and of the board library and for each
subcommand, and no formatter complains about any.

    check_manual.py SOURCE_DIR MAN_DIR TOOL...
"""

import re
import shutil
import subprocess
import sys
from pathlib import Path

source, manual = Path(sys.argv[1]), Path(sys.argv[2])
sys.path.insert(0, str(source / "scripts"))
sys.dont_write_bytecode = True
import roff  # noqa: E402
import tool_help  # noqa: E402

complaints = []


def check_page(path, name):
    """The page is there, has its sections, and is found under the name."""
    if not path.is_file():
        complaints.append(f"{path}: no page for {name}")
        return ""
    text = path.read_text(encoding="utf-8")
    for section in ("NAME", "SYNOPSIS", "DESCRIPTION"):
        if not text.partition(f".SH {section}\n")[2].partition(".SH ")[0].strip():
            complaints.append(f"{path}: {section} is not there, or empty")
    names = text.partition(".SH NAME\n")[2].partition(r"\- ")[0]
    if name not in re.split(r"[,\s]+", names.replace(r"\-", "-").replace("\\", "")):
        complaints.append(f"{path}: NAME does not have {name}")
    return text


def functions_of(path, pattern):
    names = re.findall(pattern, (source / path).read_text(encoding="utf-8"), re.MULTILINE)
    if not names:
        complaints.append(f"{path}: no functions")
    return names


def check_functions():
    names = functions_of("packaging/libpki.map", r"^    (\w+);$")
    names += functions_of("board/include/board/board.h", r"^BOARD_API\b[^;(]*?\b(\w+)\(")
    for name in names:
        text = check_page(manual / "man3" / f"{name}.3", name)
        synopsis = text.partition(".SH SYNOPSIS\n")[2].partition(".SH ")[0]
        if text and not re.search(rf"\b{name}\b", synopsis):
            complaints.append(f"{name}.3: SYNOPSIS does not declare it")
    for path in sorted((source / "include/libpki").glob("*.h")):
        if path.stem != "libpki":
            check_page(manual / "man3" / f"libpki_{path.stem}.3", f"libpki_{path.stem}")
    for name in ("libpki_board", "libpki"):
        check_page(manual / "man3" / f"{name}.3", name)
    return len(names)


def check_code():
    """No line of a type stands deeper than what it encloses."""
    for path in sorted((manual / "man3").glob("libpki_*.3")):
        lines = path.read_text(encoding="utf-8").splitlines()
        for line, below in zip(lines, lines[1:]):
            depth, depth_below = (len(text) - len(text.lstrip()) for text in (line, below))
            if line.endswith("{") and depth >= depth_below:
                complaints.append(f"{path}: badly indented: {line.strip()}")


def check_errors():
    """A code that one function uses in a sense of its own is explained in that sense."""
    errors = (manual / "man3/pki_remove_key.3").read_text(encoding="utf-8").partition(".SH ERRORS")[2]
    if "no key of that label" not in " ".join(errors.split()):
        complaints.append("pki_remove_key.3: ERRORS says nothing about a missing key")


def check_tool(program):
    commands = list(tool_help.read_tool(program, [Path(program).name]).all())
    for command in commands:
        name = command.page_name()
        text = check_page(manual / "man1" / f"{name}.1", name)
        for option in command.options():
            for flag in option.flags():
                if text and roff.bold(flag) not in text:
                    complaints.append(f"{name}.1: nothing about {flag}")
        for row in rows_of_help(program, command):
            if f".TP\n{roff.bold(row)}\n" not in text:
                complaints.append(f"{name}.1: {row} has no paragraph of its own")
        if r"\(rs&" in text:
            complaints.append(f"{name}.1: an escape was escaped")
    return len(commands)


def rows_of_help(program, command):
    """What the help lists but options, arguments and subcommands: the names of the rows."""
    if command.children:
        return []
    shown = subprocess.run([program, *command.words[1:], "--help"], check=True, text=True,
                           capture_output=True).stdout
    lists = shown.partition("\nOptions:")[2].partition("\n\n")[2]
    return re.findall(r"^  (/?[\w-]+[/\w.-]*)(?: {3,}\S.*|)\n", lists, re.MULTILINE)


def run_checker(command):
    result = subprocess.run(command, text=True, capture_output=True, check=False)
    return (result.stdout if command[0] == "mandoc" else "") + result.stderr


def check_formatting():
    pages = [str(path) for path in sorted(manual.rglob("*.[13]")) if not path.is_symlink()]
    if shutil.which("mandoc"):
        complaints.extend(run_checker(["mandoc", "-Tlint", "-W", "warning", *pages]).splitlines())
    if shutil.which("man"):
        complaints.extend(run_checker(
            ["env", "LC_ALL=C.UTF-8", "MANWIDTH=80", "man", "--warnings", "-E", "UTF-8", "-l",
             "-Tutf8", "-Z", *pages]).splitlines())


functions = check_functions()
check_code()
check_errors()
subcommands = sum(check_tool(program) for program in sys.argv[3:])
if not functions or not subcommands:
    complaints.append("nothing to check")
check_formatting()
for complaint in complaints:
    print(complaint)
print(f"{functions} functions and objects, {subcommands} commands")
sys.exit(1 if complaints else 0)
