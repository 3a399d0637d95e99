#include "tools/pkilab/ca.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "device.h"
#include "lab_fixture.h"
#include "tools/common/ca_info_reader.h"
#include "tools/common/cert_text.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"
#include "tools/pkilab/ca_info.h"

namespace {

using tool_test::mode_of;

constexpr int fast_bits = 1024;

std::string failure_of(const std::string &folder) {
  try {
    pkilab::ca keys(folder, fast_bits);
  } catch (const tools::failure &error) {
    return error.what();
  }
  return "";
}

TEST(LabCa, PrivateKeysAreForTheOwnerOnly) {
  tool_test::folder home;
  pkilab::ca keys(home / "lab", fast_bits);
  EXPECT_EQ(mode_of(home / "lab"), 0700u);
  for (const char *file : {"doc-key.pem", "root-key.pem", "issuing-key.pem", "additional-key.pem"})
    EXPECT_EQ(mode_of(home / (std::string("lab/") + file)), 0600u) << file;
  EXPECT_EQ(mode_of(home / "lab/doc-key.pub.pem"), 0644u);
}

TEST(LabCa, SecondStartUsesTheSameKeysAndCertificates) {
  tool_test::folder home;
  pkilab::ca first(home / "lab", fast_bits);
  pkilab::ca second(home / "lab", fast_bits);
  EXPECT_EQ(EVP_PKEY_eq(first.document_key(), second.document_key()), 1);
  EXPECT_EQ(X509_cmp(first.root().cert.get(), second.root().cert.get()), 0);
  EXPECT_EQ(X509_cmp(first.issuing().cert.get(), second.issuing().cert.get()), 0);
  EXPECT_EQ(X509_cmp(first.additional().cert.get(), second.additional().cert.get()), 0);
}

TEST(LabCa, InterruptedFirstStartIsCompleted) {
  tool_test::folder home;
  std::string key = tools::private_pem(pkilab::ca(home / "lab", fast_bits).root().key.get());
  unlink((home / "lab/root-cert.pem").c_str());
  unlink((home / "lab/issuing-key.pem").c_str());
  unlink((home / "lab/issuing-cert.pem").c_str());
  pkilab::ca again(home / "lab", fast_bits);
  EXPECT_EQ(tools::private_pem(again.root().key.get()), key);
  EXPECT_TRUE(again.root().cert && again.issuing().cert);
}

TEST(LabCa, CertificateOfAnotherKeyIsRefused) {
  tool_test::folder home;
  { pkilab::ca keys(home / "lab", fast_bits); }
  unlink((home / "lab/root-key.pem").c_str());
  EXPECT_EQ(failure_of(home / "lab"), (home / "lab/root-cert.pem") + " does not belong to " +
                                          (home / "lab/root-key.pem") +
                                          "; remove it, and it is made anew");
}

TEST(LabCa, UnreadableKeyIsRefusedAndKept) {
  tool_test::folder home;
  { pkilab::ca keys(home / "lab", fast_bits); }
  home.write("lab/doc-key.pem", "garbage");
  EXPECT_EQ(failure_of(home / "lab"),
            (home / "lab/doc-key.pem") + " holds no private key (PEM or DER)");
  EXPECT_EQ(tool_test::read_file(home / "lab/doc-key.pem"), "garbage");
}

TEST(LabCa, FolderThatCannotBeMadeIsRefused) {
  tool_test::folder home;
  home.write("file", "");
  EXPECT_EQ(failure_of(home / "file/lab"),
            "cannot make the folder " + (home / "file/lab") + ": Not a directory");
}

TEST(LabCa, FoldersAboveAreMade) {
  tool_test::folder home;
  EXPECT_EQ(failure_of(home / "new/lab"), "");
  EXPECT_TRUE(tools::file_exists(home / "new/lab/root-cert.pem"));
}

TEST(LabCa, IssuingCertificateIsSelfSigned) {
  X509 *cert = tool_test::the_lab().lab.keys().issuing().cert.get();
  EXPECT_EQ(X509_NAME_cmp(X509_get_subject_name(cert), X509_get_issuer_name(cert)), 0);
  EXPECT_EQ(X509_verify(cert, X509_get0_pubkey(cert)), 1);
  EXPECT_EQ(tools::name_text(X509_get_subject_name(cert)), "CN=pkilab issuing CA, O=pkilab");
}

TEST(LabCa, AdditionalCertificateIsTheRoots) {
  const pkilab::ca &keys = tool_test::the_lab().lab.keys();
  EXPECT_EQ(X509_check_issued(keys.root().cert.get(), keys.additional().cert.get()), X509_V_OK);
  EXPECT_EQ(X509_verify(keys.additional().cert.get(), keys.root().key.get()), 1);
}

TEST(LabCa, StrangerIsNobodyOfTheLab) {
  const pkilab::ca &keys = tool_test::the_lab().lab.keys();
  EXPECT_EQ(keys.stranger_key(), keys.stranger_key());
  EXPECT_NE(EVP_PKEY_eq(keys.stranger_key(), keys.document_key()), 1);
}

TEST(LabCaInfo, DocumentNamesTheAddressThatItIsServedFrom) {
  std::string xml = pkilab::ca_info_xml(tool_test::the_lab().lab.keys(), "[::1]:8080");
  tools::read_ca_info read = tools::read_document(xml);
  ASSERT_EQ(read.code, 0);
  const auto *method =
      static_cast<cert_req_info *>(OPENSSL_sk_value(read.info->cert_req_methods, 0));
  EXPECT_STREQ(static_cast<scep_req_info *>(method->data)->url, "http://[::1]:8080/scep");
}

}  // namespace
