// CAs and their lists in a form that can be compared, host CAs, and folders of certificates.
#ifndef TESTS_UNIT_VERIFIER_TRUST_ROOTS_SUPPORT_H
#define TESTS_UNIT_VERIFIER_TRUST_ROOTS_SUPPORT_H

#include <libpki/libpki.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "../own_log.h"
#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "support/store_fixture.h"

namespace roots_support {

using texts = std::vector<std::string>;

inline std::string sha256(const std::string &octets) {
  unsigned char digest[32];
  EVP_Digest(octets.data(), octets.size(), digest, nullptr, EVP_sha256(), nullptr);
  std::string hex;
  for (unsigned char octet : digest) {
    hex += "0123456789abcdef"[octet >> 4];
    hex += "0123456789abcdef"[octet & 15];
  }
  return hex;
}

inline std::string file_octets(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The certificate in a DER file, or null.
inline support::cert file_cert(const std::string &path) {
  std::string octets = file_octets(path);
  const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
  return support::cert(d2i_X509(nullptr, &in, static_cast<long>(octets.size())), X509_free);
}

// The file of that name from which a vendor's root was built in.
inline std::string vendor_file(const std::string &name) {
  return VENDOR_ROOTS_DIR "/" + name;
}

// ---- CAs ----

using ca_ref = std::shared_ptr<ca_info>;

inline ca_ref find_ca(const char *label) {
  return ca_ref(pki_find_ca_info_by_label(label), free_ca_info);
}

// The labels of the store's CAs, in order.
inline texts ca_labels() {
  texts labels;
  for (int i = 0; i < OPENSSL_sk_num(pki_store->ca_infos); i++)
    labels.push_back(support::at<ca_info>(pki_store->ca_infos, i)->label);
  return labels;
}

inline X509 *root_of(const char *label, int index) {
  ca_ref ca = find_ca(label);
  return ca ? support::at<X509>(ca->trusted_roots, index) : nullptr;
}

// The subjects of a CA's roots in one line each, in order.
inline texts root_subjects(const char *label) {
  texts subjects;
  ca_ref ca = find_ca(label);
  for (int i = 0; ca && i < OPENSSL_sk_num(ca->trusted_roots); i++)
    subjects.push_back(
        support::oneline(X509_get_subject_name(support::at<X509>(ca->trusted_roots, i))));
  return subjects;
}

// A CA in the store, as a host makes it.
inline ca_ref add_host_ca(const char *label, const std::vector<support::cert> &roots = {}) {
  ca_ref made(alloc_ca_info(), free_ca_info);
  made->label = pki_strdup(label);
  for (const support::cert &root : roots)
    EXPECT_EQ(0, pki_add_trusted_cert(root.get(), made.get()));
  EXPECT_EQ(0, pki_add_ca_info(made.get()));
  return made;
}

// A certificate that says it was issued under that name.
inline support::cert issued_under(const X509_NAME *issuer, long serial = 77) {
  support::cert_options options;
  options.subject = support::common_name("device");
  options.issuer = support::name(X509_NAME_dup(issuer), X509_NAME_free);
  options.serial = serial;
  return support::make_cert(options);
}

// A self-signed certificate with an organizationName.
inline support::cert device_root(const std::string &cn, long serial = 1) {
  support::cert_options options;
  options.subject = support::make_name({{"C", "US"}, {"O", "Example"}, {"CN", cn}});
  options.serial = serial;
  options.ca = true;
  return support::make_cert(options);
}

// ---- status rules ----

using rule_list = std::shared_ptr<STACK>;

// What status queries find for `cert` among the rules of `ca`.
inline rule_list rules_for(ca_info *ca, const support::cert &cert) {
  STACK *found = OPENSSL_sk_new_null();
  EXPECT_EQ(81, pki_find_sts_query_info(ca, cert.get(), found));
  return rule_list(found, [](STACK *list) {
    OPENSSL_sk_pop_free(
        list, [](void *each) { free_cert_status_info(static_cast<cert_status_info *>(each)); });
  });
}

inline texts describe_crls(const STACK *crls) {
  texts all;
  for (int i = 0; i < OPENSSL_sk_num(crls); i++) {
    const auto *crl = support::at<crl_info>(crls, i);
    all.push_back(std::string(crl->url) + " format " + std::to_string(crl->format) + " reasons " +
                  std::to_string(crl->reasons) + " flags " + std::to_string(crl->flags) +
                  (crl->crl_issuer ? " issuer" : "") + (crl->crl_signer ? " signer" : ""));
  }
  return all;
}

// "crl URL ... / 1", "ocsp URL / 1" or "always-ok / 3": a rule's source and its flags.
inline std::string describe(const cert_status_info *rule) {
  std::string flags = " / " + std::to_string(rule->flags);
  if (rule->mechanism == PKI_STATUS_AOK)
    return std::string(rule->data ? "data?" : "always-ok") + flags;
  if (rule->mechanism == PKI_STATUS_OCSP) {
    const auto *ocsp = static_cast<const ocsp_info *>(rule->data);
    return std::string("ocsp ") + ocsp->url + (ocsp->responder_cert ? " signer" : "") + flags;
  }
  std::string text = "crl";
  for (const std::string &crl : describe_crls(static_cast<const STACK *>(rule->data)))
    text += " " + crl;
  return text + flags;
}

inline texts describe(const STACK *rules) {
  texts all;
  for (int i = 0; i < OPENSSL_sk_num(rules); i++)
    all.push_back(describe(support::at<cert_status_info>(rules, i)));
  return all;
}

// The signer of the first CRL of a rule.
inline X509 *crl_signer(const STACK *rules, int index) {
  const auto *rule = support::at<cert_status_info>(rules, index);
  return support::at<crl_info>(static_cast<const STACK *>(rule->data), 0)->crl_signer;
}

// ---- stores to verify with ----

using x509_store = std::shared_ptr<X509_STORE>;

inline x509_store make_store() {
  return x509_store(X509_STORE_new(), X509_STORE_free);
}

inline int count_in(const x509_store &store) {
  return sk_X509_OBJECT_num(X509_STORE_get0_objects(store.get()));
}

inline bool holds(const x509_store &store, const X509 *cert) {
  STACK_OF(X509_OBJECT) *objects = X509_STORE_get0_objects(store.get());
  for (int i = 0; cert && i < sk_X509_OBJECT_num(objects); i++)
    if (X509_cmp(X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i)), cert) == 0)
      return true;
  return false;
}

