"""certmonger's SCEP helper, driven by hand, exchanges messages with the lab."""
import base64

import peers
from peers import Device, Lab, call, need

PACKAGE = "certmonger"


def submit(lab, *words, ok=True):
    return call(need("scep-submit", PACKAGE), "-u", lab.url("/scep"), *words, ok=ok)


def it_reads_capabilities_and_certificate(folder):
    need("scep-submit", PACKAGE)
    with Lab(folder) as lab:
        assert "SHA-256" in submit(lab, "-c")[1]
        # It prints the CA's certificate first, then what it would need besides.
        text = submit(lab, "-C", ok=False)[1]
        mine = "".join((lab.folder / "issuing-cert.pem").read_text().split())
        assert mine in "".join(text.split()), text


def it_sends_our_request_and_believes_the_reply(folder):
    with Lab(folder) as lab:
        device = Device(folder)
        device.provision(lab)
        key = device.make_key()
        device.enroll()
        request = folder / "request.pem"
        text = base64.encodebytes(lab.messages()[0].read_bytes()).decode()
        request.write_text(f"-----BEGIN PKCS7-----\n{text}-----END PKCS7-----\n")
        cert = lab.folder / "issuing-cert.pem"
        output = submit(lab, "-v", "-r", cert, "-N", cert, "-g", request)[1]
        assert 'SCEP status is "success".' in output, output
        envelope = folder / "envelope.pem"
        begin = output.index("-----BEGIN PKCS7-----")
        envelope.write_text(output[begin:])
        payload = folder / "payload"
        call("openssl", "cms", "-decrypt", "-inform", "PEM", "-in", envelope, "-binary", "-inkey",
             key, "-out", payload)
        certs = call("openssl", "pkcs7", "-inform", "DER", "-print_certs", "-in", payload)[1]
        assert "CN = device" in certs, certs


def it_believes_a_refusal(folder):
    with Lab(folder, "--scep-refuse", "badTime") as lab:
        device = Device(folder)
        device.provision(lab)
        device.make_key()
        device.enroll(ok=False)
        request = folder / "request.pem"
        text = base64.encodebytes(lab.messages()[0].read_bytes()).decode()
        request.write_text(f"-----BEGIN PKCS7-----\n{text}-----END PKCS7-----\n")
        cert = lab.folder / "issuing-cert.pem"
        code, output = submit(lab, "-v", "-r", cert, "-N", cert, "-g", request, ok=False)
        assert code != 0 and 'SCEP status is "failure".' in output, output
        assert "Clock skew" in output, output


peers.run(it_reads_capabilities_and_certificate, it_sends_our_request_and_believes_the_reply,
          it_believes_a_refusal)
