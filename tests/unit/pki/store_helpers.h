// Lists and store contents for the store's tests.
#ifndef TESTS_UNIT_PKI_STORE_HELPERS_H
#define TESTS_UNIT_PKI_STORE_HELPERS_H

#include <libpki/libpki.h>
#include <openssl/err.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "fakes/allocator.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "support/store_fixture.h"
#include "unit/pki_store_alloc/destruction.h"

namespace support {

using pointers = std::vector<const void *>;

inline pointers elements(const void *list) {
  return elements(static_cast<const STACK *>(list));
}

// What is in the store's lists and in the lists of its CAs, in order.
inline std::vector<pointers> store_contents() {
  std::vector<pointers> contents;
  for (STACK *list : {pki_store->key_store, pki_store->ca_infos, pki_store->provisioned_certs,
                      pki_store->collected_certs, pki_store->global_status_rules})
    contents.push_back(elements(list));
  for (int i = 0; i < OPENSSL_sk_num(pki_store->ca_infos); i++) {
    auto *ca = static_cast<ca_info *>(OPENSSL_sk_value(pki_store->ca_infos, i));
    contents.push_back(elements(ca->trusted_roots));
    contents.push_back(elements(ca->cert_status_methods));
  }
  return contents;
}

// An empty store whose lists have no room left over, so that the first push must allocate.
inline void fresh_store() {
  fake_allocator::pause no_failures;
  empty_store();
  for (STACK **list : {&pki_store->key_store, &pki_store->ca_infos, &pki_store->provisioned_certs,
                       &pki_store->collected_certs, &pki_store->global_status_rules}) {
    OPENSSL_sk_free(*list);
    *list = OPENSSL_sk_new_null();
  }
}

// A list of certificates that a test owns, with one reference on each.
class cert_list {
 public:
  cert_list() : list_(OPENSSL_sk_new_null()) {}
  cert_list(std::initializer_list<cert> certs) : cert_list() {
    for (const cert &each : certs)
      push(each);
  }
  cert_list(const cert_list &) = delete;
  cert_list &operator=(const cert_list &) = delete;
  ~cert_list() { clear(); }

  void push(const cert &object) { OPENSSL_sk_push(list_, reference(object)); }
  void clear() {
    fake_allocator::pause no_failures;
    OPENSSL_sk_pop_free(list_, [](void *each) { X509_free(static_cast<X509 *>(each)); });
    list_ = nullptr;
  }
  // Gives up what it has and starts as a null handle, for a search to fill.
  STACK **null_handle() {
    clear();
    return &list_;
  }
  STACK **handle() { return &list_; }
  STACK *get() const { return list_; }
  operator STACK *() const { return list_; }

 private:
  STACK *list_;
};

// A CA record that a test owns.
using ca = std::shared_ptr<ca_info>;
inline ca make_ca_info(const char *label, const char *issuer_cn = nullptr) {
  ca_info *made = alloc_ca_info();
  made->label = pki_strdup(label);
  if (issuer_cn)
    made->issuer_name = X509_NAME_dup(common_name(issuer_cn).get());
  return ca(made, free_ca_info);
}

// A match rule that a test owns. A null name stays null.
using rule = std::shared_ptr<cert_match_rule>;
inline rule name_rule(int type, const name &wanted) {
  cert_match_rule *made = alloc_cert_match_rule();
  made->type = type;
  made->name_or_low = wanted ? X509_NAME_dup(wanted.get()) : nullptr;
  return rule(made, free_cert_match_rule);
}
inline rule serial_rule(const integer &low, const integer &high = nullptr) {
  cert_match_rule *made = alloc_cert_match_rule();
  made->type = PKI_MATCH_SERIAL;
  made->name_or_low = low ? ASN1_INTEGER_dup(low.get()) : nullptr;
  made->high = high ? ASN1_INTEGER_dup(high.get()) : nullptr;
  return rule(made, free_cert_match_rule);
}

// A list of match rules that a test owns, with one reference on each.
class rule_list {
 public:
  rule_list(std::initializer_list<rule> rules) : list_(OPENSSL_sk_new_null()) {
    for (const rule &each : rules)
      OPENSSL_sk_push(list_, dup_cert_match_rule(each.get()));
  }
  rule_list(const rule_list &) = delete;
  rule_list &operator=(const rule_list &) = delete;
  ~rule_list() {
    OPENSSL_sk_pop_free(
        list_, [](void *each) { free_cert_match_rule(static_cast<cert_match_rule *>(each)); });
  }
  operator STACK *() const { return list_; }

 private:
  STACK *list_;
};

// The last status rule of a list.
inline cert_status_info *last_status(const STACK *list) {
  return static_cast<cert_status_info *>(OPENSSL_sk_value(list, OPENSSL_sk_num(list) - 1));
}

// A list of status rules that a test owns.
class status_list {
 public:
  status_list() : list_(OPENSSL_sk_new_null()) {}
  status_list(const status_list &) = delete;
  status_list &operator=(const status_list &) = delete;
  ~status_list() { clear(); }
  void clear() {
    fake_allocator::pause no_failures;
    OPENSSL_sk_pop_free(
        list_, [](void *each) { free_cert_status_info(static_cast<cert_status_info *>(each)); });
    list_ = nullptr;
  }
  void renew() {
    clear();
    fake_allocator::pause no_failures;
    list_ = OPENSSL_sk_new_null();
  }
  operator STACK *() const { return list_; }

 private:
  STACK *list_;
};

}  // namespace support

#endif
