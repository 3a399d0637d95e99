"""Manual pages from plain text: the few macros of man(7) that both make_man.py's halves need."""

import re
import textwrap

SPECIAL = {"\\": r"\(rs", "'": r"\(aq", "`": r"\(ga", "^": r"\(ha", "~": r"\(ti"}


def escape(text):
    """The text as it is: with real quotes, and minus signs where it is no hyphen."""
    text = "".join(SPECIAL.get(char, char) for char in text)
    return re.sub(r"(?<![A-Za-z])-|-(?![A-Za-z])", r"\\-", text)


def name(text):
    """A name that is typed: every dash of it is a minus sign."""
    return escape(text).replace(r"\-", "-").replace("-", r"\-")


def bold(text):
    return rf"\fB{name(text)}\fP"


def guarded(line):
    """A line of text that no reader takes for a macro."""
    return r"\&" + line if line.startswith((".", "'")) else line


def inline(text, functions=frozenset()):
    """Escapes; `quoted` becomes italic, a function's name a reference to its page."""
    parts = re.split(r"(`[^`\n]+`|\b\w+\b)", text)
    shown = []
    for part in parts:
        if part.startswith("`") and part.endswith("`") and len(part) > 2:
            shown.append(rf"\fI{name(part[1:-1])}\fP")
        elif "_" in part and part in functions:
            shown.append(rf"\fB{part}\fP(3)")
        else:
            shown.append(part)
    # Plain pieces are escaped together, so that a dash sees what is on its other side.
    return "".join(
        piece if piece.startswith("\\f") else escape(piece) for piece in merged(shown))


def merged(pieces):
    """Adjacent pieces without markup, as one."""
    run = ""
    for piece in pieces:
        if piece.startswith("\\f"):
            yield run
            yield piece
            run = ""
        else:
            run += piece
    yield run


def filled(text, functions=frozenset()):
    lines = textwrap.wrap(inline(text, functions), 78, break_long_words=False,
                          break_on_hyphens=False)
    return [guarded(line) for line in lines]


def verbatim(lines):
    return [".PP", ".nf", ".RS 4", *(guarded(escape(line)) for line in lines), ".RE", ".fi"]


DEFINITION = re.compile(r"^( {0,6}\S(?:.*?\S)?) {3,}(\S.*)$")
BULLET = re.compile(r"^ *- (.*)$")


def items_of(lines):
    """[kind, term, text] for each paragraph, bullet or definition of a run of lines."""
    defines = any(DEFINITION.match(line) for line in lines)
    items = []
    for number, line in enumerate(lines):
        below = lines[number + 1] if number + 1 < len(lines) else ""
        bullet, definition = BULLET.match(line), DEFINITION.match(line)
        if bullet:
            items.append(["bullet", "", bullet.group(1)])
        elif definition:
            items.append(["definition", definition.group(1).strip(), definition.group(2)])
        elif defines and not line.startswith(" ") and below.startswith(" " * 10):
            items.append(["definition", line.strip(), ""])
        elif items and (line.startswith(" ") or items[-1][0] == "text"):
            items[-1][2] = (items[-1][2] + " " + line.strip()).strip()
        else:
            items.append(["text", "", line.strip()])
    return items


def paragraphs(text, functions=frozenset()):
    """The lines of a text with paragraphs, bullets, definitions and indented code."""
    out = []
    for block in re.split(r"\n[ ]*\n", text.strip("\n")):
        lines = block.splitlines()
        if all(line.startswith("    ") for line in lines):
            out += verbatim(textwrap.dedent(block).splitlines())
            continue
        for kind, term, words in items_of(lines):
            if kind == "bullet":
                out.append(r".IP \(bu 2")
            elif kind == "definition":
                out += [".TP", guarded(bold(term))]
            else:
                out.append(".PP")
            out += filled(words, functions)
    return out


def page(title, section, version, date, lines):
    """A whole page. A paragraph right below a heading needs no macro of its own."""
    head = [
        f'.TH {name(title).upper()} {section} {date} "libpki {version}" "libpki"',
        ".nh",
        ".ad l",
    ]
    kept = []
    for line in lines:
        if line == ".PP" and kept and kept[-1].startswith((".SH", ".SS")):
            continue
        kept.append(line)
    return "\n".join(head + kept) + "\n"
