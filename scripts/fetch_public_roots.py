#!/usr/bin/env python3
"""Takes the public roots of roots/public out of the packages that carry them.

    fetch_public_roots.py [FOLDER]

Each certificate is checked by its SHA-256: what is written is what was asked for, wherever it came
from. Needs npm (package certifi 14.5.15) and apt-get (package golang-golang-x-crypto-dev).
"""

import argparse
import base64
import hashlib
import re
import subprocess
import sys
import tarfile
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent

NPM_PACKAGE = "certifi@14.5.15"
DEBIAN_PACKAGE = "golang-golang-x-crypto-dev"

WANTED = {
    # First generation, re-issued with SHA-1.
    "a4b6b3996fc2f306b3fd8681bd63413d8c5009cc4fa329c2ccf0e2fa1b140305": ("pca3.der", 576),
    "83ce3c1229688a593d485f81973c0f9195431eda37cc5e36430e79c7a888638b": ("pca3_g2.der", 774),
    "eb04cf5eb1f39afa762f2bb120f296cba520c1b97db1589565b81cb9a17b7244": ("pca3_g3.der", 1054),
    # The intermediate, serial number 46FCEBBAB4D02F0F926098233F93078F.
    "00bd2b0edd8340b1746cc395c0e355b2165853fdb93c52dadda8228b07002dce":
        ("international_server_ca.der", 903),
}


def run(folder, *command):
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"fetch_public_roots: '{' '.join(command)}' failed: {done.stderr.strip()}")


def from_npm(folder):
    """Every certificate of the bundle."""
    run(folder, "npm", "pack", NPM_PACKAGE)
    package = next(folder.glob("certifi-*.tgz"))
    with tarfile.open(package) as archive:
        text = archive.extractfile("package/cacert.pem").read().decode()
    for block in re.findall(r"-----BEGIN CERTIFICATE-----(.*?)-----END", text, re.DOTALL):
        yield base64.b64decode(block)


def from_debian(folder):
    """The issuer of the package's OCSP tests."""
    run(folder, "apt-get", "download", DEBIAN_PACKAGE)
    run(folder, "dpkg-deb", "-x", str(next(folder.glob("*.deb"))), "content")
    source = next((folder / "content").glob("**/crypto/ocsp/ocsp_test.go")).read_text()
    digits = re.search(r'issuerCertHex\s*=\s*((?:"[0-9a-f]*"\s*\+?\s*)+)', source)
    if digits:
        yield bytes.fromhex("".join(re.findall(r'"([0-9a-f]*)"', digits[1])))


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folder", nargs="?", type=Path, default=ROOT / "roots" / "public")
    folder = parser.parse_args().folder
    folder.mkdir(parents=True, exist_ok=True)
    missing = dict(WANTED)
    with tempfile.TemporaryDirectory() as scratch:
        for source in (from_npm, from_debian):
            for der in source(Path(scratch)):
                name, size = missing.pop(hashlib.sha256(der).hexdigest(), (None, 0))
                if name:
                    assert len(der) == size
                    (folder / name).write_bytes(der)
                    print(f"{folder / name}: {size} octets")
    if missing:
        sys.exit("fetch_public_roots: not found: " + ", ".join(name for name, _ in missing.values()))


if __name__ == "__main__":
    main()
