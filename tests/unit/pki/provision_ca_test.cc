// Provisioning a CA over a real loopback socket.
#include <dirent.h>
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <map>
#include <string>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "support/test_server.h"

namespace {

using support::ca_info_doc;
using support::cert_element;
using support::der;
using support::ders;
using support::element;
using support::sample;
using support::sign_document;
using support::simple_cert;
using support::test_key;
using support::test_server;
using strings = std::vector<std::string>;

size_t open_descriptors() {
  size_t count = 0;
  DIR *folder = opendir("/proc/self/fd");
  while (readdir(folder))
    count++;
  closedir(folder);
  return count;
}

support::answer signed_answer(const std::string &document, int which_key = 0) {
  return support::ok(sign_document(document, test_key(which_key)), "application/octet-stream");
}

class ProvisionCa : public support::store_test {
 protected:
  static int add(const std::string &url, const char *label = "lab") {
    return pki_add_ca(label, url.c_str(), test_key(0).get());
  }
  // Provisions from a server that answers so, and keeps its URL in `url`.
  int add_from(const support::answer &answer, const char *label = "lab") {
    test_server server({answer});
    url = server.url("/ca");
    return add(url, label);
  }
  static int cas() { return OPENSSL_sk_num(pki_store->ca_infos); }
  static ca_info *ca(int index = 0) { return support::at<ca_info>(pki_store->ca_infos, index); }
  static strings provisioned() { return ders(pki_store->provisioned_certs); }
  static void expect_store_empty() {
    EXPECT_EQ(cas(), 0);
    EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 0);
    EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0);
    EXPECT_EQ(OPENSSL_sk_num(pki_store->key_store), 0);
    EXPECT_EQ(OPENSSL_sk_num(pki_store->global_status_rules), 0);
  }
  static bool logged(int level, const std::string &text) { return was_logged(level, text); }

  std::string url;
};

// ---- success ----

TEST_F(ProvisionCa, DocumentOfTheServerEntersTheStore) {
  ASSERT_EQ(add_from(signed_answer(sample().document)), 0) << log_dump();
  ASSERT_EQ(cas(), 1);
  EXPECT_EQ(support::sample_difference(ca()), "");
  EXPECT_STREQ(ca()->label, "lab");
  EXPECT_EQ(ca()->ca_pointer_url, url);
  EXPECT_EQ(ca()->ref_count, 1);
  EXPECT_EQ(provisioned(), strings{der(sample().additional)});
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(ProvisionCa, RequestCarriesTheSerialNumber) {
  test_server server({signed_answer(sample().document)});
  ASSERT_EQ(add(server.url("/a/b")), 0);
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests()[0].substr(0, server.requests()[0].find("\r\n")),
            "GET /a/b?serial=SN-0001 HTTP/1.0");
}

TEST_F(ProvisionCa, CaKeepsAReferenceOnTheKeyOfItsOwn) {
  support::key key = support::make_key();
  test_server server({support::ok(sign_document(ca_info_doc(""), key))});
  EVP_PKEY *plain = key.get();
  ASSERT_EQ(pki_add_ca("lab", server.url().c_str(), plain), 0);
  EXPECT_EQ(ca()->doc_key, plain);
  key.reset();
  EXPECT_EQ(EVP_PKEY_get_bits(ca()->doc_key), 1024);
}

TEST_F(ProvisionCa, PublicKeyIsEnough) {
  test_server server({signed_answer(sample().document)});
  support::key key = support::public_part(test_key(0));
  EXPECT_EQ(pki_add_ca("lab", server.url().c_str(), key.get()), 0);
}

TEST_F(ProvisionCa, SchemeMayHaveAnyLetterCase) {
  test_server server({signed_answer(sample().document)});
  EXPECT_EQ(add("HTTP" + server.url().substr(4)), 0);
  EXPECT_EQ(cas(), 1);
}

TEST_F(ProvisionCa, SameLabelTwiceKeepsBothAndFindsTheFirst) {
  ASSERT_EQ(add_from(signed_answer(ca_info_doc(element("IssuerName", "CN=first")))), 0);
  ASSERT_EQ(add_from(signed_answer(ca_info_doc(element("IssuerName", "CN=second")))), 0);
  ASSERT_EQ(cas(), 2);
  ca_info *found = pki_find_ca_info_by_label("lab");
  EXPECT_EQ(found, ca(0));
  EXPECT_EQ(support::oneline(found->issuer_name), "/CN=first");
  free_ca_info(found);
}

// ---- duplicates ----

TEST_F(ProvisionCa, DuplicateRootsAreRemovedAndTheFirstKept) {
  auto one = simple_cert("i", "one", 1);
  auto two = simple_cert("i", "two", 2);
  auto one_again = simple_cert("i", "other subject", 1);
  auto other_issuer = simple_cert("j", "one", 1);
  ASSERT_EQ(add_from(signed_answer(ca_info_doc(
                element("TrustedRoots", cert_element(one) + cert_element(one_again) +
                                            cert_element(two) + cert_element(other_issuer) +
                                            cert_element(one) + cert_element(two))))),
            0);
  EXPECT_EQ(ders(ca()->trusted_roots), (strings{der(one), der(two), der(other_issuer)}));
}

