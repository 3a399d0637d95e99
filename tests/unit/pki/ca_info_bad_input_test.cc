// CA-info documents from a stranger's hand: an error code, nothing fetched, nothing leaked, and
// the same when memory runs out at any point.
#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "support/test_server.h"

namespace {

using support::ca_info_doc;
using support::element;
using support::sample;
using support::test_server;

std::string name_of(const std::string &text) {
  return ca_info_doc(element("IssuerName", text));
}

std::string with_doctype(const std::string &doctype, const std::string &document) {
  return "<!DOCTYPE QRNPkiConfig " + doctype + ">" + document;
}

// A document of exactly `size` octets: an issuer name behind comments.
std::string document_of_size(size_t size) {
  const std::string comment = "<!--" + std::string(1000, 'c') + "-->";
  std::string document = "<QRNPkiConfig>";
  const std::string end = element("IssuerName", "CN=a") + "</QRNPkiConfig>";
  while (document.size() + comment.size() + end.size() <= size)
    document += comment;
  document.append(size - document.size() - end.size(), ' ');
  return document + end;
}

class CaInfoBadInput : public support::ca_info_test {
 protected:
  // A fresh record and store for the next document.
  void renew() {
    fake_allocator::pause no_failures;
    support::empty_store();
    ca.reset(alloc_ca_info());
    support::clear_openssl_errors();
    clear_log();
  }
};

// ---- damage ----

TEST_F(CaInfoBadInput, EveryTruncationIsMalformed) {
  const std::string &whole = sample().document;
  for (size_t length = 0; length < whole.size(); length++) {
    renew();
    EXPECT_EQ(parse(whole.substr(0, length)), 34) << "cut at " << length;
  }
}

TEST_F(CaInfoBadInput, EveryTruncationInMemoryOfItsOwnSizeStaysInside) {
  const std::string &whole = sample().document;
  for (size_t length = 0; length < whole.size(); length += 7) {
    renew();
    std::vector<unsigned char> cut(whole.begin(), whole.begin() + static_cast<long>(length));
    cut.shrink_to_fit();
    const unsigned char none = 0;
    const unsigned char *octets = cut.empty() ? &none : cut.data();
    EXPECT_EQ(parse_ca_info_doc(octets, static_cast<int>(length), pki_store, ca.get()), 34);
  }
}

TEST_F(CaInfoBadInput, NulOctetIsMalformedWhereverItStands) {
  const std::string &whole = sample().document;
  for (size_t at = 0; at <= whole.size(); at++) {
    renew();
    std::string damaged = whole;
    damaged.insert(at, 1, '\0');
    EXPECT_EQ(parse(damaged), 34) << "NUL at " << at;
  }
}

TEST_F(CaInfoBadInput, NulCharacterReferenceIsMalformed) {
  EXPECT_EQ(parse(name_of("CN=a&#0;b")), 34);
}

TEST_F(CaInfoBadInput, OctetsThatAreNoUtf8AreMalformed) {
  EXPECT_EQ(parse(name_of("CN=a\xff")), 34);
  EXPECT_EQ(parse(name_of("CN=a\xc0\x80")), 34);
}

TEST_F(CaInfoBadInput, HundredThousandNestedElementsAreRefused) {
  int code = parse(support::nested_elements(100000));
  EXPECT_TRUE(code == 30 || code == 34) << code;
  EXPECT_LE(captured_log().size(), 41u);
}

TEST_F(CaInfoBadInput, HundredThousandOpenedElementsAreMalformed) {
  std::string opened;
  for (int i = 0; i < 100000; i++)
    opened += "<x>";
  EXPECT_EQ(parse(opened), 34);
  EXPECT_LE(captured_log().size(), 41u);
}

TEST_F(CaInfoBadInput, DocumentAboveTheLimitIsRefused) {
  EXPECT_EQ(parse(document_of_size(10100000)), 34);
  EXPECT_EQ(parse(document_of_size(10000001)), 34);
}

TEST_F(CaInfoBadInput, DocumentAtTheLimitIsRead) {
  EXPECT_EQ(parse(document_of_size(10000000)), 0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
}

// ---- entities ----

TEST_F(CaInfoBadInput, EntityBombIsRefused) {
  std::string bomb = "[<!ENTITY e0 \"aaaaaaaaaaaaaaaa\">";
  for (int i = 1; i < 20; i++) {
    std::string before = "&e" + std::to_string(i - 1) + ";";
    bomb += "<!ENTITY e" + std::to_string(i) + " \"";
    for (int copy = 0; copy < 10; copy++)
      bomb += before;
    bomb += "\">";
  }
  bomb += "]";
  EXPECT_EQ(parse(with_doctype(bomb, name_of("CN=&e19;"))), 34);
  EXPECT_EQ(parse(with_doctype(
                bomb, ca_info_doc(element("CertReqMethod", element("SCEP", "", "url=\"&e19;\""))))),
            34);
  EXPECT_EQ(ca->issuer_name, nullptr);
}

TEST_F(CaInfoBadInput, RecursiveEntityIsRefused) {
  EXPECT_EQ(parse(with_doctype("[<!ENTITY a \"&b;\"><!ENTITY b \"&a;\">]", name_of("CN=&a;"))), 34);
}

TEST_F(CaInfoBadInput, InternalEntityIsRefused) {
  std::string doctype = "[<!ENTITY a \"text\">]";
  EXPECT_EQ(parse(with_doctype(doctype, name_of("CN=x&a;y"))), 34);
  EXPECT_EQ(ca->issuer_name, nullptr);
  EXPECT_EQ(
      parse(with_doctype(
          doctype, ca_info_doc(element("CertReqMethod", element("SCEP", "", "url=\"x&a;y\""))))),
      34);
}

TEST_F(CaInfoBadInput, EntityThatBringsElementsIsRefused) {
  EXPECT_EQ(
      parse(with_doctype("[<!ENTITY a \"<IssuerName>CN=no</IssuerName>\">]", ca_info_doc("&a;"))),
      34);
  EXPECT_EQ(ca->issuer_name, nullptr);
}

TEST_F(CaInfoBadInput, UndefinedEntityIsRefused) {
  EXPECT_EQ(parse(name_of("CN=x&a;y")), 34);
  EXPECT_EQ(ca->issuer_name, nullptr);
}

// With an external subset the entity might be declared there, so XML itself lets it pass.
TEST_F(CaInfoBadInput, UndefinedEntityWithAnExternalSubsetDoesNotShortenAText) {
  std::string doctype = "SYSTEM \"file:///nonexistent.dtd\"";
  EXPECT_EQ(parse(with_doctype(doctype, name_of("CN=x&a;y"))), 34);
  renew();
  EXPECT_EQ(
      parse(with_doctype(
          doctype, ca_info_doc(element("CertReqMethod", element("SCEP", "", "url=\"x&a;y\""))))),
      34);
  renew();
  EXPECT_EQ(parse(with_doctype("[<!ENTITY % p SYSTEM \"file:///nonexistent\"> %p;]",
                               name_of("CN=x&a;y"))),
            34);
}

TEST_F(CaInfoBadInput, ExternalSubsetThatNothingUsesIsIgnored) {
  for (const char *doctype :
       {"SYSTEM \"file:///nonexistent.dtd\"", "PUBLIC \"-//x\" \"http://127.0.0.1/x\""}) {
    EXPECT_EQ(parse(with_doctype(doctype, name_of("CN=x"))), 0) << doctype;
    EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=x");
  }
}

TEST_F(CaInfoBadInput, EntityDeclarationThatNothingUsesIsIgnored) {
  EXPECT_EQ(parse(with_doctype("[<!ENTITY a \"text\">]", name_of("CN=x"))), 0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=x");
}

TEST_F(CaInfoBadInput, NothingIsFetchedFromAServer) {
  test_server server({support::ok("<!ENTITY a \"text\">")});
  std::string system = "SYSTEM \"" + server.url("/evil") + "\"";
  EXPECT_EQ(parse(with_doctype("[<!ENTITY a " + system + ">]", name_of("CN=x&a;y"))), 34);
  EXPECT_EQ(parse(with_doctype("[<!ENTITY % a " + system + "> %a;]", name_of("CN=x"))), 34);
  EXPECT_EQ(parse(with_doctype(system, name_of("CN=x&a;y"))), 34);
  parse(with_doctype(system, name_of("CN=x")));
  EXPECT_EQ(
      parse(with_doctype("PUBLIC \"-//x\" \"" + server.url("/evil") + "\"", name_of("CN=x&a;y"))),
      34);
  EXPECT_TRUE(server.requests().empty());
}

// A file that tells whether it was opened.
class watched_file {
 public:
  explicit watched_file(const std::string &content) {
    char name[] = "/tmp/libpki-entity-XXXXXX";
    close(mkstemp(name));
    path = name;
    std::ofstream(path) << content;
    notify_ = inotify_init1(IN_NONBLOCK);
    inotify_add_watch(notify_, path.c_str(), IN_OPEN | IN_ACCESS);
  }
  ~watched_file() {
    close(notify_);
    unlink(path.c_str());
  }
  watched_file(const watched_file &) = delete;
  watched_file &operator=(const watched_file &) = delete;
  bool was_opened() const {
    char events[512];
    return read(notify_, events, sizeof events) > 0;
  }
  std::string path;

 private:
  int notify_;
};

TEST_F(CaInfoBadInput, NoFileIsOpened) {
  watched_file file("<!ENTITY a \"text\">");
  for (const std::string &url : {"file://" + file.path, file.path}) {
    std::string system = "SYSTEM \"" + url + "\"";
    EXPECT_EQ(parse(with_doctype("[<!ENTITY a " + system + ">]", name_of("CN=x&a;y"))), 34);
    EXPECT_EQ(parse(with_doctype("[<!ENTITY % a " + system + "> %a;]", name_of("CN=x"))), 34);
    EXPECT_EQ(parse(with_doctype(system, name_of("CN=x&a;y"))), 34);
    parse(with_doctype(system, name_of("CN=x")));
  }
  EXPECT_FALSE(file.was_opened());
  std::ifstream(file.path).get();
  EXPECT_TRUE(file.was_opened()) << "the watch does not work";
}

TEST_F(CaInfoBadInput, XIncludeIsAnUnknownElement) {
  watched_file file("CN=secret");
  EXPECT_EQ(parse(name_of("CN=a<xi:include xmlns:xi=\"http://www.w3.org/2001/XInclude\" href=\"" +
                          file.path + "\" parse=\"text\"/>")),
            0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
  EXPECT_FALSE(file.was_opened());
}

TEST_F(CaInfoBadInput, ParserPrintsNothing) {
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  parse("<QRNPkiConfig>&a;</Other>");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// ---- memory ----

class CaInfoWithoutMemory : public CaInfoBadInput {
 protected:
  void SetUp() override {
    CaInfoBadInput::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "the allocator cannot be made to fail in this build";
    ASSERT_EQ(parse(document), 0);  // what is made once a process is made
    renew();
  }

  // A document is taken whole or refused, never misread. OpenSSL does not report every failed
  // allocation as one, so a few runs end in the code of the step instead of 2.
  void check(int code, size_t n) {
    if (code == 11 || code == 2) {
      (code == 2 ? with_2 : with_11)++;
      return;
    }
    ASSERT_EQ(code, 0) << "allocation " << n << "\n" << log_dump();
    ASSERT_EQ(support::oneline(ca->issuer_name), "/CN=a") << "allocation " << n;
    ASSERT_STREQ(scep_method()->url, "http://a/") << "allocation " << n;
    ASSERT_STREQ(scep_method()->digest, "SHA1") << "allocation " << n;
    ASSERT_STREQ(ocsp_method()->url, "http://b/") << "allocation " << n;
    ASSERT_EQ(support::ders(ca->trusted_roots), std::vector<std::string>{support::der(root)})
        << "allocation " << n;
    if (!X509_get0_pubkey(support::at<X509>(ca->trusted_roots, 0)))
      roots_without_key.push_back(n);
  }

  void sweep(bool stay_failed) {
    int code = -1;
    size_t failures = fake_allocator::sweep(
        [&] {
          renew();
          code = parse(document);
        },
        [&](size_t n) { check(code, n); }, stay_failed);
    EXPECT_EQ(code, 0);
    EXPECT_GE(failures, 100u);
    EXPECT_GT(with_2, with_11);
    EXPECT_EQ(roots_without_key.size(), 0u)
        << "a root was stored whose key cannot be used, first at allocation "
        << roots_without_key[0];
  }

  support::cert root = support::make_ca("root");
  std::string document =
      ca_info_doc(element("IssuerName", "CN=a") +
                  element("CertReqMethod", element("SCEP", element("Digest", "", "alg=\"SHA1\""),
                                                   "url=\"http://a/\"")) +
                  element("CertStatusQueryMethod", element("OCSP", "", "url=\"http://b/\"")) +
                  element("TrustedRoots", support::cert_element(root)));
  size_t with_2 = 0, with_11 = 0;
  std::vector<size_t> roots_without_key;
};

TEST_F(CaInfoWithoutMemory, OneFailedAllocationGives2OrTheWholeDocument) {
  sweep(false);
}

TEST_F(CaInfoWithoutMemory, NoMoreMemoryGives2OrTheWholeDocument) {
  sweep(true);
}

TEST_F(CaInfoWithoutMemory, MalformedDocumentIsNeverTaken) {
  std::string cut = document.substr(0, document.size() - 3);
  int code = -1;
  fake_allocator::sweep(
      [&] {
        renew();
        code = parse(cut);
      },
      [&](size_t n) {
        EXPECT_TRUE(code == 2 || code == 11 || code == 34) << code << " allocation " << n;
      });
  EXPECT_EQ(code, 34);
}

// What the XML library keeps for each thread is made here.
TEST_F(CaInfoWithoutMemory, NoRoomOnAFreshThreadGives2) {
  for (bool stay_failed : {false, true}) {
    renew();
    std::string short_document = name_of("CN=a");
    int code = -1;
    std::thread([&] {
      fake_allocator::fail_at(1, stay_failed);
      code = parse(short_document);
      fake_allocator::stop_failing();
    }).join();
    EXPECT_EQ(code, 2);
    EXPECT_EQ(ca->issuer_name, nullptr);
  }
}

TEST_F(CaInfoWithoutMemory, FailureOnAnotherThreadGives2OrTheWholeDocument) {
  std::string short_document = name_of("CN=a");
  for (bool stay_failed : {false, true}) {
    bool failed = true;
    for (size_t n = 1; failed && n < 10000; n++) {
      int code = -1;
      std::thread([&] {
        renew();
        parse(short_document);
        renew();
        fake_allocator::fail_at(n, stay_failed);
        code = parse(short_document);
        failed = fake_allocator::has_failed();
        fake_allocator::stop_failing();
      }).join();
      if (code == 0) {
        EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a") << "allocation " << n;
      } else {
        EXPECT_TRUE(code == 2 || code == 11) << code << " allocation " << n;
      }
    }
    EXPECT_FALSE(failed);
  }
}

}  // namespace
