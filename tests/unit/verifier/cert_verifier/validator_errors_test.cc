// What the verify callbacks forgive of OpenSSL's errors, in real verifications.
#include "validator_support.h"

using namespace validator_support;

namespace {

constexpr time_t day = 86400;

class ValidatorErrors : public chain_test {
 protected:
  cert expired_leaf_ = make({.subject = "leaf",
                             .issuer = "inter",
                             .key = 2,
                             .issuer_key = 1,
                             .serial = 3,
                             .not_before = time(nullptr) - 3 * day,
                             .not_after = time(nullptr) - day});
  cert future_leaf_ = make({.subject = "leaf",
                            .issuer = "inter",
                            .key = 2,
                            .issuer_key = 1,
                            .serial = 3,
                            .not_before = time(nullptr) + day,
                            .not_after = time(nullptr) + 3 * day});
  cert expired_inter_ = make({.subject = "inter",
                              .issuer = "root",
                              .key = 1,
                              .serial = 2,
                              .ca = true,
                              .not_before = time(nullptr) - 3 * day,
                              .not_after = time(nullptr) - day});
};

TEST_F(ValidatorErrors, GoodChainIsAcceptedByAll) {
  for (const named_callback &each : all_callbacks) {
    verdict result = verify(chain(), each.call);
    EXPECT_EQ(1, result.accepted) << each.name;
    EXPECT_EQ(X509_V_OK, result.error) << each.name;
    EXPECT_EQ(lines{}, complaints()) << each.name;
  }
}

TEST_F(ValidatorErrors, ExpiredEndEntityIsForLocalUseOnly) {
  for (const named_callback &each : all_callbacks) {
    verdict result = verify(chain_of(inter_, expired_leaf_), each.call);
    EXPECT_EQ(!each.is_internet, result.accepted == 1) << each.name;
    EXPECT_EQ(X509_V_ERR_CERT_HAS_EXPIRED, result.error) << each.name;
  }
}

TEST_F(ValidatorErrors, EndEntityOfTheFutureIsForLocalUseOnly) {
  for (const named_callback &each : all_callbacks) {
    verdict result = verify(chain_of(inter_, future_leaf_), each.call);
    EXPECT_EQ(!each.is_internet, result.accepted == 1) << each.name;
    EXPECT_EQ(X509_V_ERR_CERT_NOT_YET_VALID, result.error) << each.name;
  }
}

TEST_F(ValidatorErrors, ExpiredIssuerIsForLocalUseOnly) {
  EXPECT_TRUE(accepts(chain_of(expired_inter_, leaf_), local));
  EXPECT_FALSE(accepts(chain_of(expired_inter_, leaf_), internet));
}

TEST_F(ValidatorErrors, ForgivenExpiryLeavesTheOtherRulesInForce) {
  cert wrong = make({.subject = "leaf",
                     .issuer = "inter",
                     .key = 2,
                     .issuer_key = 1,
                     .more = {{"certificatePolicies", critical_policies}},
                     .not_before = time(nullptr) - 3 * day,
                     .not_after = time(nullptr) - day});
  EXPECT_FALSE(accepts(chain_of(inter_, wrong), local));
  EXPECT_TRUE(logged_containing(4, "Found unknown/unsupported critical extension"));
}

TEST_F(ValidatorErrors, ChainMayEndAtATrustedCertificateWithoutItsIssuer) {
  for (const named_callback &each : all_callbacks) {
    verdict result = verify({.leaf = leaf_, .trusted = {inter_}}, each.call);
    EXPECT_EQ(1, result.accepted) << each.name;
    EXPECT_EQ(X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT, result.error) << each.name;
  }
}

// OpenSSL does not look at its dates: its issuer is missing.
TEST_F(ValidatorErrors, TrustedEndOfAChainHasToBeInDateForInternetUse) {
  cert future_inter = make({.subject = "inter",
                            .issuer = "root",
                            .key = 1,
                            .serial = 2,
                            .ca = true,
                            .not_before = time(nullptr) + day,
                            .not_after = time(nullptr) + 3 * day});
  const lines refusal = {
      "4 Certificate '/CN=inter' ends the chain without its issuer and is outside its validity "
      "period - rejecting it"};
  for (const cert &inter : {expired_inter_, future_inter})
    for (const named_callback &each : all_callbacks) {
      clear_log();
      verdict result = verify({.leaf = leaf_, .trusted = {inter}}, each.call);
      EXPECT_EQ(!each.is_internet, result.accepted == 1) << each.name;
      EXPECT_EQ(X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT, result.error) << each.name;
      EXPECT_EQ(each.is_internet ? refusal : lines{}, complaints()) << each.name;
    }
}

TEST_F(ValidatorErrors, UnlessTheHostWantsNoDatesLookedAt) {
  for (const named_callback &each : all_callbacks)
    EXPECT_TRUE(
        accepts({.leaf = leaf_, .trusted = {expired_inter_}, .flags = X509_V_FLAG_NO_CHECK_TIME},
                each.call))
        << each.name;
  EXPECT_EQ(lines{}, complaints());
}

TEST_F(ValidatorErrors, MissingIssuerStillLeavesTheStatusToCheck) {
  cache_status(leaf_, PKI_CERT_REVOKED);
  verdict result = verify({.leaf = leaf_, .trusted = {inter_}}, internet);
  EXPECT_EQ(0, result.accepted);
  EXPECT_EQ(X509_V_ERR_CERT_REVOKED, result.error);
}

TEST_F(ValidatorErrors, ChainWithoutAnythingTrustedIsRejected) {
  for (const named_callback &each : all_callbacks) {
    for (const certs &untrusted : {certs{}, certs{inter_}, certs{inter_, root_}}) {
      verdict result = verify({.leaf = leaf_, .untrusted = untrusted}, each.call);
      EXPECT_EQ(0, result.accepted) << each.name;
    }
  }
}

TEST_F(ValidatorErrors, UnknownIssuerIsNotForgiven) {
  verdict result = verify({.leaf = leaf_, .untrusted = {inter_}}, internet);
  EXPECT_EQ(X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, result.error);
  EXPECT_EQ(0, result.accepted);
}

// OpenSSL asks about error 21 only once a host has accepted error 20.
template <callback verify_cb>
int accept_unknown_issuer(int ok, X509_STORE_CTX *ctx) {
  static int asked = 0;
  int error = X509_STORE_CTX_get_error(ctx);
  if (!ok && error == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY)
    return 1;
  if (!ok && error == X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE)
    asked++;
  int result = verify_cb(ok, ctx);
  EXPECT_TRUE(ok || result == 1) << error;
  EXPECT_EQ(1, asked);
  return result;
}

TEST_F(ValidatorErrors, CertificateThatCannotBeVerifiedIsForgiven) {
  EXPECT_TRUE(accepts({.leaf = leaf_}, accept_unknown_issuer<internet>));
  EXPECT_TRUE(accepts({.leaf = leaf_}, accept_unknown_issuer<local>));
}

TEST_F(ValidatorErrors, WrongSignatureIsNotForgiven) {
  cert forged = make({.subject = "leaf", .issuer = "inter", .key = 2, .issuer_key = 3});
  for (const named_callback &each : all_callbacks) {
    verdict result = verify(chain_of(inter_, forged), each.call);
    EXPECT_EQ(0, result.accepted) << each.name;
    EXPECT_EQ(X509_V_ERR_CERT_SIGNATURE_FAILURE, result.error) << each.name;
  }
}

TEST_F(ValidatorErrors, SelfSignedEndEntityThatIsNotTrustedIsNotForgiven) {
  for (const named_callback &each : all_callbacks) {
    verdict result = verify({.leaf = root_, .trusted = {make_inter()}}, each.call);
    EXPECT_EQ(0, result.accepted) << each.name;
    EXPECT_EQ(X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, result.error) << each.name;
  }
}

// ---- a self-signed top that is not trusted ----

// What OpenSSL 0.9.8 did: take the chain as it is sent.
constexpr unsigned long old_ways = X509_V_FLAG_NO_ALT_CHAINS;

class ValidatorSelfSignedTop : public chain_test {
 protected:
  // The intermediate's name and key, by another CA.
  cert trusted_inter_ = make({.subject = "inter",
                              .issuer = "other root",
                              .key = 1,
                              .issuer_key = 4,
                              .serial = 77,
                              .ca = true});

