// The device secret: in the envelope, and nowhere else.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstring>
#include <set>
#include <string>
#include <string_view>

#include "fakes/allocator.h"
#include "fakes/clock.h"
#include "fakes/failures.h"
#include "unit/scep_client/scep_fixture.h"

namespace {

constexpr std::string_view secret = "secret-0001";

[[gnu::tls_model("initial-exec")]] thread_local bool watching = false;
[[gnu::tls_model("initial-exec")]] thread_local size_t seen_freed = 0;

}  // namespace

#if !defined(__SANITIZE_THREAD__)

#if defined(__SANITIZE_ADDRESS__)
#define REAL_FREE __interceptor_free
#else
#define REAL_FREE __libc_free
#endif

// Stands in front of the C library's, to see what is in the memory that is given back.
extern "C" {

void REAL_FREE(void *block);

[[gnu::no_sanitize("address", "undefined")]] void free(void *block) {
  if (watching && block) {
    watching = false;
    std::string_view octets(static_cast<char *>(block), malloc_usable_size(block));
    if (octets.find(secret) != std::string_view::npos)
      seen_freed++;
    watching = true;
  }
  REAL_FREE(block);
}
}

#endif

namespace {

using support::own_lines;
using support::pending_then;
using support::scep_ca;
using support::scep_reply;

class ScepSecret : public support::scep_client_test {
 protected:
  int enroll_watched(const support::scep_info &info) {
    X509 *made = nullptr;
    seen_freed = 0;
    watching = true;
    int code = scep_cert_req(own_key.get(), subject.get(), info.get(), &made);
    watching = false;
    X509_free(made);
    return code;
  }
  static bool mentions(std::string text) {
    std::string plain(secret), upper = support::upper_hex(plain), lower = upper;
    for (char &each : lower)
      each = static_cast<char>(tolower(each));
    for (const std::string &form : {plain, upper, lower})
      if (text.find(form) != std::string::npos)
        return true;
    return false;
  }
  // Enrolls with a CA that follows this script and looks at all that was said and sent.
  int expect_kept(const std::vector<scep_reply> &script, const char *digest = "SHA256",
                  const char *cipher = "AES-128-CBC") {
    scep_ca ca(script);
    clear_log();
    int code = enroll(endpoint(ca, digest, cipher));
    for (const log_entry &line : captured_log())
      EXPECT_FALSE(mentions(line.text)) << line.text;
    for (const std::string &head : ca.heads())
      EXPECT_FALSE(mentions(head));
    for (const support::scep_request &sent : ca.requests()) {
      EXPECT_FALSE(sent.der.empty());
      EXPECT_FALSE(mentions(sent.der));
      opened += mentions(sent.payload);
    }
    return code;
  }

