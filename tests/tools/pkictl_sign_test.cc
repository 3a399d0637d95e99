#include <gtest/gtest.h>

#include <tuple>

#include "lab_fixture.h"
#include "run_tool.h"

namespace {

using nlohmann::json;
using tool_test::folder;
using tool_test::pkictl;
using tool_test::result;
using tool_test::strings;
using tool_test::the_lab;

const char *const moved_note =
    "pkictl: note: moved Expires to the end, because devices stop reading a document at its expiry"
    " and refuse one that has elements behind it\n";

const char *const gap_note =
    "pkictl: note: the document names neither a trusted root nor a way to enroll\n";
const char *const scep_note =
    "pkictl: note: the SCEP method names no X509Certificate of the SCEP CA, and devices cannot use"
    " it without\n";

struct signing {
  folder home;
  std::string out = home / "signed";

  result sign(const strings &what) {
    strings arguments = {"cainfo", "sign", "--key", the_lab().file("doc-key.pem"), "--out", out};
    arguments.insert(arguments.end(), what.begin(), what.end());
    return pkictl(arguments);
  }
  result sign_text(const std::string &xml, const strings &options = {}) {
    strings arguments = options;
    arguments.push_back(home.write("doc.xml", xml));
    return sign(arguments);
  }
  // What a device makes of the result.
  json shown() {
    result done =
        pkictl({"cainfo", "show", out, "--doc-key", the_lab().file("doc-key.pub.pem"), "--json"});
    EXPECT_EQ(done.exit_code, 0) << done.err;
    return json::parse(done.out)["ca"];
  }
};

TEST(PkictlSign, SignsAFileThatVerifies) {
  signing test;
  result done = test.sign_text("<QRNPkiConfig><IssuerName>CN=x, C=US</IssuerName></QRNPkiConfig>");
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_EQ(done.err, gap_note);
  EXPECT_TRUE(done.out.starts_with("signed " + test.out)) << done.out;
  EXPECT_EQ(test.shown()["issuer"], "CN=x, C=US");
}

TEST(PkictlSign, KeepsADocumentThatNeedsNoMoveOctetByOctet) {
  signing test;
  std::string xml =
      "<?xml version='1.0'?>\r\n<qrnpkiconfig  >\n\n <!-- kept --><ISSUERNAME>CN=a</ISSUERNAME>\n"
      "<expires>Thu, 01 Jan 2037 00:00:00 GMT</expires> <!-- behind --></qrnpkiconfig>\n\n";
  result done = test.sign_text(xml);
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.err, gap_note);
  EXPECT_NE(tool_test::read_file(test.out).find(xml), std::string::npos);
}

TEST(PkictlSign, MovesExpiresToTheEndAndSaysWhy) {
  signing test;
  result done = test.sign_text(
      "<QRNPkiConfig>\n"
      "  <Expires>Thu, 01 Jan 2037 00:00:00 GMT</Expires>\n"
      "  <IssuerName>CN=a</IssuerName>\n"
      "  <CertReqMethod><SCEP url=\"http://a/?b=1&amp;c=2\"/></CertReqMethod>\n"
      "</QRNPkiConfig>\n");
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_EQ(done.err, std::string(moved_note) + scep_note);
  EXPECT_NE(tool_test::read_file(test.out).find(
                "<QRNPkiConfig>\n"
                "  <IssuerName>CN=a</IssuerName>\n"
                "  <CertReqMethod><SCEP url=\"http://a/?b=1&amp;c=2\"/></CertReqMethod>\n"
                "  <Expires>Thu, 01 Jan 2037 00:00:00 GMT</Expires>\n"
                "</QRNPkiConfig>\n"),
            std::string::npos);
  json ca = test.shown();
  EXPECT_EQ(ca["issuer"], "CN=a");
  EXPECT_EQ(ca["cert_req_methods"][0]["url"], "http://a/?b=1&c=2");
  EXPECT_EQ(ca["expires"], "Thu, 01 Jan 2037 00:00:00 GMT");
}