// ---- folders ----

// A folder of its own, gone at the end.
class temp_folder {
 public:
  temp_folder() {
    char made[] = "/tmp/libpki-roots-XXXXXX";
    path_ = std::string(mkdtemp(made)) + "/";
  }
  temp_folder(const temp_folder &) = delete;
  temp_folder &operator=(const temp_folder &) = delete;
  ~temp_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::string &path() const { return path_; }  // ends with "/"
  void write(const std::string &name, const std::string &octets) const {
    std::ofstream(path_ + name, std::ios::binary) << octets;
  }
  void write(const std::string &name, const support::cert &cert) const {
    write(name, support::pem(cert));
  }

 private:
  std::string path_;
};

// PEM that a pass phrase opens.
inline std::string encrypted_pem(const support::cert &cert, const std::string &pass_phrase) {
  BIO *out = BIO_new(BIO_s_mem());
  std::string secret = pass_phrase;
  PEM_ASN1_write_bio(reinterpret_cast<i2d_of_void *>(i2d_X509), PEM_STRING_X509, out, cert.get(),
                     EVP_aes_128_cbc(), reinterpret_cast<unsigned char *>(secret.data()),
                     static_cast<int>(secret.size()), nullptr, nullptr);
  char *data = nullptr;
  long length = BIO_get_mem_data(out, &data);
  std::string pem(data, static_cast<size_t>(length));
  BIO_free(out);
  return pem;
}

// "3: failed to read cert PATH: " at the start of the only line of the library's own?
inline bool only_line_begins(const std::string &start) {
  std::string log = own_log();
  return log.rfind(start, 0) == 0 && log.find('\n') == log.size() - 1;
}

}  // namespace roots_support

#endif
