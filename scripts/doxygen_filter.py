#!/usr/bin/env python3
"""Shows doxygen what it reads in another form (an input filter; prints the result).

    doxygen_filter.py FILE

The headers' comments are plain ones. Here a comment right before declarations becomes a
documentation comment for each of them, up to the next blank line; one behind a member becomes that
member's; the one at the head of the file, and those that stand for themselves, become the file's.
Their text is shown as it is written: nothing in it is a command.

In documents, links to files that the manual does not have become plain text, and so do links to
headings, which doxygen names in its own way.
"""

import re
import sys
from pathlib import Path

sys.dont_write_bytecode = True  # scripts leave nothing in their folder
from doc_comments import body_of  # noqa: E402

ANY_COMMENT = re.compile(r"/\*.*?\*/", re.DOTALL)


# ---- text ----

def plain(text):
    """Text in which nothing is markup."""
    return re.sub(r"\\(?!\.)|[@&$#<>%*]", r"\\\g<0>", text)


def code(text):
    """Code within a line. (Between backquotes doxygen would still look for quotes and percents.)"""
    return "<code>" + plain(text).replace("  ", " &nbsp;").replace("`", "\\`") + "</code>"


def shown(line):
    """A line of running text; what stands between backquotes is code."""
    line = re.sub(r"^( *\d+)\. ", r"\1\\. ", line)  # a number at its begin, no list
    parts = line.split("`")
    if len(parts) % 2 == 0:
        parts = [line]
    return "".join(code(part) if index % 2 else plain(part) for index, part in enumerate(parts))


def is_laid_out(paragraph):
    """Does its layout mean something: a table, or an indented example?"""
    return paragraph.startswith("    ") or re.search(r"\S {3,}\S", paragraph)


def marked_up(text):
    """A comment's text as doxygen is to read it."""
    out = []
    # What is indented no more is no part of a list's last item.
    text = re.sub(r"(?<=\n)( +)(\S.*)\n(?=\S)", r"\1\2\n\n", text)
    for paragraph in re.split(r"\n[ ]*\n", text):
        if is_laid_out(paragraph):
            out.append("\\verbatim\n" + paragraph + "\n\\endverbatim")
        else:
            out.append("\n".join(shown(line) for line in paragraph.splitlines()))
    return "\n\n".join(out)


# ---- headers ----

def with_member_comments(text):
    """Comments behind a member, or in front of one, become that member's."""
    def change(match):
        indent = text[text.rfind("\n", 0, match.start()) + 1:match.start()]
        if not indent:
            return match.group(0)
        words = " ".join(line.strip() for line in body_of(match.group(0)).splitlines())
        return f"/**{'<' if indent.strip() else ''} {shown(words)} */"
    return ANY_COMMENT.sub(change, text)


def is_banner(comment):
    return re.match(r"/\* *(----|NOLINT|lint:)", comment) is not None


def declarations(run):
    """The run cut behind each declaration, whatever it has in braces."""
    depth, start = 0, 0
    for match in re.finditer(r"/\*.*?\*/|[{};]", run, re.DOTALL):
        mark = match.group(0)
        depth += {"{": 1, "}": -1}.get(mark, 0)
        if mark == ";" and depth == 0:
            yield run[start:match.end()]
            start = match.end()
    if run[start:].strip():
        yield run[start:]


def documented(comment, run):
    """The run with the comment for each declaration of a function, or else for the first."""
    note = f"/**\n{marked_up(body_of(comment))}\n*/\n"
    out = []
    for index, declaration in enumerate(declarations(run)):
        gets_it = index == 0 or "PKI_API" in declaration
        out.append((note if gets_it else "") + declaration.lstrip("\n"))
    return "".join(part if part.endswith("\n") else part + "\n" for part in out)


def run_below(text, position):
    """The end of the run of lines that begins here: a blank line, or another comment's."""
    end, depth = position, 0
    for line in text[position:].splitlines(keepends=True):
        starts_another = re.match(r"\s*(/\*|#(?!define))", line)
        if depth == 0 and (not line.strip() or starts_another):
            break
        code = ANY_COMMENT.sub("", line)
        depth += code.count("{") - code.count("}")
        end += len(line)
    return end


def header(path):
    text = with_member_comments(path.read_text(encoding="utf-8"))
    out, position, is_first = [], 0, True
    own_line = re.compile(r"^/\*(?!\*<).*?\*/[ ]*\n", re.DOTALL | re.MULTILINE)
    while match := own_line.search(text, position):
        out.append(text[position:match.start()])
        comment = match.group(0).strip()
        end = match.end() if is_first else run_below(text, match.end())
        if is_banner(comment):
            end = match.end()
        elif is_first or end == match.end():
            out.append(f"/** \\file {path.name}\n{marked_up(body_of(comment))}\n*/\n")
        else:
            out.append(documented(comment, text[match.end():end]))
        position, is_first = end, False
    return "".join(out) + text[position:]


# ---- documents ----

def linked(match):
    text, target = match.group(1), match.group(2).partition("#")[0]
    if re.match(r"[a-z]+:", target):
        return match.group(0)
    return f"[{text}]({target})" if target.endswith(".md") else text


def document(path):
    """The document, with links only to those that are in the manual too."""
    blocks = re.split(r"(^```.*?^```$)", path.read_text(encoding="utf-8"),
                      flags=re.DOTALL | re.MULTILINE)
    for index in range(0, len(blocks), 2):  # every other one is code
        text = re.sub(r"\[([^\]\n]+)\]\(([^)\s]+)\)", linked, blocks[index])
        blocks[index] = re.sub(r"(`+) ?(.+?) ?\1(?!`)", lambda match: code(match.group(2)), text,
                               flags=re.DOTALL)
    return "".join(blocks)


def main():
    if len(sys.argv) != 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    path = Path(sys.argv[1])
    sys.stdout.write(document(path) if path.suffix == ".md" else header(path))
    return 0


if __name__ == "__main__":
    sys.exit(main())