  verification sent(const certs &untrusted, const certs &trusted) const {
    return {.leaf = leaf_,
            .untrusted = untrusted,
            .trusted = trusted,
            .flags = old_ways,
            .without_flags = X509_V_FLAG_TRUSTED_FIRST};
  }
};

TEST_F(ValidatorSelfSignedTop, IsReplacedByATrustedIssuer) {
  for (const named_callback &each : all_callbacks) {
    verdict result = verify(sent({inter_, root_}, {trusted_inter_}), each.call);
    EXPECT_EQ(1, result.accepted) << each.name << " " << result.error;
    EXPECT_EQ((lines{"3", "77"}), result.chain) << each.name;
    EXPECT_EQ(X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, result.error) << each.name;
  }
}

TEST_F(ValidatorSelfSignedTop, OfALongerChainIsReplacedToo) {
  cert low = make(
      {.subject = "low", .issuer = "inter", .key = 3, .issuer_key = 1, .serial = 4, .ca = true});
  cert leaf = make({.subject = "leaf", .issuer = "low", .key = 2, .issuer_key = 3, .serial = 5});
  verification what = sent({low, inter_, root_}, {trusted_inter_});
  what.leaf = leaf;
  verdict result = verify(what, internet);
  EXPECT_EQ(1, result.accepted) << result.error;
  EXPECT_EQ((lines{"5", "4", "77"}), result.chain);
}

TEST_F(ValidatorSelfSignedTop, WithoutATrustedIssuerIsRejected) {
  for (const named_callback &each : all_callbacks) {
    verdict result = verify(sent({inter_, root_}, {}), each.call);
    EXPECT_EQ(0, result.accepted) << each.name;
    EXPECT_EQ(X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, result.error) << each.name;
  }
}

TEST_F(ValidatorSelfSignedTop, DirectlyAboveTheEndEntityIsRejected) {
  cert leaf = make({.subject = "leaf", .issuer = "root", .key = 2, .issuer_key = 0, .serial = 3});
  verification what = sent({root_}, {trusted_inter_});
  what.leaf = leaf;
  verdict result = verify(what, local);
  EXPECT_EQ(0, result.accepted);
  EXPECT_EQ(X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, result.error);
}

TEST_F(ValidatorSelfSignedTop, ReplacementHasToHaveSignedWhatIsBelow) {
  cert stranger = make({.subject = "inter",
                        .issuer = "other root",
                        .key = 5,
                        .issuer_key = 4,
                        .serial = 78,
                        .ca = true});
  verdict result = verify(sent({inter_, root_}, {stranger}), internet);
  EXPECT_EQ(0, result.accepted);
}

TEST_F(ValidatorSelfSignedTop, ReplacementIsNotJudgedButTheEndEntityIs) {
  cache_status(trusted_inter_, PKI_CERT_REVOKED);
  EXPECT_TRUE(accepts(sent({inter_, root_}, {trusted_inter_}), internet));
  cache_status(leaf_, PKI_CERT_REVOKED);
  EXPECT_FALSE(accepts(sent({inter_, root_}, {trusted_inter_}), internet));
  EXPECT_TRUE(accepts(sent({inter_, root_}, {trusted_inter_}), local));
}

TEST_F(ValidatorSelfSignedTop, IsReplacedByOpenSslItselfByDefault) {
  verification what = {.leaf = leaf_, .untrusted = {inter_, root_}, .trusted = {trusted_inter_}};
  EXPECT_TRUE(accepts(what, internet));
  what.trusted = {root_};
  EXPECT_TRUE(accepts(what, internet));
}

// ---- every other error ----

TEST_F(ValidatorErrors, EveryOtherErrorIsRejected) {
  for (int error = 0; error <= 120; error++) {
    if (error == X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN)
      continue;
    bool is_time = error == 9 || error == 10;
    bool is_issuer = error == 2 || error == 21;
    for (const named_callback &each : all_callbacks) {
      for (int depth = 0; depth <= 2; depth++) {
        context ctx = prepare({leaf_, inter_, root_}, depth, error);
        EXPECT_EQ(is_issuer || (is_time && !each.is_internet), each.call(0, ctx.get()) == 1)
            << each.name << " " << error;
        EXPECT_EQ(error, X509_STORE_CTX_get_error(ctx.get()));
      }
    }
  }
}

TEST_F(ValidatorErrors, NothingButZeroAndOneIsReturned) {
  for (const named_callback &each : all_callbacks)
    for (int ok : {0, 1})
      for (int error : {0, 2, 9, 19, 20, 21}) {
        context ctx = prepare({leaf_, inter_, root_}, 0, error);
        int result = each.call(ok, ctx.get());
        EXPECT_TRUE(result == 0 || result == 1) << result;
      }
}

TEST_F(ValidatorErrors, SelfSignedTopOfATooShortOrAbsentChainIsRejected) {
  for (const certs &chain : {certs{}, certs{root_}, certs{leaf_, root_}, certs{leaf_, inter_}}) {
    for (const named_callback &each : all_callbacks) {
      int depth = chain.empty() ? 0 : static_cast<int>(chain.size()) - 1;
      context ctx = prepare(chain, depth, X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN);
      EXPECT_EQ(0, each.call(0, ctx.get())) << each.name << " " << chain.size();
    }
  }
}

}  // namespace
