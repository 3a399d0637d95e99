// The certificates that are compiled in.
#include "roots_support.h"
#include "verifier/trust_roots/internal.h"

using namespace roots_support;

namespace {

std::string octets_of(const pki::built_in_cert &image) {
  return {reinterpret_cast<const char *>(image.der), static_cast<size_t>(image.size)};
}

support::cert decode(const pki::built_in_cert &image) {
  return support::cert(pki::decode_built_in(image), X509_free);
}

std::vector<const pki::built_in_cert *> all_images() {
  std::vector<const pki::built_in_cert *> all;
  for (const pki::built_in_cert &image : pki::root_certs)
    all.push_back(&image);
  all.push_back(&pki::chain_cert);
  all.push_back(&pki::engineering_cert);
  return all;
}

constexpr const pki::built_in_cert *public_images[] = {&pki::root_certs[0], &pki::root_certs[1],
                                                       &pki::root_certs[2], &pki::chain_cert};

// The vendor's own, by their files.
struct vendor_image {
  const char *file;
  const pki::built_in_cert *image;
  size_t size_of_stand_in;
};
const std::string stand_ins = SOURCE_DIR "/roots/vendor/";
constexpr vendor_image vendor_images[] = {
    {"corporate_root.der", &pki::root_certs[3], 1142},
    {"emergency_root.der", &pki::root_certs[4], 2396},
    {"engineering_root.der", &pki::engineering_cert, 980},
};

class BuiltInCert : public support::store_test {};

TEST_F(BuiltInCert, ThePublicImagesHaveTheirSizes) {
  std::vector<long> sizes;
  for (const pki::built_in_cert *image : public_images)
    sizes.push_back(image->size);
  EXPECT_EQ((std::vector<long>{576, 774, 1054, 903}), sizes);
}

TEST_F(BuiltInCert, ThePublicOnesAreGenuine) {
  texts digests;
  for (const pki::built_in_cert *image : public_images)
    digests.push_back(sha256(octets_of(*image)));
  EXPECT_EQ((texts{"a4b6b3996fc2f306b3fd8681bd63413d8c5009cc4fa329c2ccf0e2fa1b140305",
                   "83ce3c1229688a593d485f81973c0f9195431eda37cc5e36430e79c7a888638b",
                   "eb04cf5eb1f39afa762f2bb120f296cba520c1b97db1589565b81cb9a17b7244",
                   "00bd2b0edd8340b1746cc395c0e355b2165853fdb93c52dadda8228b07002dce"}),
            digests);
}

TEST_F(BuiltInCert, TheLogHasLabelsForThem) {
  texts labels;
  for (const pki::built_in_cert *image : all_images())
    labels.push_back(image->label);
  EXPECT_EQ(
      (texts{"verisign root cert PCA3", "verisign root cert PCA3-G2", "verisign root cert PCA3-G3",
             "zelvo cms root", "zelvo emergency root", "verisign g2 chain cert", "zelvo eng root"}),
      labels);
}

TEST_F(BuiltInCert, EachImageIsOneWholeCertificate) {
  for (const pki::built_in_cert *image : all_images()) {
    support::cert cert = decode(*image);
    ASSERT_TRUE(cert) << image->label;
    EXPECT_EQ(octets_of(*image), support::der(cert)) << image->label;
    EXPECT_NE(nullptr, X509_get0_pubkey(cert.get())) << image->label;
  }
  EXPECT_EQ("", log_dump());
}

TEST_F(BuiltInCert, TheRootsAreSelfSigned) {
  for (const pki::built_in_cert *image : all_images()) {
    support::cert cert = decode(*image);
    bool is_root = image != &pki::chain_cert;
    EXPECT_EQ(is_root, X509_NAME_cmp(X509_get_subject_name(cert.get()),
                                     X509_get_issuer_name(cert.get())) == 0)
        << image->label;
    support::cert issuer = is_root ? cert : decode(pki::root_certs[0]);
    EXPECT_EQ(1, X509_verify(cert.get(), X509_get0_pubkey(issuer.get()))) << image->label;
  }
}

TEST_F(BuiltInCert, TheVendorsOwnAreTheFilesOfHisFolder) {
  for (const vendor_image &own : vendor_images)
    EXPECT_EQ(file_octets(vendor_file(own.file)), octets_of(*own.image)) << own.file;
}

TEST_F(BuiltInCert, TheVendorsOwnMaySignCertificates) {
  for (const vendor_image &own : vendor_images)
    EXPECT_NE(0, X509_check_ca(decode(*own.image).get())) << own.file;
}

// What stands in for a vendor's own is known by its size, whatever is built in.
TEST_F(BuiltInCert, TheStandInsHaveTheirSizes) {
  for (const vendor_image &own : vendor_images)
    EXPECT_EQ(own.size_of_stand_in, file_octets(stand_ins + own.file).size()) << own.file;
}

TEST_F(BuiltInCert, TheStandInsHaveNamesOfPrintableStringsAndSignCertificatesAndCrls) {
  for (const vendor_image &own : vendor_images) {
    support::cert cert = file_cert(stand_ins + own.file);
    ASSERT_TRUE(cert) << own.file;
    const X509_NAME *subject = X509_get_subject_name(cert.get());
    for (int i = 0; i < X509_NAME_entry_count(subject); i++)
      EXPECT_EQ(V_ASN1_PRINTABLESTRING,
                ASN1_STRING_type(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, i))))
          << own.file;
    EXPECT_EQ(1, X509_check_ca(cert.get())) << own.file;
    EXPECT_TRUE(X509_get_key_usage(cert.get()) & KU_CRL_SIGN) << own.file;
  }
}

TEST_F(BuiltInCert, AnImageThatIsNoCertificateIsLoggedByItsLabel) {
  const unsigned char octets[] = {0x30, 0x03, 0x02, 0x01, 0x00};
  EXPECT_EQ(nullptr, decode({octets, sizeof octets, "some root"}));
  EXPECT_EQ("3: failed to decode some root\n", own_log());
  EXPECT_LT(0U, openssl_lines());
  EXPECT_EQ(0UL, ERR_peek_error());
}

TEST_F(BuiltInCert, ATruncatedImageIsRefused) {
  EXPECT_EQ(nullptr, decode({pki::chain_cert.der, pki::chain_cert.size - 1, "cut"}));
  EXPECT_EQ("3: failed to decode cut\n", own_log());
}

TEST_F(BuiltInCert, OutOfMemoryGivesNoCertificateOrAWholeOne) {
  X509_free(pki::decode_built_in(pki::engineering_cert));
  X509 *made = nullptr;
  int without_key = 0;
  size_t failures = fake_allocator::sweep(
      [&] {
        clear_log();
        made = pki::decode_built_in(pki::engineering_cert);
        if (!fake_allocator::has_failed())
          X509_free(made);
      },
      [&](size_t n) {
        if (!made) {
          EXPECT_EQ("3: failed to decode zelvo eng root\n", own_log()) << n;
          return;
        }
        without_key += !X509_get0_pubkey(made);
        X509_free(made);
      });
  EXPECT_EQ(0, without_key);
  EXPECT_TRUE(failures > 20 || !fake_allocator::available());
}

}  // namespace
