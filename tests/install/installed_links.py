#!/usr/bin/env python3
"""Links in installed documents lead to what is installed.

    installed_links.py FOLDER       exit code: 0 they do, 1 not (standard error says which)
"""
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "scripts"))
sys.dont_write_bytecode = True
from check_docs import Report, check_links

report = Report()
pages = sorted(Path(sys.argv[1]).rglob("*.md"))
for page in pages:
    check_links(page, report)
sys.exit(1 if report.count or len(pages) < 10 else 0)