TEST_F(ProvisionCa, DuplicateAdditionalCertificatesAreRemovedAndTheFirstKept) {
  auto one = simple_cert("i", "one", 1);
  auto two = simple_cert("i", "two", 2);
  auto three = simple_cert("i", "three", 3);
  auto one_again = simple_cert("i", "other subject", 1);
  ASSERT_EQ(pki_add_untrusted_cert(one.get(), 1), 0);
  std::string document =
      ca_info_doc(element("AdditionalCerts", cert_element(one_again) + cert_element(two) +
                                                 cert_element(two) + cert_element(three)));
  ASSERT_EQ(add_from(signed_answer(document)), 0);
  EXPECT_EQ(provisioned(), (strings{der(one), der(two), der(three)}));
  ASSERT_EQ(add_from(signed_answer(document), "again"), 0);
  EXPECT_EQ(provisioned(), (strings{der(one), der(two), der(three)}));
}

// ---- refused before the download ----

TEST_F(ProvisionCa, MissingArgumentsGive63) {
  EXPECT_EQ(pki_add_ca(nullptr, "http://a/", test_key(0).get()), 63);
  EXPECT_EQ(pki_add_ca("lab", nullptr, test_key(0).get()), 63);
  EXPECT_EQ(pki_add_ca("lab", "http://a/", nullptr), 63);
  expect_store_empty();
}

TEST_F(ProvisionCa, OtherSchemeGives45WithItsLine) {
  test_server server({signed_answer(sample().document)});
  std::string https = "https://" + server.host() + "/ca";
  EXPECT_EQ(add(https), 45);
  EXPECT_EQ(captured_log(),
            (std::vector<log_entry>{{3, "ca-pointer url is not an http url: " + https}}))
      << log_dump();
  EXPECT_TRUE(server.requests().empty());
  expect_store_empty();
}

TEST_F(ProvisionCa, TextThatIsNoUrlGives45WithItsLine) {
  EXPECT_EQ(add("no url"), 45);
  EXPECT_TRUE(logged(3, "invalid ca-pointer url: no url")) << log_dump();
  expect_store_empty();
}

TEST_F(ProvisionCa, KeyWithoutAReferenceToGiveGives49) {
  test_server server({signed_answer(sample().document)});
  fake_failures::fail_evp_pkey_up_ref();
  EXPECT_EQ(add(server.url()), 49);
  EXPECT_TRUE(server.requests().empty());
  expect_store_empty();
}

TEST_F(ProvisionCa, BoardWithoutSerialNumberGives78WithItsLine) {
  test_server server({signed_answer(sample().document)});
  fake_failures::fail_serialnumber(5);
  EXPECT_EQ(add(server.url()), 78);
  EXPECT_EQ(captured_log(),
            (std::vector<log_entry>{{3, "failed to get qrn serial-number from flash: 5"}}))
      << log_dump();
  EXPECT_TRUE(server.requests().empty());
  expect_store_empty();
}

// ---- the download ----

TEST_F(ProvisionCa, RefusedConnectionGives47WithItsLine) {
  std::string nobody = "http://127.0.0.1:" + std::to_string(support::unused_port()) + "/ca";
  EXPECT_EQ(add(nobody), 47);
  EXPECT_TRUE(logged(4, "failed to download ca-info: url=" + nobody + " err=HTTP ERROR"))
      << log_dump();
  expect_store_empty();
}

TEST_F(ProvisionCa, OtherStatusGives47WithItsLine) {
  EXPECT_EQ(add_from(support::status(404, "", "nothing here")), 47);
  EXPECT_TRUE(logged(4, "failed to download ca-info: url=" + url + " sts=404\n(null)"))
      << log_dump();
  expect_store_empty();
}

TEST_F(ProvisionCa, TruncatedBodyIsRefused) {
  support::answer answer = signed_answer(sample().document);
  answer.bytes.resize(answer.bytes.size() - 1);
  EXPECT_EQ(add_from(answer), 47);
  EXPECT_TRUE(logged(4, "failed to download ca-info: url=" + url + " err=HTTP ERROR"))
      << log_dump();
  expect_store_empty();
}

// ---- the message ----

TEST_F(ProvisionCa, BodyThatIsNoMessageGives20) {
  EXPECT_EQ(add_from(support::ok("<html></html>")), 20);
  EXPECT_EQ(add_from(support::ok("")), 20);
  expect_store_empty();
}

TEST_F(ProvisionCa, DocumentOfAnotherSignerGives29) {
  EXPECT_EQ(add_from(signed_answer(sample().document, 1)), 29);
  expect_store_empty();
}

