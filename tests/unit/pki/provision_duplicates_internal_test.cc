#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pki/internal.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

using support::der;
using support::simple_cert;

struct CleanoutDuplicates : testing::Test {
  CleanoutDuplicates() : list(OPENSSL_sk_new_null()) {}
  ~CleanoutDuplicates() override {
    while (OPENSSL_sk_num(list) > 0)
      X509_free(static_cast<X509 *>(OPENSSL_sk_pop(list)));
    OPENSSL_sk_free(list);
  }

  // Cleans a list of these certificates, which holds one reference on each.
  std::vector<std::string> clean(const std::vector<support::cert> &certs) {
    for (const support::cert &cert : certs) {
      X509_up_ref(cert.get());
      OPENSSL_sk_push(list, cert.get());
    }
    pki::cleanout_duplicate_certs(list);
    return support::ders(list);
  }

  STACK *list;
  support::cert a = simple_cert("i", "a", 1);
  support::cert b = simple_cert("i", "b", 2);
  support::cert c = simple_cert("i", "c", 3);
};

TEST_F(CleanoutDuplicates, EmptyListAndSingleCertificateStay) {
  EXPECT_EQ(clean({}), std::vector<std::string>());
  EXPECT_EQ(clean({a}), std::vector<std::string>{der(a)});
}

TEST_F(CleanoutDuplicates, DifferentCertificatesStayInOrder) {
  EXPECT_EQ(clean({c, a, b}), (std::vector<std::string>{der(c), der(a), der(b)}));
}

TEST_F(CleanoutDuplicates, FirstOfEachStaysInOrder) {
  EXPECT_EQ(clean({b, a, b, b, c, a, c}), (std::vector<std::string>{der(b), der(a), der(c)}));
}

TEST_F(CleanoutDuplicates, NeighboursAreNotSkipped) {
  EXPECT_EQ(clean({a, a, a, a, a}), std::vector<std::string>{der(a)});
}

TEST_F(CleanoutDuplicates, IssuerAndSerialNumberDecideNotTheOctets) {
  support::cert other_a = simple_cert("i", "another subject", 1);
  EXPECT_EQ(clean({other_a, a}), std::vector<std::string>{der(other_a)});
}

TEST_F(CleanoutDuplicates, SameSerialNumberOfAnotherIssuerStays) {
  support::cert other_issuer = simple_cert("j", "a", 1);
  EXPECT_EQ(clean({a, other_issuer}).size(), 2u);
}

TEST_F(CleanoutDuplicates, IssuersAreComparedAsNames) {
  // Letter case and runs of blanks do not make a different name (RFC 5280 7.1).
  support::cert spelled = simple_cert("I", "a", 1);
  EXPECT_EQ(clean({a, spelled}), std::vector<std::string>{der(a)});
}

TEST_F(CleanoutDuplicates, DroppedCertificatesAreReleased) {
  X509 *gone = X509_dup(a.get());
  static int freed;
  freed = 0;
  int slot = X509_get_ex_new_index(
      0, nullptr, nullptr, nullptr,
      [](void *, void *value, CRYPTO_EX_DATA *, int, long, void *) { freed += value != nullptr; });
  X509_set_ex_data(gone, slot, &freed);
  X509_up_ref(a.get());
  OPENSSL_sk_push(list, a.get());
  OPENSSL_sk_push(list, gone);
  pki::cleanout_duplicate_certs(list);
  EXPECT_EQ(freed, 1);
  EXPECT_EQ(OPENSSL_sk_num(list), 1);
}

}  // namespace
