"""OpenSSL's command-line program opens our messages, and we open its."""
import peers
from peers import Device, Lab, call, decode

LEGACY = ["-provider", "default", "-provider", "legacy"]


def enrolled(folder, *options):
    """A lab and a device that has enrolled with it: its request, its reply, its key."""
    with Lab(folder, *options) as lab:
        device = Device(folder)
        device.provision(lab)
        key = device.make_key()
        device.enroll()
        request, reply = lab.messages()
        return lab.folder, request, reply, key


def opened_by_openssl(folder, message, key, name):
    """The payload of a message: signature checked, envelope opened."""
    envelope, payload = folder / f"{name}.envelope", folder / f"{name}.payload"
    call("openssl", "cms", "-verify", "-noverify", "-inform", "DER", "-in", message, "-binary",
         "-out", envelope)
    call("openssl", "cms", "-decrypt", "-inform", "DER", "-in", envelope, "-inkey", key, "-out",
         payload, "-binary", *LEGACY)
    return payload


def openssl_opens_request_and_reply(folder):
    lab, request, reply, key = enrolled(folder)
    payload = opened_by_openssl(folder, request, lab / "issuing-key.pem", "request")
    text = call("openssl", "req", "-inform", "DER", "-in", payload, "-noout", "-text", "-verify")[1]
    assert "C = US, O = Example, CN = device" in text, text
    assert "md5WithRSAEncryption" in text, text
    certs = call("openssl", "pkcs7", "-inform", "DER", "-print_certs", "-in",
                 opened_by_openssl(folder, reply, key, "reply"))[1]
    assert certs.count("BEGIN CERTIFICATE") == 2, certs
    assert certs.index("CN = device") < certs.index("CN = pkilab issuing CA"), certs


def openssl_opens_md5_and_des(folder):
    lab, request, reply, key = enrolled(folder, "--scep-digest", "none", "--scep-cipher", "none")
    structure = call("openssl", "asn1parse", "-inform", "DER", "-in", request)[1]
    assert "md5" in structure, structure
    opened_by_openssl(folder, request, lab / "issuing-key.pem", "request")
    opened_by_openssl(folder, reply, key, "reply")


def asn1parse_finds_the_transaction(folder):
    _, request, _, _ = enrolled(folder)
    structure = call("openssl", "asn1parse", "-inform", "DER", "-in", request)[1]
    for identifier in ("9.2", "9.5", "9.7"):
        assert f"2.16.840.1.113733.1.{identifier}\n" in structure, identifier
    assert ":19\n" in structure, "the message type"


def we_open_what_openssl_makes(folder):
    key, cert, data = folder / "k.pem", folder / "c.pem", folder / "data"
    call("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", cert,
         "-subj", "/CN=somebody", "-days", "2")
    call("openssl", "req", "-new", "-key", key, "-subj", "/CN=somebody", "-outform", "DER", "-out",
         data)
    envelope, message = folder / "envelope", folder / "message"
    call("openssl", "cms", "-encrypt", "-aes-128-cbc", "-binary", "-in", data, "-outform", "DER",
         "-out", envelope, cert)
    call("openssl", "cms", "-sign", "-binary", "-nodetach", "-nosmimecap", "-in", envelope,
         "-outform", "DER", "-signer", cert, "-inkey", key, "-out", message)
    text = decode(message, "--key", key, "--cert", cert)[1]
    assert "verdict           good" in text, text
    assert "CN=somebody" in text, text


peers.run(openssl_opens_request_and_reply, openssl_opens_md5_and_des,
          asn1parse_finds_the_transaction, we_open_what_openssl_makes)
