// The certificates that a verification leaves in the store.
#include <libpki/trace.h>

#include "fakes/failures.h"
#include "validator_support.h"

using namespace validator_support;

namespace {

using serials = std::vector<long>;

class ValidatorCollect : public chain_test {
 protected:
  static cert extra(long serial) {
    return make({.subject = "extra", .issuer = "elsewhere", .serial = serial});
  }
};

TEST_F(ValidatorCollect, ChainAboveTheEndEntityThenUntrustedOnesButTheFirst) {
  for (const named_callback &each : all_callbacks) {
    support::empty_store();
    verification what = chain();
    what.untrusted = {extra(100), inter_, extra(101), extra(102)};
    ASSERT_TRUE(accepts(what, each.call)) << each.name;
    // The root and the chain's intermediate have the serial numbers 1 and 2.
    EXPECT_EQ((serials{2, 1, 101, 102}), collected()) << each.name;
    EXPECT_EQ(0, OPENSSL_sk_num(pki_store->provisioned_certs)) << each.name;
  }
}

TEST_F(ValidatorCollect, WithoutUntrustedOnesOnlyTheChain) {
  ASSERT_TRUE(accepts({.leaf = leaf_, .trusted = {root_, inter_}}, local));
  EXPECT_EQ((serials{2, 1}), collected());
}

TEST_F(ValidatorCollect, EndEntityIsNotKept) {
  ASSERT_TRUE(accepts({.leaf = root_, .trusted = {root_}}, local));
  EXPECT_EQ(serials{}, collected());
}

TEST_F(ValidatorCollect, SecondVerificationAddsNothing) {
  for (int i = 0; i < 3; i++)
    ASSERT_TRUE(accepts(chain(), internet));
  EXPECT_EQ((serials{2, 1}), collected());
}

TEST_F(ValidatorCollect, HappensBeforeTheOthersAreJudged) {
  cache_status(inter_, PKI_CERT_REVOKED);
  EXPECT_FALSE(accepts(chain(), internet));
  EXPECT_EQ((serials{2, 1}), collected());
}

TEST_F(ValidatorCollect, NothingIsKeptBelowTheTop) {
  for (int depth : {0, 1}) {
    context ctx = prepare({leaf_, inter_, root_}, depth);
    EXPECT_EQ(1, local(1, ctx.get()));
  }
  EXPECT_EQ(serials{}, collected());
}

TEST_F(ValidatorCollect, DepthBeyondTheChainCountsAsTheTop) {
  context ctx = prepare({leaf_, inter_, root_}, 2);
  X509_STORE_CTX_set_error_depth(ctx.get(), 7);
  EXPECT_EQ(1, local(1, ctx.get()));
  EXPECT_EQ((serials{2, 1}), collected());
}

TEST_F(ValidatorCollect, NothingIsKeptOfAChainThatOpenSslRefuses) {
  EXPECT_FALSE(accepts({.leaf = leaf_, .untrusted = {inter_}}, local));
  EXPECT_EQ(serials{}, collected());
}

// What the callbacks are asked: "ok error depth".
void note_call(void *calls, const cv_trace_event *event) {
  if (event->kind == PKI_TRACE_CERT)
    static_cast<lines *>(calls)->push_back(std::to_string(event->verdict) + " " +
                                           std::to_string(event->error) + " " +
                                           std::to_string(event->depth));
}

// OpenSSL asks about the error only, and never about the top itself: no chain that ends like this
// leaves its certificates.
TEST_F(ValidatorCollect, NothingIsKeptOfAChainWhoseTopHasNoIssuer) {
  cert low = make(
      {.subject = "low", .issuer = "inter", .key = 3, .issuer_key = 1, .serial = 4, .ca = true});
  cert leaf = make({.subject = "leaf", .issuer = "low", .key = 2, .issuer_key = 3, .serial = 5});
  for (const named_callback &each : all_callbacks) {
    lines calls;
    zv_cv_set_trace(note_call, &calls);
    verdict result =
        verify({.leaf = leaf, .untrusted = {extra(100), low}, .trusted = {inter_}}, each.call);
    EXPECT_EQ(1, result.accepted) << each.name << log_dump();
    EXPECT_EQ((lines{"5", "4", "2"}), result.chain);
    EXPECT_EQ((lines{"0 2 2", "1 2 1", "1 2 0"}), calls) << each.name;
    EXPECT_EQ(serials{}, collected()) << each.name;
  }
}

TEST_F(ValidatorCollect, ReferencesAreTheStoresOwn) {
  {
    cert inter = make_inter({}, 50), root = make_root();
    ASSERT_TRUE(accepts({.leaf = leaf_, .untrusted = {inter}, .trusted = {root}}, local));
  }
  ASSERT_EQ((serials{50, 1}), collected());
  auto *kept = static_cast<X509 *>(OPENSSL_sk_value(pki_store->collected_certs, 0));
  X509_NAME *subject = X509_get_subject_name(kept);
  EXPECT_EQ(0, X509_NAME_cmp(subject, support::common_name("inter").get()));
}

TEST_F(ValidatorCollect, WhatIsTooLargeIsPassedOver) {
  verification what = chain();
  what.untrusted = {extra(100), inter_,
                    support::cert_of_size(16 * 1024 + 1, "elsewhere", "large", 101), extra(102)};
  for (const named_callback &each : all_callbacks) {
    support::empty_store();
    clear_log();
    EXPECT_TRUE(accepts(what, each.call)) << each.name;
    EXPECT_EQ((serials{2, 1, 102}), collected()) << each.name;
    EXPECT_EQ(lines{}, complaints()) << each.name;
  }
}

TEST_F(ValidatorCollect, ThousandUntrustedOnesKeepTheLimit) {
  verification what = chain();
  for (long serial = 1000; serial < 1600; serial++)
    what.untrusted.push_back(extra(serial));
  EXPECT_TRUE(accepts(what, local));
  EXPECT_LE(collected().size(), 512U);
  EXPECT_EQ(1599, collected().back());
}

}  // namespace
