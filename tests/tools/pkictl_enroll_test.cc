#include <gtest/gtest.h>
#include <openssl/x509.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "device.h"
#include "lab_fixture.h"
#include "tools/common/cert_text.h"
#include "tools/common/keys.h"
#include "tools/common/scep_message.h"
#include "tools/pkictl/state_format.h"

namespace {

using nlohmann::json;
using tool_test::device;
using tool_test::result;
using tool_test::strings;

tools::pkcs7_ptr message(const device &test, const std::string &name) {
  return tools::decode_pkcs7(tool_test::read_file(test.message(name)));
}

TEST(PkictlEnroll, SavesACertificateOfTheCaForTheKey) {
  device test;
  test.prepare();
  result done = test.enroll();
  ASSERT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.err, "");
  tools::cert_ptr cert = tools::load_certificate(test.cert_file());
  tools::key_ptr key = tools::load_private_key(test.key_file());
  tools::cert_ptr ca = tools::load_certificate(test.lab_file("issuing-cert.pem"));
  EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(cert.get()), key.get()), 1);
  EXPECT_EQ(X509_verify(cert.get(), X509_get0_pubkey(ca.get())), 1);
  EXPECT_EQ(X509_get_signature_nid(cert.get()), NID_sha256WithRSAEncryption);
  EXPECT_EQ(tools::name_text(X509_get_subject_name(cert.get())), "CN=device, O=Example");
  EXPECT_EQ(tool_test::mode_of(test.state_file()), 0600u);
}

TEST(PkictlEnroll, PrintsTheCertificate) {
  device test;
  test.prepare();
  result done = test.enroll({"--cert", "first"});
  EXPECT_TRUE(
      done.out.starts_with("enrolled device with the CA office\n"
                           "  first             CN=device, O=Example\n"
                           "    issuer          CN=pkilab issuing CA, O=pkilab\n"))
      << done.out;
  EXPECT_TRUE(done.out.ends_with("\nsaved " + test.state_file() + "\n")) << done.out;
}

TEST(PkictlEnroll, PrintsJson) {
  device test;
  test.prepare();
  json printed = json::parse(test.enroll({"--json"}).out);
  EXPECT_EQ(printed["status"], "issued");
  EXPECT_EQ(printed["key"], "device");
  EXPECT_EQ(printed["label"], "cert");
  EXPECT_EQ(printed["file"], test.state_file());
  EXPECT_EQ(printed["certificate"]["subject"], "CN=device, O=Example");
}