TEST(PkictlSign, MovesExpiresInADocumentWithoutWhiteSpace) {
  signing test;
  result done = test.sign_text(
      "<QRNPkiConfig><Expires>1 Jan 2037</Expires><IssuerName>CN=a</IssuerName></QRNPkiConfig>");
  EXPECT_EQ(done.err, std::string(moved_note) + gap_note);
  EXPECT_NE(tool_test::read_file(test.out).find(
                "<IssuerName>CN=a</IssuerName><Expires>1 Jan 2037</Expires></QRN"),
            std::string::npos);
}

TEST(PkictlSign, RefusesWhatIsNoCaInfoDocument) {
  struct {
    const char *xml;
    const char *reason;
  } cases[] = {
      {"<QRNPkiConfig>\n<a></QRNPkiConfig>", "is not well-formed XML: line 2: "},
      {"", "is not well-formed XML: "},
      {"<Config/>", "has the root element Config; a CA-info document has QRNPkiConfig"},
      {"<x:QRNPkiConfig xmlns:x='u'/>", "has the root element QRNPkiConfig"},
      {"<QRNPkiConfig><Expires>1</Expires><expires>2</expires></QRNPkiConfig>",
       "has several Expires elements"},
  };
  for (const auto &one : cases) {
    signing test;
    result done = test.sign_text(one.xml);
    EXPECT_EQ(done.exit_code, 1) << one.xml;
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
    EXPECT_NE(done.err.find(one.reason), std::string::npos) << done.err;
    EXPECT_EQ(tool_test::read_file(test.out), "");
  }
}

TEST(PkictlSign, RefusesWhatDevicesRefuse) {
  struct {
    const char *xml;
    const char *reason;
  } cases[] = {
      {"<CertReqMethod><SCEP/></CertReqMethod>", "XML ATTR NOT FOUND (32)"},
      {"<TrustedRoots><X509Certificate>\nAAAA\n</X509Certificate></TrustedRoots>",
       "XML CERT DEC FAILED (33)"},
      {"<IssuerName>CN</IssuerName>", "DN NO VALUE (54)"},
      {"<IssuerName></IssuerName>", "XML INTERNAL ERROR NO BUF (35)"},
  };
  for (const auto &one : cases) {
    signing test;
    std::string xml = "<QRNPkiConfig>" + std::string(one.xml) + "</QRNPkiConfig>";
    result done = test.sign_text(xml);
    EXPECT_EQ(done.exit_code, 1) << xml;
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
    EXPECT_NE(done.err.find(one.reason), std::string::npos) << done.err;
    EXPECT_NE(done.err.find("; --despite-faults signs it anyway\n"), std::string::npos) << done.err;
    EXPECT_EQ(tool_test::read_file(test.out), "");
  }
}

TEST(PkictlSign, InsistenceSignsWhatDevicesRefuse) {
  signing test;
  result done = test.sign_text("<QRNPkiConfig><IssuerName>CN</IssuerName></QRNPkiConfig>",
                               {"--despite-faults"});
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_NE(done.err.find("DN NO VALUE (54)"), std::string::npos) << done.err;
  result verified =
      pkictl({"cainfo", "verify", test.out, "--doc-key", the_lab().file("doc-key.pub.pem")});
  EXPECT_EQ(verified.exit_code, 1);
}

TEST(PkictlSign, UrlsThatDevicesCannotUseAreSignedOnlyOnInsistence) {
  std::string cert = the_lab().file("issuing-cert.pem");
  for (const auto &[option, what] : std::vector<std::pair<std::string, std::string>>{
           {"--scep-url", "SCEP"}, {"--scep-get-cert-url", "SCEPGetCert"}, {"--ocsp-url", "OCSP"}})
    for (const char *url : {"https://x/", "http:///path", "x"}) {
      signing test;
      strings what_to_sign = {option, url, "--root", cert};
      result done = test.sign(what_to_sign);
      EXPECT_EQ(done.exit_code, 2) << url;
      EXPECT_EQ(done.err,
                "pkictl: devices cannot use the " + what + " URL " + url +
                    "; give one that begins with http://; --despite-faults signs it anyway\n");
      EXPECT_EQ(tool_test::read_file(test.out), "");
      what_to_sign.emplace_back("--despite-faults");
      done = test.sign(what_to_sign);
      EXPECT_EQ(done.exit_code, 0) << done.err;
      EXPECT_TRUE(done.err.starts_with("pkictl: note: devices cannot use the " + what + " URL"))
          << done.err;
    }
}

