// Finding CAs, keys and certificates. What is found is handed out with a reference of its own.
#include <libpki/error.h>
#include <libpki/util.h>

#include <cstring>

#include "common/locks.h"
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "pki/found_certs.h"
#include "pki/internal.h"

namespace pki {

namespace {

template <class Record>
Record *element(const STACK *list, int index) {
  return static_cast<Record *>(OPENSSL_sk_value(list, index));
}

bool same_label(const char *wanted, const char *label) {
  return label && std::strcmp(wanted, label) == 0;
}

// The first record that `matches`; the caller holds list_mutex.
template <class Record, class Matches>
Record *first_record(const STACK *list, Matches matches) {
  for (int i = 0; i < OPENSSL_sk_num(list); i++)
    if (matches(element<Record>(list, i)))
      return element<Record>(list, i);
  return nullptr;
}

// OpenSSL finds a name that it cannot encode equal to the empty one.
bool same_name(const X509_NAME *one, const X509_NAME *other) {
  return X509_NAME_cmp(one, other) == 0 &&
         (X509_NAME_entry_count(one) == 0) == (X509_NAME_entry_count(other) == 0);
}

// Whether a name that is looked for can equal any: one that cannot be encoded does not.
int check_comparable(const X509_NAME *name, bool *comparable) {
  if (int error = prepare_to_compare(name))
    return error;
  *comparable = true;
  if (X509_NAME_entry_count(name) == 0)
    return PKI_OK;
  x509_name_ptr empty(X509_NAME_new());
  if (!empty)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  if (int error = prepare_to_compare(empty.get()))
    return error;
  *comparable = X509_NAME_cmp(name, empty.get()) != 0;
  return PKI_OK;
}

match_result matches_nothing(X509 *, const void *, const void *) {
  return no_match;
}

struct cert_search {
  cert_matcher *matches;
  const void *arg1;
  const void *arg2;
  STACK *result;
};

int append_matches(const cert_search &search, const STACK *list) {
  for (int i = 0; i < OPENSSL_sk_num(list); i++) {
    X509 *cert = element<X509>(list, i);
    match_result match = search.matches(cert, search.arg1, search.arg2);
    if (match == match_failed)
      return PKI_OUT_OF_MEMORY;
    if (match == no_match)
      continue;
    if (!take_reference(cert))
      return PKI_CRYPTO_LOCK_FAILED;
    if (OPENSSL_sk_push(search.result, cert) <= 0) {
      X509_free(cert);
      return PKI_OUT_OF_MEMORY;
    }
  }
  return PKI_OK;
}

int search_all_lists(const cert_search &search, index_range *collected) {
  mutex_lock lock(&list_mutex);
  if (int error = append_matches(search, pki_store->provisioned_certs))
    return error;
  collected->begin = OPENSSL_sk_num(search.result);
  if (int error = append_matches(search, pki_store->collected_certs))
    return error;
  collected->end = OPENSSL_sk_num(search.result);
  for (int i = 0; i < OPENSSL_sk_num(pki_store->ca_infos); i++)
    if (int error = append_matches(search, element<ca_info>(pki_store->ca_infos, i)->trusted_roots))
      return error;
  return PKI_OK;
}

int search_under_store_lock(const cert_search &search, index_range *collected) {
  write_lock lock(&store_lock);
  return lock.held() ? search_all_lists(search, collected) : PKI_LOCK_FAILED;
}

void undo_search(STACK **result, bool created, int length_before) {
  while (OPENSSL_sk_num(*result) > length_before)
    X509_free(static_cast<X509 *>(OPENSSL_sk_pop(*result)));
  if (created) {
    OPENSSL_sk_free(*result);
    *result = nullptr;
  }
}

}  // namespace

int pki_alloc_find_res(STACK **result, unsigned char *created, int *length_before) {
  *created = 0;
  *length_before = 0;
  if (*result) {
    *length_before = OPENSSL_sk_num(*result);
    return PKI_OK;
  }
  *result = OPENSSL_sk_new_null();
  if (!*result) {
    log_openssl_errors(log_error);
    return PKI_OUT_OF_MEMORY;
  }
  *created = 1;
  return PKI_OK;
}

int pki_find_certs_by_f(cert_matcher *matches, const void *arg1, const void *arg2, STACK **result,
                        index_range *collected) {
  unsigned char created;
  int length_before;
  index_range unused;
  if (int error = pki_alloc_find_res(result, &created, &length_before))
    return error;
  int error =
      search_under_store_lock({matches, arg1, arg2, *result}, collected ? collected : &unused);
  if (error) {
    if (error != PKI_LOCK_FAILED)
      log_openssl_errors(log_error);
    undo_search(result, created, length_before);
  }
  return error;
}

match_result pki_is_match(X509 *cert, const void *issuer, const void *serial) {
  bool same = ASN1_STRING_cmp(X509_get0_serialNumber(cert),
                              static_cast<const ASN1_INTEGER *>(serial)) == 0 &&
              same_name(X509_get_issuer_name(cert), static_cast<const X509_NAME *>(issuer));
  return same ? is_match : no_match;
}

match_result pki_sn_match(X509 *cert, const void *subject, const void *) {
  bool same = same_name(X509_get_subject_name(cert), static_cast<const X509_NAME *>(subject));
  return same ? is_match : no_match;
}

match_result pki_kh_match(X509 *cert, const void *digest, const void *hash) {
  const ASN1_BIT_STRING *key = X509_get0_pubkey_bitstr(cert);
  if (!key || key->length < 1)
    return no_match;
  unsigned char key_hash[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  // For want of memory, or of a digest that OpenSSL keeps in a provider which few hosts load; it
  // does not tell which. To find nothing then would be a wrong answer.
  if (EVP_Digest(key->data, static_cast<size_t>(key->length), key_hash, &length,
                 static_cast<const EVP_MD *>(digest), nullptr) != 1)
    return match_failed;
  return std::memcmp(key_hash, hash, length) == 0 ? is_match : no_match;
}

namespace {

int find_certs_by_name(cert_matcher *matches, const X509_NAME *name, const void *arg2,
                       STACK **result, index_range *collected = nullptr) {
  bool comparable = false;
  if (int error = check_comparable(name, &comparable))
    return error;
  return pki_find_certs_by_f(comparable ? matches : matches_nothing, name, arg2, result, collected);
}

}  // namespace

int find_certs_by_subject(const X509_NAME *subject, STACK **result, index_range *collected) {
  return find_certs_by_name(pki_sn_match, subject, nullptr, result, collected);
}

int find_certs_by_key_hash(const EVP_MD *digest, const unsigned char *hash, int hash_length,
                           STACK **result, index_range *collected) {
  if (!digest || !hash || hash_length < 1 || hash_length != EVP_MD_size(digest) || !result)
    return PKI_INVALID_ARGS;
  return pki_find_certs_by_f(pki_kh_match, digest, hash, result, collected);
}

}  // namespace pki

using namespace pki;

ca_info *pki_find_ca_info_by_label(const char *label) {
  if (!label)
    return nullptr;
  mutex_lock lock(&list_mutex);
  return dup_ca_info(first_record<ca_info>(
      pki_store->ca_infos, [&](ca_info *info) { return same_label(label, info->label); }));
}

ca_info *pki_find_ca_info_by_issuer(const X509_NAME *name) {
  bool comparable = false;
  if (!name || check_comparable(name, &comparable) || !comparable)
    return nullptr;
  openssl_error_mark discard_errors;  // of a host's name that cannot be encoded
  mutex_lock lock(&list_mutex);
  return dup_ca_info(first_record<ca_info>(pki_store->ca_infos, [&](ca_info *info) {
    return info->issuer_name && same_name(info->issuer_name, name);
  }));
}

STACK *pki_get_all_ca_infos(void) {
  mutex_lock lock(&list_mutex);
  return stack_dup(
      pki_store->ca_infos,
      [](void *info) -> void * { return dup_ca_info(static_cast<ca_info *>(info)); },
      [](void *info) { free_ca_info(static_cast<ca_info *>(info)); });
}

key_info *pki_find_key_info_by_label(const char *label) {
  if (!label)
    return nullptr;
  mutex_lock lock(&list_mutex);
  return dup_key_info(first_record<key_info>(
      pki_store->key_store, [&](key_info *info) { return same_label(label, info->label); }));
}

cert_info *pki_find_cert_info_by_label(const char *label, const key_info *key) {
  if (!label || !key)
    return nullptr;
  mutex_lock lock(&list_mutex);
  return dup_cert_info(first_record<cert_info>(
      key->certs, [&](cert_info *info) { return same_label(label, info->label); }));
}

int pki_find_certs_by_issuer_serial(const X509_NAME *issuer, const ASN1_INTEGER *serial,
                                    STACK **result) {
  if (!issuer || !serial || !result)
    return PKI_INVALID_ARGS;
  return find_certs_by_name(pki_is_match, issuer, serial, result);
}

int pki_find_certs_by_subject(const X509_NAME *subject, STACK **result) {
  if (!subject || !result)
    return PKI_INVALID_ARGS;
  return find_certs_by_subject(subject, result, nullptr);
}

int pki_find_certs_by_key_hash(const EVP_MD *digest, const unsigned char *hash, int hash_length,
                               STACK **result) {
  return find_certs_by_key_hash(digest, hash, hash_length, result, nullptr);
}
