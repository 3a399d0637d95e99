#!/usr/bin/env python3
"""Holds the documents against what they are about.

    check_docs.py                  all checks
    check_docs.py lines            the log lines of src/, as docs/operations.md has to give them
    check_docs.py program FILE.md  the C program that a page's code blocks make

Checks that docs/operations.md has every log line of the library with its level and no other, that
each exported function stands in a public header below a comment, that relative links in the
documents lead somewhere, and that the C code in them compiles as C99 without a warning: the ```c
blocks of a page, one behind the other, are one program. A block behind the comment
`<!-- fragment -->` is not part of it.
"""

import re
import subprocess
import sys
from pathlib import Path

sys.dont_write_bytecode = True  # scripts leave nothing in their folder
from doc_comments import documented_names  # noqa: E402

ROOT = Path(__file__).resolve().parent.parent
OPERATIONS = ROOT / "docs" / "operations.md"
INSTALLED_README = ROOT / "packaging" / "README.installed.md"  # links as from the top folder
COMPILE = ["cc", "-x", "c", "-std=c99", "-pedantic", "-Wall", "-Wextra", "-Werror",
           "-fsyntax-only", "-I", str(ROOT / "include"), "-"]

LEVELS = {"log_emergency": 0, "log_critical": 2, "log_error": 3, "log_warning": 4, "log_info": 6,
          "log_debug": 7}

# Lines that are put together of parts: the file and the format that prints them, the function
# that is given the parts, and how its string arguments make a line. None: as it stands.
COMPOSED = {
    ("verifier/cert_verifier/ocsp_response.cc", "%s"): ("refuse", "{0}"),
    ("verifier/cert_verifier/ocsp_response.cc", "%s (%.*s)%s"):
        ("cv_check_time", "{1} (%.*s){2}"),
    ("verifier/cert_verifier/ocsp_response.cc", "%s (<no-mem>)%s"): None,
    ("verifier/crl_cache/delta.cc", "%s"): ("refuse", "{0}"),
    ("verifier/crl_cache/validity.cc", "%s (%s) %s (%.*s)%s"):
        ("cv_check_time", "{1} (%s) {2} (%.*s){3}"),
    ("verifier/crl_cache/validity.cc", "%s (%s) %s (<no-mem>)%s"): None,
    ("verifier/trust_roots/override_rules.cc", "%s"): ("failed_allocation", "{0}"),
}

STRING = r'"(?:\\.|[^"\\])*"'


class Report:
    def __init__(self):
        self.count = 0

    def add(self, path, line, text):
        self.count += 1
        shown = path.relative_to(ROOT) if path.is_relative_to(ROOT) else path
        print(f"{shown}:{line}: {text}")


def line_of(text, position):
    return text.count("\n", 0, position) + 1


# ---- log lines ----

def without_comments(text):
    """The text with its comments blanked; strings stay."""
    pattern = re.compile(STRING + r"|//[^\n]*|/\*.*?\*/", re.DOTALL)
    return pattern.sub(
        lambda match: match.group(0) if match.group(0).startswith('"')
        else re.sub(r"[^\n]", " ", match.group(0)), text)


def arguments(code, start):
    """The arguments of a call whose parenthesis opens before `start`."""
    depth, begin, found = 1, start, []
    for match in re.compile(STRING + r"|[(){}\[\],]").finditer(code, start):
        mark = match.group(0)
        if mark in "([{":
            depth += 1
        elif mark in ")]}":
            depth -= 1
        if depth == 0 or (depth == 1 and mark == ","):
            found.append(code[begin:match.start()].strip())
            begin = match.end()
        if depth == 0:
            return found
    raise ValueError("a call that never ends")


def joined_string(argument):
    """The text of adjacent string literals, or None for anything else."""
    if not re.fullmatch(rf"\s*{STRING}(\s*{STRING})*\s*", argument):
        return None
    return "".join(part[1:-1] for part in re.findall(STRING, argument)).replace('\\"', '"')


def calls_of(name, code):
    for match in re.finditer(rf"(?<![\w>.]){name}\s*\(", code):
        yield match.start(), arguments(code, match.end())


def composed_lines(file, code, function, template):
    """What calls of `function` make of the template; its definition has no strings."""
    found = set()
    for _, call in calls_of(function, code):
        texts = [joined_string(part) for argument in call
                 for part in re.findall(rf"(?:{STRING}\s*)+", argument)]
        if texts:
            found.add(template.format(*texts))
    if not found:
        raise ValueError(f"{file}: no call of {function} with texts")
    return found


def log_lines(report):
    """Each log line of the library: text -> {level}; a level that a caller chooses is None."""
    lines = {}
    source = ROOT / "src"
    for path in sorted(source.rglob("*")):
        if path.suffix not in (".cc", ".c", ".h"):
            continue
        code = without_comments(path.read_text(encoding="utf-8"))
        file = path.relative_to(source).as_posix()
        for position, call in calls_of("syslog", code):
            level = LEVELS.get(call[0].removeprefix("pki::"))
            text = joined_string(call[1])
            if text is None:
                report.add(path, line_of(code, position), "a log line whose text is no literal")
                continue
            if not text.startswith("%s"):
                texts = {text}
            elif (file, text) not in COMPOSED:
                report.add(path, line_of(code, position),
                           "a log line that is put together: add it to COMPOSED in check_docs.py")
                continue
            else:
                how = COMPOSED[(file, text)]
                texts = composed_lines(file, code, *how) if how else {text}
            for one in texts:
                lines.setdefault(one, set()).add(level)
    return lines


