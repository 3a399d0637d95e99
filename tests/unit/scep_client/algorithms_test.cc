// Digest and cipher of an exchange: the named ones, and the defaults.
#include <gtest/gtest.h>

#include <string>

#include "fakes/clock.h"
#include "unit/scep_client/scep_fixture.h"

namespace {

using support::log_lines;
using support::own_lines;
using support::scep_ca;
using support::scep_reply;
using support::scep_request;

class ScepAlgorithms : public support::scep_client_test {
 protected:
  int enroll_by(const char *digest, const char *cipher) {
    clear_log();
    scep_ca ca;
    int code = enroll(endpoint(ca, digest, cipher));
    requests = ca.requests();
    return code;
  }
  static int digest_of(const scep_request &request) {
    auto *signer = sk_PKCS7_SIGNER_INFO_value(request.message->d.sign->signer_info, 0);
    return OBJ_obj2nid(signer->digest_alg->algorithm);
  }
  static int cipher_of(const scep_request &request) {
    const ASN1_OCTET_STRING *inner = request.message->d.sign->contents->d.data;
    support::pkcs7 envelope = support::read_message(std::string(
        reinterpret_cast<const char *>(inner->data), static_cast<size_t>(inner->length)));
    return OBJ_obj2nid(envelope->d.enveloped->enc_data->algorithm->algorithm);
  }
  // Enrolls and expects these algorithms in the request, and nothing in the log.
  void expect_used(const char *digest, const char *cipher, int digest_nid, int cipher_nid) {
    SCOPED_TRACE(std::string(digest ? digest : "null") + " " + (cipher ? cipher : "null"));
    ASSERT_EQ(enroll_by(digest, cipher), PKI_OK) << log_dump();
    EXPECT_EQ(digest_of(requests.at(0)), digest_nid);
    EXPECT_EQ(cipher_of(requests.at(0)), cipher_nid);
  }
  // The only line is one at level 4, and it has `name` in it.
  static void expect_one_warning(const std::string &named) {
    ASSERT_EQ(own_lines().size(), 1u) << log_dump();
    EXPECT_EQ(own_lines()[0].level, 4);
    EXPECT_NE(own_lines()[0].text.find(named), std::string::npos) << log_dump();
  }
};

TEST_F(ScepAlgorithms, DefaultsAreMd5AndDes) {
  expect_used(nullptr, nullptr, NID_md5, NID_des_cbc);
  EXPECT_EQ(captured_log(), log_lines());
}

TEST_F(ScepAlgorithms, NamedOnesAreUsed) {
  expect_used("SHA256", "AES-128-CBC", NID_sha256, NID_aes_128_cbc);
  expect_used("SHA1", "DES-EDE3-CBC", NID_sha1, NID_des_ede3_cbc);
  expect_used("MD5", "DES-CBC", NID_md5, NID_des_cbc);
  expect_used("sha512", "aes-256-cbc", NID_sha512, NID_aes_256_cbc);
  EXPECT_EQ(captured_log(), log_lines());
}

TEST_F(ScepAlgorithms, EachMayBeNamedAlone) {
  expect_used("SHA256", nullptr, NID_sha256, NID_des_cbc);
  expect_used(nullptr, "AES-128-CBC", NID_md5, NID_aes_128_cbc);
  EXPECT_EQ(captured_log(), log_lines());
}

TEST_F(ScepAlgorithms, UnknownDigestFallsToTheDefaultWithOneLine) {
  expect_used("no-such-digest", "AES-128-CBC", NID_md5, NID_aes_128_cbc);
  expect_one_warning("no-such-digest");
}

TEST_F(ScepAlgorithms, UnknownCipherFallsToTheDefaultWithOneLine) {
  expect_used("SHA256", "no-such-cipher", NID_sha256, NID_des_cbc);
  expect_one_warning("no-such-cipher");
}

TEST_F(ScepAlgorithms, EmptyNameIsUnknown) {
  expect_used("", "AES-128-CBC", NID_md5, NID_aes_128_cbc);
  ASSERT_EQ(own_lines().size(), 1u) << log_dump();
  EXPECT_EQ(own_lines()[0].level, 4);
}

TEST_F(ScepAlgorithms, TwoUnknownNamesAreTwoLines) {
  expect_used("no-such-digest", "no-such-cipher", NID_md5, NID_des_cbc);
  ASSERT_EQ(own_lines().size(), 2u) << log_dump();
  EXPECT_TRUE(was_logged(4, "unknown scep digest 'no-such-digest', using the default"));
  EXPECT_TRUE(was_logged(4, "unknown scep cipher 'no-such-cipher', using the default"));
}

TEST_F(ScepAlgorithms, UnknownNameIsReportedOnceAnEnrollmentNotOnceAPoll) {
  fake_clock::frozen clock(1800000000);
  scep_ca ca(support::pending_then(3));
  ASSERT_EQ(enroll(endpoint(ca, "no-such-digest", "AES-128-CBC")), PKI_OK);
  expect_one_warning("no-such-digest");
}

TEST_F(ScepAlgorithms, HoldForEachPoll) {
  fake_clock::frozen clock(1800000000);
  scep_ca ca(support::pending_then(2));
  ASSERT_EQ(enroll(endpoint(ca, "SHA256", "AES-256-CBC")), PKI_OK) << log_dump();
  for (const scep_request &each : ca.requests()) {
    EXPECT_EQ(digest_of(each), NID_sha256);
    EXPECT_EQ(cipher_of(each), NID_aes_256_cbc);
  }
}

TEST_F(ScepAlgorithms, DefaultsHoldForEachPoll) {
  fake_clock::frozen clock(1800000000);
  scep_ca ca(support::pending_then(2));
  ASSERT_EQ(enroll(endpoint(ca, nullptr, nullptr)), PKI_OK) << log_dump();
  for (const scep_request &each : ca.requests()) {
    EXPECT_EQ(digest_of(each), NID_md5);
    EXPECT_EQ(cipher_of(each), NID_des_cbc);
  }
}

TEST_F(ScepAlgorithms, HoldForAQuery) {
  scep_reply reply;
  reply.issued = support::simple_cert("issuer", "found", 5);
  scep_ca ca({reply});
  support::scep_info info = endpoint(ca, "SHA1", "AES-256-CBC");
  cert_info *query = alloc_cert_info();
  query->issuer = X509_NAME_dup(support::common_name("issuer").get());
  query->serial = ASN1_INTEGER_dup(support::make_serial(5).get());
  EXPECT_EQ(scep_qry_cert(query, info.get(), own_key.get()), PKI_OK);
  EXPECT_EQ(digest_of(ca.requests().at(0)), NID_sha1);
  EXPECT_EQ(cipher_of(ca.requests().at(0)), NID_aes_256_cbc);
  free_cert_info(query);
}

TEST_F(ScepAlgorithms, LongerKeysWorkWithDefaultsAndWithNamedOnes) {
  for (int bits : {2048, 4096}) {
    own_key = support::make_key(bits);
    EXPECT_EQ(enroll_by(nullptr, nullptr), PKI_OK) << log_dump();
    EXPECT_EQ(enroll_by("SHA256", "AES-128-CBC"), PKI_OK) << log_dump();
    EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(issued.get()), own_key.get()), 1);
  }
}

TEST_F(ScepAlgorithms, CipherWithATagIsRefusedBeforeAnythingIsSent) {
  EXPECT_EQ(enroll_by("SHA256", "id-aes128-GCM"), PKI_P7_ENCRYPT_FAILED);
  EXPECT_TRUE(requests.empty());
  EXPECT_TRUE(was_logged(3, "failed to generate scep CertReq request: P7 ENCRYPT FAILED"))
      << log_dump();
}

}  // namespace
