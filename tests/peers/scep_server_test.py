"""Our client's messages at an independent SCEP server (Debian package scep).

docs/interoperability.md has the table of what is accepted and refused; this test is where its rows
come from, so a peer that changes its mind shows here.
"""
import os

import peers
from peers import Device, Lab, Server, answers, call, decode, free_port, need, post


class Peer(Server):
    def __init__(self, folder):
        program = need("scepserver", "scep")
        self.port, depot = free_port(), folder / "depot"
        call(program, "ca", "-init", "-depot", depot, cwd=folder)
        self.cert = depot / "ca.pem"
        self.log = folder / "peer.log"
        super().__init__([program, "-depot", depot, "-port", self.port, "-debug"],
                         lambda: answers(self.port), cwd=folder,
                         stderr=open(self.log, "w", encoding="utf-8"))

    def url(self):
        return f"http://127.0.0.1:{self.port}/scep"


def described(folder, lab, ca_cert, url, digest, cipher):
    """A document that names a CA's certificate and an URL."""
    call(peers.BIN / "pkictl", "cainfo", "sign", "--issuer-name", "CN=peer", "--expires",
         "2037-01-01", "--scep-url", url, "--scep-cert", ca_cert, "--scep-get-cert-url", url,
         "--digest", digest, "--cipher", cipher, "--root", ca_cert, "--key",
         lab.folder / "doc-key.pem", "--force", "--out", folder / "document.p7")


def our_request(folder, peer, digest, cipher):
    """The PKCSReq that our client makes for the peer, caught by the lab."""
    document = folder / "document.p7"
    document.write_bytes(b"")
    with Lab(folder, "--document", document) as lab:
        described(folder, lab, peer.cert, lab.url("/scep"), digest, cipher)
        device = Device(folder)
        device.provision(lab)
        device.make_key()
        device.enroll(ok=False)  # the lab cannot open it
        return lab.messages()[0].read_bytes()


def as_it_goes_out_it_is_a_bad_request(folder):
    with Peer(folder) as peer:
        document = folder / "document.p7"
        document.write_bytes(b"")
        with Lab(folder, "--document", document) as lab:
            described(folder, lab, peer.cert, peer.url(), "SHA256", "DES-EDE3-CBC")
            device = Device(folder)
            device.provision(lab)
            device.make_key()
            code, output = device.enroll(ok=False)
        assert code == 1 and "HTTP ERROR (47)" in output, output


def other_message(folder, peer, kind):
    """Our GetCert or GetCertInitial for the peer: what the device sends when it is asked to."""
    document = folder / "document.p7"
    document.write_bytes(b"")
    options = ["--scep-pending", "1"] if kind == "GetCertInitial" else []
    with Lab(folder, "--document", document, *options) as lab:
        cert = lab.folder / "issuing-cert.pem"
        target = cert if kind == "GetCertInitial" else peer.cert
        described(folder, lab, target, lab.url("/scep"), "SHA256", "DES-EDE3-CBC")
        device = Device(folder)
        device.provision(lab)
        device.make_key()
        if kind == "GetCert":
            output = device.pkictl("cert", "find", "01", "--key", "key", "--ca", "ca", ok=False)[1]
            assert lab.messages(), output
            return lab.messages()[0].read_bytes()
        preload = os.environ.get("PRELOAD_VARIABLE", "LD_PRELOAD")
        device.environment[preload] = os.environ["SHORT_SLEEP"]
        device.environment["ASAN_OPTIONS"] = "verify_asan_link_order=0"
        device.enroll()
        return [m for m in lab.messages() if "GetCertInitial" in m.name][0].read_bytes()


def get_cert_is_not_known(folder):
    with Peer(folder) as peer:
        status, body = post(peer.url() + "?operation=PKIOperation",
                            other_message(folder, peer, "GetCert"))
        assert (status, body.strip()) == (500, b"not implemented"), (status, body)


def get_cert_initial_is_not_known(folder):
    with Peer(folder) as peer:
        status, body = post(peer.url() + "?operation=PKIOperation",
                            other_message(folder, peer, "GetCertInitial"))
        assert (status, body.strip()) == (500, b"not implemented"), (status, body)


def posted(folder, digest, cipher):
    with Peer(folder) as peer:
        status, body = post(peer.url() + "?operation=PKIOperation",
                            our_request(folder, peer, digest, cipher))
        return status, body, peer.log.read_text(encoding="utf-8")


def refused_for_its_digest(folder):
    for cipher in ("DES-CBC", "AES-128-CBC"):
        mine = folder / cipher
        mine.mkdir()
        status, body, _ = posted(mine, "MD5", cipher)
        assert status == 500 and b"cannot decrypt data" in body, (status, body)


def opened_but_not_certified(folder, digest, cipher):
    """The envelope opens, the transaction is continued, and the MD5 of the PKCS#10 is refused."""
    status, body, log = posted(folder, digest, cipher)
    assert status == 200, (status, body)
    answer = folder / "answer"
    answer.write_bytes(body)
    text = decode(answer)[1]
    for line in ("CertRep (3)", "FAILURE (2)", "badRequest (2)", "verdict           good"):
        assert line in text, text
    assert "signing with MD5 is not supported" in log, log


def des_is_opened(folder):
    opened_but_not_certified(folder, "SHA1", "DES-CBC")


def triple_des_is_opened(folder):
    opened_but_not_certified(folder, "SHA256", "DES-EDE3-CBC")


def aes_128_is_opened(folder):
    opened_but_not_certified(folder, "SHA256", "AES-128-CBC")


def aes_256_is_opened(folder):
    opened_but_not_certified(folder, "SHA256", "AES-256-CBC")


peers.run(as_it_goes_out_it_is_a_bad_request, refused_for_its_digest, des_is_opened,
          triple_des_is_opened, aes_128_is_opened, aes_256_is_opened, get_cert_is_not_known,
          get_cert_initial_is_not_known)
