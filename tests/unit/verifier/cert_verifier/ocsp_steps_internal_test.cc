// The steps of an OCSP query one by one: the code that each returns, and what it says.
#include <netdb.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "unit/verifier/cert_verifier/ocsp_support.h"
#include "unit/verifier/codes.h"
#include "verifier/cert_verifier/ocsp.h"

using namespace ocsp_support;

namespace {

constexpr int not_asn1 = 15, no_url = 45, http_failed = 47, no_head = 48, no_reference = 49,
              no_argument = 63, no_signers = 67, no_key = 75, no_lock = 80, wrong_time = 85,
              ocsp_failed = 87;

pki::ocsp_reply reply_of(const std::string &octets) {
  pki::ocsp_reply reply;
  reply.body.reset(static_cast<unsigned char *>(malloc(octets.size() + 1)));
  std::memcpy(reply.body.get(), octets.data(), octets.size());
  reply.length = static_cast<int>(octets.size());
  return reply;
}

int open(const std::string &octets) {
  pki::ocsp_basicresp_ptr basic;
  return pki::open_basic_response(reply_of(octets), &basic);
}

int open(const ocsp_options &options) {
  return open(support::make_ocsp_response(options));
}

// The certificate with a key that OpenSSL does not know.
support::cert without_key(const support::cert &cert) {
  std::string der = support::der(cert);
  size_t at = der.find(std::string("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01", 9));
  EXPECT_NE(std::string::npos, at);
  der[at + 8] = 0x7F;
  const auto *in = reinterpret_cast<const unsigned char *>(der.data());
  return support::cert(d2i_X509(nullptr, &in, static_cast<long>(der.size())), X509_free);
}

class OcspSteps : public ocsp_query_test {
 protected:
  pki::ocsp_query question() {
    return {&locator, device.get(), issuer.get(), nullptr, 1, 0, nullptr, nullptr};
  }
  // One with its request.
  pki::ocsp_query asked() {
    pki::ocsp_query made = question();
    EXPECT_EQ(0, pki::make_request(&made));
    return made;
  }
  static pki::ocsp_basicresp_ptr answer(const pki::ocsp_query &to, const ocsp_options &options) {
    support::ocsp_request request(to.request.get(), [](OCSP_REQUEST *) {});
    pki::ocsp_basicresp_ptr basic;
    EXPECT_EQ(0, pki::open_basic_response(reply_of(support::make_ocsp_response(options, request)),
                                          &basic));
    return basic;
  }
  int exchange_with(const std::string &address) {
    url = address;
    locator.url = url.data();
    pki::ocsp_query made = asked();
    pki::ocsp_reply reply;
    return pki::exchange(made, &reply);
  }
  int exchange_with(const support::answer &http) {
    support::test_server server({http});
    return exchange_with(server.url());
  }
  // What the status of such an answer is worth.
  int find(const ocsp_options &options) {
    pki::ocsp_query made = asked();
    pki::ocsp_basicresp_ptr basic = answer(made, options);
    pki::ocsp_status found;
    clear_log();
    return pki::find_status(made, basic.get(), &found);
  }
  int check(
      const ocsp_options &options, const std::function<void()> &arm = [] {}) {
    locator.signer = configured.get();
    pki::ocsp_query made = asked();
    pki::ocsp_basicresp_ptr basic = answer(made, options);
    clear_log();
    arm();
    return pki::check_signer(made, basic.get());
  }

