// Behind pki_cleanup_oids the freed numbers in pki_nid_list still look like numbers. Whoever needs
// one gets none, as before the registration. OpenSSL keeps its objects, so each case has a process
// of its own.
#include "unit/pki/lifecycle_process.h"
#include "unit/scep_msg/messages.h"
#include "verifier/crl_cache/decoder.h"

namespace {

using namespace scep;

struct exchange {
  pkcs7 request = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("the id")}),
                                attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string("nonce")})});
  pkcs7 response = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("the id")}),
                                 attribute(PKI_OID_SCEP_RECIPIENT_NONCE, {octet_string("nonce")})});
  int check() const { return check_tx_attrs(request.get(), response.get(), 1); }
};

void no_attribute_is_found_behind_the_cleanup() {
  ASSERT_EQ(pki_register_oids(), 1);
  exchange messages;
  ASSERT_EQ(messages.check(), 0) << log_dump();
  clear_log();
  pki_cleanup_oids();
  EXPECT_EQ(messages.check(), 77);
  EXPECT_EQ(log_dump(), "3: CheckTxAttrs: no tx-id found in request\n");
  ASSERT_EQ(pki_register_oids(), 1);
  EXPECT_EQ(messages.check(), 0) << log_dump();
}

TEST(OidsCleanupDeathTest, NoTransactionIdIsFoundUntilTheNextRegistration) {
  EXPECT_IN_FRESH_PROCESS(no_attribute_is_found_behind_the_cleanup);
}

support::crl plain_crl() {
  return support::crl(X509_CRL_dup(support::make_crl().get()), X509_CRL_free);
}

void no_mark_is_seen_behind_the_cleanup() {
  ASSERT_EQ(pki_register_oids(), 1);
  support::crl crl = plain_crl();
  ASSERT_EQ(pki::cv_crl_mark_truncated(crl.get()), 0);
  ASSERT_TRUE(pki::is_marked_truncated(crl.get()));
  pki_cleanup_oids();
  EXPECT_FALSE(pki::is_marked_truncated(crl.get()));
  ASSERT_EQ(pki_register_oids(), 1);
  EXPECT_TRUE(pki::is_marked_truncated(crl.get()));
}

TEST(OidsCleanupDeathTest, NoMarkOfATruncatedCrlIsSeenUntilTheNextRegistration) {
  EXPECT_IN_FRESH_PROCESS(no_mark_is_seen_behind_the_cleanup);
}

// Expects `code` from marking the CRL, and no mark on it once there are numbers.
void expect_no_mark_is_set(const support::crl &crl, int code) {
  EXPECT_EQ(pki::cv_crl_mark_truncated(crl.get()), code);
  support::clear_openssl_errors();
  ASSERT_EQ(pki_register_oids(), 1);
  EXPECT_FALSE(pki::is_marked_truncated(crl.get()));
}

void no_mark_is_set_without_numbers() {
  support::crl first = plain_crl(), second = plain_crl();
  expect_no_mark_is_set(first, 2);
  pki_cleanup_oids();
  expect_no_mark_is_set(second, 2);
  EXPECT_EQ(pki::cv_crl_mark_truncated(second.get()), 0);
  EXPECT_TRUE(pki::is_marked_truncated(second.get()));
}

TEST(OidsCleanupDeathTest, NoCrlIsMarkedAsBeforeTheRegistration) {
  EXPECT_IN_FRESH_PROCESS(no_mark_is_set_without_numbers);
}

}  // namespace
