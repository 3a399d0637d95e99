// Damaged messages: cut short, and with one octet changed.
#include <gtest/gtest.h>
#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <openssl/err.h>

#include <cstdlib>
#include <map>
#include <set>
#include <string>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

struct VerifyBytesCorruption : testing::Test {
  VerifyBytesCorruption() {
    support::clear_openssl_errors();
    clear_log();
  }
  ~VerifyBytesCorruption() override { EXPECT_EQ(ERR_peek_error(), 0u); }

  const std::string document = "<QRNPkiConfig>the document</QRNPkiConfig>";
  support::key key = support::test_key(0);
  support::key public_key = support::public_part(key);

  std::string sign() {
    unsigned char *der = nullptr;
    int length = 0;
    EXPECT_EQ(
        sign_bytes(document.data(), static_cast<int>(document.size()), key.get(), &der, &length),
        PKI_OK);
    std::string octets(reinterpret_cast<char *>(der), static_cast<size_t>(length));
    free(der);
    return octets;
  }

  int open(const std::string &der, std::string *out) {
    unsigned char *content = nullptr;
    int length = 0;
    int code = verify_bytes(reinterpret_cast<const unsigned char *>(der.data()),
                            static_cast<int>(der.size()), public_key.get(), &content, &length);
    EXPECT_EQ(code == PKI_OK, content != nullptr);
    if (content)
      out->assign(reinterpret_cast<char *>(content), static_cast<size_t>(length));
    free(content);
    return code;
  }
};

bool documented(int code) {
  return code == PKI_P7_DECODE_ERROR || code == PKI_SIG_VERIFY_FAILED ||
         code == PKI_UNKNOWN_P7_CONTENT_TYPE;
}

// Values that differ from `was`: single bits, neighbours, and the extremes.
std::set<unsigned char> alterations(unsigned char was) {
  std::set<unsigned char> values = {0x00, 0x01, 0x7f, 0x80, 0xff};
  for (int bit = 0; bit < 8; bit++)
    values.insert(static_cast<unsigned char>(was ^ (1 << bit)));
  values.insert(static_cast<unsigned char>(was + 1));
  values.insert(static_cast<unsigned char>(was - 1));
  values.insert(static_cast<unsigned char>(~was));
  values.erase(was);
  return values;
}

TEST_F(VerifyBytesCorruption, EveryTruncationIsNoPkcs7) {
  std::string whole = sign();
  for (size_t length = 0; length < whole.size(); length++) {
    std::string content;
    EXPECT_EQ(open(whole.substr(0, length), &content), PKI_P7_DECODE_ERROR) << length;
  }
}

TEST_F(VerifyBytesCorruption, NoChangedOctetGivesChangedContent) {
  std::string whole = sign();
  for (size_t at = 0; at < whole.size(); at++) {
    for (unsigned char value : alterations(static_cast<unsigned char>(whole[at]))) {
      std::string changed = whole;
      changed[at] = static_cast<char>(value);
      std::string content;
      int code = open(changed, &content);
      if (code == PKI_OK) {
        EXPECT_EQ(content, document) << "octet " << at << " as " << int{value};
      } else {
        EXPECT_TRUE(documented(code)) << code << " for octet " << at << " as " << int{value};
      }
    }
    clear_log();
  }
}

TEST_F(VerifyBytesCorruption, EveryChangedOctetIsRefused) {
  std::string whole = sign();
  std::map<size_t, std::string> accepted;
  for (size_t at = 0; at < whole.size(); at++) {
    for (unsigned char value : alterations(static_cast<unsigned char>(whole[at]))) {
      std::string changed = whole;
      changed[at] = static_cast<char>(value);
      std::string content;
      if (open(changed, &content) == PKI_OK)
        accepted[at] += " " + std::to_string(value);
    }
    clear_log();
  }
  std::string report;
  for (const auto &[at, values] : accepted)
    report += "octet " + std::to_string(at) + " (was " +
              std::to_string(static_cast<unsigned char>(whole[at])) + "):" + values + "\n";
  EXPECT_EQ(report, "") << "of " << whole.size() << " octets";
}

// What a stranger may write behind or into a message without changing what it says.
TEST_F(VerifyBytesCorruption, OctetsBehindTheMessageAreTolerated) {
  std::string content;
  EXPECT_EQ(open(sign() + "\r\n\r\n", &content), PKI_OK);
  EXPECT_EQ(content, document);
}

TEST_F(VerifyBytesCorruption, SignatureAlgorithmMayNameTheDigestToo) {
  // rsaEncryption and sha256WithRSAEncryption differ in their last octet.
  const std::string rsa("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01", 9);
  std::string changed = sign();
  changed[changed.rfind(rsa) + rsa.size() - 1] = '\x0b';
  std::string content;
  EXPECT_EQ(open(changed, &content), PKI_OK);
  EXPECT_EQ(content, document);
}

TEST_F(VerifyBytesCorruption, TwoMessagesPutTogetherWrongAreRefused) {
  support::pkcs7 first = support::make_message({.content = "one", .signers = {{key, nullptr, 1}}});
  support::pkcs7 second = support::make_message({.content = "two", .signers = {{key, nullptr, 1}}});
  std::swap(first->d.sign->contents, second->d.sign->contents);
  std::string content;
  EXPECT_EQ(open(support::der(first), &content), PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesCorruption, LengthsFarBeyondTheMessageAreRefused) {
  std::string whole = sign();
  for (const char *length :
       {"\x84\x7f\xff\xff\xff", "\x84\xff\xff\xff\xff", "\x88\x7f\xff\xff\xff\xff\xff\xff\xff"}) {
    std::string content;
    EXPECT_EQ(open(whole.substr(0, 1) + length + whole.substr(4), &content), PKI_P7_DECODE_ERROR);
  }
}

TEST_F(VerifyBytesCorruption, DeeplyNestedStructuresAreRefused) {
  // Constructed OCTET STRINGs one in the other, of indefinite length.
  std::string nested = "\x30\x80\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x07\x01\xa0\x80";
  for (int i = 0; i < 100000; i++)
    nested += std::string("\x24\x80", 2);
  std::string content;
  EXPECT_EQ(open(nested, &content), PKI_P7_DECODE_ERROR);
}

}  // namespace