TEST_F(ProvisionCa, SignerThatBringsItsOwnCertificateGives29) {
  support::message_options options;
  options.content = sample().document;
  options.carried = {support::make_ca("stranger", 1, 7)};
  options.signers = {{test_key(1), support::common_name("stranger"), 7}};
  EXPECT_EQ(add_from(support::ok(der(support::make_message(options)))), 29);
  expect_store_empty();
}

TEST_F(ProvisionCa, EveryTruncationOfTheMessageIsRefused) {
  std::string message = sign_document(sample().document, test_key(0));
  for (size_t length = 0; length < message.size(); length += 13) {
    EXPECT_EQ(add_from(support::ok(message.substr(0, length))), 20) << length;
    expect_store_empty();
  }
}

// RSA PKCS#1 signatures may be labelled with the bare key type or with key type and digest.
bool is_the_signature_algorithm(const std::string &octets, size_t at) {
  const unsigned char rsa[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x01};
  size_t found = octets.rfind(std::string(reinterpret_cast<const char *>(rsa), sizeof rsa));
  return found != std::string::npos && at == found + sizeof rsa - 1;
}

TEST_F(ProvisionCa, EveryChangedOctetIsRefusedOrChangesNothing) {
  const std::string document =
      ca_info_doc(element("IssuerName", "CN=a") +
                  element("AdditionalCerts", cert_element(simple_cert("i", "s", 1))));
  const std::string message = sign_document(document, test_key(0));
  size_t at = 0;
  test_server server([&](const std::string &) {
    std::string changed = message;
    changed[at] =
        static_cast<char>(changed[at] ^ (is_the_signature_algorithm(message, at) ? 0x0a : 0x01));
    return support::ok(changed);
  });
  std::vector<size_t> accepted;
  for (; at < message.size(); at++) {
    int code = add(server.url());
    if (code != 0) {
      expect_store_empty();
      continue;
    }
    accepted.push_back(at);
    ASSERT_EQ(cas(), 1);
    EXPECT_EQ(support::oneline(ca()->issuer_name), "/CN=a") << at;
    EXPECT_EQ(provisioned().size(), 1u);
    support::empty_store();
  }
  ASSERT_EQ(accepted.size(), 1u) << testing::PrintToString(accepted);
  EXPECT_TRUE(is_the_signature_algorithm(message, accepted[0])) << accepted[0];
}

// ---- the document ----

TEST_F(ProvisionCa, DocumentsCodeIsTheResult) {
  EXPECT_EQ(add_from(signed_answer("<QRNPkiConfig>")), 34);
  EXPECT_EQ(add_from(signed_answer("")), 34);
  EXPECT_EQ(add_from(signed_answer(ca_info_doc(element("IssuerName", "a")))), 54);
  expect_store_empty();
}

TEST_F(ProvisionCa, AdditionalCertificatesStayWhenTheDocumentFailsLater) {
  auto extra = simple_cert("i", "extra", 1);
  EXPECT_EQ(add_from(signed_answer(ca_info_doc(element("AdditionalCerts", cert_element(extra)) +
                                               element("IssuerName", "a")))),
            54);
  EXPECT_EQ(cas(), 0);
  EXPECT_EQ(provisioned(), strings{der(extra)});
}

// ---- memory ----

TEST_F(ProvisionCa, WithoutMemoryNoCaIsAddedAndNothingIsLeftOpen) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  const std::string document = ca_info_doc(element("IssuerName", "CN=a") +
                                           element("TrustedRoots", cert_element(sample().root)));
  test_server server({signed_answer(document)});
  std::string from = server.url();
  support::key key = test_key(0);
  ASSERT_EQ(pki_add_ca("lab", from.c_str(), key.get()), 0);
  support::empty_store();
  size_t open = open_descriptors();
  for (bool stay_failed : {false, true}) {
    std::map<int, size_t> codes;
    int code = -1;
    size_t failures = fake_allocator::sweep(
        [&] {
          {
            fake_allocator::pause no_failures;
            support::empty_store();
            support::clear_openssl_errors();
          }
          code = pki_add_ca("lab", from.c_str(), key.get());
        },
        [&](size_t n) {
          codes[code]++;
          if (code == 0) {
            EXPECT_EQ(support::oneline(ca()->issuer_name), "/CN=a") << "allocation " << n;
          }
          EXPECT_EQ(cas(), code == 0 ? 1 : 0) << "allocation " << n;
          EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 0) << "allocation " << n;
        },
        stay_failed);
    EXPECT_EQ(code, 0);
    EXPECT_GE(failures, 100u);
    for (const auto &[seen, runs] : codes)
      EXPECT_TRUE(seen == 0 || seen == 2 || seen == 11 || seen == 20 || seen == 27 || seen == 29 ||
                  seen == 47 || seen == 48)
          << seen << " in " << runs << " runs";
    EXPECT_GT(codes[2], failures - codes[0] - codes[2]) << testing::PrintToString(codes);
  }
  support::empty_store();
  EXPECT_LE(open_descriptors(), open + 1);  // the server may still be closing its end
}

}  // namespace
