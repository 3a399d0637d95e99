#include <gtest/gtest.h>

#include "device.h"
#include "tools/common/cert_text.h"
#include "tools/common/keys.h"
#include "tools/common/text.h"

namespace {

using nlohmann::json;
using tool_test::device;
using tool_test::pkictl;
using tool_test::result;
using tool_test::strings;

// One enrollment with a poll, and one look-up, for all cases.
const device &enrolled() {
  static const device test({"--scep-pending", "1"});
  static const bool done = [] {
    test.prepare();
    strings no_wait = {TOOL_PRELOAD SHORT_SLEEP, "ASAN_OPTIONS=verify_asan_link_order=0"};
    EXPECT_EQ(test.enroll({}, no_wait).exit_code, 0);
    EXPECT_EQ(test.pkictl({"cert", "find", "0815", "--ca", "office", "--key", "device"}).exit_code,
              1);
    return true;
  }();
  (void)done;
  return test;
}

result decode(const std::string &file, const strings &options = {}) {
  strings arguments = {"scep", "decode", file};
  arguments.insert(arguments.end(), options.begin(), options.end());
  return pkictl(arguments);
}

json decoded(const std::string &name, strings options = {}) {
  options.push_back("--json");
  result done = decode(enrolled().message(name), options);
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.err, "");
  return json::parse(done.out);
}

strings lab_key() {
  return {"--key", enrolled().lab_file("issuing-key.pem"), "--cert",
          enrolled().lab_file("issuing-cert.pem")};
}
strings device_key() {
  return {"--key", enrolled().key_file()};
}

TEST(PkictlScepDecode, ShowsTheOutsideWithoutAKey) {
  json layers = decoded("0001-PKCSReq.der");
  EXPECT_EQ(layers["message"]["message_type"], "PKCSReq (19)");
  EXPECT_EQ(layers["message"]["status"], nullptr);
  EXPECT_EQ(layers["message"]["failure_info"], nullptr);
  EXPECT_EQ(layers["message"]["transaction_id"].get<std::string>().size(), 32u);
  EXPECT_EQ(layers["message"]["sender_nonce"].get<std::string>().size(), 32u);
  EXPECT_EQ(layers["message"]["recipient_nonce"], nullptr);
  EXPECT_EQ(layers["signature"]["signature"], "good");
  EXPECT_EQ(layers["signature"]["digest"], "SHA256");
  EXPECT_EQ(layers["signature"]["signer"]["issuer"], "CN=device, O=Example");
  EXPECT_EQ(layers["signature"]["certificates"].size(), 1u);
  EXPECT_EQ(layers["envelope"]["cipher"], "DES-EDE3-CBC");
  EXPECT_EQ(layers["envelope"]["recipients"][0]["issuer"], "CN=pkilab issuing CA, O=pkilab");
  EXPECT_EQ(layers["payload"], nullptr);
}

TEST(PkictlScepDecode, ShowsTheRequestWithTheCasKeyButNotTheSecret) {
  json payload = decoded("0001-PKCSReq.der", lab_key())["payload"];
  EXPECT_EQ(payload["kind"], "PKCS#10 request");
  EXPECT_EQ(payload["subject"], "CN=device, O=Example");
  EXPECT_EQ(payload["key"], "RSA 1024");
  EXPECT_EQ(payload["signature_algorithm"], "RSA-MD5");
  EXPECT_EQ(payload["signature"], "good");
  EXPECT_EQ(payload["attributes"],
            (json::array({{{"name", "qrn-serial-number"}, {"value", "SN-0815"}},
                          {{"name", "qrn-secret"}, {"value", "16 octets, a secret, not shown"}}})));
  result text = decode(enrolled().message("0001-PKCSReq.der"), lab_key());
  EXPECT_EQ(text.out.find(tool_test::device_secret), std::string::npos);
  EXPECT_NE(text.out.find("\n  signed with       RSA-MD5\n"), std::string::npos) << text.out;
}

TEST(PkictlScepDecode, ShowsAStatusReplyThatHasNoEnvelope) {
  json layers = decoded("0001-reply.der", device_key());
  EXPECT_EQ(layers["message"]["message_type"], "CertRep (3)");
  EXPECT_EQ(layers["message"]["status"], "PENDING (3)");
  EXPECT_EQ(layers["envelope"], nullptr);
  EXPECT_EQ(layers["payload"], nullptr);
}

TEST(PkictlScepDecode, ShowsAPoll) {
  json layers = decoded("0002-GetCertInitial.der", lab_key());
  EXPECT_EQ(layers["message"]["message_type"], "GetCertInitial (20)");
  EXPECT_EQ(layers["payload"], (json{{"kind", "issuer and subject"},
                                     {"issuer", "CN=pkilab issuing CA, O=pkilab"},
                                     {"subject", "CN=device, O=Example"}}));
}

TEST(PkictlScepDecode, ShowsCertificatesWithTheDevicesKeyAlone) {
  json layers = decoded("0002-reply.der", device_key());
  EXPECT_EQ(layers["message"]["status"], "SUCCESS (0)");
  EXPECT_EQ(layers["payload"]["kind"], "certificates");
  ASSERT_EQ(layers["payload"]["certificates"].size(), 2u);
  EXPECT_EQ(layers["payload"]["certificates"][0]["subject"], "CN=device, O=Example");
}

TEST(PkictlScepDecode, ShowsALookUpAndItsRefusal) {
  json asked = decoded("0003-GetCert.der", lab_key());
  EXPECT_EQ(asked["message"]["message_type"], "GetCert (21)");
  EXPECT_EQ(asked["payload"]["kind"], "issuer and serial number");
  EXPECT_EQ(asked["payload"]["serial"], "0815");
  json answered = decoded("0003-reply.der");
  EXPECT_EQ(answered["message"]["status"], "FAILURE (2)");
  EXPECT_EQ(answered["message"]["failure_info"], "badCertId (4)");
}