ROW = re.compile(
    r"^\| (?P<levels>[\d, ]+) \| (?P<ticks>`+) ?(?P<text>.*?) ?(?P=ticks) \|(?P<rest>.*)$")


def described_lines(report):
    """Each log line of docs/operations.md: text -> ({level}, line number)."""
    described = {}
    for number, row in enumerate(OPERATIONS.read_text(encoding="utf-8").splitlines(), 1):
        match = ROW.match(row)
        if not match:
            continue
        text = match.group("text")
        if text in described:
            report.add(OPERATIONS, number, f"twice: {text}")
        if any(not cell.strip() for cell in match.group("rest").strip(" |").split(" | ")):
            report.add(OPERATIONS, number, "a row without its explanation")
        levels = {int(level) for level in match.group("levels").split(",")}
        described[text] = (levels, number)
    return described


def check_log_lines(report):
    lines = log_lines(report)
    described = described_lines(report)
    for text in sorted(lines.keys() - described.keys()):
        report.add(OPERATIONS, 1, f"missing, level {sorted(map(str, lines[text]))}: {text}")
    for text, (levels, number) in described.items():
        if text not in lines:
            report.add(OPERATIONS, number, f"the library has no such log line: {text}")
        elif None not in lines[text] and levels != lines[text]:
            report.add(OPERATIONS, number, f"its level is {sorted(lines[text])}")


# ---- functions ----

def check_functions(report):
    exports = ROOT / "packaging" / "libpki.map"
    text = exports.read_text(encoding="utf-8")
    documented = documented_names(ROOT / "include" / "libpki")
    for match in re.finditer(r"^\s+(\w+);$", text, re.MULTILINE):
        if match.group(1) not in documented:
            report.add(exports, line_of(text, match.start()),
                       f"{match.group(1)} stands in no header below a comment")


# ---- documents ----

def documents():
    """Every document of the project; what was built is not its own."""
    for path in sorted(ROOT.rglob("*.md")):
        parts = path.relative_to(ROOT).parts
        if parts[0] != "build" and not any(part.startswith(".") for part in parts):
            yield path


def without_code(text):
    """The text with code blanked: what looks like a link there is none."""
    pattern = re.compile(r"^```.*?^```$|`[^`\n]+`", re.DOTALL | re.MULTILINE)
    return pattern.sub(lambda match: re.sub(r"[^\n]", " ", match.group(0)), text)


def anchors(path):
    """The names under which a document's headings can be linked to."""
    found = set()
    for heading in re.findall(r"^#+ +(.+)$", path.read_text(encoding="utf-8"), re.MULTILINE):
        found.add(re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-"))
    return found


def check_links(path, report):
    text = without_code(path.read_text(encoding="utf-8"))
    folder = ROOT if path == INSTALLED_README else path.parent
    for match in re.finditer(r"\]\(([^)\s]+)\)", text):
        target, _, anchor = match.group(1).partition("#")
        if re.match(r"[a-z]+:", target):
            continue
        number = line_of(text, match.start())
        linked = (folder / target).resolve() if target else path
        if not linked.exists():
            report.add(path, number, f"a link to {target}, which is not there")
        elif anchor and linked.suffix == ".md" and anchor not in anchors(linked):
            report.add(path, number, f"a link to #{anchor}, which is no heading there")


def program_of(path):
    """The page's C program, on the lines where it stands there."""
    lines, inside, wanted, fragment = [], False, False, False
    for line in path.read_text(encoding="utf-8").splitlines():
        if line.startswith("```"):
            inside, wanted = not inside, not inside and line == "```c" and not fragment
            lines.append("")
        else:
            lines.append(line if inside and wanted else "")
        if line.strip():
            fragment = line.strip() == "<!-- fragment -->"
    return "\n".join(lines) + "\n"


def check_program(path, report):
    program = program_of(path)
    if not program.strip():
        return
    name = path.relative_to(ROOT).as_posix()
    result = subprocess.run(COMPILE, input=f'#line 1 "{name}"\n{program}', text=True,
                            capture_output=True, check=False)
    if result.returncode:
        report.add(path, 1, "its C code does not compile:")
        print(result.stderr.rstrip())


def check_all():
    report = Report()
    check_log_lines(report)
    check_functions(report)
    for path in documents():
        check_links(path, report)
        check_program(path, report)
    return 1 if report.count else 0


def show_lines():
    report = Report()
    for text, levels in sorted(log_lines(report).items(), key=lambda item: str(item[0])):
        shown = ", ".join(sorted("any" if level is None else str(level) for level in levels))
        ticks = "``" if "`" in text else "`"
        print(f"| {shown} | {ticks}{text}{ticks} |")
    return 1 if report.count else 0


def main():
    if len(sys.argv) == 1:
        return check_all()
    if sys.argv[1:] == ["lines"]:
        return show_lines()
    if len(sys.argv) == 3 and sys.argv[1] == "program":
        print(program_of(Path(sys.argv[2]).resolve()), end="")
        return 0
    print(__doc__.strip(), file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main())
