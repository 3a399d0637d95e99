// What each state does when its element starts and ends, and how attributes are taken.
#include <gtest/gtest.h>
#include <libpki/error.h>

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "pki/ca_info_context.h"
#include "support/ca_info_doc.h"
#include "unit/pki/xml_text.h"

namespace {

struct CaInfoCopyAttr : testing::Test {
  CaInfoCopyAttr() { clear_log(); }
  ~CaInfoCopyAttr() override { free(value); }

  int copy(std::vector<const char *> attributes) {
    std::vector<const xmlChar *> pairs;
    for (const char *text : attributes)
      pairs.push_back(xml(text));
    return pki::copy_attr(pairs.data(), &value, "url", "SCEP");
  }

  char *value = nullptr;
  const std::string not_found =
      "Error parsing ca-info document: attribute url not found for tag SCEP";
};

TEST_F(CaInfoCopyAttr, CopiesTheValueOfTheNamedAttribute) {
  const char original[] = "http://a/";
  EXPECT_EQ(copy({"x", "1", "url", original, "y", "2", nullptr}), PKI_OK);
  EXPECT_STREQ(value, "http://a/");
  EXPECT_NE(value, original);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(CaInfoCopyAttr, LetterCaseOfTheNameDoesNotMatter) {
  EXPECT_EQ(copy({"URL", "http://a/", nullptr}), PKI_OK);
  EXPECT_STREQ(value, "http://a/");
}

TEST_F(CaInfoCopyAttr, FirstOfTwoSpellingsCounts) {
  EXPECT_EQ(copy({"URL", "http://a/", "url", "http://b/", nullptr}), PKI_OK);
  EXPECT_STREQ(value, "http://a/");
}

TEST_F(CaInfoCopyAttr, EmptyValueIsAValue) {
  EXPECT_EQ(copy({"url", "", nullptr}), PKI_OK);
  EXPECT_STREQ(value, "");
}

TEST_F(CaInfoCopyAttr, ValueThatIsSpelledLikeTheNameIsNotIt) {
  EXPECT_EQ(copy({"x", "url", "y", "http://a/", nullptr}), PKI_XML_ATTR_NOT_FOUND);
  EXPECT_EQ(value, nullptr);
}

TEST_F(CaInfoCopyAttr, MissingAttributeIsLogged) {
  EXPECT_EQ(copy({"x", "1", nullptr}), PKI_XML_ATTR_NOT_FOUND);
  EXPECT_EQ(captured_log(), (std::vector<log_entry>{{3, not_found}}));
}

TEST_F(CaInfoCopyAttr, NoAttributesAtAllAreLogged) {
  EXPECT_EQ(pki::copy_attr(nullptr, &value, "url", "SCEP"), PKI_XML_ATTR_NOT_FOUND);
  EXPECT_EQ(copy({nullptr}), PKI_XML_ATTR_NOT_FOUND);
  EXPECT_EQ(captured_log(), (std::vector<log_entry>{{3, not_found}, {3, not_found}}));
}

TEST_F(CaInfoCopyAttr, PairWithoutValueEndsTheSearch) {
  EXPECT_EQ(copy({"x", nullptr, "url", "http://a/", nullptr}), PKI_XML_ATTR_NOT_FOUND);
  EXPECT_EQ(copy({"url", nullptr, "url", "http://a/", nullptr}), PKI_XML_ATTR_NOT_FOUND);
}

TEST_F(CaInfoCopyAttr, SecondValueReplacesTheFirst) {
  EXPECT_EQ(copy({"url", "http://a/", nullptr}), PKI_OK);
  EXPECT_EQ(copy({"url", "http://b/", nullptr}), PKI_OK);
  EXPECT_STREQ(value, "http://b/");
}

TEST_F(CaInfoCopyAttr, CopyWithoutMemoryIsOutOfMemory) {
  if (!fake_allocator::available())
    GTEST_SKIP();
  const xmlChar *pairs[] = {xml("url"), xml("http://a/"), nullptr};
  fake_allocator::fail_at(1, true);
  int code = pki::copy_attr(pairs, &value, "url", "SCEP");
  fake_allocator::stop_failing();
  EXPECT_EQ(code, PKI_OUT_OF_MEMORY);
  EXPECT_EQ(value, nullptr);
}

struct CaInfoActions : support::ca_info_test {
  void SetUp() override {
    support::ca_info_test::SetUp();
    pki::init_ca_info_context(&context, pki_store, ca.get());
    context.top = 1;
  }

  int start(int state, std::vector<const char *> attributes = {}, int error = PKI_OK) {
    context.states[1] = state;
    std::vector<const xmlChar *> pairs;
    for (const char *text : attributes)
      pairs.push_back(xml(text));
    pairs.push_back(nullptr);
    return pki::start_element(&context, error, "Tag", pairs.data());
  }
  int end(int state, const std::string &text) {
    context.states[1] = state;
    if (!text.empty())
      pki::text_handler(&context, xml(text.c_str()), static_cast<int>(text.size()));
    return pki::end_element(&context);
  }
  std::string certificate(const support::cert &which) {
    return support::base64_lines(support::der(which));
  }
  int counts() {
    return OPENSSL_sk_num(ca->trusted_roots) + OPENSSL_sk_num(ca->cert_req_methods) +
           OPENSSL_sk_num(ca->cert_lookup_methods) + OPENSSL_sk_num(ca->cert_status_methods) +
           OPENSSL_sk_num(pki_store->provisioned_certs);
  }

  support::cert cert = support::simple_cert("i", "s", 1);
  pki::ca_info_context context = {};
};

TEST_F(CaInfoActions, IgnoredElementIsLogged) {
  EXPECT_EQ(start(1), PKI_OK);
  EXPECT_EQ(
      captured_log(),
      (std::vector<log_entry>{{4, "Parsing ca-info document: ignoring unexpected tag 'Tag'"}}));
}

TEST_F(CaInfoActions, ImpossibleStatesAreLoggedAndGoOn) {
  for (int state : {2, 24, 0, -1, 28, 1000}) {
    clear_log();
    EXPECT_EQ(start(state), PKI_OK);
    EXPECT_EQ(captured_log(),
              (std::vector<log_entry>{{3,
                                       "Internal error parsing ca-info document: unexpected "
                                       "state " +
                                           std::to_string(state) + ", tag 'Tag'"}}));
  }
}

TEST_F(CaInfoActions, OtherStatesDoNothingAtTheStart) {
  for (int state : {3, 4, 5, 6, 7, 8, 9, 10, 12, 15, 16, 17, 18, 20, 22, 25, 26, 27}) {
    EXPECT_EQ(start(state), PKI_OK);
    EXPECT_EQ(counts(), 0);
    EXPECT_EQ(captured_log(), std::vector<log_entry>()) << state;
  }
}

TEST_F(CaInfoActions, StateWithoutActionReturnsTheErrorItWasGiven) {
  for (int state : {1, 2, 3, 24, 27, 28})
    EXPECT_EQ(start(state, {}, PKI_XML_STATE_STACK_OVFL), PKI_XML_STATE_STACK_OVFL) << state;
}

TEST_F(CaInfoActions, DigestAndCipherWithoutMethodDoNothing) {
  EXPECT_EQ(start(13), PKI_OK);
  EXPECT_EQ(start(14), PKI_OK);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(CaInfoActions, DigestAndCipherGoToTheLastMethod) {
  ASSERT_EQ(start(11, {"url", "http://a/"}), PKI_OK);
  ASSERT_EQ(start(11, {"url", "http://b/"}), PKI_OK);
  EXPECT_EQ(start(13, {"alg", "SHA1"}), PKI_OK);
  EXPECT_EQ(start(14, {"alg", "DES-CBC"}), PKI_OK);
  EXPECT_EQ(scep_method(0)->digest, nullptr);
  EXPECT_STREQ(scep_method(1)->digest, "SHA1");
  EXPECT_STREQ(scep_method(1)->cipher, "DES-CBC");
}

TEST_F(CaInfoActions, LookupMethodsGetTheirMechanisms) {
  ASSERT_EQ(start(19, {"url", "http://a/"}), PKI_OK);
  ASSERT_EQ(start(21, {"url", "ldap://b"}), PKI_OK);
  EXPECT_EQ(support::at<cert_query_info>(ca->cert_lookup_methods, 0)->mechanism, 1);
  EXPECT_EQ(support::at<cert_query_info>(ca->cert_lookup_methods, 1)->mechanism, 3);
  EXPECT_STREQ(scep_query(0)->url, "http://a/");
  EXPECT_STREQ(ldap_query(1)->url, "ldap://b");
}

TEST_F(CaInfoActions, MethodsWithoutMemoryAreOutOfMemoryAndLeaveNothing) {
  if (!fake_allocator::available())
    GTEST_SKIP();
  const xmlChar *pairs[] = {xml("url"), xml("http://a/"), nullptr};
  for (int state : {11, 19, 21, 23}) {
    context.states[1] = state;
    fake_allocator::fail_at(1, true);
    int code = pki::start_element(&context, PKI_OK, "Tag", pairs);
    fake_allocator::stop_failing();
    EXPECT_EQ(code, PKI_OUT_OF_MEMORY) << state;
    EXPECT_EQ(counts(), 0);
  }
}

TEST_F(CaInfoActions, OtherStatesDoNothingAtTheEnd) {
  for (int state : {1, 2, 3, 6, 7, 8, 9, 10, 11, 13, 14, 15, 16, 17, 18, 19, 20, 21, 23, 24, 25})
    EXPECT_EQ(end(state, ""), PKI_OK) << state;
}

TEST_F(CaInfoActions, TextElementsWithoutABufferSayThatThereIsNone) {
  ASSERT_EQ(start(11, {"url", "http://a/"}), PKI_OK);
  ASSERT_EQ(start(19, {"url", "http://a/"}), PKI_OK);
  for (int state : {4, 5, 12, 22, 26, 27})
    EXPECT_EQ(end(state, ""), PKI_XML_INTERNAL_ERROR_NO_BUF) << state;
}

TEST_F(CaInfoActions, SecondExpiryOverwritesTheFirst) {
  EXPECT_EQ(end(4, "05 Mar"), PKI_TIME_YEAR_NOT_FOUND);
  EXPECT_EQ(ca->expires.tm_mday, 5);
  EXPECT_EQ(ca->expires.tm_mon, 2);
  EXPECT_EQ(end(4, "17 Oct"), PKI_TIME_YEAR_NOT_FOUND);
  EXPECT_EQ(ca->expires.tm_mday, 17);
  EXPECT_EQ(ca->expires.tm_mon, 9);
}

TEST_F(CaInfoActions, ExpiryPassesTheTimeParsersCodesOn) {
  EXPECT_EQ(end(4, "no day"), PKI_TIME_DAY_NOT_FOUND);
  EXPECT_EQ(end(4, "Mon, 05 Mar 2040 01:02:03 GMT"), PKI_TIME_INVALID_MONTH);
}

TEST_F(CaInfoActions, SecondIssuerNameReplacesTheFirst) {
  EXPECT_EQ(end(5, "CN=a"), PKI_OK);
  EXPECT_EQ(end(5, "CN=b, C=US"), PKI_OK);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/C=US/CN=b");
}

TEST_F(CaInfoActions, CertificatesWithoutTheirMethodGoNowhere) {
  EXPECT_EQ(end(12, certificate(cert)), PKI_OK);
  EXPECT_EQ(end(22, certificate(cert)), PKI_OK);
  EXPECT_EQ(counts(), 0);
}

TEST_F(CaInfoActions, LookupCertificateBehindALdapMethodGoesNowhere) {
  ASSERT_EQ(start(21, {"url", "ldap://a"}), PKI_OK);
  EXPECT_EQ(end(22, certificate(cert)), PKI_OK);
  EXPECT_STREQ(ldap_query()->url, "ldap://a");
}

TEST_F(CaInfoActions, SecondCertificateOfAMethodReplacesTheFirst) {
  support::cert second = support::simple_cert("i", "second", 2);
  ASSERT_EQ(start(11, {"url", "http://a/"}), PKI_OK);
  EXPECT_EQ(end(12, certificate(cert)), PKI_OK);
  EXPECT_EQ(end(12, certificate(second)), PKI_OK);
  EXPECT_EQ(X509_cmp(scep_method()->ca_cert, second.get()), 0);
}

TEST_F(CaInfoActions, TextIsGoneAlsoAfterAFailure) {
  EXPECT_EQ(end(26, "no certificate\n"), PKI_XML_CERT_DEC_FAILED);
  EXPECT_EQ(end(26, certificate(cert)), PKI_OK);
  EXPECT_EQ(OPENSSL_sk_num(ca->trusted_roots), 1);
}

}  // namespace