// Devices would take MD5 or DES-CBC.
TEST(PkictlSign, AlgorithmsThatDevicesDoNotKnowAreSignedOnlyOnInsistence) {
  for (const auto &[element, name, advice] :
       std::vector<std::tuple<std::string, std::string, std::string>>{
           {"Digest", "digest", "SHA256"}, {"Cipher", "cipher", "DES-EDE3-CBC"}}) {
    signing test;
    std::string xml =
        "<QRNPkiConfig><IssuerName>CN=a</IssuerName><CertReqMethod>"
        "<SCEP url='http://ca/scep'><" +
        element + " alg='FOO'/></SCEP></CertReqMethod></QRNPkiConfig>";
    std::string complaint = "devices know no " + name + " FOO and take an old one; try " + advice;
    result done = test.sign_text(xml);
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_EQ(done.err, "pkictl: " + complaint + "; --despite-faults signs it anyway\n");
    EXPECT_EQ(tool_test::read_file(test.out), "");
    done = test.sign_text(xml, {"--despite-faults"});
    EXPECT_EQ(done.exit_code, 0) << done.err;
    EXPECT_TRUE(done.err.starts_with("pkictl: note: " + complaint + "\n")) << done.err;
  }
}

TEST(PkictlSign, AMissingIssuerNameIsNoted) {
  signing test;
  result done = test.sign({"--root", the_lab().file("issuing-cert.pem")});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.err,
            "pkictl: note: the document names no IssuerName, by which devices look"
            " certificates up\n");
}

TEST(PkictlSign, AFailureLeavesTheOldFile) {
  signing test;
  test.home.write("signed", "old");
  EXPECT_EQ(test.sign_text("<Config/>", {"--force"}).exit_code, 1);
  EXPECT_EQ(tool_test::read_file(test.out), "old");
}

TEST(PkictlSign, FileThatIsThereIsReplacedOnlyByForce) {
  signing test;
  test.home.write("signed", "old");
  for (const strings &options : {strings{}, strings{"--despite-faults"}}) {
    result done = test.sign_text("<QRNPkiConfig/>", options);
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_EQ(done.err,
              "pkictl: " + test.out + " is there already; take another name, or --force it\n");
    EXPECT_EQ(tool_test::read_file(test.out), "old");
  }
  EXPECT_EQ(test.sign_text("<QRNPkiConfig/>", {"--force"}).exit_code, 0);
  EXPECT_NE(tool_test::read_file(test.out), "old");
}

// Whoever signs over the key has none for the next document.
TEST(PkictlSign, NoInputIsOverwritten) {
  signing test;
  std::string key = test.home.write("key.pem", tool_test::read_file(the_lab().file("doc-key.pem")));
  std::string root =
      test.home.write("root.pem", tool_test::read_file(the_lab().file("root-cert.pem")));
  std::string xml = test.home.write("doc.xml", "<QRNPkiConfig/>");
  strings begin = {"cainfo", "sign", "--key", key, "--force"};
  strings described = {"--issuer-name", "CN=x", "--root",     root,
                       "--scep-cert",   root,   "--scep-url", "http://ca/scep"};
  for (const std::string &input : {key, root, xml}) {
    strings arguments = begin;
    arguments.insert(arguments.end(), {"--out", input});
    if (input == xml)
      arguments.push_back(xml);
    else
      arguments.insert(arguments.end(), described.begin(), described.end());
    std::string content = tool_test::read_file(input);
    result done = pkictl(arguments);
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_EQ(done.err, "pkictl: --out is the same file as " + input +
                            "; give the signed document a file of its own\n");
    EXPECT_EQ(tool_test::read_file(input), content);
  }
}