  std::string url = "http://127.0.0.1/";
  pki::ocsp_locator locator = {pki::locator_ocsp_url, url.data(), nullptr, 0};
};

TEST_F(OcspSteps, RequestWithoutRandomOctetsIsOutOfMemory) {
  pki::ocsp_query made = question();
  fake_failures::fail_rand_bytes();
  EXPECT_EQ(out_of_memory, pki::make_request(&made));
  EXPECT_EQ("3: out of memory\n", own_log());
}

// ---- the exchange ----

TEST_F(OcspSteps, UrlThatLeadsNowhereIsInvalid) {
  for (const char *text : {"", "nowhere", "https://127.0.0.1/", "http://127.0.0.1/\n"})
    EXPECT_EQ(no_url, exchange_with(text)) << text;
}

TEST_F(OcspSteps, TransportErrorIsPassedOn) {
  EXPECT_EQ(http_failed,
            exchange_with("http://127.0.0.1:" + std::to_string(support::unused_port()) + "/"));
  EXPECT_EQ(no_head, exchange_with(support::raw("HTTP/1.0 200 OK\r\nContent-Ty")));
}

TEST_F(OcspSteps, WantOfMemoryOnTheWayToTheResponderIsOne) {
  fake_failures::fail_resolver(EAI_MEMORY, ENOMEM);
  EXPECT_EQ(out_of_memory, exchange_with("http://ocsp.example/"));
  fake_failures::fail_connect(ENOMEM);
  EXPECT_EQ(out_of_memory, exchange_with("http://127.0.0.1:81/"));
  EXPECT_TRUE(was_logged(3, "Error sending OCSP request to '" + url + "': OUT OF MEMORY"));
}

TEST_F(OcspSteps, AnswerOfAnotherKindIsAnOcspError) {
  EXPECT_EQ(ocsp_failed, exchange_with(support::status(500)));
  EXPECT_EQ(ocsp_failed, exchange_with(support::ok("x", "text/html")));
  EXPECT_EQ(ocsp_failed, exchange_with(support::status(200, "", "x")));
}

TEST_F(OcspSteps, TooLongAnAnswerIsAnOcspError) {
  EXPECT_EQ(0, exchange_with(support::ocsp_answer(std::string(1024 * 1024, 'x'))));
  clear_log();
  EXPECT_EQ(ocsp_failed, exchange_with(support::ocsp_answer(std::string((1024 * 1024) + 1, 'x'))));
  EXPECT_EQ(
      "3: OCSP responder (" + url + ") returned 1048577 octets - at most 1048576 are looked at\n",
      own_log());
}

// ---- the response ----

TEST_F(OcspSteps, OctetsThatAreNoResponseAreAnAsn1Error) {
  for (const char *octets : {"", "no DER", "\x30\x03\x02\x01", "\x30\x80"})
    EXPECT_EQ(not_asn1, open(std::string(octets)));
}

TEST_F(OcspSteps, ResponseStatusOfFailureIsAnOcspError) {
  for (long status : {1L, 2L, 3L, 4L, 5L, 6L, 7L, -1L}) {
    ocsp_options options;
    options.with_bytes = false;
    options.response_status = status;
    EXPECT_EQ(ocsp_failed, open(options)) << status;
  }
}

TEST_F(OcspSteps, ResponseThatIsNotABasicOneIsAnOcspError) {
  ocsp_options without, undecodable, other;
  without.with_bytes = false;
  undecodable.basic = "x";
  other.basic = "x";
  other.type = "1.2.3";
  EXPECT_EQ(ocsp_failed, open(without));
  EXPECT_EQ(ocsp_failed, open(undecodable));
  EXPECT_EQ(ocsp_failed, open(other));
}

// ---- the status ----

TEST_F(OcspSteps, StatusIsFoundWithItsNextUpdate) {
  pki::ocsp_query made = asked();
  pki::ocsp_basicresp_ptr basic = answer(made, by_issuer(V_OCSP_CERTSTATUS_REVOKED));
  pki::ocsp_status found;
  EXPECT_EQ(0, pki::find_status(made, basic.get(), &found));
  EXPECT_EQ(V_OCSP_CERTSTATUS_REVOKED, found.status);
  EXPECT_EQ(0, ASN1_TIME_cmp_time_t(found.next_update, start + 3600));
}

TEST_F(OcspSteps, AnotherNonceIsAnOcspError) {
  ocsp_options options = by_issuer();
  options.nonce = ocsp_nonce::changed;
  EXPECT_EQ(ocsp_failed, find(options));
}

TEST_F(OcspSteps, NoStatusOfTheCertificateIsAnOcspError) {
  ocsp_options none = by_issuer(), other = by_issuer();
  none.with_single = false;
  other.single.id = support::ocsp_cert_id(issuer, issuer);
  EXPECT_EQ(ocsp_failed, find(none));
  EXPECT_EQ(ocsp_failed, find(other));
}

// Answers with one time each that is out of bounds, and what is said of it.
std::vector<std::pair<ocsp_options, std::string>> untimely(const ocsp_options &model) {
  std::vector<std::pair<ocsp_options, std::string>> all;
  ocsp_options options = model;
  options.produced_at = start + 301;
  all.emplace_back(options, "The ocsp response was produced in the future (%)!");
  options = model;
  options.single.this_update = start - 43200300;
  all.emplace_back(options, "The status in the ocsp response was updated too long ago (%)");
  options.single.this_update = start + 301;
  all.emplace_back(options, "The status in the ocsp response was in the future (%)!");
  options = model;
  options.single.next_update = start - 301;
  all.emplace_back(options, "The next-update in ocsp response is in the past (%)");
  return all;
}

TEST_F(OcspSteps, TimeOutOfBoundsIsATimeMismatch) {
  for (const auto &[options, line] : untimely(by_issuer()))
    EXPECT_EQ(wrong_time, find(options)) << line;
}

TEST_F(OcspSteps, TimeThatCannotBeReadIsATimeMismatch) {
  ocsp_options produced = by_issuer(), updated = by_issuer(), next = by_issuer();
  produced.produced_at_text = "soon";
  updated.single.this_update_text = "soon";
  next.single.next_update_text = "soon";
  EXPECT_EQ(wrong_time, find(produced));
  EXPECT_EQ(wrong_time, find(updated));
  EXPECT_EQ(wrong_time, find(next));
}

TEST_F(OcspSteps, TimeThatIsNotThereIsAMissingArgument) {
  fake_failures::fail_produced_at();
  EXPECT_EQ(no_argument, find(by_issuer()));
}

TEST_F(OcspSteps, TimeWithoutTextIsStillOutOfBounds) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  for (const auto &each : untimely(by_issuer())) {
    std::string line = each.second;
    line.replace(line.find('%'), 1, "<no-mem>");
    pki::ocsp_query made = asked();
    pki::ocsp_basicresp_ptr basic = answer(made, each.first);
    pki::ocsp_status found;
    int error = 0;
    size_t without_text = 0;
    clear_log();
    fake_allocator::sweep([&] { error = pki::find_status(made, basic.get(), &found); },
                          [&](size_t n) {
                            EXPECT_EQ(wrong_time, error) << n;
                            without_text += own_log() == "3: " + line + "\n";
                            clear_log();
                          });
    EXPECT_GT(without_text, 0U) << line;
    EXPECT_EQ(wrong_time, error);
    EXPECT_FALSE(was_logged(3, line));
  }
}

