// Status rules in the store, and lists of locators in a form that can be compared.
#ifndef TESTS_UNIT_VERIFIER_CERT_STATUS_LOCATOR_SUPPORT_H
#define TESTS_UNIT_VERIFIER_CERT_STATUS_LOCATOR_SUPPORT_H

#include <libpki/libpki.h>

#include <memory>
#include <string>
#include <vector>

#include "../extension_der.h"
#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "support/certs.h"
#include "support/store_fixture.h"
#include "verifier/cert_status_locator/internal.h"

namespace locator_support {

using lines = std::vector<std::string>;
using list_ptr =
    std::unique_ptr<pki::cert_sts_locator_list, void (*)(pki::cert_sts_locator_list *)>;
using record_ptr = std::unique_ptr<cert_sts_info, void (*)(cert_sts_info *)>;

inline list_ptr find_locators(const support::cert &cert) {
  return list_ptr(pki::zv_find_cert_sts_locators(cert.get()), pki::zv_cv_free_csl_list);
}

inline support::cert make_cert(const std::vector<extension_der::extension> &extensions = {}) {
  support::cert_options options;
  options.subject = support::common_name("device");
  options.issuer = support::common_name("issuer");
  options.extensions = extensions;
  return support::make_cert(options);
}

template <class Data>
Data *data_of(const list_ptr &list, int index) {
  return static_cast<Data *>(list->locators[index]->data);
}

// "ocsp URL", "points N delta M", "crls URL URL" or "always-ok", with " final" behind it.
inline std::string describe(const pki::cert_sts_locator *locator) {
  std::string text = "always-ok";
  if (locator->data) {
    switch (*static_cast<const int *>(locator->data)) {
      case pki::locator_ocsp_url:
        text = std::string("ocsp ") + static_cast<const pki::ocsp_locator *>(locator->data)->url;
        break;
      case pki::locator_dist_points: {
        const auto *data = static_cast<const pki::dist_points_locator *>(locator->data);
        text = "points " + std::to_string(sk_DIST_POINT_num(data->dps)) + " delta " +
               std::to_string(sk_DIST_POINT_num(data->delta_dps));
        break;
      }
      case pki::locator_crls: {
        const STACK *crls = static_cast<const pki::crls_locator *>(locator->data)->crls;
        text = "crls";
        for (int i = 0; i < OPENSSL_sk_num(crls); i++)
          text += std::string(" ") + static_cast<crl_info *>(OPENSSL_sk_value(crls, i))->url;
        break;
      }
      default:
        text = "unknown";
    }
  }
  return text + (locator->final ? " final" : "");
}

inline lines describe(const pki::cert_sts_locator_list *list) {
  lines all;
  for (int i = 0; i < list->count; i++)
    all.push_back(describe(list->locators[i]));
  return all;
}
inline lines describe(const list_ptr &list) {
  return list ? describe(list.get()) : lines{"no list"};
}

// ---- rules ----

// A list of match rules: one for that subject, or none, which fits every certificate.
class match_rules {
 public:
  explicit match_rules(const char *subject = nullptr) : list_(OPENSSL_sk_new_null()) {
    if (!subject)
      return;
    cert_match_rule *rule = alloc_cert_match_rule();
    rule->type = PKI_MATCH_SUBJECT;
    rule->name_or_low = X509_NAME_dup(support::common_name(subject).get());
    OPENSSL_sk_push(list_, rule);
  }
  match_rules(const match_rules &) = delete;
  match_rules &operator=(const match_rules &) = delete;
  ~match_rules() {
    OPENSSL_sk_pop_free(
        list_, [](void *each) { free_cert_match_rule(static_cast<cert_match_rule *>(each)); });
  }
  operator const STACK *() const { return list_; }

 private:
  STACK *list_;
};

enum when : unsigned char { before = 0, after = 1 };
enum ending : unsigned char { goes_on = 0, is_final = 1 };

inline void add_ocsp(ca_info *ca, const char *url, when flag0, ending flag1 = goes_on,
                     X509 *signer = nullptr, unsigned char option = 0,
                     const char *subject = nullptr) {
  match_rules rules(subject);
  ASSERT_EQ(0, pki_add_ocsp_info(ca, rules, url, signer, option, flag0, flag1));
}

inline void add_crls(ca_info *ca, const std::vector<std::string> &urls, when flag0,
                     ending flag1 = goes_on) {
  match_rules rules;
  STACK *crls = OPENSSL_sk_new_null();
  for (const std::string &url : urls)
    OPENSSL_sk_push(crls, create_crl_info(url.c_str(), 0, PKI_ALL_REASONS, 0, nullptr, nullptr));
  ASSERT_EQ(0, pki_add_crl_info(ca, rules, crls, flag0, flag1));
  OPENSSL_sk_pop_free(crls, [](void *each) { free_crl_info(static_cast<crl_info *>(each)); });
}

// Always-ok rules are final in whatever way they are added.
inline void add_always_ok(ca_info *ca, when flag0, const char *subject = nullptr) {
  match_rules rules(subject);
  ASSERT_EQ(0, pki_add_aok_info(ca, rules, flag0));
}

// A rule of a method that nobody adds.
inline void add_unknown_method(int method, when flag0) {
  cert_status_info *rule = alloc_cert_status_info();
  rule->mechanism = method;
  rule->flags = flag0;
  OPENSSL_sk_push(pki_store->global_status_rules, rule);
}

// A CA in the store.
inline std::shared_ptr<ca_info> add_ca(const char *label) {
  ca_info *made = alloc_ca_info();
  made->label = pki_strdup(label);
  EXPECT_EQ(0, pki_add_ca_info(made));
  return std::shared_ptr<ca_info>(made, free_ca_info);
}

class locator_test : public support::store_test {
 protected:
  // What the log has at that level, in order.
  static lines logged(int level) {
    lines found;
    for (const log_entry &entry : captured_log())
      if (entry.level == level)
        found.push_back(entry.text);
    return found;
  }
  // The lines with `part` in them, in order.
  static lines logged_about(const std::string &part) {
    lines found;
    for (const log_entry &entry : captured_log())
      if (entry.text.find(part) != std::string::npos)
        found.push_back(entry.text);
    return found;
  }
};

}  // namespace locator_support

#endif
