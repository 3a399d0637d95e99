// What the verify callbacks make of certificate statuses.
#include <libpki/trace.h>

#include "../extension_der.h"
#include "support/test_server.h"
#include "validator_support.h"

using namespace validator_support;

namespace {

class ValidatorStatus : public chain_test {};

TEST_F(ValidatorStatus, UnknownOneIsRejectedByTheInternetFlavour) {
  cache_status(leaf_, PKI_CERT_UNKNOWN);
  for (const named_callback &each : all_callbacks) {
    verdict result = verify(chain(), each.call);
    EXPECT_EQ(!each.is_internet, result.accepted == 1) << each.name;
    EXPECT_EQ(each.is_internet ? X509_V_ERR_UNABLE_TO_GET_CRL : X509_V_OK, result.error);
    EXPECT_EQ(0, result.error_depth);
  }
}

TEST_F(ValidatorStatus, RevokedOneIsRejectedByTheInternetFlavour) {
  cache_status(leaf_, PKI_CERT_REVOKED);
  for (const named_callback &each : all_callbacks) {
    verdict result = verify(chain(), each.call);
    EXPECT_EQ(!each.is_internet, result.accepted == 1) << each.name;
    EXPECT_EQ(each.is_internet ? X509_V_ERR_CERT_REVOKED : X509_V_OK, result.error);
  }
}

TEST_F(ValidatorStatus, GoodOneIsAccepted) {
  cache_status(leaf_, PKI_CERT_OK);
  cache_status(inter_, PKI_CERT_OK);
  EXPECT_TRUE(accepts(chain(), internet));
}

TEST_F(ValidatorStatus, IntermediateIsCheckedFirst) {
  cache_status(inter_, PKI_CERT_REVOKED);
  cache_status(leaf_, PKI_CERT_UNKNOWN);
  verdict result = verify(chain(), internet);
  EXPECT_EQ(0, result.accepted);
  EXPECT_EQ(X509_V_ERR_CERT_REVOKED, result.error);
  EXPECT_EQ(1, result.error_depth);
  EXPECT_FALSE(logged_containing(7, "Checking status for cert '/CN=leaf'"));
}

TEST_F(ValidatorStatus, TopIsNotChecked) {
  record top = cache_status(root_, PKI_CERT_REVOKED);
  EXPECT_TRUE(accepts(chain(), internet));
  EXPECT_TRUE(accepts({.leaf = root_, .trusted = {root_}}, internet));
  EXPECT_EQ(0U, top->hits);
}

TEST_F(ValidatorStatus, LocalFlavourAsksNobody) {
  support::test_server server({support::status(500)});
  cert leaf = make_leaf({extension_der::aia({server.url()})});
  record info = cache_status(inter_, PKI_CERT_REVOKED);
  EXPECT_TRUE(accepts(chain_of(inter_, leaf), local));
  EXPECT_EQ(0U, info->hits);
  EXPECT_EQ(0U, server.requests().size());
  EXPECT_FALSE(logged_containing(7, "Checking status"));
}

TEST_F(ValidatorStatus, ResponderThatDoesNotAnswerIsRejected) {
  std::string nobody = "http://127.0.0.1:" + std::to_string(support::unused_port()) + "/";
  cert leaf = make_leaf({extension_der::aia({nobody})});
  verdict result = verify(chain_of(inter_, leaf), internet);
  EXPECT_EQ(0, result.accepted);
  EXPECT_EQ(X509_V_ERR_UNABLE_TO_GET_CRL, result.error);
  EXPECT_TRUE(was_logged(4, "No cert-status information found for cert '/CN=leaf'"));
}

TEST_F(ValidatorStatus, SourcesThatCannotBeReadAreRejected) {
  cert leaf = make_leaf({extension_der::raw("authorityInfoAccess", "x")});
  verdict result = verify(chain_of(inter_, leaf), internet);
  EXPECT_EQ(0, result.accepted);
  EXPECT_EQ(X509_V_ERR_UNABLE_TO_GET_CRL, result.error);
}

TEST_F(ValidatorStatus, AlwaysOkRuleAcceptsInsteadOfTheResponder) {
  cert leaf = make_leaf({extension_der::aia({"http://127.0.0.1:1/"})});
  add_always_ok();
  EXPECT_TRUE(accepts(chain_of(inter_, leaf), internet)) << log_dump();
  EXPECT_TRUE(cached(leaf));
  EXPECT_TRUE(cached(inter_));
  EXPECT_FALSE(cached(root_));
}

TEST_F(ValidatorStatus, RevocationIsSeenBeforeTheCacheWasFilled) {
  add_always_ok("inter");
  EXPECT_TRUE(accepts(chain(), internet));
  zv_cv_clear_cert_sts_info_cache();
  cache_status(inter_, PKI_CERT_REVOKED);
  EXPECT_FALSE(accepts(chain(), internet));
}

TEST_F(ValidatorStatus, MissingIssuerIsRejectedWithALine) {
  for (const named_callback &each : all_callbacks) {
    clear_log();
    context ctx = prepare({leaf_, nullptr, root_}, 0);
    EXPECT_EQ(!each.is_internet, each.call(1, ctx.get()) == 1) << each.name;
    EXPECT_EQ(each.is_internet ? lines{"3 Cert issuer is null"} : lines{}, complaints())
        << each.name;
  }
}

// As before OpenSSL has built one.
TEST_F(ValidatorStatus, MissingChainIsRejectedWithALine) {
  for (const named_callback &each : all_callbacks) {
    clear_log();
    context ctx = make_context();
    ASSERT_EQ(1, X509_STORE_CTX_init(ctx.get(), nullptr, leaf_.get(), nullptr));
    ASSERT_EQ(nullptr, X509_STORE_CTX_get0_chain(ctx.get()));
    X509_STORE_CTX_set_current_cert(ctx.get(), leaf_.get());
    EXPECT_EQ(0, each.call(1, ctx.get())) << each.name;
    EXPECT_EQ(lines{"3 Cert issuer is null"}, complaints()) << each.name;
    X509_STORE_CTX_set_error(ctx.get(), X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN);
    EXPECT_EQ(0, each.call(0, ctx.get())) << each.name;
  }
}

void note_status_depth(void *depths, const cv_trace_event *event) {
  if (event->kind == PKI_TRACE_STATUS)
    static_cast<std::vector<int> *>(depths)->push_back(event->depth);
}

// However deep in the chain the certificate stands.
TEST_F(ValidatorStatus, StatusCheckBeginsAtDepthZero) {
  add_always_ok();
  std::vector<int> depths;
  zv_cv_set_trace(note_status_depth, &depths);
  context ctx = prepare({leaf_, inter_, inter_, root_}, 2);
  EXPECT_EQ(1, internet(1, ctx.get()));
  EXPECT_EQ(std::vector<int>{0}, depths);
  EXPECT_TRUE(was_logged(7, "Checking status for cert '/CN=inter'"));
  EXPECT_EQ(X509_V_OK, X509_STORE_CTX_get_error(ctx.get()));
}

TEST_F(ValidatorStatus, EveryStatusCheckOfAVerificationBeginsAtDepthZero) {
  std::vector<int> depths;
  zv_cv_set_trace(note_status_depth, &depths);
  EXPECT_TRUE(accepts(chain(), internet));
  EXPECT_EQ((std::vector<int>{0, 0}), depths);
}

TEST_F(ValidatorStatus, ErrorIsSetInThePreparedContextToo) {
  for (auto [status, error] : {std::pair{PKI_CERT_UNKNOWN, 3}, {PKI_CERT_REVOKED, 23}}) {
    zv_cv_clear_cert_sts_info_cache();
    cache_status(leaf_, status);
    context ctx = prepare({leaf_, inter_, root_}, 0);
    EXPECT_EQ(0, internet(1, ctx.get()));
    EXPECT_EQ(error, X509_STORE_CTX_get_error(ctx.get()));
  }
}

}  // namespace
