// Every allocation of reading a document fails once, alone and with all that follow.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <openssl/err.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

using support::cert_element;
using support::element;

class CaInfoMemory : public support::ca_info_test {
 protected:
  void SetUp() override {
    support::ca_info_test::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "this build's allocator cannot be replaced";
    // OpenSSL fills its caches of algorithms and texts, also the ones for logging errors.
    ASSERT_EQ(parse(support::sample().document), PKI_OK);
    ASSERT_NE(parse("<x>"), PKI_OK);
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
    log_openssl_errors(3);
    start_again();
  }
  void start_again() {
    ca.reset(alloc_ca_info());
    support::empty_store();
    support::clear_openssl_errors();
    clear_log();
  }
  // The rest of the store has nothing to do with a document.
  static void expect_store_untouched(size_t n) {
    EXPECT_EQ(OPENSSL_sk_num(pki_store->ca_infos), 0) << n;
    EXPECT_EQ(OPENSSL_sk_num(pki_store->key_store), 0) << n;
    EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0) << n;
    EXPECT_EQ(OPENSSL_sk_num(pki_store->global_status_rules), 0) << n;
    EXPECT_LE(OPENSSL_sk_num(pki_store->provisioned_certs), 1) << n;
  }

  // `difference` is "" when all of the document is there, else what is missing.
  void sweep(const std::string &document, const std::function<std::string()> &difference,
             bool stay_failed) {
    const auto *octets = reinterpret_cast<const unsigned char *>(document.data());
    int length = static_cast<int>(document.size());
    int code = -1;
    size_t without_memory = 0, other_codes = 0;
    size_t failures = fake_allocator::sweep(
        [&] { code = parse_ca_info_doc(octets, length, pki_store, ca.get()); },
        [&](size_t n) {
          EXPECT_THAT(code, testing::AnyOf(PKI_OK, PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED)) << n;
          without_memory += code == PKI_OUT_OF_MEMORY;
          other_codes += code == PKI_BIO_CREAT_FAILED;
          // A document counts as read only when nothing of it is missing.
          if (code == PKI_OK) {
            EXPECT_EQ(difference(), "") << n;
          }
          expect_store_untouched(n);
          start_again();
        },
        stay_failed);
    EXPECT_GT(failures, 50u);
    // OpenSSL does not report every failed allocation as one.
    EXPECT_GT(without_memory, other_codes);
    EXPECT_EQ(code, PKI_OK);
    EXPECT_EQ(difference(), "");
  }

  // A certificate whose key OpenSSL could not read, for want of memory, is of no use.
  static bool is_whole(const X509 *stored, const support::cert &expected) {
    return stored && X509_cmp(stored, expected.get()) == 0 && X509_get0_pubkey(stored);
  }

  // All that a document may hold, in two: the methods with certificates, and the rest.
  const support::cert first = support::simple_cert("i", "first", 1);
  const support::cert second = support::simple_cert("i", "second", 2);
  const std::string methods = support::ca_info_doc(
      element("CertReqMethod", element("SCEP",
                                       cert_element(first) + element("Digest", "", "alg=\"SHA1\"") +
                                           element("Cipher", "", "alg=\"DES-CBC\""),
                                       "url=\"http://a/?b&amp;c\"")) +
      element("CertLookupMethod",
              element("SCEPGetCert", cert_element(second), "url=\"http://d/\"")));
  std::string methods_difference() {
    if (OPENSSL_sk_num(ca->cert_req_methods) != 1 || OPENSSL_sk_num(ca->cert_lookup_methods) != 1)
      return "method";
    const scep_req_info *request = scep_method();
    const scep_query_info *query = scep_query();
    if (texts({request->url, request->digest, request->cipher, query->url}) !=
        "http://a/?b&c SHA1 DES-CBC http://d/ ")
      return texts({request->url, request->digest, request->cipher, query->url});
    return is_whole(request->ca_cert, first) && is_whole(query->ca_cert, second) ? ""
                                                                                 : "certificate";
  }

  const std::string the_rest = support::ca_info_doc(
      element("IssuerName", "CN=a, C=US") +
      element("CertLookupMethod", element("LDAPGetCert", "", "url=\"ldap://e\"")) +
      element("CertStatusQueryMethod", element("OCSP", "", "url=\"http://f/\"")) +
      element("TrustedRoots", cert_element(first)) +
      element("AdditionalCerts", cert_element(second)));
  std::string the_rest_difference() {
    if (OPENSSL_sk_num(ca->cert_lookup_methods) != 1 ||
        OPENSSL_sk_num(ca->cert_status_methods) != 1)
      return "method";
    if (texts({ldap_query()->url, ocsp_method()->url}) != "ldap://e http://f/ ")
      return texts({ldap_query()->url, ocsp_method()->url});
    if (support::oneline(ca->issuer_name) != "/C=US/CN=a")
      return support::oneline(ca->issuer_name);
    return is_whole(support::at<X509>(ca->trusted_roots, 0), first) &&
                   is_whole(support::at<X509>(pki_store->provisioned_certs, 0), second)
               ? ""
               : "certificate";
  }

 private:
  static std::string texts(const std::vector<const char *> &all) {
    std::string joined;
    for (const char *text : all)
      joined += std::string(text ? text : "(null)") + " ";
    return joined;
  }
};

