#include <gtest/gtest.h>
#include <libpki/pkcs7.h>
#include <libpki/util.h>
#include <openssl/err.h>
#include <openssl/objects.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>

#include "fakes/log_capture.h"
#include "support/certs.h"

namespace {

using message = std::unique_ptr<PKCS7, decltype(&PKCS7_free)>;

const unsigned char *octets(const std::string &text) {
  return reinterpret_cast<const unsigned char *>(text.data());
}

std::string taken(unsigned char *buffer, int length) {
  std::string text(reinterpret_cast<char *>(buffer), static_cast<size_t>(length));
  free(buffer);
  return text;
}

std::string signed_by(const support::key &key, const std::string &data) {
  unsigned char *der = nullptr;
  int length = 0;
  EXPECT_EQ(sign_bytes(data.data(), static_cast<int>(data.size()), key.get(), &der, &length), 0)
      << log_dump();
  return der ? taken(der, length) : std::string();
}

struct opened {
  int code;
  std::string content;
};

// Outputs must be null after a failure, whatever was in them, and non-null after success.
opened verified_by(const support::key &key, const std::string &der) {
  unsigned char leftover = 0;
  unsigned char *content = &leftover;
  int length = 99;
  int code = verify_bytes(octets(der), static_cast<int>(der.size()), key.get(), &content, &length);
  EXPECT_NE(content, &leftover);
  EXPECT_EQ(content == nullptr, code != 0) << code;
  EXPECT_TRUE(code == 0 || length == 0) << length;
  return {code, code == 0 ? taken(content, length) : std::string()};
}

message parsed(const std::string &der) {
  const unsigned char *in = octets(der);
  return {d2i_PKCS7(nullptr, &in, static_cast<long>(der.size())), PKCS7_free};
}

std::string encoded(const message &p7) {
  unsigned char *der = nullptr;
  int length = i2d_PKCS7(p7.get(), &der);
  EXPECT_GT(length, 0);
  std::string text(reinterpret_cast<char *>(der), static_cast<size_t>(length));
  OPENSSL_free(der);
  return text;
}

class Pkcs7Documents : public testing::Test {
 protected:
  void SetUp() override {
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override { EXPECT_EQ(ERR_peek_error(), 0UL); }

  support::key key = support::test_key(0);
  support::key public_key = support::public_part(key);
};

TEST_F(Pkcs7Documents, DummyCertificateHoldsTheKeyAndSerialOneOnly) {
  X509 *cert = nullptr;
  ASSERT_EQ(create_dummy_cert(key.get(), &cert), 0);
  EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(cert), key.get()), 1);
  EXPECT_EQ(ASN1_INTEGER_get(X509_get0_serialNumber(cert)), 1);
  EXPECT_EQ(X509_NAME_entry_count(X509_get_issuer_name(cert)), 0);
  EXPECT_EQ(X509_NAME_entry_count(X509_get_subject_name(cert)), 0);
  EXPECT_EQ(X509_get_ext_count(cert), 0);
  const ASN1_BIT_STRING *signature = nullptr;
  X509_get0_signature(&signature, nullptr, cert);
  EXPECT_EQ(ASN1_STRING_length(signature), 0);
  X509_free(cert);
}

TEST_F(Pkcs7Documents, DummyCertificateTakesAPublicKey) {
  X509 *cert = nullptr;
  ASSERT_EQ(create_dummy_cert(public_key.get(), &cert), 0);
  EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(cert), key.get()), 1);
  X509_free(cert);
}

TEST_F(Pkcs7Documents, DummyCertificateOfAnEmptyKeyIsCode27AndLogged) {
  EVP_PKEY *empty = EVP_PKEY_new();
  X509 *cert = X509_new();
  X509 *const before = cert;
  EXPECT_EQ(create_dummy_cert(empty, &cert), 27);
  EXPECT_EQ(cert, nullptr);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  X509_free(before);
  EVP_PKEY_free(empty);
}

