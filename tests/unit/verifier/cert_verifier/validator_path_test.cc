// Check times, path lengths and callbacks without a certificate.
#include "../extension_der.h"
#include "validator_support.h"

using namespace validator_support;

namespace {

// ---- no certificate ----

class ValidatorNoCertificate : public chain_test {};

TEST_F(ValidatorNoCertificate, IsRejectedWithALine) {
  for (const named_callback &each : all_callbacks) {
    clear_log();
    context ctx = prepare({leaf_, inter_, root_}, 0);
    X509_STORE_CTX_set_current_cert(ctx.get(), nullptr);
    EXPECT_EQ(0, each.call(1, ctx.get())) << each.name;
    EXPECT_EQ(lines{"3 Cert to check is null"}, complaints()) << each.name;
  }
}

TEST_F(ValidatorNoCertificate, IsWhatAPolicyNotificationHas) {
  verification what = chain();
  what.flags = X509_V_FLAG_POLICY_CHECK | X509_V_FLAG_NOTIFY_POLICY;
  EXPECT_FALSE(accepts(what, local));
  EXPECT_TRUE(was_logged(3, "Cert to check is null")) << log_dump();
}

// ---- check time ----

class ValidatorCheckTime : public chain_test {};

TEST_F(ValidatorCheckTime, IsRejectedForTheFirstCertificateByAll) {
  for (const named_callback &each : all_callbacks) {
    clear_log();
    verification what = chain();
    what.check_time = time(nullptr);
    verdict result = verify(what, each.call);
    EXPECT_EQ(0, result.accepted) << each.name;
    EXPECT_EQ(2, result.error_depth) << each.name;
    EXPECT_EQ(lines{"4 Can't check cert-status for a time other than now - rejecting status for "
                    "cert '/CN=root'"},
              complaints())
        << each.name;
    EXPECT_EQ(std::vector<long>{}, collected());
  }
}

TEST_F(ValidatorCheckTime, IsRejectedForEachCertificate) {
  certs chain = {leaf_, inter_, root_};
  for (const char *subject : {"leaf", "inter", "root"}) {
    int depth = subject[0] == 'l' ? 0 : subject[0] == 'i' ? 1 : 2;
    context ctx = prepare(chain, depth);
    X509_VERIFY_PARAM_set_time(X509_STORE_CTX_get0_param(ctx.get()), time(nullptr) + 5);
    clear_log();
    EXPECT_EQ(0, local(1, ctx.get()));
    EXPECT_EQ(1U, count_logged(4, std::string("Can't check cert-status for a time other than now - "
                                              "rejecting status for cert '/CN=") +
                                      subject + "'"))
        << log_dump();
  }
}

// ---- path length ----

class ValidatorPathLength : public validator_test {
 protected:
  static extensions constrained(const std::string &length) {
    return {{"basicConstraints", "critical,CA:TRUE,pathlen:" + length},
            {"keyUsage", "critical,keyCertSign,cRLSign"}};
  }
  static cert make_limited(const issue &what, const std::string &length, const char *own_id,
                           const char *issuer_id) {
    issue made = what;
    made.more = constrained(length);
    made.more.emplace_back("subjectKeyIdentifier", own_id);
    if (issuer_id)
      made.more.push_back(key_of(issuer_id));
    return make(made);
  }
  // The authorityKeyIdentifier that tells issuers of one name apart.
  static std::pair<std::string, std::string> key_of(const std::string &id) {
    return {"authorityKeyIdentifier", "DER:30:03:80:01:" + id};
  }
};

// OpenSSL does not count certificates that a CA issues to itself; this rule does.
TEST_F(ValidatorPathLength, CertificatesOfTheCaForItselfCountToo) {
  cert root = make_root({{"subjectKeyIdentifier", "01"}});
  cert old_key =
      make_limited({.subject = "inter", .issuer = "root", .key = 1, .serial = 2}, "0", "02", "01");
  cert new_key = make({.subject = "inter",
                       .issuer = "inter",
                       .key = 3,
                       .issuer_key = 1,
                       .serial = 3,
                       .ca = true,
                       .more = {{"subjectKeyIdentifier", "03"}, key_of("02")}});
  cert leaf = make({.subject = "leaf",
                    .issuer = "inter",
                    .key = 2,
                    .issuer_key = 3,
                    .serial = 4,
                    .more = {key_of("03")}});
  for (const named_callback &each : all_callbacks) {
    clear_log();
    verdict result =
        verify({.leaf = leaf, .untrusted = {old_key, new_key}, .trusted = {root}}, each.call);
    EXPECT_EQ(0, result.accepted) << each.name;
    // OpenSSL's own word for a callback that rejects without an error.
    EXPECT_EQ(X509_V_ERR_UNSPECIFIED, result.error) << each.name;
    EXPECT_EQ(lines{"4 Path-length constraint was exceeded (2 > 1) for cert '/CN=inter'"},
              complaints())
        << each.name;
  }
}

TEST_F(ValidatorPathLength, HoldsForTheTopToo) {
  cert root = make_limited({.subject = "root", .issuer = "root"}, "0", "01", nullptr);
  cert new_key = make({.subject = "root",
                       .issuer = "root",
                       .key = 1,
                       .issuer_key = 0,
                       .serial = 2,
                       .ca = true,
                       .more = {{"subjectKeyIdentifier", "02"}, key_of("01")}});
  cert leaf = make({.subject = "leaf",
                    .issuer = "root",
                    .key = 2,
                    .issuer_key = 1,
                    .serial = 3,
                    .more = {key_of("02")}});
  EXPECT_FALSE(accepts({.leaf = leaf, .untrusted = {new_key}, .trusted = {root}}, local));
  EXPECT_EQ(lines{"4 Path-length constraint was exceeded (2 > 1) for cert '/CN=root'"},
            complaints());
  EXPECT_EQ(std::vector<long>{}, collected());
}

TEST_F(ValidatorPathLength, ExactlyReachedIsAccepted) {
  cert root = make_limited({.subject = "root", .issuer = "root"}, "1", "01", nullptr);
  cert inter =
      make_limited({.subject = "inter", .issuer = "root", .key = 1, .serial = 2}, "0", "02", "01");
  EXPECT_TRUE(accepts({.leaf = make_leaf(), .untrusted = {inter}, .trusted = {root}}, internet));
}

TEST_F(ValidatorPathLength, ExceededForOpenSslIsRejected) {
  cert root = make_limited({.subject = "root", .issuer = "root"}, "0", "01", nullptr);
  verdict result =
      verify({.leaf = make_leaf(), .untrusted = {make_inter()}, .trusted = {root}}, local);
  EXPECT_EQ(0, result.accepted);
  EXPECT_EQ(X509_V_ERR_PATH_LENGTH_EXCEEDED, result.error);
}

TEST_F(ValidatorPathLength, HugeOnesNeverOverflow) {
  for (const char *length : {"2147483646", "2147483647", "2147483648", "4294967295", "4294967296",
                             "9223372036854775806", "9223372036854775807"}) {
    cert root = make_limited({.subject = "root", .issuer = "root"}, length, "01", nullptr);
    cert inter = make_limited({.subject = "inter", .issuer = "root", .key = 1, .serial = 2}, length,
                              "02", "01");
    for (const named_callback &each : all_callbacks)
      EXPECT_TRUE(
          accepts({.leaf = make_leaf(), .untrusted = {inter}, .trusted = {root}}, each.call))
          << length << " " << each.name << log_dump();
  }
}

// The depth that is compared, on contexts as a chain of that length would have them.
struct boundary {
  int depth;
  int length;
  bool accepted;
};

class ValidatorPathBoundary : public ValidatorPathLength,
                              public testing::WithParamInterface<boundary> {};

TEST_P(ValidatorPathBoundary, DepthLessOneIsComparedWithTheConstraint) {
  auto [depth, length, accepted] = GetParam();
  cert limited = make(
      {.subject = "ca", .issuer = "root", .key = 1, .more = constrained(std::to_string(length))});
  certs chain(static_cast<size_t>(depth) + 2, limited);
  context ctx = prepare(chain, depth);
  EXPECT_EQ(accepted, local(1, ctx.get()) == 1);
  lines wanted;
  if (!accepted)
    wanted = {"4 Path-length constraint was exceeded (" + std::to_string(depth) + " > " +
              std::to_string(length + 1) + ") for cert '/CN=ca'"};
  EXPECT_EQ(wanted, complaints());
}

INSTANTIATE_TEST_SUITE_P(Depths, ValidatorPathBoundary,
                         testing::Values(boundary{0, 0, true}, boundary{1, 0, true},
                                         boundary{2, 0, false}, boundary{3, 0, false},
                                         boundary{2, 1, true}, boundary{3, 1, false},
                                         boundary{9, 8, true}, boundary{10, 8, false},
                                         boundary{100, 5, false}));

TEST_F(ValidatorPathLength, ConstraintThatIsAbsentNeverExceeds) {
  cert ca = make_inter();
  context ctx = prepare(certs(60, ca), 50);
  EXPECT_EQ(1, local(1, ctx.get()));
}

}  // namespace