  size_t opened = 0;  // payloads with the secret in them
};

TEST_F(ScepSecret, IsInTheEnvelopeAndInNoOctetOutsideIt) {
  EXPECT_EQ(expect_kept({{}}), PKI_OK);
  EXPECT_EQ(opened, 1u);
  EXPECT_EQ(expect_kept({{}}, nullptr, nullptr), PKI_OK);
  EXPECT_EQ(opened, 2u);
}

TEST_F(ScepSecret, IsInNoPoll) {
  fake_clock::frozen clock(1800000000);
  EXPECT_EQ(expect_kept(pending_then(3)), PKI_OK);
  EXPECT_EQ(opened, 1u);
}

TEST_F(ScepSecret, IsInNoLineAboutAFailure) {
  std::vector<scep_reply> replies(8);
  replies[0].http = support::status(500);
  replies[1].http = support::ok("garbage");
  replies[2].tx_id = "0000";
  replies[3].recipient_nonce = "0123456789abcdef";
  replies[4].type = "19";
  replies[5].payload = support::empty_certificate_list();
  replies[6].recipient = support::make_ca("stranger", 2);
  replies[7] = support::refusal(2);
  for (const scep_reply &reply : replies)
    EXPECT_NE(expect_kept({reply}), PKI_OK);
  EXPECT_EQ(opened, replies.size());
}

TEST_F(ScepSecret, IsInNoLineWhenTheRequestIsMirrored) {
  // A CA that answers with the request itself, and one that answers with its own message.
  std::string mirrored;
  {
    scep_ca ca;
    ASSERT_EQ(enroll(ca), PKI_OK);
    mirrored = ca.requests().at(0).der;
  }
  scep_reply reply;
  reply.http = support::ok(mirrored);
  EXPECT_EQ(expect_kept({reply}), PKI_INVALID_SCEP_RSP);
}

TEST_F(ScepSecret, IsInNoLineWhenTheRequestCannotBeMade) {
  support::cert_options options;
  options.public_key = support::make_ec_key();
  support::scep_info info = support::make_scep_info(
      "http://127.0.0.1:1/", support::make_cert(options), "SHA256", "AES-128-CBC");
  EXPECT_EQ(enroll(info), PKI_P7_ENCRYPT_FAILED);
  for (const log_entry &line : captured_log())
    EXPECT_FALSE(mentions(line.text)) << line.text;
}

TEST_F(ScepSecret, IsInNoErrorText) {
  for (unsigned code = 0; code < 100; code++)
    EXPECT_FALSE(mentions(pki_strerror(code)));
}

class ScepSecretMemory : public ScepSecret {
 protected:
  void SetUp() override {
    ScepSecret::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "this build's allocator cannot be replaced";
  }
};

TEST_F(ScepSecretMemory, WatchingSeesMemoryThatIsNotCleansed) {
  seen_freed = 0;
  char *copy = pki_strdup(std::string(secret).c_str());
  watching = true;
  free(copy);
  watching = false;
  EXPECT_EQ(seen_freed, 1u);
  ASN1_OCTET_STRING *string = to_octetstring(secret.data(), static_cast<int>(secret.size()));
  watching = true;
  ASN1_OCTET_STRING_free(string);
  watching = false;
  EXPECT_EQ(seen_freed, 2u);
}

TEST_F(ScepSecretMemory, IsCleansedBeforeMemoryIsGivenBackAfterSuccess) {
  scep_ca ca;
  EXPECT_EQ(enroll_watched(endpoint(ca)), PKI_OK);
  EXPECT_EQ(seen_freed, 0u);
  EXPECT_EQ(enroll_watched(endpoint(ca, nullptr, nullptr)), PKI_OK);
  EXPECT_EQ(seen_freed, 0u);
}

TEST_F(ScepSecretMemory, IsCleansedBeforeMemoryIsGivenBackAfterPolls) {
  fake_clock::frozen clock(1800000000);
  scep_ca ca(pending_then(2));
  EXPECT_EQ(enroll_watched(endpoint(ca)), PKI_OK);
  EXPECT_EQ(seen_freed, 0u);
}

TEST_F(ScepSecretMemory, IsCleansedBeforeMemoryIsGivenBackAfterFailures) {
  std::vector<scep_reply> replies(3);
  replies[0].http = support::status(500);
  replies[1].http = support::ok("garbage");
  replies[2] = support::refusal(2);
  for (const scep_reply &reply : replies) {
    scep_ca ca({reply});
    EXPECT_NE(enroll_watched(endpoint(ca)), PKI_OK);
    EXPECT_EQ(seen_freed, 0u);
  }
}

TEST_F(ScepSecretMemory, IsCleansedWhenTheBoardFailsHalfWay) {
  scep_ca ca;
  fake_failures::fail_serialnumber(5);
  EXPECT_EQ(enroll_watched(endpoint(ca)), PKI_FLASH_ERROR);
  EXPECT_EQ(seen_freed, 0u);
}

TEST_F(ScepSecretMemory, IsCleansedWhenTheRequestCannotBeMade) {
  support::cert_options options;
  options.public_key = support::make_ec_key();
  support::scep_info info = support::make_scep_info(
      "http://127.0.0.1:1/", support::make_cert(options), "SHA256", "AES-128-CBC");
  EXPECT_EQ(enroll_watched(info), PKI_P7_ENCRYPT_FAILED);
  EXPECT_EQ(seen_freed, 0u);
  own_key = support::public_part(own_key);
  EXPECT_EQ(enroll_watched(info), PKI_SIGN_FAILED);
  EXPECT_EQ(seen_freed, 0u);
}

TEST_F(ScepSecretMemory, IsCleansedWhicheverAllocationFails) {
  // Nothing is sent: the endpoint's port is closed.
  support::scep_info info = support::make_scep_info(
      "http://127.0.0.1:1/", support::make_ca("scep ca", 7, 70), "SHA256", "AES-128-CBC");
  ASSERT_EQ(enroll_watched(info), PKI_HTTP_ERROR);
  std::set<size_t> leaking;
  size_t rounds = 0;
  for (size_t n = 1; n < 20000; n += 7, rounds++) {
    own_key.reset(EVP_PKEY_dup(support::test_key(1).get()), EVP_PKEY_free);
    X509 *made = nullptr;
    seen_freed = 0;
    fake_allocator::fail_at(n);
    watching = true;
    scep_cert_req(own_key.get(), subject.get(), info.get(), &made);
    watching = false;
    bool failed = fake_allocator::has_failed();
    fake_allocator::stop_failing();
    EXPECT_EQ(made, nullptr);
    if (seen_freed)
      leaking.insert(n);
    support::clear_openssl_errors();
    clear_log();
    if (!failed)
      break;
  }
  EXPECT_GT(rounds, 50u);
  EXPECT_TRUE(leaking.empty()) << leaking.size() << " of " << rounds << ", first at "
                               << *leaking.begin();
}

}  // namespace
