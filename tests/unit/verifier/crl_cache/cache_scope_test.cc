// CRLs whose issuingDistributionPoint cannot be read: what they cover is unknown.
#include <libpki/error.h>
#include <openssl/x509v3.h>

#include "../cache_support.h"
#include "fakes/log_capture.h"

using namespace cache_support;

namespace {

// A distribution point with onlyContainsUserCerts.
const std::string user_certs("\x30\x03\x81\x01\xff", 5);
// An OCTET STRING, where a SEQUENCE has to be.
const std::string no_distribution_point("\x04\x01\x00", 3);

void add_scope(X509_CRL *crl, const std::string &octets) {
  ASN1_OCTET_STRING *data = ASN1_OCTET_STRING_new();
  ASN1_OCTET_STRING_set(data, reinterpret_cast<const unsigned char *>(octets.data()),
                        static_cast<int>(octets.size()));
  X509_EXTENSION *extension =
      X509_EXTENSION_create_by_NID(nullptr, NID_issuing_distribution_point, 1, data);
  X509_CRL_add_ext(crl, extension, -1);
  X509_EXTENSION_free(extension);
  ASN1_OCTET_STRING_free(data);
}

// A CRL of issuer "A" with these distribution points, signed anew and read back.
support::crl crl_with_scopes(const std::vector<std::string> &scopes) {
  support::crl made(X509_CRL_dup(make_crl("A").get()), X509_CRL_free);
  for (const std::string &octets : scopes)
    add_scope(made.get(), octets);
  X509_CRL_sign(made.get(), support::test_key(0).get(), EVP_sha256());
  support::crl read_back = watch(made).crl;
  support::clear_openssl_errors();
  return read_back;
}

class CrlCacheScope : public cache_test {
 protected:
  void expect_refused(const support::crl &crl) {
    ASSERT_TRUE(crl);
    clear_log();
    EXPECT_EQ(PKI_ASN1_DECODE_ERROR, zv_cv_add_crl_to_cache(crl.get(), nullptr));
    EXPECT_EQ(0UL, ERR_peek_error());
    EXPECT_EQ(nullptr, peek("A"));
  }
};

TEST_F(CrlCacheScope, ThatCanBeReadIsCached) {
  support::crl crl = crl_with_scopes({user_certs});
  EXPECT_EQ(0, zv_cv_add_crl_to_cache(crl.get(), nullptr));
  EXPECT_EQ(crl.get(), peek("A", 511));
}

TEST_F(CrlCacheScope, ThatCannotBeDecodedIsRefused) {
  expect_refused(crl_with_scopes({no_distribution_point}));
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: "));
}

TEST_F(CrlCacheScope, ThatHasOctetsMissingIsRefused) {
  expect_refused(crl_with_scopes({user_certs.substr(0, 4)}));
}

TEST_F(CrlCacheScope, ThatIsThereTwiceIsRefused) {
  expect_refused(crl_with_scopes({user_certs, user_certs}));
}

TEST_F(CrlCacheScope, RefusedCrlLeavesTheOthers) {
  support::crl other = make_crl("B"), refused = crl_with_scopes({no_distribution_point});
  zv_cv_add_crl_to_cache(other.get(), nullptr);
  EXPECT_EQ(15, zv_cv_add_crl_to_cache(refused.get(), nullptr));
  EXPECT_EQ(other.get(), peek("B"));
}

}  // namespace
