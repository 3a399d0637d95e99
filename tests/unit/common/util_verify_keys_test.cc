#include <dlfcn.h>
#include <gtest/gtest.h>
#include <libpki/util.h>
#include <openssl/err.h>

#include <map>
#include <string>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/certs.h"

namespace {

// What was signed, and what a signature was checked against.
struct signature_use {
  std::string digest, octets;
  bool operator==(const signature_use &) const = default;
};

struct {
  bool on = false;
  std::map<const EVP_MD_CTX *, std::string> digested;
  std::vector<signature_use> made, checked;
} watch;

template <class Function>
Function *real_call(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

// What went into the context since its start.
signature_use use_of(const EVP_MD_CTX *context) {
  std::string octets = watch.digested[context];
  watch.digested.erase(context);
  return {EVP_MD_get0_name(EVP_MD_CTX_get0_md(context)), octets};
}

}  // namespace

extern "C" {

int EVP_DigestUpdate(EVP_MD_CTX *context, const void *data, size_t length) {
  if (watch.on)
    watch.digested[context].append(static_cast<const char *>(data), length);
  static auto *const real = real_call<decltype(EVP_DigestUpdate)>("EVP_DigestUpdate");
  return real(context, data, length);
}

int EVP_SignFinal(EVP_MD_CTX *context, unsigned char *signature, unsigned int *length,
                  EVP_PKEY *key) {
  if (watch.on)
    watch.made.push_back(use_of(context));
  static auto *const real = real_call<decltype(EVP_SignFinal)>("EVP_SignFinal");
  return real(context, signature, length, key);
}

int EVP_VerifyFinal(EVP_MD_CTX *context, const unsigned char *signature, unsigned int length,
                    EVP_PKEY *key) {
  if (watch.on)
    watch.checked.push_back(use_of(context));
  static auto *const real = real_call<decltype(EVP_VerifyFinal)>("EVP_VerifyFinal");
  return real(context, signature, length, key);
}
}

namespace {

class UtilVerifyKeys : public testing::Test {
 protected:
  void SetUp() override {
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override { support::clear_openssl_errors(); }

  support::key pair = support::test_key(0);
  support::key other = support::test_key(1);
};

TEST_F(UtilVerifyKeys, APairIsZero) {
  EXPECT_EQ(verify_keys(pair.get(), support::public_part(pair).get()), 0);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(UtilVerifyKeys, OneSha1SignatureOver51OctetsIsMadeAndChecked) {
  watch.on = true;
  int code = verify_keys(pair.get(), support::public_part(pair).get());
  watch.on = false;
  EXPECT_EQ(code, 0);
  ASSERT_EQ(watch.made.size(), 1u);
  EXPECT_EQ(watch.made[0].digest, "SHA1");
  EXPECT_EQ(watch.made[0].octets.size(), 51u);
  EXPECT_EQ(watch.checked, watch.made);
}

TEST_F(UtilVerifyKeys, TheSameObjectIsAPair) {
  EXPECT_EQ(verify_keys(pair.get(), pair.get()), 0);
}

TEST_F(UtilVerifyKeys, AnEllipticCurvePairIsZero) {
  support::key curve = support::make_ec_key();
  EXPECT_EQ(verify_keys(curve.get(), support::public_part(curve).get()), 0);
}

TEST_F(UtilVerifyKeys, AnotherPairsPublicKeyIs65) {
  EXPECT_EQ(verify_keys(pair.get(), support::public_part(other).get()), 65);
}

TEST_F(UtilVerifyKeys, AnotherKindOfPublicKeyIs65) {
  support::key curve = support::make_ec_key();
  EXPECT_EQ(verify_keys(pair.get(), support::public_part(curve).get()), 65);
  EXPECT_EQ(verify_keys(curve.get(), support::public_part(pair).get()), 65);
}

TEST_F(UtilVerifyKeys, AKeyThatCannotSignIs25) {
  support::key half = support::public_part(pair);
  EXPECT_EQ(verify_keys(half.get(), half.get()), 25);
  EXPECT_FALSE(captured_log().empty());
}

TEST_F(UtilVerifyKeys, FailureMovesOpensslsErrorsIntoTheLog) {
  support::raise_openssl_error(101);
  EXPECT_EQ(verify_keys(pair.get(), other.get()), 65);
  EXPECT_EQ(ERR_peek_error(), 0ul);
  EXPECT_FALSE(captured_log().empty());
  for (const log_entry &entry : captured_log()) {
    EXPECT_EQ(entry.level, 3);
    EXPECT_EQ(entry.text.rfind("OpenSSL error: error:", 0), 0u) << entry.text;
  }
}

TEST_F(UtilVerifyKeys, AnAllocationFailureInTheQueueMakesAMismatchOutOfMemory) {
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(verify_keys(pair.get(), other.get()), 2);
  EXPECT_EQ(ERR_peek_error(), 0ul);
}

TEST_F(UtilVerifyKeys, AnAllocationFailureInTheQueueIsNoMatterForAPair) {
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(verify_keys(pair.get(), pair.get()), 0);
}

TEST_F(UtilVerifyKeys, NullKeysAreRefused) {
  EXPECT_EQ(verify_keys(nullptr, pair.get()), 63);
  EXPECT_EQ(verify_keys(pair.get(), nullptr), 63);
}

TEST_F(UtilVerifyKeys, NoMemoryForTheSignatureIsOutOfMemory) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  EXPECT_EQ(verify_keys(pair.get(), pair.get()), 0);
  fake_allocator::fail_at(1);
  int code = verify_keys(pair.get(), pair.get());
  fake_allocator::stop_failing();
  EXPECT_EQ(code, 2);
}

// A key of its own: OpenSSL spoils a key's blinding values when it runs out of memory while it
// refreshes them, and up to 32 later signatures with them.
support::key copy_of(const support::key &key) {
  unsigned char *der = nullptr;
  int length = i2d_PrivateKey(key.get(), &der);
  const unsigned char *in = der;
  support::key copy(d2i_AutoPrivateKey(nullptr, &in, length), EVP_PKEY_free);
  OPENSSL_free(der);
  return copy;
}

// Some failed allocations OpenSSL survives, and not all others it queues as such. The code must
// tell what the queue said; without OpenSSL's word it is the library's own allocation.
TEST_F(UtilVerifyKeys, CodeOfAFailedAllocationIsWhatOpensslSaysOfIt) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  EXPECT_EQ(verify_keys(pair.get(), pair.get()), 0);
  for (bool stay_failed : {false, true}) {
    int code = -1;
    size_t out_of_memory = 0;
    support::key fresh = copy_of(pair);
    fake_allocator::sweep(
        [&] { code = verify_keys(fresh.get(), fresh.get()); },
        [&](size_t n) {
          bool told = logged_containing(3, "malloc failure");
          if (told || captured_log().empty()) {
            EXPECT_TRUE(code == 2 || (code == 0 && !told)) << n << ": " << code << log_dump();
          } else {
            EXPECT_TRUE(code == 25 || code == 65) << n << ": " << code << log_dump();
          }
          EXPECT_EQ(ERR_peek_error(), 0ul) << n;
          out_of_memory += code == 2;
          clear_log();
          fresh = copy_of(pair);
        },
        stay_failed);
    EXPECT_GT(out_of_memory, 2u);
  }
}

}  // namespace