TEST(PkictlScepDecode, PrintsTheLayersForAPerson) {
  result done = decode(enrolled().message("0002-GetCertInitial.der"), lab_key());
  EXPECT_EQ(done.exit_code, 0);
  for (const char *part :
       {"message\n  type              GetCertInitial (20)\n",
        "signature\n  verdict           good\n", "envelope\n  cipher            DES-EDE3-CBC\n",
        "payload\n  kind              issuer and"})
    EXPECT_NE(done.out.find(part), std::string::npos) << done.out;
}

TEST(PkictlScepDecode, TakesTheMessageInManyForms) {
  tool_test::folder home;
  std::string der = tool_test::read_file(enrolled().message("0001-PKCSReq.der"));
  std::string base64 = tools::base64_lines(der);
  json expected = decoded("0001-PKCSReq.der")["message"];
  for (const std::string &text :
       {base64, "-----BEGIN PKCS7-----\n" + base64 + "-----END PKCS7-----\n",
        "operation=PKIOperation&message=" + base64,
        "GET /scep?operation=PKIOperation&message=" + base64 + " HTTP/1.0\r\n",
        "http://h/scep?message=" + tools::percent_encode(base64) + "&operation=PKIOperation"}) {
    result done = decode(home.write("message", text), {"--json"});
    EXPECT_EQ(done.exit_code, 0) << done.err;
    EXPECT_EQ(json::parse(done.out)["message"], expected);
  }
}

TEST(PkictlScepDecode, ShowsWhatItCanOfAChangedMessageAndFails) {
  tool_test::folder home;
  std::string der = tool_test::read_file(enrolled().message("0001-PKCSReq.der"));
  der.back() = static_cast<char>(der.back() ^ 1);
  std::string file = home.write("changed", der);
  result done = decode(file, {"--json"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: " + file + " has no good signature: P7 VERIFY FAILED (26)\n");
  json layers = json::parse(done.out);
  EXPECT_EQ(layers["signature"]["signature"], "bad");
  EXPECT_EQ(layers["error"]["code"], 26);
  EXPECT_EQ("pkictl: " + layers["error"]["message"].get<std::string>() + "\n", done.err);
  EXPECT_EQ(layers["message"]["message_type"], "PKCSReq (19)");
}

TEST(PkictlScepDecode, WrongKeyDoesNotOpenTheEnvelope) {
  std::string file = enrolled().message("0001-PKCSReq.der");
  result done = decode(file, device_key());
  EXPECT_EQ(done.exit_code, 1);
  std::string serial = tools::serial_text(X509_get0_serialNumber(
      tools::load_certificate(enrolled().lab_file("issuing-cert.pem")).get()));
  EXPECT_EQ(done.err,
            "pkictl: the envelope in " + file +
                " does not open: P7 DECRYPT FAILED (22); give the key of the certificate " +
                serial + " of CN=pkilab issuing CA, O=pkilab\n");
  EXPECT_NE(done.out.find("PKCSReq (19)"), std::string::npos);
}

TEST(PkictlScepDecode, CertificateOfSomebodyElseDoesNotOpenTheEnvelope) {
  result done = decode(enrolled().message("0001-PKCSReq.der"),
                       {"--key", enrolled().lab_file("issuing-key.pem"), "--cert",
                        enrolled().lab_file("root-cert.pem")});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find("P7 DECRYPT FAILED (22)"), std::string::npos) << done.err;
}

TEST(PkictlScepDecode, FilesThatAreNoMessageAreNamed) {
  tool_test::folder home;
  for (const std::string &text : {std::string("garbage"), std::string(), std::string("AAAA"),
                                  std::string("-----BEGIN PKCS7-----\nAAAA\n")}) {
    std::string file = home.write("file", text);
    result done = decode(file);
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_EQ(done.err,
              "pkictl: " + file + " holds no PKCS#7 message (DER, PEM, base64 or a query)\n");
  }
}

TEST(PkictlScepDecode, SignedDataThatIsNoScepHasNoAttributes) {
  tool_test::folder home;
  std::string document = home / "document";
  tool_test::pkictl({"cainfo", "sign", "--issuer-name", "CN=own", "--key",
                     enrolled().lab_file("doc-key.pem"), "--out", document});
  result done = decode(document, {"--json"});
  EXPECT_EQ(done.exit_code, 1);  // it carries no certificate of its signer
  EXPECT_EQ(json::parse(done.out)["message"]["message_type"], nullptr);
}

TEST(PkictlScepDecode, CertificateWithoutAKeyIsWrongUsage) {
  EXPECT_EQ(decode("file", {"--cert", "cert.pem"}).exit_code, 2);
}

TEST(PkictlScepDecode, EveryTruncationFailsWithOneLine) {
  tool_test::folder home;
  std::string der = tool_test::read_file(enrolled().message("0002-reply.der"));
  for (size_t length = 0; length < der.size(); length += 211) {
    result done = decode(home.write("cut", der.substr(0, length)), device_key());
    EXPECT_EQ(done.exit_code, 1) << length;
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
  }
}

TEST(PkictlScepDecode, ChangedOctetsNeverCrashIt) {
  tool_test::folder home;
  std::string der = tool_test::read_file(enrolled().message("0002-reply.der"));
  for (size_t at = 0; at < der.size(); at += 97) {
    std::string changed = der;
    changed[at] = static_cast<char>(changed[at] ^ 0xFF);
    EXPECT_LE(decode(home.write("changed", changed), device_key()).exit_code, 1) << at;
  }
}

}  // namespace
