// CRLs that lack entries do not enter the cache: whoever is not in them would pass as good.
#include "fakes/log_capture.h"
#include "unit/verifier/cache_support.h"
#include "unit/verifier/crl_cache/crl_scan_support.h"

using namespace cache_support;

namespace {

class CrlCacheTruncated : public cache_test {
 protected:
  // Refused, and nothing in the cache.
  static void expect_refused(const support::crl &crl) {
    support::cert signer = support::make_ca("issuer");
    EXPECT_EQ(63, zv_cv_add_crl_to_cache(crl.get(), nullptr));
    EXPECT_EQ(63, zv_cv_add_crl_to_cache(crl.get(), signer.get()));
    EXPECT_EQ(nullptr, peek("issuer"));
    EXPECT_EQ("", log_dump());
  }
  // With another extension behind the mark.
  static support::crl marked(int critical, const std::string &octets = "") {
    support::crl made(X509_CRL_dup(make_crl("issuer").get()), X509_CRL_free);
    for (int nid : {pki_nid_list[PKI_OID_TRUNCATED_CRL], NID_invalidity_date}) {
      ASN1_OCTET_STRING *data = ASN1_OCTET_STRING_new();
      ASN1_OCTET_STRING_set(data, reinterpret_cast<const unsigned char *>(octets.data()),
                            static_cast<int>(octets.size()));
      X509_EXTENSION *mark = X509_EXTENSION_create_by_NID(nullptr, nid, critical, data);
      X509_CRL_add_ext(made.get(), mark, -1);
      X509_EXTENSION_free(mark);
      ASN1_OCTET_STRING_free(data);
    }
    X509_CRL_sign(made.get(), support::test_key(0).get(), EVP_sha256());
    return made;
  }
};

TEST_F(CrlCacheTruncated, ScannedCrlIsRefused) {
  support::integer serial = support::make_serial(2);
  for (const pki_crl_query &query : {pki_crl_query{}, crl_scan_test::query_for(serial)}) {
    crl_scan_test::scanned result = crl_scan_test::scan(crl_scan_test::list_of(3), query);
    ASSERT_EQ(0, result.code);
    clear_log();
    expect_refused(result.crl);
  }
}

TEST_F(CrlCacheTruncated, ScannedCrlIsRefusedAlsoWhenItIsReadBack) {
  crl_scan_test::scanned result = crl_scan_test::scan(crl_scan_test::list_of(3));
  ASSERT_EQ(0, result.code);
  support::crl read_back = watch(result.crl).crl;
  clear_log();
  expect_refused(read_back);
}

TEST_F(CrlCacheTruncated, MarkCountsWhateverItHolds) {
  for (int critical : {0, 1}) {
    expect_refused(marked(critical));
    expect_refused(marked(critical, "x"));
  }
}

TEST_F(CrlCacheTruncated, WholeCrlOfTheSameIssuerStays) {
  support::crl whole = make_crl("issuer");
  ASSERT_EQ(0, zv_cv_add_crl_to_cache(whole.get(), nullptr));
  EXPECT_EQ(63, zv_cv_add_crl_to_cache(marked(0).get(), nullptr));
  EXPECT_EQ(whole.get(), peek("issuer"));
  ASSERT_EQ(0, zv_cv_rem_crl_from_cache(whole.get()));
  EXPECT_EQ(nullptr, peek("issuer"));
}

TEST_F(CrlCacheTruncated, RefusedCrlIsNotReferenced) {
  watched_crl crl = watch(marked(0));
  EXPECT_EQ(63, zv_cv_add_crl_to_cache(crl.crl.get(), nullptr));
  crl.crl.reset();
  EXPECT_TRUE(*crl.freed);
}

}  // namespace