TEST_F(Pkcs7Documents, DummyCertificateRefusesNulls) {
  X509 *cert = nullptr;
  EXPECT_EQ(create_dummy_cert(nullptr, &cert), 63);
  EXPECT_EQ(cert, nullptr);
  EXPECT_EQ(create_dummy_cert(key.get(), nullptr), 63);
}

TEST_F(Pkcs7Documents, SignedOctetsComeBackUnderThePublicKey) {
  const std::string data("\0line\r\n\n\xff", 9);
  opened result = verified_by(public_key, signed_by(key, data));
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.content, data);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(Pkcs7Documents, NoOctetsComeBackAsNone) {
  opened result = verified_by(public_key, signed_by(key, ""));
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.content, "");
}

TEST_F(Pkcs7Documents, AMegabyteComesBackWhole) {
  std::string data(1 << 20, 'x');
  for (size_t i = 0; i < data.size(); i++)
    data[i] = static_cast<char>(i * 31);
  opened result = verified_by(public_key, signed_by(key, data));
  EXPECT_EQ(result.code, 0);
  EXPECT_TRUE(result.content == data);
}

TEST_F(Pkcs7Documents, AnEcKeySignsAndVerifies) {
  support::key ec = support::make_ec_key();
  std::string der = signed_by(ec, "data");
  EXPECT_EQ(verified_by(support::public_part(ec), der).content, "data");
  EXPECT_EQ(verified_by(support::public_part(support::make_ec_key()), der).code, 29);
  EXPECT_EQ(verified_by(public_key, der).code, 29);
}

TEST_F(Pkcs7Documents, SignedFormHasNoCertificateAndANamelessSigner) {
  message p7 = parsed(signed_by(key, "data"));
  ASSERT_TRUE(p7 && PKCS7_type_is_signed(p7.get()));
  EXPECT_LE(sk_X509_num(p7->d.sign->cert), 0);
  ASSERT_EQ(sk_PKCS7_SIGNER_INFO_num(p7->d.sign->signer_info), 1);
  PKCS7_SIGNER_INFO *signer = sk_PKCS7_SIGNER_INFO_value(p7->d.sign->signer_info, 0);
  EXPECT_EQ(X509_NAME_entry_count(signer->issuer_and_serial->issuer), 0);
  EXPECT_EQ(ASN1_INTEGER_get(signer->issuer_and_serial->serial), 1);
  EXPECT_NE(PKCS7_get_signed_attribute(signer, NID_pkcs9_contentType), nullptr);
  EXPECT_NE(PKCS7_get_signed_attribute(signer, NID_pkcs9_messageDigest), nullptr);
  EXPECT_EQ(PKCS7_get_signed_attribute(signer, NID_SMIMECapabilities), nullptr);
  EXPECT_TRUE(PKCS7_type_is_data(p7->d.sign->contents));
}

TEST_F(Pkcs7Documents, AnotherKeyIsCode29AndLogged) {
  std::string der = signed_by(key, "data");
  EXPECT_EQ(verified_by(support::public_part(support::test_key(1)), der).code, 29);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
}

TEST_F(Pkcs7Documents, EveryTruncationIsRefused) {
  std::string der = signed_by(key, "some data");
  std::map<int, size_t> codes;
  for (size_t length = 0; length < der.size(); length++)
    codes[verified_by(public_key, der.substr(0, length)).code]++;
  EXPECT_EQ(codes[0], 0U);
  EXPECT_EQ(codes[20], der.size());
}

TEST_F(Pkcs7Documents, OctetsBehindTheMessageAreTolerated) {
  opened result = verified_by(public_key, signed_by(key, "data") + "\r\n\r\n");
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.content, "data");
}

TEST_F(Pkcs7Documents, NotPkcs7IsCode20) {
  EXPECT_EQ(verified_by(public_key, "").code, 20);
  EXPECT_EQ(verified_by(public_key, "<ca-info/>").code, 20);
  EXPECT_EQ(verified_by(public_key, support::der(support::make_cert())).code, 20);
}

