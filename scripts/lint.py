#!/usr/bin/env python3
"""House rules that no general checker knows.

    lint.py BUILD_DIR

Lengths of functions and files, banned calls (each with its reason), include guards, and, when the
library is built in BUILD_DIR, what its binary needs from others.

A comment excuses one place, on the line or the line above; it has to give a reason:

    // lint: allow sprintf: the buffer is sized by the same format
    // lint: long function: one switch, a case a state
"""

import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
LIBRARY_FOLDERS = ("src", "board")
ALL_FOLDERS = ("src", "board", "include", "tools", "tests", "bench", "examples", "fuzz")
SUFFIXES = {".cc", ".c", ".h"}

MAX_FUNCTION_LINES = 60
MAX_FILE_LINES = 600

UNBOUNDED = "writes without a bound"
SHARED = "keeps its result in static memory, so two threads disturb each other"
OVERFLOW = "undefined for a number that does not fit; use decimal_prefix"
HOST = "belongs to the host process, not to a library in it"
STREAM = "standard streams belong to the host; use syslog"
LOCALE = "depends on the host's locale; use common/text.h"
THROWS = "cannot report that memory ran out; use common/alloc.h"

# Calls that the library and the board library do not make.
BANNED_CALLS = {
    **dict.fromkeys(["strcpy", "strcat", "sprintf", "vsprintf", "gets", "stpcpy"], UNBOUNDED),
    **dict.fromkeys(["strncpy", "strncat"], "leaves text unterminated or is misread; use memcpy"),
    **dict.fromkeys(["alloca"], "an allocation that cannot fail, only crash"),
    **dict.fromkeys(["scanf", "sscanf", "fscanf"], "undefined for numbers that do not fit"),
    **dict.fromkeys(["gethostbyname", "gethostbyaddr", "getservbyname", "inet_ntoa", "strtok",
                     "localtime", "gmtime", "ctime", "asctime"], SHARED),
    **dict.fromkeys(["atoi", "atol", "atoll"], OVERFLOW),
    **dict.fromkeys(["openlog", "closelog", "setlogmask", "setlocale", "signal", "sigaction",
                     "sigprocmask", "pthread_sigmask", "alarm", "atexit", "exit", "_exit", "abort",
                     "fork", "system", "popen", "chdir", "umask", "setenv", "putenv"], HOST),
    **dict.fromkeys(["OPENSSL_config", "OPENSSL_cleanup", "OSSL_PROVIDER_unload",
                     "CRYPTO_set_mem_functions", "EVP_set_default_properties",
                     "xmlCleanupParser", "xmlMemSetup"], HOST),
    **dict.fromkeys(["printf", "vprintf", "puts", "putchar", "perror", "fprintf", "fputs"], STREAM),
    **dict.fromkeys(["strcasecmp", "strncasecmp", "isalpha", "isdigit", "isspace", "isalnum",
                     "isprint", "isupper", "islower", "toupper", "tolower"], LOCALE),
    **dict.fromkeys(["rand", "srand", "random", "drand48"], "not random enough; use RAND_bytes"),
    **dict.fromkeys(["getenv"], "trusted by a set-user-id host; use secure_getenv"),
    **dict.fromkeys(["strerror_r", "select"], "not portable, or limited to 1024 descriptors"),
    **dict.fromkeys(["pthread_create", "pthread_cancel"], "the library starts no threads"),
}

# Words of C++ that allocate behind one's back, or need the C++ runtime library.
BANNED_WORDS = {
    r"std::(?:basic_)?string\b": ("std::string", THROWS),
    r"std::(?:vector|deque|list|map|set|unordered_\w+)\b": ("std containers", THROWS),
    r"std::function\b": ("std::function", THROWS),
    r"std::(?:make_unique|make_shared|shared_ptr)\b": ("std::make_unique", THROWS),
    r"std::(?:cout|cerr|clog|o?stringstream|ofstream|ifstream)\b": ("iostreams", STREAM),
    r"std::(?:thread|async|mutex|jthread)\b": ("std::thread", "needs the C++ runtime library"),
    r"(?<!operator )\bnew\b": ("new", THROWS),
    r"(?<!= )\bdelete\b(?!;)": ("delete", "pairs with new, which is not used"),
    r"\b(?:throw|try|catch)\b": ("exceptions", "the library is built without them"),
    r"\b(?:dynamic_cast|typeid)\b": ("run-time types", "the library is built without them"),
}

# Symbols of a C++ runtime that throws, or that would tie the library to libstdc++.
THROWING_SYMBOLS = re.compile(
    r"operator new|operator delete|std::|__cxa_(?!finalize|atexit)|_Unwind_|__gxx_personality")

