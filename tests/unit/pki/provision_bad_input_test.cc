// Damaged answers of a CA's server.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <atomic>
#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "support/store_fixture.h"
#include "support/test_server.h"

namespace {

class ProvisionBadInput : public support::store_test {
 protected:
  void expect_empty_store(size_t at) {
    for (const STACK *list :
         {pki_store->key_store, pki_store->ca_infos, pki_store->provisioned_certs,
          pki_store->collected_certs, pki_store->global_status_rules})
      EXPECT_EQ(OPENSSL_sk_num(list), 0) << at;
  }

  support::key doc_key = support::test_key(0);
  // Small, so that every octet of the message gets its turn.
  support::cert additional = support::simple_cert("i", "s", 1);
  std::string message = support::sign_document(
      support::ca_info_doc(support::element("AdditionalCerts", support::cert_element(additional))),
      doc_key);
};

TEST_F(ProvisionBadInput, EveryTruncationOfTheMessageIsRefused) {
  std::atomic<size_t> length = 0;
  support::test_server server(
      [&](const std::string &) { return support::ok(message.substr(0, length)); });
  std::string url = server.url();
  for (length = 0; length < message.size(); length++) {
    EXPECT_EQ(pki_add_ca("label", url.c_str(), doc_key.get()), PKI_P7_DECODE_ERROR) << length;
    expect_empty_store(length);
    clear_log();
  }
}

TEST_F(ProvisionBadInput, EveryTruncationOfTheAnswerIsRefused) {
  std::string whole = support::ok(message).bytes;
  std::atomic<size_t> length = 0;
  support::test_server server(
      [&](const std::string &) { return support::raw(whole.substr(0, length)); });
  std::string url = server.url();
  for (length = 0; length < whole.size(); length++) {
    int code = pki_add_ca("label", url.c_str(), doc_key.get());
    EXPECT_TRUE(code == PKI_HTTP_ERROR || code == PKI_HTTP_READ_RESP_ERROR)
        << length << " " << code;
    expect_empty_store(length);
    clear_log();
  }
}

TEST_F(ProvisionBadInput, EveryChangedOctetOfTheMessageIsRefused) {
  std::atomic<size_t> at = 0;
  support::test_server server([&](const std::string &) {
    std::string changed = message;
    changed[at] = static_cast<char>(changed[at] ^ 0x01);
    return support::ok(changed);
  });
  std::string url = server.url();
  for (at = 0; at < message.size(); at++) {
    EXPECT_NE(pki_add_ca("label", url.c_str(), doc_key.get()), PKI_OK) << at;
    expect_empty_store(at);
    support::empty_store();
    clear_log();
  }
}

TEST_F(ProvisionBadInput, ResetConnectionIsAFailedDownload) {
  support::answer what = support::raw("HTTP/1.0 200 OK\r\n");
  what.reset = true;
  support::test_server server({what});
  int code = pki_add_ca("label", server.url().c_str(), doc_key.get());
  EXPECT_TRUE(code == PKI_HTTP_ERROR || code == PKI_HTTP_READ_RESP_ERROR) << code;
  expect_empty_store(0);
}

TEST_F(ProvisionBadInput, EntityBombAndExternalEntitiesAreRefused) {
  support::test_server elsewhere({support::ok("CN=a")});
  for (const std::string &declaration :
       {"<!ENTITY x SYSTEM \"" + elsewhere.url() + "\">", std::string("<!ENTITY x 'CN=a'>")}) {
    std::string document = "<!DOCTYPE QRNPkiConfig [" + declaration + "]>" +
                           support::ca_info_doc(support::element("IssuerName", "&x;"));
    support::test_server server({support::ok(support::sign_document(document, doc_key))});
    EXPECT_EQ(pki_add_ca("label", server.url().c_str(), doc_key.get()), PKI_XML_CA_PTR_PARSE_ERROR);
    expect_empty_store(0);
  }
  EXPECT_EQ(elsewhere.requests(), std::vector<std::string>());
}

TEST_F(ProvisionBadInput, DeepDocumentIsRefused) {
  std::string document = support::nested_elements(100000);
  support::test_server server({support::ok(support::sign_document(document, doc_key))});
  int code = pki_add_ca("label", server.url().c_str(), doc_key.get());
  EXPECT_TRUE(code == PKI_XML_STATE_STACK_OVFL || code == PKI_XML_CA_PTR_PARSE_ERROR) << code;
  expect_empty_store(0);
}

}  // namespace
