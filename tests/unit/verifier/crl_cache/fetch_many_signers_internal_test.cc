// Anybody can send certificates of any name: of the keys that may have signed a CRL, few are tried.
#include "common/limits.h"
#include "unit/verifier/crl_cache/fetch_support.h"

using namespace crl_support;
using namespace support;

namespace {

class CrlManySigners : public crl_fetch_test {
 protected:
  static std::string body() {
    crl_fields fields;
    fields.entries = crl_entry(target_serial);
    return crl_octets(fields);
  }
  // Of the CRL issuer's name, each with another key.
  static support::cert namesake(long serial, const std::string &key_id = "") {
    support::cert made = signer_cert("issuer", 1, serial, key_id);
    X509_set_pubkey(made.get(), support::make_ec_key().get());
    X509_sign(made.get(), support::test_key(1).get(), EVP_sha256());
    return made;
  }
  static void collect(const support::cert &cert) {
    ASSERT_EQ(0, pki_add_untrusted_cert(cert.get(), 0));
  }
  static void collect_namesakes(int count, const std::string &key_id = "") {
    for (int i = 0; i < count; i++)
      collect(namesake(1000 + i, key_id));
  }

  const support::cert signer = signer_cert();
};

TEST_F(CrlManySigners, TheLatestOfThoseThatWereMetAreTried) {
  collect_namesakes(pki::max_signer_keys);
  collect(signer);
  collect_namesakes(pki::max_signer_keys - 1);
  EXPECT_EQ(0, get_body(body()).code) << log_dump();
}

TEST_F(CrlManySigners, BehindTooManyOthersOneThatWasMetIsNotTried) {
  collect(signer);
  collect_namesakes(pki::max_signer_keys);
  EXPECT_EQ(29, get_body(body()).code) << log_dump();
}

TEST_F(CrlManySigners, CopiesOfOneKeyCountOnce) {
  collect(signer);
  collect_namesakes(pki::max_signer_keys - 2);
  for (int key : {0, 1})
    for (int i = 0; i < 2 * pki::max_signer_keys; i++)
      collect(signer_cert("issuer", key, 2000 + 100 * key + i));
  got_crl got = get_body(body());
  EXPECT_EQ(0, got.code) << log_dump();
  EXPECT_EQ(2u * pki::max_signer_keys + 1, got.signers.size());
}

TEST_F(CrlManySigners, ThoseThatTheCrlsKeyIdentifierExcludesDoNotCount) {
  support::cert identified = signer_cert("issuer", 0, 1, "AA:BB");
  collect(identified);
  collect_namesakes(3 * pki::max_signer_keys, "CC:DD");
  crl_fields fields;
  fields.entries = crl_entry(target_serial);
  fields.extensions = authority_key_id({.key_id = std::string("\xAA\xBB")});
  EXPECT_EQ(0, get_body(crl_octets(fields)).code) << log_dump();
}

TEST_F(CrlManySigners, WhomTheHostOrTheChainStandsForIsTriedWhereverHeIs) {
  collect(signer);
  collect_namesakes(2 * pki::max_signer_keys);
  get_options as_issuer, as_configured;
  as_issuer.issuer = signer;
  as_configured.signer = signer;
  for (const get_options &options : {as_issuer, as_configured}) {
    got_crl got = get_body(body(), options);
    EXPECT_EQ(0, got.code) << log_dump();
    EXPECT_EQ(1u, got.signers.size());
  }
  trust(signer);
  EXPECT_EQ(0, get_body(body()).code) << log_dump();
}

TEST_F(CrlManySigners, WhatCameAlongIsTriedWhereverItIs) {
  for (bool was_met : {false, true}) {
    empty_store();
    if (was_met)
      collect(signer);
    collect_namesakes(2 * pki::max_signer_keys);
    get_options options;
    options.sent = {namesake(5), signer};
    got_crl got = get_body(body(), options);
    EXPECT_EQ(0, got.code) << was_met << log_dump();
    EXPECT_EQ(1u, got.signers.size()) << was_met;
  }
}

// The store takes two certificates of one issuer and serial number for one.
TEST_F(CrlManySigners, WhatCameAlongIsTriedBesideItsDoubleInTheStore) {
  collect(signer_cert("issuer", 1, 1));
  get_options options;
  options.sent = {signer};
  EXPECT_EQ(0, get_body(body(), options).code) << log_dump();
}

TEST_F(CrlManySigners, OfWhatCameAlongFewAreTriedToo) {
  get_options options;
  for (int i = 0; i < pki::max_signer_keys; i++)
    options.sent.push_back(namesake(1000 + i));
  options.sent.push_back(signer);
  EXPECT_EQ(29, get_body(body(), options).code) << log_dump();
}

}  // namespace
