"""The rows of include/libpki/error_list.inc."""

import re
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent


def error_codes():
    """(number, name without PKI_, text, meaning) for each code."""
    text = (ROOT / "include/libpki/error_list.inc").read_text(encoding="utf-8")
    return re.findall(r'^PKI_ERROR\((\d+), (\w+), "(.*)"\)\s*/\* (.*) \*/$', text, re.MULTILINE)
