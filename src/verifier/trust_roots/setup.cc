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

struct built_in_ca {
  const char *label;
  const built_in_cert *certs;
  int cert_count;
  const override_rule *rules;
  int rule_count;
};

// Adds built-in certificates to a CA; `decoded` receives them.
int add_certs(const built_in_ca &ca, ca_info *info, x509_ptr *decoded) {
  for (int index = 0; index < ca.cert_count; index++) {
    decoded[index].reset(decode_built_in(ca.certs[index]));
    if (!decoded[index])
      return PKI_OUT_OF_MEMORY;
    if (int error = pki_add_trusted_cert(decoded[index].get(), info))
      return error;
  }
  return PKI_OK;
}

// A CA with the built-in certificates and rules, outside the store.
int make_ca(const built_in_ca &ca, ca_info_ptr *made) {
  made->reset(alloc_ca_info());
  if (!*made)
    return PKI_OUT_OF_MEMORY;
  (*made)->label = pki_strdup(ca.label);
  if (!(*made)->label)
    return PKI_OUT_OF_MEMORY;
  x509_ptr owned[root_cert_count];
  if (int error = add_certs(ca, made->get(), owned))
    return error;
  X509 *certs[root_cert_count];
  for (int index = 0; index < root_cert_count; index++)
    certs[index] = owned[index].get();
  return add_cert_sts_info(made->get(), ca.rules, ca.rule_count, certs);
}

// Moves what `to` does not hold yet; there is room for it. The caller holds list_mutex.
void move_certs_locked(STACK *from, STACK *to) {
  int kept = 0;
  for (int index = 0; index < OPENSSL_sk_num(from); index++) {
    auto *cert = static_cast<X509 *>(OPENSSL_sk_value(from, index));
    bool is_there = X509_find_by_issuer_and_serial(as_x509_stack(to), X509_get_issuer_name(cert),
                                                   X509_get0_serialNumber(cert)) != nullptr;
    if (is_there)
      OPENSSL_sk_set(from, kept++, cert);
    else
      OPENSSL_sk_push(to, cert);
  }
  while (OPENSSL_sk_num(from) > kept)
    OPENSSL_sk_pop(from);
}

void move_rules_locked(STACK *from, STACK *to) {
  while (void *rule = OPENSSL_sk_shift(from))
    OPENSSL_sk_push(to, rule);
}

// All or nothing: once there is room in the lists, nothing can fail. What `to` had already stays in
// `from`.
int move_into(ca_info *from, ca_info *to) {
  mutex_lock lock(&list_mutex);
  if (OPENSSL_sk_reserve(to->trusted_roots, OPENSSL_sk_num(from->trusted_roots)) != 1 ||
      OPENSSL_sk_reserve(to->cert_status_methods, OPENSSL_sk_num(from->cert_status_methods)) != 1)
    return PKI_OUT_OF_MEMORY;
  move_certs_locked(from->trusted_roots, to->trusted_roots);
  move_rules_locked(from->cert_status_methods, to->cert_status_methods);
  return PKI_OK;
}

// Everything that can fail comes before the store is touched: roots that were there without their
// rules would be trusted without them.
int add_ca(const built_in_ca &ca) {
  ca_info_ptr made;
  if (int error = make_ca(ca, &made))
    return error;
  ca_info_ptr found(pki_find_ca_info_by_label(ca.label));
  return found ? move_into(made.get(), found.get()) : pki_add_ca_info(made.get());
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

bool has_ca(const char *label) {
  return ca_info_ptr(pki_find_ca_info_by_label(label)) != nullptr;
}

bool install_roots() {
  if (root_inited)
    return true;
  constexpr built_in_ca ca = {PKI_ROOT_CA_LABEL, root_certs, root_cert_count, root_override_rules,
                              root_override_count};
  // It is still there if only the intermediate failed, and the host has not removed it since.
  root_ca_installed = (root_ca_installed && has_ca(ca.label)) || install_ca(ca);
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

// A list of what another holds, with references of its own; the caller holds list_mutex, and frees
// what was made of it when that failed.
int share_certs_locked(const STACK *certs, certs_ptr *shared) {
  const int count = OPENSSL_sk_num(certs);
  shared->reset(sk_X509_new_reserve(nullptr, count));
  if (!*shared)
    return PKI_OUT_OF_MEMORY;
  for (int index = 0; index < count; index++) {
    auto *cert = static_cast<X509 *>(OPENSSL_sk_value(certs, index));
    if (cert && !take_reference(cert))
      return PKI_CRYPTO_LOCK_FAILED;
    sk_X509_push(shared->get(), cert);
  }
  return PKI_OK;
}

// The roots of a CA as they are now: 0, 2, 49, or 50 when the store has no such CA.
int roots_of(const char *label, certs_ptr *roots) {
  ca_info_ptr info(pki_find_ca_info_by_label(label));
  if (!info)
    return PKI_NO_SUCH_CA;
  mutex_lock lock(&list_mutex);
  return share_certs_locked(info->trusted_roots, roots);
}

bool load_roots(X509_STORE *store, const char *label) {
  certs_ptr roots;
  int error = roots_of(label, &roots);
  if (error == PKI_NO_SUCH_CA)
    return true;
  bool loaded = error == PKI_OK;
  for (int index = 0; loaded && index < sk_X509_num(roots.get()); index++)
    loaded = X509_STORE_add_cert(store, sk_X509_value(roots.get(), index)) == 1;
  if (loaded)
    return true;
  syslog(log_error, "Failed to add a root cert to cert store:");
  log_openssl_errors(log_error);
  return false;
}

int log_no_engineering_root() {
  syslog(log_error, "Failed to get eng root");
  log_openssl_errors(log_error);
  return 0;
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
  certs_ptr roots;
  int error = roots_of(PKI_ENGINEERING_CA_LABEL, &roots);
  if (error == PKI_NO_SUCH_CA)
    return 0;
  if (error)
    return log_no_engineering_root();
  for (int index = 0; index < sk_X509_num(roots.get()); index++) {
    X509 *root = sk_X509_value(roots.get(), index);
    if (!root)
      return log_no_engineering_root();
    if (is_same_cert(const_cast<X509 *>(cert), root))
      return 1;
  }
  return 0;
}
