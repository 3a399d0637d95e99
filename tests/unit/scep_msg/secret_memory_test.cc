// What is left of the device's secret in freed memory.
#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "fakes/allocator.h"
#include "messages.h"

#if defined(__SANITIZE_ADDRESS__)
extern "C" void __asan_describe_address(void *address);
#endif

namespace {

using namespace scep;

const size_t window = 1 << 20;
const char *const alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// All that these tests themselves know of the secret lies in pages that are not searched.
struct own_pages {
  char secret[32];
  char found[window + sizeof(secret)];
};

struct SecretMemory : scep_test {
  own_pages *own = static_cast<own_pages *>(
      mmap(nullptr, sizeof(own_pages), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  SecretMemory() {
    auto *octets = reinterpret_cast<unsigned char *>(own->secret);
    RAND_bytes(octets, sizeof own->secret - 1);
    for (size_t i = 0; i + 1 < sizeof own->secret; i++)
      own->secret[i] = alphabet[octets[i] % 64];
    own->secret[sizeof own->secret - 1] = '\0';
  }
  ~SecretMemory() override { munmap(own, sizeof(own_pages)); }

  // Copies of the secret in the process's writable memory, stacks aside.
  int copies() {
    int count = 0;
    FILE *maps = fopen("/proc/self/maps", "r");
    int memory = open("/proc/self/mem", O_RDONLY);
    char line[512];
    while (fgets(line, sizeof line, maps)) {
      unsigned long from = 0;
      unsigned long to = 0;
      char mode[5] = "";
      if (sscanf(line, "%lx-%lx %4s", &from, &to, mode) != 3 || strncmp(mode, "rw", 2) != 0 ||
          strstr(line, "[stack") || to - from > (1UL << 30))
        continue;
      count += copies_between(memory, from, to);
    }
    close(memory);
    fclose(maps);
    return count;
  }

  void SetUp() override {
    if (!fake_allocator::available())
      GTEST_SKIP() << "this build's sanitizer owns too much memory to search";
  }

  // An attribute with the secret, which leaves nothing behind when it goes.
  X509_ATTRIBUTE *secret_attribute() {
    return create_printablestring_attr(pki_nid_list[PKI_OID_SECRET], own->secret);
  }
  static void cleanse(X509_ATTRIBUTE *attribute) {
    ASN1_STRING *value = X509_ATTRIBUTE_get0_type(attribute, 0)->value.asn1_string;
    OPENSSL_cleanse(value->data, static_cast<size_t>(value->length));
    X509_ATTRIBUTE_free(attribute);
  }

 private:
  int copies_between(int memory, unsigned long from, unsigned long to) {
    const size_t length = sizeof own->secret - 1;
    const auto first = reinterpret_cast<unsigned long>(own);
    int count = 0;
    for (unsigned long at = from; at < to; at += window) {
      size_t wanted = std::min<size_t>(window + length - 1, to - at);
      ssize_t got = pread64(memory, own->found, wanted, static_cast<off64_t>(at));
      if (got <= 0)
        continue;
      const char *rest = own->found;
      const char *end = own->found + got;
      while (const void *hit = memmem(rest, static_cast<size_t>(end - rest), own->secret, length)) {
        rest = static_cast<const char *>(hit) + 1;
        unsigned long address = at + static_cast<unsigned long>(rest - 1 - own->found);
        if (address >= first && address < first + sizeof(own_pages))
          continue;
        if (rest - 1 - own->found >= static_cast<ptrdiff_t>(window))
          continue;
        count++;
        describe(address);
      }
    }
    return count;
  }
  // Who had it, for a person who looks for the reason.
  static void describe(unsigned long address) {
#if defined(__SANITIZE_ADDRESS__)
    if (getenv("DESCRIBE_COPIES"))
      __asan_describe_address(reinterpret_cast<void *>(address));
#else
    (void)address;
#endif
  }
};

TEST_F(SecretMemory, SearchFindsWhatIsThere) {
  EXPECT_EQ(copies(), 0);
  X509_ATTRIBUTE *attribute = secret_attribute();
  EXPECT_EQ(copies(), 1);
  cleanse(attribute);
  EXPECT_EQ(copies(), 0);
}

TEST_F(SecretMemory, RequestThatWasMadeLeavesNoCopy) {
  X509_ATTRIBUTE *attribute = secret_attribute();
  for (const EVP_CIPHER *cipher : {static_cast<const EVP_CIPHER *>(nullptr), EVP_aes_128_cbc()}) {
    PKCS7 *out = nullptr;
    ASSERT_EQ(gen_scep_cert_req(device_key.get(), device_key.get(), nullptr, ca.get(), &attribute,
                                1, nullptr, cipher, &out),
              PKI_OK);
    PKCS7_free(out);
    EXPECT_EQ(copies(), 1) << "besides the caller's";
  }
  cleanse(attribute);
}

TEST_F(SecretMemory, RequestWithASecondAttributeLeavesNoCopy) {
  X509_ATTRIBUTE *attributes[] = {
      create_printablestring_attr(pki_nid_list[PKI_OID_SERIAL_NUMBER], "serial"),
      secret_attribute()};
  PKCS7 *out = nullptr;
  ASSERT_EQ(gen_scep_cert_req(device_key.get(), device_key.get(), nullptr, ca.get(), attributes, 2,
                              nullptr, nullptr, &out),
            PKI_OK);
  PKCS7_free(out);
  EXPECT_EQ(copies(), 1) << "besides the caller's";
  X509_ATTRIBUTE_free(attributes[0]);
  cleanse(attributes[1]);
}

TEST_F(SecretMemory, RequestThatFailedLeavesNoCopy) {
  X509_ATTRIBUTE *attribute = secret_attribute();
  PKCS7 *out = nullptr;
  support::cert ec = certificate("ec", support::make_ec_key(), 1);
  ASSERT_EQ(gen_scep_cert_req(device_key.get(), device_key.get(), nullptr, ec.get(), &attribute, 1,
                              nullptr, nullptr, &out),
            PKI_P7_ENCRYPT_FAILED);
  EXPECT_EQ(copies(), 1) << "besides the caller's";
  ASSERT_EQ(gen_scep_cert_req(device_key.get(), device_key.get(), nullptr, ca.get(), &attribute, 1,
                              EVP_md4(), nullptr, &out),
            PKI_SIGN_FAILED);
  EXPECT_EQ(copies(), 1) << "besides the caller's";
  cleanse(attribute);
}

TEST_F(SecretMemory, RequestThatWasOpenedLeavesNoCopyOfThePlaintext) {
  X509_ATTRIBUTE *attribute = secret_attribute();
  PKCS7 *made = nullptr;
  ASSERT_EQ(gen_scep_cert_req(device_key.get(), device_key.get(), nullptr, ca.get(), &attribute, 1,
                              nullptr, nullptr, &made),
            PKI_OK);
  cleanse(attribute);
  const int before = copies();
  X509 *signer = nullptr;
  void *out = nullptr;
  // As something else, so that only the plaintext held it.
  EXPECT_EQ(parse_scep_cert_rep(made, &signer, ca_key.get(), ca.get(), &out), PKI_INVALID_DER);
  EXPECT_EQ(copies(), before);
  PKCS7_free(made);
}

}  // namespace
