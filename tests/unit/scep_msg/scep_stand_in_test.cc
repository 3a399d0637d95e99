// Digests by key type, and the self-signed certificate that stands in for a requester's.
#include "fakes/clock.h"
#include "messages.h"

namespace {

using scep::dsa_key;
using scep::unknown_key_line;

struct GetDigest : scep::scep_test {
  // A key object of that number, with nothing in it.
  const EVP_MD *digest_of_type(int type) {
    support::key made(EVP_PKEY_new(), EVP_PKEY_free);
    EXPECT_EQ(EVP_PKEY_set_type(made.get(), type), 1) << type;
    return get_digest(made.get());
  }
};

TEST_F(GetDigest, RsaIsMd5) {
  EXPECT_TRUE(EVP_MD_is_a(get_digest(device_key.get()), "MD5"));
  EXPECT_TRUE(EVP_MD_is_a(digest_of_type(EVP_PKEY_RSA), "MD5"));
  EXPECT_TRUE(EVP_MD_is_a(digest_of_type(EVP_PKEY_RSA2), "MD5"));
}

TEST_F(GetDigest, DsaIsSha1UnderEachOfItsNumbers) {
  EXPECT_TRUE(EVP_MD_is_a(get_digest(dsa_key().get()), "SHA1"));
  for (int type : {EVP_PKEY_DSA, EVP_PKEY_DSA1, EVP_PKEY_DSA2, EVP_PKEY_DSA3, EVP_PKEY_DSA4}) {
    const EVP_MD *found = digest_of_type(type);
    ASSERT_NE(found, nullptr) << type;
    EXPECT_TRUE(EVP_MD_is_a(found, "SHA1")) << type;
  }
}

TEST_F(GetDigest, KnownKeysLogNothing) {
  get_digest(device_key.get());
  get_digest(dsa_key().get());
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(GetDigest, UnknownKeyHasNoneAndALine) {
  EXPECT_EQ(get_digest(support::make_ec_key().get()), nullptr);
  EXPECT_EQ(captured_log(), (std::vector<log_entry>{{3, unknown_key_line()}})) << log_dump();
}

TEST_F(GetDigest, LineHasTheTypesNumber) {
  support::key ed(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), EVP_PKEY_free);
  EXPECT_EQ(get_digest(ed.get()), nullptr);
  EXPECT_EQ(captured_log(),
            (std::vector<log_entry>{
                {3, "Can't figure out signature digest-algorithm for unknown key type 1087"}}));
}

TEST_F(GetDigest, NoKeyHasNone) {
  EXPECT_EQ(get_digest(nullptr), nullptr);
}

// ---- gen_ss_cert ----

struct GenSsCert : scep::scep_test {
  support::name name = support::make_name({{"C", "DE"}, {"CN", "device"}});
  support::integer serial = support::make_serial(4711);

  int make(const support::key &sign_key, const support::key &pub_key, const EVP_MD *md,
           X509 **out) {
    return gen_ss_cert(sign_key.get(), pub_key.get(), name.get(), serial.get(), md, out);
  }
  support::cert make(const support::key &sign_key, const support::key &pub_key,
                     const EVP_MD *md = nullptr) {
    auto *out = untouched<X509>();
    int code = make(sign_key, pub_key, md, &out);
    EXPECT_EQ(code, PKI_OK) << log_dump();
    return support::cert(code == PKI_OK ? out : nullptr, X509_free);
  }
  void expect_refused(const support::key &sign_key, const support::key &pub_key, const EVP_MD *md,
                      int code) {
    auto *out = untouched<X509>();
    EXPECT_EQ(make(sign_key, pub_key, md, &out), code) << log_dump();
    EXPECT_EQ(out, nullptr);
  }
};

std::string time_text(const ASN1_TIME *time) {
  return std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(time)),
                     static_cast<size_t>(ASN1_STRING_length(time)));
}

TEST_F(GenSsCert, HasTheGivenParts) {
  support::cert made = make(device_key, support::public_part(ca_key));
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(X509_get_version(made.get()), 0);
  EXPECT_EQ(ASN1_INTEGER_cmp(X509_get0_serialNumber(made.get()), serial.get()), 0);
  EXPECT_EQ(X509_NAME_cmp(X509_get_issuer_name(made.get()), name.get()), 0);
  EXPECT_EQ(X509_NAME_cmp(X509_get_subject_name(made.get()), name.get()), 0);
  EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(made.get()), ca_key.get()), 1);
  EXPECT_EQ(X509_get_ext_count(made.get()), 0);
  EXPECT_EQ(X509_verify(made.get(), device_key.get()), 1);
}

TEST_F(GenSsCert, VersionIsLeftOutOfTheEncodingAsItsDefault) {
  support::cert made = make(device_key, device_key);
  std::string der = support::der(made);
  // Certificate, tbsCertificate, and then the serial number at once.
  EXPECT_EQ(der[8], '\x02') << "short certificate with two long headers";
  auto read = scep::decode<X509>(der, d2i_X509, X509_free);
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(X509_get_version(read.get()), 0);
  EXPECT_EQ(X509_verify(read.get(), device_key.get()), 1);
}

