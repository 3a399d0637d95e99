#include "tools/pkictl/state_store.h"

#include <libpki/store.h>
#include <libpki/util.h>

#include "tools/common/ca_info_xml.h"
#include "tools/common/failure.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/signed_file.h"

namespace pkictl {

namespace {

cert_info_ptr make_cert_record(const std::string &label, X509 *cert) {
  cert_info_ptr record(alloc_cert_info());
  tools::require_memory(record != nullptr);
  record->label = pki_strdup(label.c_str());
  record->issuer = X509_NAME_dup(X509_get_issuer_name(cert));
  record->subject = X509_NAME_dup(X509_get_subject_name(cert));
  record->serial = ASN1_INTEGER_dup(X509_get0_serialNumber(cert));
  tools::require_memory(record->label && record->issuer && record->subject && record->serial);
  tools::require_memory(X509_up_ref(cert) == 1);
  record->cert = cert;
  return record;
}

void push_cert(key_info *key, cert_info_ptr record) {
  tools::require_memory(OPENSSL_sk_push(key->certs, record.get()) > 0);
  (void)record.release();
}

}  // namespace

read_ca_document read_ca(const std::string &label, const saved_ca &saved) {
  std::string document = "the document of the CA " + label;
  std::string xml;
  require_ok(document + " has no good signature",
             open_signed(saved.document, saved.doc_key.get(), &xml));
  tools::read_ca_info read = tools::read_document(xml);
  require_ok(document + " is one that devices refuse", read.code);
  ca_info *info = read.info.get();
  info->label = pki_strdup(label.c_str());
  info->ca_pointer_url = pki_strdup(saved.url.c_str());
  tools::require_memory(info->label && info->ca_pointer_url &&
                        EVP_PKEY_up_ref(saved.doc_key.get()) == 1);
  info->doc_key = saved.doc_key.get();
  return {std::move(read.info), std::move(read.additional_certs), tools::expires_text(xml)};
}

tools::ca_info_ptr enter_ca(const std::string &label, const saved_ca &saved) {
  read_ca_document read = read_ca(label, saved);
  require_ok("cannot enter the additional certificates of the CA " + label,
             pki_add_untrusted_certs(read.additional_certs.get(), 1));
  require_ok("cannot enter the CA " + label, pki_add_ca_info(read.info.get()));
  return std::move(read.info);
}

key_info_ptr enter_key(const std::string &label, const saved_key &saved) {
  key_info_ptr record(alloc_key_info());
  tools::require_memory(record && EVP_PKEY_up_ref(saved.pair.get()) == 1);
  record->key = saved.pair.get();
  record->label = pki_strdup(label.c_str());
  tools::require_memory(record->label != nullptr);
  for (const auto &[cert_label, cert] : saved.certs)
    push_cert(record.get(), make_cert_record(cert_label, cert.get()));
  // The library makes keys but takes none, so this one goes straight into its list.
  tools::require_memory(OPENSSL_sk_push(pki_store->key_store, dup_key_info(record.get())) > 0);
  return record;
}

}  // namespace pkictl
