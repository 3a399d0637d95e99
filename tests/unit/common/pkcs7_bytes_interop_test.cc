// The openssl command line as the other side.
#include <gtest/gtest.h>
#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

struct VerifyBytesInterop : testing::Test {
  void SetUp() override {
    ASSERT_EQ(run("openssl version"), 0) << "the openssl command is needed";
    char path[] = "/tmp/libpki-interop-XXXXXX";
    folder = mkdtemp(path);
    write("document", document);
    write("key.pem", support::private_pem(key));
    write("cert.pem", support::pem(signer_cert("document signer", 5)));
    // Stands for what the receiver knows: the key under the empty name and serial number 1.
    write("stand-in.pem", support::pem(signer_cert("", 1)));
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override {
    if (!folder.empty())
      std::filesystem::remove_all(folder);
    support::clear_openssl_errors();
  }

  support::cert signer_cert(const std::string &name, long serial) {
    support::cert_options options;
    options.subject = name.empty() ? support::make_name({}) : support::common_name(name);
    options.serial = serial;
    options.public_key = key;
    return support::make_cert(options);
  }

  int run(const std::string &command) {
    std::string in_folder = folder.empty() ? "" : "cd " + folder + " && ";
    return system((in_folder + command + " >/dev/null 2>&1").c_str());
  }
  void write(const std::string &name, const std::string &octets) {
    std::ofstream(folder + "/" + name, std::ios::binary) << octets;
  }
  std::string read(const std::string &name) {
    std::ostringstream octets;
    octets << std::ifstream(folder + "/" + name, std::ios::binary).rdbuf();
    return octets.str();
  }

  // Signs with the command, then opens with the library; "" when refused.
  std::string open_signed_by(const std::string &command, int expected_code = PKI_OK) {
    EXPECT_EQ(run(command + " -in document -signer cert.pem -inkey key.pem -outform DER"
                            " -out message"),
              0)
        << command;
    std::string der = read("message");
    EXPECT_FALSE(der.empty());
    unsigned char *content = nullptr;
    int length = 0;
    EXPECT_EQ(verify_bytes(reinterpret_cast<const unsigned char *>(der.data()),
                           static_cast<int>(der.size()), support::public_part(key).get(), &content,
                           &length),
              expected_code)
        << command << "\n"
        << log_dump();
    std::string opened;
    if (content)
      opened.assign(reinterpret_cast<char *>(content), static_cast<size_t>(length));
    free(content);
    return opened;
  }

  const std::string document = "<QRNPkiConfig>\nthe document\n</QRNPkiConfig>\n";
  support::key key = support::test_key(0);
  std::string folder;
};

struct SignBytesInterop : VerifyBytesInterop {
  void SetUp() override {
    VerifyBytesInterop::SetUp();
    unsigned char *der = nullptr;
    int length = 0;
    ASSERT_EQ(
        sign_bytes(document.data(), static_cast<int>(document.size()), key.get(), &der, &length),
        PKI_OK);
    write("message", std::string(reinterpret_cast<char *>(der), static_cast<size_t>(length)));
    free(der);
  }
};

TEST_F(VerifyBytesInterop, OpensWhatSmimeSigned) {
  EXPECT_EQ(open_signed_by("openssl smime -sign -binary -nodetach"), document);
}

TEST_F(VerifyBytesInterop, OpensWhatCmsSigned) {
  EXPECT_EQ(open_signed_by("openssl cms -sign -binary -nodetach"), document);
}

TEST_F(VerifyBytesInterop, OpensWhatWasSignedWithoutAttributes) {
  EXPECT_EQ(open_signed_by("openssl smime -sign -binary -nodetach -noattr"), document);
  EXPECT_EQ(open_signed_by("openssl cms -sign -binary -nodetach -noattr"), document);
}

TEST_F(VerifyBytesInterop, OpensWhatWasSignedWithoutCapabilities) {
  EXPECT_EQ(open_signed_by("openssl smime -sign -binary -nodetach -nosmimecap"), document);
}

TEST_F(VerifyBytesInterop, OpensOtherDigests) {
  for (const char *digest : {"md5", "sha1", "sha384", "sha512"})
    EXPECT_EQ(open_signed_by(std::string("openssl smime -sign -binary -nodetach -md ") + digest),
              document)
        << digest;
}

TEST_F(VerifyBytesInterop, OpensAMessageOfIndefiniteLengths) {
  EXPECT_EQ(open_signed_by("openssl smime -sign -binary -nodetach -stream"), document);
  EXPECT_EQ(open_signed_by("openssl cms -sign -binary -nodetach -stream"), document);
}

TEST_F(VerifyBytesInterop, DetachedSignatureIsRefused) {
  open_signed_by("openssl smime -sign -binary", PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesInterop, SignerThatIsOnlyNamedIsRefused) {
  open_signed_by("openssl smime -sign -binary -nodetach -nocerts", PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesInterop, SignerNamedByKeyIdentifierIsNoPkcs7) {
  // Key identifiers came with CMS. The self-made certificate needs one first.
  ASSERT_EQ(run("openssl req -x509 -key key.pem -subj /CN=id -days 30 -out cert.pem"), 0);
  open_signed_by("openssl cms -sign -binary -nodetach -keyid", PKI_P7_DECODE_ERROR);
}

TEST_F(VerifyBytesInterop, AnotherSignersMessageIsRefused) {
  support::cert_options options;
  options.subject = support::common_name("stranger");
  options.public_key = support::test_key(1);
  write("key.pem", support::private_pem(support::test_key(1)));
  write("cert.pem", support::pem(support::make_cert(options)));
  open_signed_by("openssl smime -sign -binary -nodetach", PKI_SIG_VERIFY_FAILED);
}

TEST_F(SignBytesInterop, SmimeOpensIt) {
  ASSERT_EQ(run("openssl smime -verify -noverify -binary -inform DER -in message"
                " -certfile stand-in.pem -out opened"),
            0);
  EXPECT_EQ(read("opened"), document);
}

TEST_F(SignBytesInterop, CmsOpensIt) {
  ASSERT_EQ(run("openssl cms -verify -noverify -binary -inform DER -in message"
                " -certfile stand-in.pem -out opened"),
            0);
  EXPECT_EQ(read("opened"), document);
}

TEST_F(SignBytesInterop, SmimeNeedsTheStandIn) {
  EXPECT_NE(run("openssl smime -verify -noverify -binary -inform DER -in message -out opened"), 0);
}

}  // namespace
