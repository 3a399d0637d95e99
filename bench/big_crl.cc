#include "big_crl.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdint>
#include <ctime>

namespace bench {

namespace {

constexpr char sequence = 0x30;
constexpr char utc_time = 0x17;
constexpr char bit_string = 0x03;

std::string element(char tag, const std::string &content) {
  std::string head(1, tag);
  size_t size = content.size();
  if (size < 0x80) {
    head += static_cast<char>(size);
  } else {
    std::string length;
    for (; size > 0; size >>= 8)
      length.insert(length.begin(), static_cast<char>(size & 0xff));
    head += static_cast<char>(0x80 | length.size());
    head += length;
  }
  return head + content;
}

// sha256WithRSAEncryption, NULL.
const std::string algorithm("\x30\x0d\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0b\x05\x00", 15);
// A reasonCode of keyCompromise.
const std::string reason("\x30\x0c\x30\x0a\x06\x03\x55\x1d\x15\x04\x03\x0a\x01\x01", 14);

std::string time_element(time_t when) {
  tm parts;
  gmtime_r(&when, &parts);
  char text[32];
  strftime(text, sizeof text, "%Y%m%d%H%M%SZ", &parts);
  // A UTCTime until 2049.
  return element(utc_time, text + 2);
}

// Different numbers in no order, always the same: CAs choose serial numbers at random.
uint64_t scattered(uint64_t number) {
  number *= 0x9e3779b97f4a7c15u;
  return number ^ (number >> 32);
}

std::string entries_of(const big_crl_options &options, const std::string &date) {
  std::string serial(20, '\x11');
  std::string all;
  std::string end = date + (options.reason_in_each ? reason : "");
  all.reserve(static_cast<size_t>(options.entries) * (24 + end.size()));
  for (long i = 0; i < options.entries; i++) {
    uint64_t number = scattered(static_cast<uint64_t>(i));
    for (int octet = 0; octet < 8; octet++)
      serial[static_cast<size_t>(4 + octet)] = static_cast<char>(number >> (8 * (7 - octet)));
    all += sequence;
    all += static_cast<char>(2 + serial.size() + end.size());
    all += '\x02';
    all += static_cast<char>(serial.size());
    all += serial;
    all += end;
  }
  return all;
}

std::string sign(const std::string &tbs, EVP_PKEY *key) {
  EVP_MD_CTX *ctx = EVP_MD_CTX_new();
  std::string signature(static_cast<size_t>(EVP_PKEY_size(key)), '\0');
  size_t size = signature.size();
  EVP_DigestSignInit(ctx, nullptr, EVP_sha256(), nullptr, key);
  EVP_DigestSign(ctx, reinterpret_cast<unsigned char *>(signature.data()), &size,
                 reinterpret_cast<const unsigned char *>(tbs.data()), tbs.size());
  EVP_MD_CTX_free(ctx);
  return signature;
}

}  // namespace

std::string make_big_crl(const std::string &issuer, const support::key &signing_key,
                         const big_crl_options &options) {
  support::name name = support::common_name(issuer);
  unsigned char *der = nullptr;
  int size = i2d_X509_NAME(name.get(), &der);
  std::string issuer_der(reinterpret_cast<char *>(der), static_cast<size_t>(size));
  OPENSSL_free(der);
  time_t now = time(nullptr);
  std::string tbs = std::string("\x02\x01\x01", 3) + algorithm + issuer_der +
                    time_element(now - 3600) + time_element(now + 86400);
  tbs += element(sequence, entries_of(options, time_element(now - 86400)));
  tbs = element(sequence, tbs);
  std::string signature = sign(tbs, signing_key.get());
  return element(sequence, tbs + algorithm + element(bit_string, std::string(1, '\0') + signature));
}

}  // namespace bench
