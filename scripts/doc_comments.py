"""The comments of the public headers, and what each is about.

A comment is about the declarations right below it, up to the next blank line. It is also about the
functions that it names by pattern, wherever they stand in its header: alloc_*, zv_cv_*.
"""

import re

COMMENT = re.compile(r"^[ ]*/\*.*?\*/[ ]*$", re.DOTALL | re.MULTILINE)
DECLARED = re.compile(r"PKI_API\b[^;{]*?\b(\w+)\s*(?:\(|;)")


def body_of(comment):
    """A comment's text without its stars."""
    text = comment.strip()[2:-2]
    return "\n".join(re.sub(r"^ *\* ?", "", line) for line in text.splitlines()).strip("\n")


def runs(text):
    """(comment or None, declarations) for each run of lines between blank ones."""
    position = 0
    for match in COMMENT.finditer(text):
        for block in re.split(r"\n[ ]*\n", text[position:match.start()])[1 if position else 0:]:
            yield None, block
        position = match.end()
        below = re.split(r"\n[ ]*\n", text[position:], maxsplit=1)[0]
        if below.startswith("\n"):
            next_comment = COMMENT.search(below)
            end = next_comment.start() if next_comment else len(below)
            yield match.group(0), below[:end]


def declared_in(block):
    return DECLARED.findall(block)


def documented_names(folder):
    """The exported functions and objects that some comment of their header is about."""
    found = set()
    for path in sorted(folder.glob("*.h")):
        text = path.read_text(encoding="utf-8")
        declared = set(declared_in(text))
        for comment, block in runs(text):
            if comment:
                found.update(declared_in(block))
        for comment in COMMENT.findall(text):
            for pattern in re.findall(r"\b(\w+)\*", body_of(comment)):
                found.update(name for name in declared if name.startswith(pattern))
    return found