TEST(PkictlEnroll, NameIsEmptyOnlyWhenAskedFor) {
  device test;
  test.prepare();
  result done = test.pkictl({"enroll", "--ca", "office", "--key", "device"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(done.err, "pkictl: --subject is required; see 'pkictl enroll --help'\n");
  done = test.pkictl({"enroll", "--ca", "office", "--key", "device", "--subject", "", "--json"});
  ASSERT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(json::parse(done.out)["certificate"]["subject"], "");
}

TEST(PkictlEnroll, CertificateIsListedWithItsKeyAndRemovedWithIt) {
  device test;
  test.prepare();
  test.enroll({"--cert", "first"});
  test.enroll({"--cert", "second"});
  json key = json::parse(test.pkictl({"key", "list", "--json"}).out)["keys"][0];
  ASSERT_EQ(key["certs"].size(), 2u);
  EXPECT_EQ(key["certs"][0]["label"], "first");
  EXPECT_EQ(key["certs"][1]["certificate"]["subject"], "CN=device, O=Example");
  result done = test.pkictl({"key", "remove", "device"});
  EXPECT_EQ(done.out, "removed device and 2 certificates\n");
  EXPECT_EQ(test.pkictl({"key", "list"}).out, "no keys in " + test.state() + "\n");
}

TEST(PkictlEnroll, LeavesACertificateThatIsThereUnlessToldToReplaceIt) {
  device test;
  test.prepare();
  test.enroll();
  std::string before = tool_test::read_file(test.cert_file());
  result done = test.enroll();
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err,
            "pkictl: the key device has a certificate cert already; take another --cert, or"
            " --replace it\n");
  EXPECT_EQ(tool_test::read_file(test.cert_file()), before);
  EXPECT_EQ(test.messages().size(), 2u);  // the CA was not asked again
  done = test.enroll({"--replace", "--json"});
  ASSERT_EQ(done.exit_code, 0) << done.err;
  tools::cert_ptr cert = tools::load_certificate(test.cert_file());
  EXPECT_NE(tool_test::read_file(test.cert_file()), before);
  EXPECT_EQ(json::parse(done.out)["certificate"]["serial"],
            tools::serial_text(X509_get0_serialNumber(cert.get())));
}

// ---- algorithms ----

struct algorithms {
  std::string name;
  strings lab_options;
  strings key_options;
  std::string digest;
  std::string cipher;
};

class algorithms_test : public testing::TestWithParam<algorithms> {};

TEST_P(algorithms_test, EnrollsAndBothSidesUseThem) {
  device test(GetParam().lab_options);
  test.prepare(GetParam().key_options);
  result done = test.enroll();
  ASSERT_EQ(done.exit_code, 0) << done.err;
  for (const char *name : {"0001-PKCSReq.der", "0001-reply.der"}) {
    tools::pkcs7_ptr sent = message(test, name);
    EXPECT_EQ(tools::digest_name(sent.get()), GetParam().digest) << name;
    EXPECT_EQ(tools::cipher_name(tools::read_envelope(sent.get()).get()), GetParam().cipher)
        << name;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Enrollment, algorithms_test,
    testing::Values(algorithms{"TheLabsOwn", {}, {}, "SHA256", "DES-EDE3-CBC"},
                    algorithms{"TheLibrarysDefaults",
                               {"--scep-digest", "none", "--scep-cipher", "none"},
                               {},
                               "MD5",
                               "DES-CBC"},
                    algorithms{"Rsa2048Sha256Aes128",
                               {"--scep-digest", "SHA256", "--scep-cipher", "AES-128-CBC"},
                               {"--bits", "2048"},
                               "SHA256",
                               "AES-128-CBC"},
                    algorithms{"NamesThatNobodyKnows",
                               {"--scep-digest", "NODIGEST", "--scep-cipher", "NOCIPHER"},
                               {},
                               "MD5",
                               "DES-CBC"}),
    [](const auto &named) { return named.param.name; });

// ---- the secret ----

TEST(PkictlEnroll, SecretIsInNoOutputLogOrMessage) {
  device test({"--scep-pending", "1"});
  test.prepare();
  strings preload = {TOOL_PRELOAD SHORT_SLEEP, "ASAN_OPTIONS=verify_asan_link_order=0"};
  ASSERT_EQ(test.enroll({"-v", "--json"}, preload).exit_code, 0);  // outputs: see device::pkictl
  std::string everything = test.lab().end(SIGTERM).err;
  ASSERT_EQ(test.messages().size(), 4u);
  for (const std::string &name : test.messages())
    everything += tool_test::read_file(test.message(name));
  everything += tool_test::read_file(test.state_file());
  EXPECT_EQ(everything.find(tool_test::device_secret), std::string::npos);
}

TEST(PkictlEnroll, SecretTravelsInTheEnvelope) {
  device test;
  test.prepare();
  test.enroll();
  result done = tool_test::pkictl({"scep", "decode", test.message("0001-PKCSReq.der"), "--key",
                                   test.lab_file("issuing-key.pem")});
  EXPECT_NE(done.out.find("  qrn-serial-number SN-0815\n"
                          "  qrn-secret        16 octets, a secret, not shown\n"),
            std::string::npos)
      << done.out;
}

// ---- what cannot be ----

TEST(PkictlEnroll, WithoutTheSecretItSaysWhatIsMissing) {
  device test;
  test.prepare();
  unlink(test.file("secret").c_str());
  result done = test.enroll();
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err,
            "pkictl: cannot enroll device: FLASH ERROR (78): cannot read " + test.file("") +
                "/secret: No such file or directory; put it there, or name another folder in"
                " BOARD_INFO_DIR\n");
}

TEST(PkictlEnroll, CaAndKeyHaveToBeThere) {
  device test;
  result done = test.enroll();
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err,
            "pkictl: there is no CA office in " + (test.home() / "state") +
                "; provision it with 'pkictl provision URL --doc-key KEY --label office --state " +
                test.state() + "'\n");
  test.prepare();
  done = test.pkictl({"enroll", "--ca", "office", "--key", "other", "--subject", "CN=x"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: there is no key other in " + (test.home() / "state") +
                          "; see 'pkictl key list --state " + test.state() +
                          "', or make it with 'pkictl key generate other --state " + test.state() +
                          "'\n");
}

TEST(PkictlEnroll, BadSubjectsAreRefusedBeforeTheCaIsAsked) {
  device test;
  test.prepare();
  for (const char *subject : {"nonsense", "NOKEY=x", "CN=\"open", "CN=device, O=Example, Inc."}) {
    result done =
        test.pkictl({"enroll", "--ca", "office", "--key", "device", "--subject", subject});
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_NE(
        done.err.find("write the subject as in CN=device, O=Example, C=US; a value with a comma"
                      " stands in double quotes, as in O=\"Example, Inc.\""),
        std::string::npos)
        << done.err;
  }
  EXPECT_TRUE(test.messages().empty());
}

TEST(PkictlEnroll, KeyOfASubjectThatNobodyKnowsIsNamed) {
  device test;
  test.prepare();
  result done = test.pkictl(
      {"enroll", "--ca", "office", "--key", "device", "--subject", "CN=x, o=lower", "--json"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_TRUE(done.err.starts_with(
      "pkictl: cannot enroll device: DN UNKNOWN KEY (53): Unknown key `o' in name 'CN=x, o=lower';"
      " the letter case of a key counts; write the subject as in CN=device, O=Example, C=US;"))
      << done.err;
  EXPECT_EQ(json::parse(done.out)["error"]["code"], 53);
}

// ---- answers of no use ----

struct useless_answer {
  const char *misdeed;
  const char *reason;
};

class useless_answer_test : public testing::TestWithParam<useless_answer> {};

TEST_P(useless_answer_test, IsToldWithTheLibrarysReason) {
  device test({"--scep-misbehave", GetParam().misdeed});
  test.prepare();
  result done = test.enroll({"--json"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
  EXPECT_TRUE(done.err.ends_with(
      "INVALID SCEP RSP (59): what the CA answered is no good answer to"
      " this request: " +
      std::string(GetParam().reason) + "; if the CA was replaced, run 'pkictl provision' again\n"))
      << done.err;
  std::string message = json::parse(done.out)["error"]["message"];
  EXPECT_EQ("pkictl: " + message + "\n", done.err);
  EXPECT_LT(message.size(), 250u);  // without the message in hexadecimal
}

INSTANTIATE_TEST_SUITE_P(
    Enrollment, useless_answer_test,
    testing::Values(useless_answer{"no-status", "no status-code found in response to cert-request"},
                    useless_answer{"no-message", "failed to decode scep response"},
                    useless_answer{
                        "stranger-signs",
                        "failed to parse or verify scep cert-response: err = `SIGNER NOT FOUND'"}),
    [](const auto &named) {
      std::string name = named.param.misdeed;
      std::erase(name, '-');
      return name;
    });

TEST(PkictlEnroll, HttpStatusOfTheCaIsToldWithItsUrl) {
  device test({"--scep-misbehave", "http-404"});
  test.prepare();
  EXPECT_EQ(test.enroll().err,
            "pkictl: cannot enroll device: HTTP ERROR (47): " + test.lab().url() +
                "/scep: the server answered 404; check the URL\n");
}

TEST(PkictlEnroll, LabelsCannotLeaveTheFolder) {
  device test;
  test.prepare();
  for (const strings &options :
       {strings{"--key", "device", "--cert", "../x"}, strings{"--key", "device", "--ca", "a/b"},
        strings{"--key", ".."}, strings{"--key", "device", "--cert", ""}}) {
    strings arguments = {"enroll", "--subject", "CN=x"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    result done = test.pkictl(arguments);
    EXPECT_EQ(done.exit_code, 2) << done.err;
    EXPECT_NE(done.err.find("is no label"), std::string::npos) << done.err;
  }
}

TEST(PkictlEnroll, CaThatIsGoneIsAnHttpError) {
  device test;
  test.prepare();
  test.lab().end(SIGTERM);
  result done = test.enroll({"--json"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_FALSE(json::parse(done.out).contains("status"));
  EXPECT_NE(done.err.find("HTTP ERROR (47): Error connecting to 127.0.0.1:"), std::string::npos)
      << done.err;
  EXPECT_NE(done.err.find("Connection refused\n"), std::string::npos) << done.err;
  EXPECT_TRUE(test.certs().empty());
}

// ---- a state that is whole but of no use ----

pkictl::saved_state loaded(const device &test) {
  std::string octets = tool_test::read_file(test.state_file());
  pkictl::saved_state state;
  EXPECT_EQ(pkictl::decode_state({octets.begin(), octets.end()}, &state), 0);
  return state;
}

void save(const device &test, const pkictl::saved_state &state) {
  pkictl::secret_octets octets = pkictl::encode_state(state);
  test.home().write("state/state", {octets.begin(), octets.end()});
}

TEST(PkictlEnroll, CaWhoseDocumentAnotherKeySignedIsRefused) {
  device test;
  test.prepare();
  pkictl::saved_state state = loaded(test);
  state.cas["office"].doc_key = tools::load_private_key(test.key_file());
  save(test, state);
  result done = test.enroll();
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(
      done.err.starts_with("pkictl: the document of the CA office has no good signature: SIG VERIFY"
                           " FAILED (29)"))
      << done.err;
}

TEST(PkictlEnroll, CaWithoutADocumentIsRefused) {
  device test;
  test.prepare();
  pkictl::saved_state state = loaded(test);
  state.cas["office"].document = "nothing of use";
  save(test, state);
  result done = test.enroll();
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(
      done.err.starts_with("pkictl: the document of the CA office has no good signature: P7 DECODE"
                           " ERROR (20)"))
      << done.err;
}

// ---- a state that changes while the CA thinks ----

strings meanwhile(const device &test, const std::string &command) {
  return {
      TOOL_PRELOAD SHORT_SLEEP, "ASAN_OPTIONS=verify_asan_link_order=0",
      "SLEEP_COMMAND=" TOOL_DIR "/pkictl " + command + " --state " + test.state() + " >/dev/null"};
}

TEST(PkictlEnrollMeanwhile, WhatOthersSaveIsKept) {
  device test({"--scep-pending", "1"});
  test.prepare();
  result done = test.enroll({}, meanwhile(test, "key generate other --bits 512"));
  ASSERT_EQ(done.exit_code, 0) << done.err;
  pkictl::saved_state state = loaded(test);
  EXPECT_EQ(state.keys.count("other"), 1u);
  EXPECT_EQ(state.keys["device"].certs.count("cert"), 1u);
}

TEST(PkictlEnrollMeanwhile, KeyThatIsRemovedLeavesTheCertificateAtTheCa) {
  device test({"--scep-pending", "1"});
  test.prepare();
  result done = test.enroll({}, meanwhile(test, "key remove device"));
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find(" was issued, but cannot be kept: there is no key device in "),
            std::string::npos)
      << done.err;
  EXPECT_TRUE(loaded(test).keys.empty());
}

TEST(PkictlEnrollMeanwhile, AnotherKeyOfTheSameLabelDoesNotGetTheCertificate) {
  device test({"--scep-pending", "1"});
  test.prepare();
  std::string again = TOOL_DIR "/pkictl key generate device --bits 512";
  result done =
      test.enroll({}, meanwhile(test, "key remove device --state " + test.state() + "; " + again));
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find("cannot be kept: the key device is another one by now; enroll again\n"),
            std::string::npos)
      << done.err;
  EXPECT_TRUE(loaded(test).keys["device"].certs.empty());
}

// ---- provision ----

TEST(PkictlProvisionState, LabelsCannotLeaveTheFolder) {
  result done =
      tool_test::pkictl({"provision", "http://127.0.0.1:1/ca-info", "--doc-key",
                         tool_test::the_lab().file("doc-key.pub.pem"), "--label", "../office"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_NE(done.err.find("the CA \"../office\" is no label"), std::string::npos) << done.err;
}

TEST(PkictlProvisionState, WithoutAHomeFolderTheCaIsPrintedAndNotKept) {
  device test;
  result done = tool_test::pkictl(
      {"provision", test.lab().url() + "/ca-info", "--doc-key", test.lab_file("doc-key.pub.pem")},
      test.environment({"XDG_STATE_HOME=", "HOME="}));
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_EQ(done.err,
            "pkictl: note: the CA is not kept, as there is no home folder; give --state\n");
  EXPECT_TRUE(done.out.starts_with("CA\n")) << done.out;
  EXPECT_EQ(done.out.find("saved "), std::string::npos) << done.out;
}

TEST(PkictlProvisionState, SaysWhatItReplaces) {
  device test;
  std::string url = test.lab().url() + "/ca-info";
  strings arguments = {"provision", url, "--doc-key", test.lab_file("doc-key.pub.pem")};
  result done = test.pkictl(arguments);
  EXPECT_TRUE(done.out.ends_with("\nsaved " + test.state_file() + "\n")) << done.out;
  done = test.pkictl(arguments);
  EXPECT_TRUE(done.out.ends_with("\nsaved " + test.state_file() +
                                 ", in the place of the CA ca from " + url + "\n"))
      << done.out;
  arguments.emplace_back("--json");
  json printed = json::parse(test.pkictl(arguments).out);
  EXPECT_EQ(printed["file"], test.state_file());
  EXPECT_EQ(printed["replaced"], url);
}

TEST(PkictlProvisionState, StateThatCannotBeReadIsToldBeforeTheServerIsAsked) {
  device test;
  std::filesystem::create_directory(test.state());
  test.home().write("state/state", "nothing of use");
  result done = test.pkictl(
      {"provision", "http://127.0.0.1:1/ca-info", "--doc-key", test.lab_file("doc-key.pub.pem")});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(done.err.starts_with("pkictl: " + test.state_file() + " is damaged")) << done.err;
}

TEST(PkictlProvisionState, RefusedDocumentIsNotKeptAndAnOlderOneStays) {
  device test;
  test.prepare();
  std::string before = tool_test::read_file(test.state_file());
  result done = test.pkictl({"provision", test.lab().url() + "/misbehave/wrong-key/ca-info",
                             "--doc-key", test.lab_file("doc-key.pub.pem"), "--label", "office"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(tool_test::read_file(test.state_file()), before);
}

}  // namespace
