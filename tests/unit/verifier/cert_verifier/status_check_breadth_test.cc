// How many nested checks one status check may lead to.
#include "../extension_der.h"
#include "support/ocsp_responder.h"
#include "support/test_server.h"
#include "validator_support.h"

using namespace validator_support;

namespace {

// One answer for the end entity, which `signers` certificates of one name and key could have
// signed; each of them is for a responder of its own that has nothing to say.
class StatusBreadth : public chain_test {
 protected:
  void give_signers(int signers) {
    for (int i = 0; i < signers; i++) {
      cert signer =
          make({.subject = "signer",
                .issuer = "inter",
                .key = 6,
                .issuer_key = 1,
                .serial = 1000 + i,
                .more = {{"extendedKeyUsage", "OCSPSigning"}, extension_der::aia({mute_.url()})}});
      if (i == 0)
        first_ = signer;
      ASSERT_EQ(0, pki_add_untrusted_cert(signer.get(), 1));
    }
    support::ocsp_options options;
    options.signer = first_;
    options.signing_key = support::test_key(6);
    responder_.answer_with(options);
  }
  int check() {
    clear_log();
    context ctx = prepare({leaf_, inter_, root_}, 0);
    add_ocsp(responder_.url(), false, true, "leaf");
    int status = zv_cv_check_cert_status(leaf_.get(), inter_.get(), ctx.get(), 1, 0);
    support::empty_store();
    return status;
  }
  static size_t refused() {
    return count_logged(
        3, "Maximum recursion depth reached - aborting  verification of cert (/CN=signer)");
  }

  support::test_server mute_{{support::status(500)}};
  support::ocsp_responder responder_{support::ocsp_options{}};
  cert first_;
};

TEST_F(StatusBreadth, SixtyFourNestedChecksAreMade) {
  give_signers(64);
  EXPECT_EQ(PKI_CERT_UNKNOWN, check());
  EXPECT_EQ(64U, mute_.requests().size());
  EXPECT_EQ(0U, refused());
}

TEST_F(StatusBreadth, MoreAreRefusedAsIfTooDeep) {
  give_signers(70);
  EXPECT_EQ(PKI_CERT_UNKNOWN, check());
  EXPECT_EQ(64U, mute_.requests().size());
  EXPECT_EQ(6U, refused());
  EXPECT_EQ(70U, count_logged(7, "Checking status for cert '/CN=signer'"));
}

TEST_F(StatusBreadth, EachOutermostCheckCountsAnew) {
  give_signers(64);
  check();
  give_signers(64);
  fake_clock::advance(31);
  check();
  EXPECT_EQ(128U, mute_.requests().size());
  EXPECT_EQ(0U, refused());
}

struct told {
  int kind, depth;
  std::string subject;
  bool operator==(const told &) const = default;
};

void hear_status(void *arg, const cv_trace_event *event) {
  char subject[100];
  X509_NAME_oneline(X509_get_subject_name(event->cert), subject, sizeof subject);
  if (event->kind == PKI_TRACE_STATUS || event->kind == PKI_TRACE_STATUS_END)
    static_cast<std::vector<told> *>(arg)->push_back({event->kind, event->depth, subject});
}

TEST_F(StatusBreadth, NestedChecksAreToldOneDeeperAndWithin) {
  give_signers(2);
  std::vector<told> heard;
  zv_cv_set_trace(hear_status, &heard);
  EXPECT_EQ(PKI_CERT_UNKNOWN, check());
  EXPECT_EQ((std::vector<told>{{PKI_TRACE_STATUS, 0, "/CN=leaf"},
                               {PKI_TRACE_STATUS, 1, "/CN=signer"},
                               {PKI_TRACE_STATUS_END, 1, "/CN=signer"},
                               {PKI_TRACE_STATUS, 1, "/CN=signer"},
                               {PKI_TRACE_STATUS_END, 1, "/CN=signer"},
                               {PKI_TRACE_STATUS_END, 0, "/CN=leaf"}}),
            heard);
}

}  // namespace
