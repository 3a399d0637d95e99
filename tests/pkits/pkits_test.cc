// The suite's cases about revocation, with the CRLs served over HTTP. Without a Content-Length in
// front of a CRL only the entries of the certificate in question are kept of it; that and the CRL
// cache must not change a verdict.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>

#include "fakes/log_capture.h"
#include "status_rules.h"
#include "suite.h"
#include "support/store_fixture.h"
#include "support/test_server.h"

namespace {

using pkits::rule_kind;
using pkits::test_case;

enum class framing { with_length, without_length };

// "/NAME.crl"
support::answer serve_crl(const std::string &request, framing how) {
  size_t slash = request.find('/');
  std::string octets =
      pkits::crl_octets(request.substr(slash + 1, request.find(".crl") - slash - 1));
  if (octets.empty())
    return support::status(404);
  if (how == framing::with_length)
    return support::ok(octets, "application/pkix-crl");
  return support::raw("HTTP/1.0 200 OK\r\nContent-Type: application/pkix-crl\r\n\r\n" + octets);
}

// "valid", "revoked", "unknown" (no CRL that may be believed), or "refused" (the path is not good).
std::string outcome_of(int verified, int error) {
  if (verified == 1)
    return "valid";
  if (error == X509_V_ERR_CERT_REVOKED)
    return "revoked";
  return error == X509_V_ERR_UNABLE_TO_GET_CRL ? "unknown" : "refused";
}

struct verification {
  explicit verification(const test_case &tested) {
    support::cert anchor = pkits::read_cert(pkits::trust_anchor);
    X509_STORE_add_cert(store, anchor.get());
    X509 *target = push(tested.name + "EE");
    for (const std::string &name : tested.certs)
      push(name);
    X509_STORE_CTX_init(ctx, store, target, untrusted);
    X509_STORE_CTX_set_verify_cb(ctx, zv_cv_cert_validator_internet);
  }
  ~verification() {
    X509_STORE_CTX_free(ctx);
    X509_STORE_free(store);
    sk_X509_pop_free(untrusted, X509_free);
  }
  verification(const verification &) = delete;
  verification &operator=(const verification &) = delete;

  X509 *push(const std::string &name) {
    support::cert cert = pkits::read_cert(name);
    X509_up_ref(cert.get());
    sk_X509_push(untrusted, cert.get());
    return cert.get();
  }

  X509_STORE *store = X509_STORE_new();
  STACK_OF(X509) *untrusted = sk_X509_new_null();
  X509_STORE_CTX *ctx = X509_STORE_CTX_new();
};

class Pkits : public support::store_test {
 protected:
  void SetUp() override {
    store_test::SetUp();
    if (pkits::is_installed())
      return;
    if (getenv("PKI_SKIP_PKITS"))
      GTEST_SKIP() << "no PKITS files in " << pkits::folder();
    FAIL() << "no PKITS files in " << pkits::folder()
           << ": install the package python3-cryptography-vectors (scripts/bootstrap.sh peers), "
              "name their folder in PKITS_DATA, or set PKI_SKIP_PKITS";
  }

  // What `ask` says, with an empty store and the CRLs to be had.
  std::string with_crls(const test_case &tested, rule_kind kind, framing how,
                        const std::function<std::string(verification &)> &ask) {
    support::empty_store();
    zv_cv_clear_cert_sts_info_cache();
    clear_log();
    support::test_server server(
        [how](const std::string &request) { return serve_crl(request, how); });
    pkits::status_rules rules(
        tested, kind, [&](const std::string &crl) { return server.url("/" + crl + ".crl"); });
    verification path(tested);
    return ask(path);
  }

  std::string judge(const test_case &tested, rule_kind kind, framing how) {
    return with_crls(tested, kind, how, [this](verification &path) {
      int verified = X509_verify_cert(path.ctx);
      int error = X509_STORE_CTX_get_error(path.ctx);
      openssl_says_ = X509_verify_cert_error_string(error);
      return outcome_of(verified, error);
    });
  }

  // Many a path is refused before its CRLs are looked at; this is what they would have said.
  std::string end_entity_status(const test_case &tested, framing how) {
    return with_crls(tested, rule_kind::by_directory, how, [](verification &path) {
      path.push(pkits::trust_anchor);
      pki_add_untrusted_certs(reinterpret_cast<STACK *>(path.untrusted), 0);
      X509 *target = sk_X509_value(path.untrusted, 0);
      for (int i = 1; i < sk_X509_num(path.untrusted); i++)
        if (X509 *issuer = sk_X509_value(path.untrusted, i);
            X509_check_issued(issuer, target) == X509_V_OK)
          return std::string(
              zv_cv_cert_sts_to_str(zv_cv_check_cert_status(target, issuer, path.ctx, 1, 0)));
      return std::string("no issuer");
    });
  }

