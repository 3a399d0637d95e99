// A store with a key, and CAs that enroll by SCEP.
#ifndef TESTS_UNIT_PKI_ENROLL_FIXTURE_H
#define TESTS_UNIT_PKI_ENROLL_FIXTURE_H

#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <string>
#include <vector>

#include "fakes/clock.h"
#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "support/scep_ca.h"
#include "support/store_fixture.h"

namespace support {

// An enrollment method: a SCEP URL, or a mechanism that nobody knows.
struct enroll_method {
  std::string url;
  int mechanism = PKI_CERT_REQ_SCEP;
};

class enroll_test : public store_test {
 protected:
  void SetUp() override {
    store_test::SetUp();
    scep_stop_polling(0);
    scep_limit_polls(0);
    add_key("key", test_key(1));
  }
  void TearDown() override {
    scep_stop_polling(0);
    scep_limit_polls(0);
    store_test::TearDown();
  }

  // A key of its own object: OpenSSL keeps things in keys that it has used.
  static void add_key(const char *label, const key &pair) {
    key_info *made = alloc_key_info();
    made->label = pki_strdup(label);
    made->key = EVP_PKEY_dup(pair.get());
    OPENSSL_sk_push(pki_store->key_store, made);
  }
  static void add_method(ca_info *info, const enroll_method &method, const cert &ca_cert,
                         const char *digest, const char *cipher) {
    cert_req_info *made = alloc_cert_req_info_m(PKI_CERT_REQ_SCEP);
    auto *scep = static_cast<scep_req_info *>(made->data);
    scep->url = pki_strdup(method.url.c_str());
    scep->ca_cert = X509_dup(ca_cert.get());
    scep->digest = pki_strdup(digest);
    scep->cipher = pki_strdup(cipher);
    if (method.mechanism != PKI_CERT_REQ_SCEP) {
      free_scep_req_info(scep);
      made->data = nullptr;
      made->mechanism = method.mechanism;
    }
    OPENSSL_sk_push(info->cert_req_methods, made);
  }
  static void add_ca(const char *label, const std::vector<enroll_method> &methods,
                     const cert &ca_cert, const char *digest = "SHA256",
                     const char *cipher = "AES-128-CBC") {
    ca_info *made = alloc_ca_info();
    made->label = pki_strdup(label);
    for (const enroll_method &method : methods)
      add_method(made, method, ca_cert, digest, cipher);
    pki_add_ca_info(made);
    free_ca_info(made);
  }
  static void add_ca(const scep_ca &ca) { add_ca("ca", {{ca.url()}}, ca.certificate()); }

  // Enters a CA that answers so, and enrolls the key with it.
  static int enroll_with(const scep_reply &reply, const char *cert_label = "cert") {
    scep_ca ca({reply});
    add_ca(ca);
    int code = pki_get_certificate("ca", "key", cert_label, nullptr);
    pki_remove_ca("ca");
    return code;
  }
  static key_info *stored_key(int index = 0) { return at<key_info>(pki_store->key_store, index); }
  static int filed(int index = 0) { return OPENSSL_sk_num(stored_key(index)->certs); }
  static cert_info *filed_cert(int index = 0) { return at<cert_info>(stored_key()->certs, index); }
  static std::vector<std::string> provisioned() { return ders(pki_store->provisioned_certs); }
  // The key's list and the store's certificates are empty, and nobody holds the key record.
  static void expect_nothing_filed() {
    EXPECT_EQ(filed(), 0);
    EXPECT_EQ(stored_key()->ref_count, 1);
    EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 0);
    EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0);
  }
  // The captured lines without OpenSSL's.
  static std::vector<log_entry> own_lines() {
    std::vector<log_entry> lines;
    for (const log_entry &entry : captured_log())
      if (entry.text.rfind("OpenSSL error: ", 0) != 0)
        lines.push_back(entry);
    return lines;
  }
};

using lines = std::vector<log_entry>;

}  // namespace support

#endif
