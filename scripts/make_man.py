#!/usr/bin/env python3
"""Makes the manual pages.

    make_man.py --version V headers OUT_DIR         section 3, from the public headers
    make_man.py --version V tools OUT_DIR TOOL...   section 1, from what each TOOL's --help says

OUT_DIR is emptied of pages first. SOURCE_DATE_EPOCH sets the pages' date; --documents FOLDER, in
front of `headers`, says where README.md and docs/ will be installed.
"""

import argparse
import os
import re
import sys
import textwrap
import time
from pathlib import Path

import roff
import tool_help
from error_list import error_codes
from header_pages import Manual, read_header

ROOT = Path(__file__).resolve().parent.parent


def page_date():
    seconds = int(os.environ.get("SOURCE_DATE_EPOCH", time.time()))
    return time.strftime("%Y-%m-%d", time.gmtime(seconds))


# ---- section 3 ----

def plain(markdown):
    """Markdown's paragraphs as a header's comment would write them."""
    text = re.sub(r"\[([^\]]+)\]\([^)]*\)", r"\1", markdown)
    text = re.sub(r"\*\*([^*\n]+)\*\*", r"\1", text)
    return re.sub(r"(?<![\w*])\*([^*\n]+)\*(?![\w*])", r"\1", text)


def readme():
    """(introduction, example): what stands above the first heading, and the first C program."""
    text = (ROOT / "README.md").read_text(encoding="utf-8")
    introduction = re.match(r"# .*?\n(.*?)^## ", text, re.DOTALL | re.MULTILINE).group(1)
    example = re.search(r"^```c\n(.*?)^```$", text, re.DOTALL | re.MULTILINE).group(1)
    return plain(introduction), example


def write_headers(version, documents, folder):
    headers = [read_header(path, f"libpki/{path.name}")
               for path in sorted((ROOT / "include/libpki").glob("*.h"))
               if path.name != "libpki.h"]
    headers.append(read_header(ROOT / "board/include/board/board.h", "board/board.h"))
    manual = Manual(headers, error_codes(), version, page_date(), documents)
    manual.write(folder)
    conventions = next(header.about for header in headers if header.include == "libpki/types.h")
    introduction, example = readme()
    (folder / "libpki.3").write_text(manual.overview(introduction, conventions, example))


# ---- section 1 ----

# What the help puts behind an option's name to say what may follow: ":{one,other}",
# ":INT in [1 - 9]", "=default", "REQUIRED", "(with --other)".
CONDITIONS = re.compile(r":\{[^}]*\}|:\w+ in \[[^\]]*\]|(?<!\[)=\S+|\s*REQUIRED|\s*\(with .*\)")


def conditions(item):
    """The same in sentences."""
    sentences = []
    if re.search(r"\bREQUIRED\b", item.form):
        sentences.append("Required.")
    needs = re.search(r"\(with (.*)\)", item.form)
    if needs:
        sentences.append(f"Only with {needs.group(1)}.")
    if item.choices():
        sentences.append(f"One of {', '.join(item.choices())}.")
    limits = re.search(r":\w+ in \[(\S+) - (\S+)\]", item.form)
    if limits:
        sentences.append(f"From {limits.group(1)} to {limits.group(2)}.")
    default = re.search(r"(?<!\[)=(\S+)", item.form)
    if default:
        sentences.append(f"By default {default.group(1)}.")
    return sentences


def text_lines(text):
    """A paragraph behind a tag, which may be empty but not missing."""
    return roff.filled(text) if text else [r"\&"]


def option_lines(item):
    names, _, rest = item.form.partition(" ")
    value = CONDITIONS.sub("", rest).strip()
    shown = ", ".join(roff.bold(name) for name in names.split(","))
    if value:
        shown += f" \\fI{roff.name(value)}\\fP"
    text, sentences = item.text, conditions(item)
    if sentences and text and not text.endswith("."):
        text += "."
    return [".TP", shown, *text_lines(" ".join([text, *sentences]).strip())]


TITLES = {"Positionals": "ARGUMENTS", "Options": "OPTIONS", "Subcommands": "SUBCOMMANDS",
          "Files": "FILES", "Environment": "ENVIRONMENT"}


def group_lines(command, group):
    lines = []
    if group.title in TITLES:
        lines.append(f".SH {TITLES[group.title]}")
    else:
        lines.append(f'.SS "{roff.escape(group.title)}"')
    for item in group.items:
        if group.title == "Subcommands":
            page = "-".join([*command.words, item.form])
            lines += [".TP", f"{roff.bold(page)}(1)", *roff.filled(item.text)]
        elif not item.flags() and group.title not in TITLES:
            lines += [".TP", roff.bold(item.form), *text_lines(item.text)]
        else:
            lines += option_lines(item)
    return lines


def command_page(command, parent, version, date):
    lines = [".SH NAME",
             roff.name(command.page_name()),
             *textwrap.wrap(r"\- " + roff.escape(command.description), 78),
             ".SH SYNOPSIS",
             rf"\fB{roff.name(command.name())}\fP{roff.name(command.usage[len(command.name()):])}",
             ".SH DESCRIPTION", *roff.filled(command.description + ".")]
    exit_codes, notes = [], []
    for block in command.footer:
        exit_codes += [line for line in block if line.startswith("Exit codes: ")]
        rest = [line for line in block if not line.startswith("Exit codes: ")]
        notes += roff.paragraphs("\n".join(rest)) if rest else []
    for group in command.groups:
        lines += group_lines(command, group)
    if notes:
        lines += [".SH NOTES", *notes]
    if exit_codes:
        lines.append(".SH EXIT STATUS")
        lines += roff.paragraphs(exit_codes[0].removeprefix("Exit codes: "))
    if command.examples:
        lines += [".SH EXAMPLES", *roff.verbatim(command.examples)]
    also = [parent] if parent else []
    also += [other for other in ("pkictl", "pkilab") if other != command.words[0]]
    pages = [f"{roff.bold(name)}(1)," for name in also]
    lines += [".SH SEE ALSO", *pages, r"\fBlibpki\fP(3)"]
    return roff.page(command.page_name(), 1, version, date, lines)


def write_commands(command, parent, version, folder):
    page = command_page(command, parent, version, page_date())
    (folder / f"{command.page_name()}.1").write_text(page)
    for child in command.children:
        write_commands(child, command.page_name(), version, folder)


def write_tools(version, folder, programs):
    for program in programs:
        command = tool_help.read_tool(program, [Path(program).name])
        write_commands(command, None, version, folder)


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--version", required=True)
    parser.add_argument("--documents", default="")
    parser.add_argument("what", choices=["headers", "tools"])
    parser.add_argument("folder", type=Path)
    parser.add_argument("programs", nargs="*")
    given = parser.parse_args()
    given.folder.mkdir(parents=True, exist_ok=True)
    for old in given.folder.glob("*.[13]"):
        old.unlink()
    if given.what == "headers":
        write_headers(given.version, given.documents and given.documents + "/", given.folder)
    else:
        write_tools(given.version, given.folder, given.programs)
    return 0


if __name__ == "__main__":
    sys.exit(main())