  // What the last question was answered with.
  std::string why() const { return openssl_says_ + "\n" + log_dump(); }

 private:
  std::string openssl_says_;
};

class PkitsCase : public Pkits, public testing::WithParamInterface<test_case> {};

TEST_P(PkitsCase, IsJudgedAsTheTableSaysWithRulesForIssuers) {
  const test_case &tested = GetParam();
  EXPECT_EQ(judge(tested, rule_kind::by_issuer, framing::with_length), tested.by_issuer) << why();
}

TEST_P(PkitsCase, IsJudgedAsTheTableSaysWithRulesFromTheDirectory) {
  const test_case &tested = GetParam();
  EXPECT_EQ(judge(tested, rule_kind::by_directory, framing::with_length), tested.by_directory)
      << why();
}

TEST_P(PkitsCase, IsJudgedTheSameWithoutContentLength) {
  const test_case &tested = GetParam();
  EXPECT_EQ(judge(tested, rule_kind::by_issuer, framing::without_length), tested.by_issuer)
      << why();
  zv_cv_clear_crl_cache();
  EXPECT_EQ(judge(tested, rule_kind::by_directory, framing::without_length), tested.by_directory)
      << why();
}

TEST_P(PkitsCase, EndEntityHasTheStatusOfTheTable) {
  const test_case &tested = GetParam();
  EXPECT_EQ(end_entity_status(tested, framing::with_length), tested.status) << log_dump();
  zv_cv_clear_crl_cache();
  EXPECT_EQ(end_entity_status(tested, framing::without_length), tested.status) << log_dump();
}

std::string name_of(const testing::TestParamInfo<test_case> &info) {
  std::string name = info.param.number + "_" + info.param.name;
  for (char &letter : name)
    if (letter == '.')
      letter = '_';
  return "Case_" + name;
}

INSTANTIATE_TEST_SUITE_P(Suite, PkitsCase, testing::ValuesIn(pkits::all_cases()), name_of);

bool agrees(const std::string &ours, const test_case &tested) {
  return (ours == "valid") == (tested.theirs == "valid");
}

// Whoever configures several CRLs for an issuer need not know which of them is about what.
TEST_F(Pkits, AnotherOrderOfTheCrlsMakesNoBadCertificateGood) {
  for (test_case tested : pkits::all_cases()) {
    if (tested.theirs == "valid" || tested.crls.size() < 2)
      continue;
    std::reverse(tested.crls.begin(), tested.crls.end());
    zv_cv_clear_crl_cache();
    EXPECT_NE(judge(tested, rule_kind::by_issuer, framing::with_length), "valid")
        << tested.number << "\n"
        << why();
  }
}

// A CRL that is in the cache may spare us a rule of ours, and nothing else.
TEST_F(Pkits, CrlsThatOtherCasesLeftInTheCacheMakeNoVerdictWrong) {
  for (int round = 0; round < 2; round++)
    for (const test_case &tested : pkits::all_cases()) {
      std::string ours = judge(tested, rule_kind::by_issuer, framing::with_length);
      EXPECT_TRUE(ours == tested.by_issuer || agrees(ours, tested))
          << tested.number << " " << ours << "\n"
          << why();
      ours = judge(tested, rule_kind::by_directory, framing::with_length);
      EXPECT_TRUE(ours == tested.by_directory || agrees(ours, tested))
          << tested.number << " " << ours << "\n"
          << why();
    }
}

// The table's own rule: a verdict that is not the suite's has its reason beside it. Where the
// verdicts agree there is none, or a remark in brackets.
TEST(PkitsTable, GivesAReasonForEachDifference) {
  for (const test_case &listed : pkits::all_cases()) {
    bool has_reason = !listed.reason.empty() && listed.reason.front() != '(';
    EXPECT_EQ(agrees(listed.by_issuer, listed) && agrees(listed.by_directory, listed), !has_reason)
        << listed.number;
  }
}

TEST(PkitsTable, NamesTheSuitesVerdictAsTheFilesNameDoes) {
  for (const test_case &listed : pkits::all_cases())
    EXPECT_TRUE(listed.name.starts_with(listed.theirs == "valid" ? "Valid" : "Invalid"))
        << listed.number;
}

}  // namespace
