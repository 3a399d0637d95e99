// The order of all the sources of a certificate, and of what is logged about them.
#include "locator_support.h"

using namespace locator_support;
using namespace extension_der;

namespace {

class LocatorOrder : public locator_test {
 protected:
  support::cert cert_ =
      make_cert({crl_dp_of(point_at("http://crl/")), aia({"http://own/1", "http://own/2"}),
                 freshest_of(point_at("http://delta/"))});
};

TEST_F(LocatorOrder, ConfiguredBeforeThenOwnThenConfiguredAfter) {
  auto ca = add_ca("ca");
  add_always_ok(ca.get(), after);
  add_ocsp(ca.get(), "http://before/1", before);
  add_ocsp(nullptr, "http://after/", after, is_final);
  add_crls(nullptr, {"http://before/2"}, before, is_final);
  list_ptr list = find_locators(cert_);
  EXPECT_EQ((lines{"ocsp http://before/1", "crls http://before/2 final", "ocsp http://own/1",
                   "ocsp http://own/2", "points 1 delta 1", "always-ok final",
                   "ocsp http://after/ final"}),
            describe(list));
  EXPECT_FALSE(list->incomplete);
}

TEST_F(LocatorOrder, FinalEntryForAfterComesLast) {
  add_ocsp(nullptr, "http://after/", after, is_final);
  EXPECT_EQ((lines{"ocsp http://own/1", "ocsp http://own/2", "points 1 delta 1",
                   "ocsp http://after/ final"}),
            describe(find_locators(cert_)));
}

TEST_F(LocatorOrder, StepsAreLoggedInTheirOrder) {
  add_ocsp(nullptr, "http://before/", before);
  add_always_ok(nullptr, after);
  clear_log();
  find_locators(cert_);
  EXPECT_EQ((lines{"found 1 acceptable local-config entries (out of 2)",
                   "created 0 crl locators, 1 ocsp locators, and 0 always-ok locators",
                   "found 2 acceptable ocsp AIA entries (out of 2)", "created 2 ocsp locators",
                   "found 1 acceptable crl-dp entries (out of 1)", "created 1 crl locator",
                   "found 1 acceptable local-config entries (out of 2)",
                   "created 0 crl locators, 0 ocsp locators, and 1 always-ok locators"}),
            logged(7));
  EXPECT_EQ(8U, captured_log().size()) << log_dump();
}

TEST_F(LocatorOrder, ListIsTheCallersAlone) {
  list_ptr first = find_locators(cert_), second = find_locators(cert_);
  EXPECT_NE(first.get(), second.get());
  first.reset();
  EXPECT_EQ((lines{"ocsp http://own/1", "ocsp http://own/2", "points 1 delta 1"}),
            describe(second));
}

TEST_F(LocatorOrder, StoreAndCertificateAreLeftAsTheyWere) {
  support::cert before_it = support::cert(X509_dup(cert_.get()), X509_free);
  auto ca = add_ca("ca");
  add_always_ok(ca.get(), after);
  add_ocsp(nullptr, "http://before/", before);
  auto *rule = static_cast<cert_status_info *>(OPENSSL_sk_value(ca->cert_status_methods, 0));
  for (int i = 0; i < 3; i++)
    find_locators(cert_);
  EXPECT_EQ(1, rule->ref_count);
  EXPECT_EQ(2, ca->ref_count);
  EXPECT_EQ(1, OPENSSL_sk_num(pki_store->global_status_rules));
  EXPECT_EQ(support::der(before_it), support::der(cert_));
}

}  // namespace
