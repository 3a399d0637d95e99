#!/usr/bin/env python3
"""Makes the three roots that stand in for a vendor's own, in roots/vendor.

    make_vendor_roots.py [FOLDER]

Nobody can sign with them: their private keys are dropped where they are made. A vendor builds the
library with a folder of its own, with files of the same names (-DPKI_VENDOR_ROOTS_DIR=FOLDER).
Each certificate gets an exact size, so that an image is known by its length.
"""

import argparse
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent

# File, size of the certificate, bits of its RSA key, name. PrintableString throughout.
ROOTS = [
    ("corporate_root.der", 1142, 3072, "C = US\nO = Zelvo\n"
     "CN = Zelvo Corporate Content Signing Root CA G1"),
    ("emergency_root.der", 2396, 8192, "C = US\nO = Zelvo\n"
     "CN = Zelvo Emergency Recovery Root"),
    ("engineering_root.der", 980, 2048, "C = US\nO = Zelvo\nOU = Platform Engineering\n"
     "CN = Zelvo Engineering Root V1 for Gateways in Development Use"),
]

CONFIG = """
[req]
prompt = no
string_mask = default
distinguished_name = name
x509_extensions = extensions
[name]
{name}
[extensions]
basicConstraints = critical, CA:true
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
"""

SERIAL = "0x5a" + "4c" * 15


def run(*command, given=b""):
    done = subprocess.run(command, input=given, capture_output=True, check=False)
    if done.returncode != 0:
        sys.exit(f"make_vendor_roots: {command[0]} {command[1]} failed: {done.stderr.decode()}")
    return done.stdout


def certificate(key, config_file, name):
    config_file.write_text(CONFIG.format(name=name))
    return run("openssl", "req", "-new", "-x509", "-sha256", "-days", "10958",
               "-config", str(config_file), "-key", "/dev/stdin", "-outform", "DER",
               "-set_serial", SERIAL, given=key)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folder", nargs="?", type=Path, default=ROOT / "roots" / "vendor")
    folder = parser.parse_args().folder
    folder.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as scratch:
        for file, size, bits, name in ROOTS:
            key = run("openssl", "genpkey", "-algorithm", "RSA",
                      "-pkeyopt", f"rsa_keygen_bits:{bits}")
            made = certificate(key, Path(scratch) / "req.cnf", name)
            if len(made) != size:
                sys.exit(f"make_vendor_roots: {file} has {len(made)} octets, not {size}")
            (folder / file).write_bytes(made)
            print(f"{folder / file}: {size} octets, RSA {bits}")


if __name__ == "__main__":
    main()