TEST_F(GenSsCert, IsValidFromNowForAnHour) {
  fake_clock::frozen clock(1700000000);  // 2023-11-14 22:13:20
  support::cert made = make(device_key, device_key);
  EXPECT_EQ(time_text(X509_get0_notBefore(made.get())), "231114221320Z");
  EXPECT_EQ(time_text(X509_get0_notAfter(made.get())), "231114231320Z");
}

TEST_F(GenSsCert, ValidityCrossesIntoTheYearOfLongTimes) {
  if (sizeof(time_t) == sizeof(int32_t))
    GTEST_SKIP() << "the clock ends in 2038 here";
  fake_clock::frozen clock(static_cast<time_t>(2524607999));  // 2049-12-31 23:59:59
  support::cert made = make(device_key, device_key);
  EXPECT_EQ(time_text(X509_get0_notBefore(made.get())), "491231235959Z");
  EXPECT_EQ(time_text(X509_get0_notAfter(made.get())), "20500101005959Z");
  EXPECT_EQ(X509_get0_notAfter(made.get())->type, V_ASN1_GENERALIZEDTIME);
}

TEST_F(GenSsCert, DigestIsTheGivenOrTheKeyTypes) {
  EXPECT_EQ(X509_get_signature_nid(make(device_key, device_key).get()), NID_md5WithRSAEncryption);
  EXPECT_EQ(X509_get_signature_nid(make(device_key, device_key, EVP_sha256()).get()),
            NID_sha256WithRSAEncryption);
  EXPECT_EQ(X509_get_signature_nid(make(dsa_key(), dsa_key()).get()), NID_dsaWithSHA1);
}

TEST_F(GenSsCert, DigestFollowsTheSigningKeyNotThePublicOne) {
  support::cert made = make(dsa_key(), device_key);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(X509_get_signature_nid(made.get()), NID_dsaWithSHA1);
  EXPECT_EQ(X509_verify(made.get(), dsa_key().get()), 1);
}

TEST_F(GenSsCert, UnknownKeyWorksWithAGivenDigest) {
  support::key ec = support::make_ec_key();
  support::cert made = make(ec, ec, EVP_sha256());
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(X509_verify(made.get(), ec.get()), 1);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(GenSsCert, UnknownKeyWithoutADigestIsRefused) {
  expect_refused(support::make_ec_key(), device_key, nullptr, PKI_UNKNOWN_KEY_TYPE);
  EXPECT_EQ(captured_log(), (std::vector<log_entry>{{3, unknown_key_line()}})) << log_dump();
}

TEST_F(GenSsCert, KeyThatCannotSignIsRefused) {
  expect_refused(support::public_part(device_key), device_key, nullptr, PKI_SIGN_FAILED);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
}

TEST_F(GenSsCert, DigestThatTheKeyCannotSignIsRefused) {
  // OpenSSL queues nothing about it, so there is nothing to log.
  expect_refused(dsa_key(), dsa_key(), EVP_md5(), PKI_SIGN_FAILED);
}

TEST_F(GenSsCert, FailedSignatureWithAnAllocationFailureIsOutOfMemory) {
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  expect_refused(support::public_part(device_key), device_key, nullptr, PKI_OUT_OF_MEMORY);
}

TEST_F(GenSsCert, PublicKeyThatCannotBeSetIsOutOfMemory) {
  support::key nothing(EVP_PKEY_new(), EVP_PKEY_free);
  expect_refused(device_key, nothing, nullptr, PKI_OUT_OF_MEMORY);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
}

TEST_F(GenSsCert, SerialNumberIsTakenAsItIs) {
  serial = support::make_serial(std::string(32, 'A'));
  support::cert made = make(device_key, device_key);
  const ASN1_INTEGER *read = X509_get0_serialNumber(made.get());
  EXPECT_EQ(scep::string_octets(read), std::string(32, 'A'));
}

TEST_F(GenSsCert, EmptyNameIsAName) {
  name = support::make_name({});
  support::cert made = make(device_key, device_key);
  EXPECT_EQ(X509_NAME_entry_count(X509_get_subject_name(made.get())), 0);
  EXPECT_NE(scep::decode<X509>(support::der(made), d2i_X509, X509_free), nullptr);
}

TEST_F(GenSsCert, NothingIsLoggedOnSuccess) {
  make(device_key, device_key);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(GenSsCert, NullArgumentsAreRefused) {
  EVP_PKEY *key = device_key.get();
  auto *out = untouched<X509>();
  EXPECT_EQ(gen_ss_cert(nullptr, key, name.get(), serial.get(), nullptr, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(out, nullptr);
  out = untouched<X509>();
  EXPECT_EQ(gen_ss_cert(key, nullptr, name.get(), serial.get(), nullptr, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(gen_ss_cert(key, key, nullptr, serial.get(), nullptr, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(gen_ss_cert(key, key, name.get(), nullptr, nullptr, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(gen_ss_cert(key, key, name.get(), serial.get(), nullptr, nullptr), PKI_INVALID_ARGS);
}

}  // namespace