# What the shared library may ask the dynamic linker for.
ALLOWED_LIBRARIES = re.compile(
    r"^(libcrypto|libssl|libboard|libc|ld-linux[\w-]*|lib(a|t|ub)san)\.so\b")


class Report:
    def __init__(self):
        self.count = 0

    def add(self, path, line, text):
        self.count += 1
        shown = path.relative_to(ROOT) if path.is_relative_to(ROOT) else path
        print(f"{shown}:{line}: {text}")


def blank(match):
    """The same text with everything but its line breaks replaced by blanks."""
    return re.sub(r"[^\n]", " ", match.group(0))


def code_only(text):
    """The text without comments, strings and characters, at the same places."""
    pattern = re.compile(
        r"//[^\n]*|/\*.*?\*/|R\"(\w*)\(.*?\)\1\"|\"(?:\\.|[^\"\\\n])*\"|(?<!\w)'(?:\\.|[^'\\\n])+'",
        re.DOTALL)
    return pattern.sub(blank, text)


def excuses(lines, number, what):
    """Does the line, or the one above, excuse `what` and say why?"""
    pattern = re.compile(r"lint: " + re.escape(what) + r": \S+")
    near = lines[max(0, number - 2):number]
    return any(pattern.search(line) for line in near)


def line_of(text, position):
    return text.count("\n", 0, position) + 1


def check_banned(path, text, code, report):
    lines = text.splitlines()

    def complain(position, name, reason):
        number = line_of(code, position)
        if not excuses(lines, number, f"allow {name}"):
            report.add(path, number, f"{name} is banned: {reason}")

    call = re.compile(r"(?<![\w.>:])(?:::|std::)?(" + "|".join(BANNED_CALLS) + r")\s*\(")
    for match in call.finditer(code):
        complain(match.start(1), match.group(1), BANNED_CALLS[match.group(1)])
    if path.suffix == ".c":
        return
    for pattern, (name, reason) in BANNED_WORDS.items():
        for match in re.finditer(pattern, code):
            complain(match.start(), name, reason)


NO_FUNCTION = re.compile(r"\b(namespace|struct|class|union|enum)\b[^()]*$|extern\s*$|=\s*$")


def function_bodies(code):
    """(start, end) of the outermost function bodies."""
    stack = []
    statement_start = 0
    for match in re.finditer(r"[{};]", code):
        position = match.start()
        mark = match.group(0)
        if mark == "{":
            head = code[statement_start:position].strip()
            is_function = ")" in head and not NO_FUNCTION.search(head)
            inside = any(kind for kind, _ in stack)
            stack.append((is_function and not inside, position))
        elif mark == "}" and stack:
            is_function, start = stack.pop()
            if is_function:
                yield start, position
        statement_start = position + 1


def check_function_lengths(path, text, code, report):
    lines = text.splitlines()
    for start, end in function_bodies(code):
        first, last = line_of(code, start), line_of(code, end)
        length = last - first - 1
        if length <= MAX_FUNCTION_LINES or excuses(lines, first, "long function"):
            continue
        report.add(path, first, f"a function of {length} lines; {MAX_FUNCTION_LINES} is the limit")


def check_file(path, report):
    text = path.read_text(encoding="utf-8")
    length = text.count("\n")
    if length > MAX_FILE_LINES:
        report.add(path, 1, f"a file of {length} lines; {MAX_FILE_LINES} is the limit")
    if path.suffix == ".h" and not re.search(r"^#ifndef (\w+)\n#define \1$", text, re.MULTILINE):
        report.add(path, 1, "no include guard")
    if path.relative_to(ROOT).parts[0] not in LIBRARY_FOLDERS:
        return
    code = code_only(text)
    check_banned(path, text, code, report)
    check_function_lengths(path, text, code, report)


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def check_binary(library, report):
    """No promise, but a look: the built library neither throws nor needs a C++ runtime."""
    for symbol in output_of("nm", "-uC", "-D", str(library)).splitlines():
        if THROWING_SYMBOLS.search(symbol):
            report.add(library, 0, f"needs {symbol.split(maxsplit=1)[-1]}")
    for needed in re.findall(r"\(NEEDED\).*\[(.*)\]", output_of("readelf", "-d", str(library))):
        if not ALLOWED_LIBRARIES.match(needed):
            report.add(library, 0, f"needs {needed}")


def main():
    if len(sys.argv) != 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    report = Report()
    for folder in ALL_FOLDERS:
        for path in sorted((ROOT / folder).rglob("*")):
            if path.suffix in SUFFIXES and path.is_file():
                check_file(path, report)
    library = Path(sys.argv[1]) / "lib" / "libpki.so.0"
    if library.exists():
        check_binary(library.resolve(), report)
    return 1 if report.count else 0


if __name__ == "__main__":
    sys.exit(main())