TEST_F(Pkcs7Documents, AMessageThatIsNotSignedDataIsCode29) {
  message data(PKCS7_new(), PKCS7_free);
  PKCS7_set_type(data.get(), NID_pkcs7_data);
  ASN1_OCTET_STRING_set(data->d.data, octets("data"), 4);
  EXPECT_EQ(verified_by(public_key, encoded(data)).code, 29);

  PKCS7 *made = nullptr;
  ASSERT_EQ(pkcs7_encrypt(support::make_cert().get(), "data", 4, EVP_aes_128_cbc(), &made), 0);
  message enveloped(made, PKCS7_free);
  EXPECT_EQ(verified_by(public_key, encoded(enveloped)).code, 29);
}

TEST_F(Pkcs7Documents, AMessageWithoutContentIsCode29) {
  // ContentInfo of nothing but the OID of signedData.
  const std::string hollow("\x30\x0b\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x07\x02", 13);
  ASSERT_TRUE(parsed(hollow));
  EXPECT_EQ(verified_by(public_key, hollow).code, 29);
}

TEST_F(Pkcs7Documents, InnerContentOtherThanDataIsCode73) {
  message p7 = parsed(signed_by(key, "data"));
  message inner = parsed(signed_by(key, "inner"));
  ASSERT_EQ(PKCS7_set_content(p7.get(), inner.release()), 1);
  EXPECT_EQ(verified_by(public_key, encoded(p7)).code, 73);
}

TEST_F(Pkcs7Documents, DetachedContentIsCode29) {
  message p7 = parsed(signed_by(key, "data"));
  ASSERT_EQ(PKCS7_set_detached(p7.get(), 1), 1);
  EXPECT_EQ(verified_by(public_key, encoded(p7)).code, 29);
}

TEST_F(Pkcs7Documents, NoSignersIsCode29) {
  message p7 = parsed(signed_by(key, "data"));
  PKCS7_SIGNER_INFO_free(sk_PKCS7_SIGNER_INFO_pop(p7->d.sign->signer_info));
  EXPECT_EQ(verified_by(public_key, encoded(p7)).code, 29);
}

TEST_F(Pkcs7Documents, ChangedContentIsCode29) {
  message p7 = parsed(signed_by(key, "data"));
  ASN1_OCTET_STRING_set(p7->d.sign->contents->d.data, octets("Data"), 4);
  EXPECT_EQ(verified_by(public_key, encoded(p7)).code, 29);
}

TEST_F(Pkcs7Documents, SigningRefusesNullsAndNegativeLengths) {
  unsigned char leftover = 0;
  unsigned char *der = &leftover;
  int length = 9;
  EXPECT_EQ(sign_bytes("x", -1, key.get(), &der, &length), 63);
  EXPECT_EQ(der, nullptr);
  EXPECT_EQ(length, 0);
  der = &leftover;
  EXPECT_EQ(sign_bytes(nullptr, 1, key.get(), &der, &length), 63);
  EXPECT_EQ(der, nullptr);
  EXPECT_EQ(sign_bytes("x", 1, nullptr, &der, &length), 63);
  EXPECT_EQ(sign_bytes("x", 1, key.get(), nullptr, &length), 63);
  EXPECT_EQ(sign_bytes("x", 1, key.get(), &der, nullptr), 63);
}

TEST_F(Pkcs7Documents, SigningWithAPublicKeyIsCode25) {
  unsigned char leftover = 0;
  unsigned char *der = &leftover;
  int length = 9;
  EXPECT_EQ(sign_bytes("x", 1, public_key.get(), &der, &length), 25);
  EXPECT_EQ(der, nullptr);
  EXPECT_EQ(length, 0);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
}

TEST_F(Pkcs7Documents, VerifyingRefusesNullsAndNegativeLengths) {
  std::string der = signed_by(key, "data");
  int size = static_cast<int>(der.size());
  unsigned char leftover = 0;
  unsigned char *content = &leftover;
  int length = 9;
  EXPECT_EQ(verify_bytes(octets(der), -1, public_key.get(), &content, &length), 63);
  EXPECT_EQ(content, nullptr);
  EXPECT_EQ(length, 0);
  content = &leftover;
  EXPECT_EQ(verify_bytes(nullptr, size, public_key.get(), &content, &length), 63);
  EXPECT_EQ(content, nullptr);
  EXPECT_EQ(verify_bytes(octets(der), size, nullptr, &content, &length), 63);
  EXPECT_EQ(verify_bytes(octets(der), size, public_key.get(), nullptr, &length), 63);
  EXPECT_EQ(verify_bytes(octets(der), size, public_key.get(), &content, nullptr), 63);
}

