// Puts the trust roots into the store, and from there into an X509_STORE.
#include <libpki/error.h>
#include <libpki/store.h>
#include <libpki/trust_roots.h>
#include <libpki/util.h>
#include <syslog.h>

#include "common/locks.h"
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "pki/internal.h"
#include "verifier/cert_verifier/internal.h"
#include "verifier/trust_roots/internal.h"

namespace pki {

namespace {

constexpr const char *roots_folder = "/etc/pki/roots/";

pthread_mutex_t setup_mutex = PTHREAD_MUTEX_INITIALIZER;
bool root_inited = false;
bool root_ca_installed = false;
bool eng_inited = false;

// A CA of the store, or a new one with that label.
struct labelled_ca {
  ca_info_ptr info;
  bool is_new = false;

  int find_or_make(const char *label) {
    info.reset(pki_find_ca_info_by_label(label));
    if (info)
      return PKI_OK;
    is_new = true;
    info.reset(alloc_ca_info());
    if (!info)
      return PKI_OUT_OF_MEMORY;
    info->label = pki_strdup(label);
    return info->label ? PKI_OK : PKI_OUT_OF_MEMORY;
  }
};

// Adds built-in certificates to a CA; `decoded` receives them.
int add_certs(const built_in_cert *images, int count, ca_info *info, x509_ptr *decoded) {
  for (int index = 0; index < count; index++) {
    decoded[index].reset(decode_built_in(images[index]));
    if (!decoded[index])
      return PKI_OUT_OF_MEMORY;
    if (int error = pki_add_trusted_cert(decoded[index].get(), info))
      return error;
  }
  return PKI_OK;
}

struct built_in_ca {
  const char *label;
  const built_in_cert *certs;
  int cert_count;
  const override_rule *rules;
  int rule_count;
};

int status_rule_count(const ca_info *info) {
  mutex_lock lock(&list_mutex);
  return OPENSSL_sk_num(info->cert_status_methods);
}

// Takes back what was added, so that the next try does not add it again.
void keep_status_rules(ca_info *info, int count) {
  mutex_lock lock(&list_mutex);
  while (OPENSSL_sk_num(info->cert_status_methods) > count)
    free_cert_status_info(
        static_cast<cert_status_info *>(OPENSSL_sk_pop(info->cert_status_methods)));
}

int add_ca(const built_in_ca &ca) {
  labelled_ca found;
  if (int error = found.find_or_make(ca.label))
    return error;
  x509_ptr owned[root_cert_count];
  if (int error = add_certs(ca.certs, ca.cert_count, found.info.get(), owned))
    return error;
  X509 *certs[root_cert_count];
  for (int index = 0; index < root_cert_count; index++)
    certs[index] = owned[index].get();
  const int had = status_rule_count(found.info.get());
  int error = add_cert_sts_info(found.info.get(), ca.rules, ca.rule_count, certs);
  if (!error && found.is_new)
    error = pki_add_ca_info(found.info.get());
  if (error)
    keep_status_rules(found.info.get(), had);
  return error;
}

bool install_ca(const built_in_ca &ca) {
  int error = add_ca(ca);
  if (!error)
    return true;
  syslog(log_error, "failed to set up ca '%s': %s", ca.label,
         pki_strerror(static_cast<unsigned>(error)));
  log_openssl_errors(log_error);
  return false;
}

int add_chain_cert() {
  x509_ptr cert(decode_built_in(chain_cert));
  int error = cert ? pki_add_untrusted_cert(cert.get(), 1) : PKI_OUT_OF_MEMORY;
  if (error)
    syslog(log_error, "Error add untrusted certs: %s", pki_strerror(static_cast<unsigned>(error)));
  return error;
}

bool install_roots() {
  if (root_inited)
    return true;
  constexpr built_in_ca ca = {PKI_ROOT_CA_LABEL, root_certs, root_cert_count, root_override_rules,
                              root_override_count};
  root_ca_installed = root_ca_installed || install_ca(ca);
  if (!root_ca_installed || add_chain_cert() != PKI_OK)
    return false;
  syslog(log_info, "inited ca label '%s'", ca.label);
  root_inited = true;
  return true;
}

bool install_engineering_root() {
  if (eng_inited)
    return true;
  constexpr built_in_ca ca = {PKI_ENGINEERING_CA_LABEL, &engineering_cert, 1, &eng_override_rule,
                              1};
  if (!install_ca(ca))
    return false;
  syslog(log_info, "inited ca label '%s'", ca.label);
  eng_inited = true;
  return true;
}

// The roots of a CA as they are now, with references of their own; null without memory, or
// without such a CA, which `*missing` tells.
certs_ptr roots_of(const char *label, bool *missing) {
  ca_info_ptr info(pki_find_ca_info_by_label(label));
  *missing = !info;
  if (!info)
    return nullptr;
  mutex_lock lock(&list_mutex);
  certs_ptr copy(reinterpret_cast<STACK_OF(X509) *>(OPENSSL_sk_dup(info->trusted_roots)));
  for (int index = 0; index < sk_X509_num(copy.get()); index++)
    if (X509 *cert = sk_X509_value(copy.get(), index))
      X509_up_ref(cert);
  return copy;
}

bool load_roots(X509_STORE *store, const char *label) {
  bool missing;
  certs_ptr roots = roots_of(label, &missing);
  if (missing)
    return true;
  bool loaded = roots != nullptr;
  for (int index = 0; loaded && index < sk_X509_num(roots.get()); index++)
    loaded = X509_STORE_add_cert(store, sk_X509_value(roots.get(), index)) == 1;
  if (loaded)
    return true;
  syslog(log_error, "Failed to add a root cert to cert store:");
  log_openssl_errors(log_error);
  return false;
}

}  // namespace

}  // namespace pki

using namespace pki;

int pki_ver_setup_trust_roots(X509_STORE *store, unsigned char with_eng) {
  if (!store)
    return 0;
  mutex_lock lock(&setup_mutex);
  if (!install_roots() || (with_eng && !install_engineering_root()))
    return 0;
  add_root_files(roots_folder);
  return load_roots(store, PKI_ROOT_CA_LABEL) && load_roots(store, PKI_ENGINEERING_CA_LABEL) &&
         load_roots(store, PKI_OTHER_CA_LABEL);
}

int pki_ver_eng_root(const X509 *cert) {
  if (!cert)
    return 0;
  bool missing;
  certs_ptr roots = roots_of(PKI_ENGINEERING_CA_LABEL, &missing);
  for (int index = 0; index < sk_X509_num(roots.get()); index++) {
    X509 *root = sk_X509_value(roots.get(), index);
    if (!root) {
      syslog(log_error, "Failed to get eng root");
      log_openssl_errors(log_error);
      return 0;
    }
    if (is_same_cert(const_cast<X509 *>(cert), root))
      return 1;
  }
  return 0;
}