TEST_F(CaInfoMemory, OneFailedAllocationInTheMethodsIsACodeAndNothingIsSilentlyMissing) {
  sweep(
      methods, [this] { return methods_difference(); }, false);
}

TEST_F(CaInfoMemory, OneFailedAllocationElsewhereIsACodeAndNothingIsSilentlyMissing) {
  sweep(
      the_rest, [this] { return the_rest_difference(); }, false);
}

TEST_F(CaInfoMemory, MemoryThatStaysShortInTheMethodsIsACodeAndNothingIsSilentlyMissing) {
  sweep(
      methods, [this] { return methods_difference(); }, true);
}

TEST_F(CaInfoMemory, MemoryThatStaysShortElsewhereIsACodeAndNothingIsSilentlyMissing) {
  sweep(
      the_rest, [this] { return the_rest_difference(); }, true);
}

TEST_F(CaInfoMemory, MalformedDocumentIsNeverTaken) {
  const std::string document = the_rest.substr(0, the_rest.size() - 3);
  const auto *octets = reinterpret_cast<const unsigned char *>(document.data());
  int length = static_cast<int>(document.size());
  int code = -1;
  fake_allocator::sweep([&] { code = parse_ca_info_doc(octets, length, pki_store, ca.get()); },
                        [&](size_t n) {
                          EXPECT_THAT(code, testing::AnyOf(PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED,
                                                           PKI_XML_CA_PTR_PARSE_ERROR))
                              << n;
                          start_again();
                        });
  EXPECT_EQ(code, PKI_XML_CA_PTR_PARSE_ERROR);
}

// What the XML library keeps for each thread is made at the thread's first document.
class CaInfoThreadMemory : public CaInfoMemory {
 protected:
  // Reads a short document on a thread of its own, where allocation `n` fails. With `warm`, the
  // thread has read one before.
  int parse_on_a_thread(size_t n, bool stay_failed, bool warm) {
    int code = -1;
    std::thread([&] {
      if (warm) {
        EXPECT_EQ(parse(document), PKI_OK);
        start_again();
      }
      fake_allocator::fail_at(n, stay_failed);
      code = parse(document);
      failed = fake_allocator::has_failed();
      fake_allocator::stop_failing();
    }).join();
    return code;
  }

  const std::string document = support::ca_info_doc(element("IssuerName", "CN=a"));
  bool failed = false;
};

TEST_F(CaInfoThreadMemory, NoRoomOnAFreshThreadIsOutOfMemory) {
  for (bool stay_failed : {false, true}) {
    EXPECT_EQ(parse_on_a_thread(1, stay_failed, false), PKI_OUT_OF_MEMORY);
    EXPECT_TRUE(failed);
    EXPECT_EQ(ca->issuer_name, nullptr);
  }
}

TEST_F(CaInfoThreadMemory, FailureOnAnotherThreadIsACodeOrTheWholeDocument) {
  for (bool stay_failed : {false, true}) {
    failed = true;
    for (size_t n = 1; failed && n < 10000; n++) {
      int code = parse_on_a_thread(n, stay_failed, true);
      EXPECT_THAT(code, testing::AnyOf(PKI_OK, PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED)) << n;
      if (code == PKI_OK) {
        EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a") << n;
      }
      start_again();
    }
    EXPECT_FALSE(failed);
  }
}

}  // namespace