TEST(PkictlSign, ExpiryThatIsPastIsNoted) {
  signing test;
  result done = test.sign({"--issuer-name", "CN=a", "--expires", "2020-01-31"});
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_EQ(done.err, gap_note + std::string("pkictl: note: Expires is past: Fri, 31 Jan 2020"
                                             " 00:00:00 GMT\n"));
}

TEST(PkictlSign, ForceDoesNotSignWhatDevicesRefuse) {
  signing test;
  result done =
      test.sign_text("<QRNPkiConfig><IssuerName>CN</IssuerName></QRNPkiConfig>", {"--force"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(tool_test::read_file(test.out), "");
}

TEST(PkictlSign, BuildsADocumentFromOptions) {
  signing test;
  result done = test.sign({"--issuer-name",
                           "CN=Built CA, O=Example",
                           "--expires",
                           "2037-01-01",
                           "--scep-url",
                           "http://ca/scep?a=1&b=2",
                           "--scep-cert",
                           the_lab().file("issuing-cert.pem"),
                           "--digest",
                           "SHA256",
                           "--cipher",
                           "DES-EDE3-CBC",
                           "--scep-get-cert-url",
                           "http://ca/get",
                           "--ldap-url",
                           "ldap://ca/",
                           "--ocsp-url",
                           "http://ca/ocsp",
                           "--root",
                           the_lab().file("root-cert.pem"),
                           "--root",
                           the_lab().file("issuing-cert.pem"),
                           "--additional-cert",
                           the_lab().file("additional-cert.pem")});
  ASSERT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.err, "");
  json ca = test.shown();
  EXPECT_EQ(ca["issuer"], "CN=Built CA, O=Example");
  EXPECT_EQ(ca["expires"], "Thu, 01 Jan 2037 00:00:00 GMT");
  const json &scep = ca["cert_req_methods"][0];
  EXPECT_EQ(scep["url"], "http://ca/scep?a=1&b=2");
  EXPECT_EQ(scep["digest"], "SHA256");
  EXPECT_EQ(scep["cipher"], "DES-EDE3-CBC");
  EXPECT_EQ(scep["ca_cert"]["subject"], "CN=pkilab issuing CA, O=pkilab");
  EXPECT_EQ(ca["cert_lookup_methods"][0]["url"], "http://ca/get");
  EXPECT_EQ(ca["cert_lookup_methods"][0]["ca_cert"], scep["ca_cert"]);
  EXPECT_EQ(ca["cert_lookup_methods"][1]["mechanism"], "LDAP");
  EXPECT_EQ(ca["cert_lookup_methods"][1]["url"], "ldap://ca/");
  EXPECT_EQ(ca["cert_status_methods"][0]["url"], "http://ca/ocsp");
  EXPECT_EQ(ca["trusted_roots"].size(), 2u);
  EXPECT_EQ(ca["additional_certs"][0]["subject"], "CN=pkilab additional CA, O=pkilab");
}

TEST(PkictlSign, TakesEveryCertificateOfAPemFile) {
  signing test;
  std::string bundle = test.home.write(
      "bundle.pem", "some text in front\n" + tool_test::read_file(the_lab().file("root-cert.pem")) +
                        tool_test::read_file(the_lab().file("issuing-cert.pem")));
  ASSERT_EQ(test.sign({"--root", bundle}).exit_code, 0);
  EXPECT_EQ(test.shown()["trusted_roots"].size(), 2u);
}

TEST(PkictlSign, DocumentBehindAFilesOptionIsTheDocument) {
  signing test;
  result done = test.sign({"--root", the_lab().file("root-cert.pem"), "doc.xml"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(done.err, "pkictl: give either DOC.xml or options that describe the CA, not both\n");
}

TEST(PkictlSign, NotesElementsThatDevicesPassOver) {
  signing test;
  result done =
      test.sign_text("<QRNPkiConfig><IssuerName>CN=a</IssuerName><TrustedRoot/></QRNPkiConfig>");
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_TRUE(done.err.starts_with(
      "pkictl: note: Parsing ca-info document: ignoring unexpected tag 'TrustedRoot'; "))
      << done.err;
  EXPECT_TRUE(
      done.err.ends_with("/ca-info.md has those that devices know\n" + std::string(gap_note)))
      << done.err;
  EXPECT_EQ(test.shown()["issuer"], "CN=a");
}

TEST(PkictlSign, ElementsThatDevicesPassOverAreNotedOnceWithTheLog) {
  signing test;
  std::string err = test.sign_text("<QRNPkiConfig><TrustedRoot/></QRNPkiConfig>", {"-v"}).err;
  size_t first = err.find("ignoring unexpected tag");
  EXPECT_NE(first, std::string::npos) << err;
  EXPECT_EQ(err.find("ignoring unexpected tag", first + 1), std::string::npos) << err;
}

TEST(PkictlSign, WritesExpiresAsAnHttpDate) {
  for (const char *date : {"2031-05-06T07:08:09Z", "Tue, 06 May 2031 07:08:09 GMT"}) {
    signing test;
    ASSERT_EQ(test.sign({"--issuer-name", "CN=a", "--expires", date}).exit_code, 0);
    EXPECT_EQ(test.shown()["expires"], "Tue, 06 May 2031 07:08:09 GMT");
  }
}

TEST(PkictlSign, ContradictingOptionsAreWrongUsage) {
  signing test;
  std::string xml = test.home.write("doc.xml", "<QRNPkiConfig/>");
  for (const strings &what :
       {strings{}, strings{xml, "--issuer-name", "CN=a"}, strings{"--digest", "SHA256"},
        strings{"--scep-url", "http://a/", "--digest", "NOSUCH"},
        strings{"--scep-url", "http://a/", "--cipher", "NOSUCH"},
        strings{"--scep-cert", the_lab().file("root-cert.pem")},
        strings{"--issuer-name", "CN=a", "--expires", "tomorrow"},
        strings{"--issuer-name", "CN=a", "--expires", "2031-02-31"}}) {
    result done = test.sign(what);
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_EQ(done.out, "");
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
  }
}

TEST(PkictlSign, TextThatXmlCannotCarryIsRefused) {
  signing test;
  result done = test.sign({"--issuer-name", "CN=a\x01"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(done.err, "pkictl: the text for IssuerName holds characters that XML cannot carry\n");
}

// Of a file, 1: it may be mended.
TEST(PkictlSign, IssuerNameThatIsNoneIsWrongUsage) {
  signing test;
  result done = test.sign({"--issuer-name", "cn=a", "--json"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_NE(done.err.find("DN UNKNOWN KEY (53)"), std::string::npos) << done.err;
  EXPECT_EQ(json::parse(done.out)["error"]["code"], 53);
  EXPECT_EQ(tool_test::read_file(test.out), "");
}

TEST(PkictlSign, PrintsJson) {
  signing test;
  result done = test.sign_text(
      "<QRNPkiConfig><Expires>1 Jan</Expires><TrustedRoots/></QRNPkiConfig>", {"--json"});
  ASSERT_EQ(done.exit_code, 0) << done.err;
  json printed = json::parse(done.out);
  EXPECT_EQ(printed["file"], test.out);
  EXPECT_EQ(printed["size"], tool_test::read_file(test.out).size());
  EXPECT_EQ(printed["expires_moved"], true);
}

TEST(PkictlSign, UnwritableOutputFails) {
  signing test;
  test.out = test.home / "missing/signed";
  result done = test.sign({"--issuer-name", "CN=a"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: cannot write " + test.out + ": No such file or directory\n");
}

}  // namespace
