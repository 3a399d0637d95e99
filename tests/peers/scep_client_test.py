"""An independent SCEP client (Debian package scep) enrolls with the lab."""
import peers
from peers import Lab, call, need


def enroll(folder, lab):
    client = need("scepclient", "scep")
    mine = folder / "client"
    mine.mkdir()
    return call(client, "-server-url", lab.url("/scep"), "-private-key", mine / "k.pem",
                "-certificate", mine / "c.pem", "-cn", "peer", cwd=mine, ok=False)


def it_enrolls(folder):
    need("scepclient", "scep")
    with Lab(folder) as lab:
        code, output = enroll(folder, lab)
        assert code == 0, output
        cert = folder / "client" / "c.pem"
        call("openssl", "verify", "-partial_chain", "-CAfile", lab.folder / "issuing-cert.pem",
             cert)
        subject = call("openssl", "x509", "-in", cert, "-noout", "-subject")[1]
        assert "CN = peer" in subject, subject


def it_believes_a_refusal(folder):
    with Lab(folder, "--scep-refuse", "badRequest") as lab:
        code, output = enroll(folder, lab)
        assert code != 0 and "badRequest" in output, output
        assert not (folder / "client" / "c.pem").exists()


def it_refuses_an_envelope_for_a_stranger(folder):
    with Lab(folder, "--scep-misbehave", "stranger-envelope") as lab:
        code, output = enroll(folder, lab)
        assert code != 0, output
        assert not (folder / "client" / "c.pem").exists()


peers.run(it_enrolls, it_believes_a_refusal, it_refuses_an_envelope_for_a_stranger)
