// DES-CBC and the process around it: a machine without OpenSSL's legacy provider, and a host whose
// own OpenSSL context must stay as it was. Each in a process of its own.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "unit/scep_client/scep_fixture.h"

namespace {

using support::scep_ca;

// Gives OpenSSL an empty folder for its modules in the processes started meanwhile.
class no_modules {
 public:
  no_modules() {
    char path[] = "/tmp/libpki-modules-XXXXXX";
    folder_ = mkdtemp(path);
    setenv("OPENSSL_MODULES", folder_.c_str(), 1);
  }
  no_modules(const no_modules &) = delete;
  no_modules &operator=(const no_modules &) = delete;
  ~no_modules() {
    if (had_old_)
      setenv("OPENSSL_MODULES", old_.c_str(), 1);
    else
      unsetenv("OPENSSL_MODULES");
    std::filesystem::remove_all(folder_);
  }

 private:
  bool had_old_ = getenv("OPENSSL_MODULES") != nullptr;
  std::string old_ = had_old_ ? getenv("OPENSSL_MODULES") : "";
  std::string folder_;
};

class ScepProcess : public support::scep_client_test {
 protected:
  void SetUp() override {
    scep_client_test::SetUp();
    style_ = GTEST_FLAG_GET(death_test_style);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
  }
  void TearDown() override {
    GTEST_FLAG_SET(death_test_style, style_);
    scep_client_test::TearDown();
  }
  // Past the leak check: OpenSSL leaks when a provider's module is missing.
  [[noreturn]] void enroll_and_tell(const char *digest, const char *cipher) {
    scep_ca ca;
    int code = enroll(endpoint(ca, digest, cipher));
    fprintf(stderr, "code %d sent %zu explained %d given up %d issued %d\n", code,
            ca.requests().size(), logged_containing(3, "legacy provider"),
            was_logged(3, "failed to generate scep CertReq request: P7 ENCRYPT FAILED"),
            issued != nullptr);
    _exit(0);
  }
  static int fetchable(const char *cipher) {
    EVP_CIPHER *found = EVP_CIPHER_fetch(nullptr, cipher, nullptr);
    EVP_CIPHER_free(found);
    ERR_clear_error();
    return found != nullptr;
  }
  [[noreturn]] void enroll_and_tell_of_the_context() {
    scep_ca ca;
    int before = fetchable("DES-CBC") + fetchable("RC4");
    int code = enroll(endpoint(ca, nullptr, nullptr));
    fprintf(stderr, "code %d before %d des %d rc4 %d aes %d legacy %d queued %d\n", code, before,
            fetchable("DES-CBC"), fetchable("RC4"), fetchable("AES-128-CBC"),
            OSSL_PROVIDER_available(nullptr, "legacy"), ERR_peek_error() != 0);
    _exit(0);
  }

 private:
  std::string style_;
};

TEST_F(ScepProcess, DefaultsWithoutTheLegacyProviderAre21AndTheLogSaysWhy) {
  no_modules environment;
  EXPECT_EXIT(enroll_and_tell(nullptr, nullptr), testing::ExitedWithCode(0),
              "code 21 sent 0 explained 1 given up 1 issued 0");
}

TEST_F(ScepProcess, NamedDesWithoutTheLegacyProviderIs21) {
  no_modules environment;
  EXPECT_EXIT(enroll_and_tell("SHA256", "DES-CBC"), testing::ExitedWithCode(0),
              "code 21 sent 0 explained 1 given up 1 issued 0");
}

TEST_F(ScepProcess, OtherCiphersNeedNoLegacyProvider) {
  no_modules environment;
  EXPECT_EXIT(enroll_and_tell("SHA256", "AES-128-CBC"), testing::ExitedWithCode(0),
              "code 0 sent 1 explained 0 given up 0 issued 1");
}

TEST_F(ScepProcess, DefaultsWithTheLegacyProviderWork) {
  EXPECT_EXIT(enroll_and_tell(nullptr, nullptr), testing::ExitedWithCode(0),
              "code 0 sent 1 explained 0 given up 0 issued 1");
}

TEST_F(ScepProcess, HostsOwnContextStaysAsItWas) {
  EXPECT_EXIT(enroll_and_tell_of_the_context(), testing::ExitedWithCode(0),
              "code 0 before 0 des 0 rc4 0 aes 1 legacy 0 queued 0");
}

}  // namespace