// What the openssl command writes and reads.
class Pkcs7DocumentsAndOpenssl : public Pkcs7Documents {
 protected:
  void SetUp() override {
    Pkcs7Documents::SetUp();
    if (system("openssl version >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "no openssl command";
    std::string pattern = testing::TempDir() + "/pkcs7-XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder = pattern;
    write("key.pem", support::private_pem(key));
    write("data", "document\r\n");
  }
  void TearDown() override {
    if (!folder.empty())
      std::filesystem::remove_all(folder);
    Pkcs7Documents::TearDown();
  }
  void write(const std::string &file, const std::string &text) {
    std::ofstream(folder + "/" + file, std::ios::binary) << text;
  }
  std::string read(const std::string &file) {
    std::ifstream in(folder + "/" + file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  int run(const std::string &arguments) {
    return system(("cd '" + folder + "' && openssl " + arguments + " 2>error").c_str());
  }
  // Signs "data" with the document key and a certificate of the key `in_cert`.
  std::string command_signed(const std::string &command, const support::key &in_cert) {
    support::cert_options options;
    options.public_key = in_cert;
    write("cert.pem", support::pem(support::make_cert(options)));
    EXPECT_EQ(run(command + " -sign -binary -nodetach -outform DER -signer cert.pem"
                            " -inkey key.pem -in data -out signed"),
              0)
        << read("error");
    return read("signed");
  }

  std::string folder;
};

TEST_F(Pkcs7DocumentsAndOpenssl, WhatTheCommandSignsWithTheKeyIsAccepted) {
  for (const char *command : {"smime", "smime -stream", "smime -noattr", "smime -nosmimecap",
                              "smime -nocerts -md sha512", "cms", "cms -stream", "cms -noattr"}) {
    SCOPED_TRACE(command);
    bool has_certs = std::string(command).find("nocerts") == std::string::npos;
    opened result = verified_by(public_key, command_signed(command, key));
    EXPECT_EQ(result.code, has_certs ? 0 : 29) << log_dump();
    EXPECT_EQ(result.content, has_certs ? "document\r\n" : "");
  }
}

TEST_F(Pkcs7DocumentsAndOpenssl, WhatTheCommandSignsWithAnotherKeyIsCode29) {
  write("key.pem", support::private_pem(support::test_key(1)));
  EXPECT_EQ(verified_by(public_key, command_signed("smime", support::test_key(1))).code, 29);
}

TEST_F(Pkcs7DocumentsAndOpenssl, TheCommandPrintsWhatIsSigned) {
  write("signed", signed_by(key, "document\r\n"));
  ASSERT_EQ(run("pkcs7 -inform DER -in signed -print -noout >printed"), 0) << read("error");
  std::string printed = read("printed");
  EXPECT_NE(printed.find("pkcs7-signedData"), std::string::npos) << printed;
  EXPECT_NE(printed.find("sha256"), std::string::npos);
  size_t certs = printed.find("cert:");
  EXPECT_EQ(printed.find("<ABSENT>", certs), printed.find("<", certs)) << printed;
  EXPECT_NE(printed.find("serial: 1"), std::string::npos);
}

TEST_F(Pkcs7DocumentsAndOpenssl, TheCommandVerifiesItWithANamelessCertificate) {
  support::cert_options options;
  options.subject = support::make_name({});
  write("nameless.pem", support::pem(support::make_cert(options)));
  write("signed", signed_by(key, "document\r\n"));
  EXPECT_EQ(run("smime -verify -noverify -binary -inform DER -in signed -certfile nameless.pem"
                " -out content"),
            0)
      << read("error");
  EXPECT_EQ(read("content"), "document\r\n");
}

}  // namespace
