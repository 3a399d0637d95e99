#!/usr/bin/env python3
"""Writes the programs of the documents as files, for readers who would not paste them together.

    page_programs.py OUT_DIR       OUT_DIR is emptied of C files first
"""

import re
import sys
from pathlib import Path

sys.dont_write_bytecode = True  # scripts leave nothing in their folder
from check_docs import ROOT, program_of  # noqa: E402

PROGRAMS = {"quick-start": "host", "provisioning": "office", "enrollment": "device",
            "validation": "judge", "marshalling": "servers"}


def whole_file(page, name):
    """The page's program below a line that leads back to the page, which calls it by that name."""
    if f"`{name}.c`" not in page.read_text(encoding="utf-8"):
        raise ValueError(f"{page}: says nothing about {name}.c")
    code = re.sub(r"\n{3,}", "\n\n", program_of(page)).strip("\n")
    if not code:
        raise ValueError(f"{page}: no C program")
    return f"/* docs/{page.name} explains this program piece by piece. */\n{code}\n"


def main():
    if len(sys.argv) != 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    folder = Path(sys.argv[1])
    folder.mkdir(parents=True, exist_ok=True)
    for old in folder.glob("*.c"):
        old.unlink()
    for page, name in PROGRAMS.items():
        text = whole_file(ROOT / "docs" / f"{page}.md", name)
        (folder / f"{name}.c").write_text(text, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