// ---- the signer ----

TEST_F(OcspSteps, IssuersSignatureCounts) {
  EXPECT_EQ(0, check(by_issuer()));
}

TEST_F(OcspSteps, SignatureOfNobodyHasNoSigners) {
  ocsp_options options = by_issuer();
  options.damaged_signature = true;
  EXPECT_EQ(no_signers, check(options));
  EXPECT_EQ(no_signer_line, own_log());
}

TEST_F(OcspSteps, SignersThatNobodyTrustsAreNone) {
  EXPECT_EQ(no_signers, check(by(issue_responder({no_check}))));
  EXPECT_TRUE(logged_containing(3, "no ocsp-response signer certs were trusted"));
}

TEST_F(OcspSteps, ResponderIdOfNoKindIsAWrongArgument) {
  EXPECT_EQ(no_argument, check(by_issuer(), [] { fake_failures::fail_responder_id(); }));
  EXPECT_EQ("3: Unknown responder-id type -1 encountered\n", own_log());
}

TEST_F(OcspSteps, IssuerWithoutKeyHasAnInvalidKey) {
  issuer = without_key(issuer);
  EXPECT_EQ(no_key, check(by(issue_responder())));
  EXPECT_EQ(found_line(1) + "3: failed to get public key from issuer cert\n", own_log());
}

TEST_F(OcspSteps, StoreThatCannotBeLockedHasItsLine) {
  for (bool by_key : {false, true}) {
    ocsp_options options = by_issuer();
    options.by_key = by_key;
    EXPECT_EQ(no_lock, check(options, [] { fake_failures::fail_wrlock(EDEADLK); }));
    EXPECT_EQ("3: Error looking up ocsp-response signers: LOCK FAILED\n", log_dump());
  }
}

// Be the candidate the store's, the configuration's, the certificate's issuer or sent along.
TEST_F(OcspSteps, CandidateWithoutReferenceHasItsLine) {
  auto expect_line = [&](const ocsp_options &options) {
    EXPECT_EQ(no_reference, check(options, [] { fake_failures::fail_x509_up_ref(); }));
    EXPECT_EQ("3: Error looking up ocsp-response signers: CRYPTO LOCK FAILED\n", log_dump());
  };
  expect_line(by_issuer());
  expect_line(by(issue_responder()));
  configured = issue_responder();
  ocsp_options by_configured = by(configured);
  by_configured.certs.clear();
  expect_line(by_configured);
  ASSERT_EQ(0, pki_add_untrusted_cert(issuer.get(), 1));
  expect_line(by_issuer());
}

// Without the memory for a key nobody knows whether it was that candidate's signature: the next
// candidate does not get its turn.
TEST_F(OcspSteps, WantOfMemoryForAKeyEndsTheSearch) {
  ASSERT_EQ(0, pki_add_untrusted_cert(make_issuer("issuer", stranger_key).get(), 1));
  EXPECT_EQ(0, check(by_issuer()));
  EXPECT_EQ(out_of_memory, check(by_issuer(), [] { fake_failures::fail_x509_get0_pubkey(); }));
  EXPECT_EQ("3: failed to get public key from issuer cert\n", own_log());
  EXPECT_EQ(1U, openssl_lines(3)) << log_dump();
}

}  // namespace
