// The library verifies certificates of the lab's with the CRLs of the lab's.
#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <libpki/verify.h>

#include "lab_fixture.h"
#include "support/certs.h"
#include "tools/common/ossl.h"
#include "tools/pkilab/issued_certs.h"
#include "tools/pkilab/revocations.h"

namespace {

using tool_test::the_lab;
using store_ptr = std::unique_ptr<X509_STORE, tools::free_with<X509_STORE_free>>;
using context_ptr = std::unique_ptr<X509_STORE_CTX, tools::free_with<X509_STORE_CTX_free>>;

// A certificate that names this CRL.
tools::cert_ptr issue(const pkilab::ca::pair &issuer, const std::string &path,
                      const X509_NAME *crl_issuer = nullptr) {
  support::name subject = support::common_name("tested");
  pkilab::cert_wishes wishes;
  wishes.subject = subject.get();
  wishes.public_key = support::test_key().get();
  wishes.crl_urls = {the_lab().lab.url(path)};
  wishes.crl_issuer = crl_issuer;
  return pkilab::issued_certs(the_lab().lab.keys()).issue(wishes, issuer);
}

void revoke(X509 *cert) {
  pkilab::revocations(the_lab().lab.keys().folder())
      .revoke(X509_get0_serialNumber(cert), {time(nullptr) - 60, CRL_REASON_KEY_COMPROMISE});
}

// The error of a verification, or X509_V_OK.
int verify(X509 *cert, X509 *trusted) {
  store_ptr store(X509_STORE_new());
  context_ptr context(X509_STORE_CTX_new());
  X509_STORE_add_cert(store.get(), trusted);
  X509_STORE_CTX_init(context.get(), store.get(), cert, nullptr);
  X509_STORE_CTX_set_verify_cb(context.get(), zv_cv_cert_validator_internet);
  int accepted = X509_verify_cert(context.get());
  int error = X509_STORE_CTX_get_error(context.get());
  EXPECT_EQ(accepted == 1, error == X509_V_OK);
  return error;
}

// Both statuses with one CRL: one certificate is revoked before the CRL is fetched first.
void expect_both_statuses(const pkilab::ca::pair &issuer, const std::string &path) {
  tools::cert_ptr good = issue(issuer, path);
  tools::cert_ptr bad = issue(issuer, path);
  revoke(bad.get());
  EXPECT_EQ(verify(good.get(), issuer.cert.get()), X509_V_OK) << path;
  EXPECT_EQ(verify(bad.get(), issuer.cert.get()), X509_V_ERR_CERT_REVOKED) << path;
}

class library_and_lab : public testing::Test {
 protected:
  const pkilab::ca &keys() { return the_lab().lab.keys(); }
};

// None of these has a nextUpdate, so that the library keeps no CRL from one case to the next.
TEST_F(library_and_lab, GoodAndRevoked) {
  expect_both_statuses(keys().issuing(), "/crl/issuing.crl?no-next-update");
}

TEST_F(library_and_lab, GoodAndRevokedWithALongList) {
  expect_both_statuses(keys().issuing(), "/crl/issuing.crl?no-next-update&entries=100000");
  expect_both_statuses(keys().issuing(),
                       "/crl/issuing.crl?no-next-update&entries=100000&reason-in-each");
}

TEST_F(library_and_lab, GoodAndRevokedWithoutALength) {
  expect_both_statuses(keys().issuing(), "/crl/issuing.crl?no-next-update&entries=1000&no-length");
}

TEST_F(library_and_lab, GoodAndRevokedInAPkcs7) {
  expect_both_statuses(keys().issuing(), "/crl/issuing.crl?no-next-update&pkcs7");
  expect_both_statuses(keys().issuing(), "/crl/issuing.crl?no-next-update&pkcs7-certs");
}

TEST_F(library_and_lab, GoodAndRevokedOfTheRoot) {
  expect_both_statuses(keys().root(), "/crl/root.crl?only=user&no-next-update&digest=SHA512");
}

TEST_F(library_and_lab, BadListsLeaveTheStatusUnknown) {
  for (const char *words :
       {"damaged-signature", "signer=stranger", "signer=other-ca", "critical=1.2.3.4", "only=ca",
        "only=attribute", "no-crl", "http-status=404", "delta=1", "expired"}) {
    tools::cert_ptr cert =
        issue(keys().issuing(), std::string("/crl/issuing.crl?no-next-update&") + words);
    EXPECT_EQ(verify(cert.get(), keys().issuing().cert.get()), X509_V_ERR_UNABLE_TO_GET_CRL)
        << words;
  }
}

}  // namespace
