// Chains, and verifications of them by OpenSSL with the library's callbacks.
#ifndef TESTS_UNIT_VERIFIER_VALIDATOR_SUPPORT_H
#define TESTS_UNIT_VERIFIER_VALIDATOR_SUPPORT_H

#include <libpki/libpki.h>
#include <libpki/trace.h>
#include <openssl/x509_vfy.h>

#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fakes/clock.h"
#include "fakes/log_capture.h"
#include "support/certs.h"
#include "support/store_fixture.h"
#include "unit/verifier/cache_support.h"

namespace validator_support {

using support::cert;
using callback = int (*)(int, X509_STORE_CTX *);
using certs = std::vector<cert>;
using extensions = std::vector<std::pair<std::string, std::string>>;

constexpr callback internet = zv_cv_cert_validator_internet;
constexpr callback local = zv_cv_cert_validator_local;

struct named_callback {
  const char *name;
  callback call;
  bool is_internet;
};
inline const std::vector<named_callback> all_callbacks = {
    {"internet", zv_cv_cert_validator_internet, true},
    {"internet_ex", zv_cv_cert_validator_internet_ex, true},
    {"local", zv_cv_cert_validator_local, false},
    {"local_ex", zv_cv_cert_validator_local_ex, false}};

// ---- certificates ----

// certificatePolicies of 1.2.3.4: OpenSSL knows the extension, the library does not.
constexpr char policies[] = "DER:30:07:30:05:06:03:2A:03:04";
constexpr char critical_policies[] = "critical,DER:30:07:30:05:06:03:2A:03:04";

// CN=`subject` with test_key(key), issued by CN=`issuer` with test_key(issuer_key).
struct issue {
  std::string subject, issuer;
  int key = 0, issuer_key = 0;
  long serial = 1;
  bool ca = false;
  extensions more = {};
  time_t not_before = 0, not_after = 0;
  long version = 2;
};

inline cert make(const issue &what) {
  support::cert_options options;
  options.subject = support::common_name(what.subject);
  options.issuer = support::common_name(what.issuer);
  options.public_key = support::test_key(what.key);
  options.signing_key = support::test_key(what.issuer_key);
  options.serial = what.serial;
  options.ca = what.ca;
  options.extensions = what.more;
  options.not_before = what.not_before;
  options.not_after = what.not_after;
  options.version = what.version;
  return support::make_cert(options);
}

inline cert make_root(const extensions &more = {}) {
  return make({.subject = "root", .issuer = "root", .ca = true, .more = more});
}
inline cert make_inter(const extensions &more = {}, long serial = 2) {
  return make({.subject = "inter",
               .issuer = "root",
               .key = 1,
               .issuer_key = 0,
               .serial = serial,
               .ca = true,
               .more = more});
}
// An intermediate whose only extensions are these.
inline cert make_bare_inter(const extensions &only, long version = 2) {
  return make({.subject = "inter",
               .issuer = "root",
               .key = 1,
               .issuer_key = 0,
               .serial = 2,
               .more = only,
               .version = version});
}
inline cert make_leaf(const extensions &more = {}, long serial = 3) {
  return make({.subject = "leaf",
               .issuer = "inter",
               .key = 2,
               .issuer_key = 1,
               .serial = serial,
               .more = more});
}

using stack = std::shared_ptr<STACK_OF(X509)>;
inline stack make_stack(const certs &content) {
  STACK_OF(X509) *made = sk_X509_new_null();
  for (const cert &each : content) {
    if (each)
      X509_up_ref(each.get());
    sk_X509_push(made, each.get());
  }
  return stack(made, [](STACK_OF(X509) * list) { sk_X509_pop_free(list, X509_free); });
}

// ---- verifications ----

struct verification {
  cert leaf;
  certs untrusted = {};
  certs trusted = {};
  unsigned long flags = 0;
  unsigned long without_flags = 0;
  int max_depth = 0;
  time_t check_time = 0;
};

struct verdict {
  int accepted = -1;
  int error = 0;
  int error_depth = 0;
  std::vector<std::string> chain = {};  // serial numbers, the end entity's first
};

using x509_store = std::shared_ptr<X509_STORE>;
inline x509_store make_x509_store(const certs &trusted) {
  x509_store made(X509_STORE_new(), X509_STORE_free);
  for (const cert &each : trusted)
    X509_STORE_add_cert(made.get(), each.get());
  return made;
}

using context = std::shared_ptr<X509_STORE_CTX>;
inline context make_context() {
  return context(X509_STORE_CTX_new(), X509_STORE_CTX_free);
}

inline void set_parameters(X509_STORE_CTX *ctx, const verification &what) {
  X509_VERIFY_PARAM *param = X509_STORE_CTX_get0_param(ctx);
  X509_VERIFY_PARAM_set_flags(param, what.flags);
  X509_VERIFY_PARAM_clear_flags(param, what.without_flags);
  if (what.max_depth)
    X509_VERIFY_PARAM_set_depth(param, what.max_depth);
  if (what.check_time)
    X509_VERIFY_PARAM_set_time(param, what.check_time);
}

inline verdict verify(const verification &what, callback verify_cb) {
  x509_store store = make_x509_store(what.trusted);
  stack untrusted = make_stack(what.untrusted);
  context ctx = make_context();
  X509_STORE_CTX_init(ctx.get(), store.get(), what.leaf.get(), untrusted.get());
  set_parameters(ctx.get(), what);
  X509_STORE_CTX_set_verify_cb(ctx.get(), verify_cb);
  verdict result;
  result.accepted = X509_verify_cert(ctx.get());
  result.error = X509_STORE_CTX_get_error(ctx.get());
  result.error_depth = X509_STORE_CTX_get_error_depth(ctx.get());
  STACK_OF(X509) *chain = X509_STORE_CTX_get0_chain(ctx.get());
  for (int i = 0; i < sk_X509_num(chain); i++)
    result.chain.push_back(
        std::to_string(ASN1_INTEGER_get(X509_get0_serialNumber(sk_X509_value(chain, i)))));
  return result;
}

inline bool accepts(const verification &what, callback verify_cb) {
  return verify(what, verify_cb).accepted == 1;
}

// A context as OpenSSL prepares it before it calls back about `chain[depth]`.
inline context prepare(const certs &chain, int depth, int error = X509_V_OK) {
  context ctx = make_context();
  X509_STORE_CTX_init(ctx.get(), nullptr, chain.empty() ? nullptr : chain[0].get(), nullptr);
  STACK_OF(X509) *built = sk_X509_new_null();
  for (const cert &each : chain) {
    if (each)
      X509_up_ref(each.get());
    sk_X509_push(built, each.get());
  }
  X509_STORE_CTX_set0_verified_chain(ctx.get(), built);
  auto at = static_cast<size_t>(depth);
  X509_STORE_CTX_set_current_cert(ctx.get(), at < chain.size() ? chain[at].get() : nullptr);
  X509_STORE_CTX_set_error_depth(ctx.get(), depth);
  X509_STORE_CTX_set_error(ctx.get(), error);
  return ctx;
}

// ---- status rules and cached statuses ----

using match_rules = std::shared_ptr<STACK>;
// One rule for that subject, or none, which fits every certificate.
inline match_rules rules_for(const char *subject = nullptr) {
  STACK *list = OPENSSL_sk_new_null();
  if (subject) {
    cert_match_rule *rule = alloc_cert_match_rule();
    rule->type = PKI_MATCH_SUBJECT;
    rule->name_or_low = X509_NAME_dup(support::common_name(subject).get());
    OPENSSL_sk_push(list, rule);
  }
  return match_rules(list, [](STACK *each) {
    OPENSSL_sk_pop_free(
        each, [](void *rule) { free_cert_match_rule(static_cast<cert_match_rule *>(rule)); });
  });
}

inline void add_always_ok(const char *subject = nullptr, bool after = false) {
  ASSERT_EQ(0, pki_add_aok_info(nullptr, rules_for(subject).get(), after));
}

inline void add_ocsp(const std::string &url, bool after, bool is_final,
                     const char *subject = nullptr) {
  ASSERT_EQ(0, pki_add_ocsp_info(nullptr, rules_for(subject).get(), url.c_str(), nullptr, 0, after,
                                 is_final));
}

using cache_support::hold;
using cache_support::record;
inline record cached(const cert &subject) {
  return hold(zv_cv_find_cert_sts_info_cache(subject.get()));
}
// Caches a status for so many seconds.
inline record cache_status(const cert &subject, int status, long seconds = 3600) {
  record info = hold(cv_alloc_cert_sts_info(status, subject.get(),
                                            support::make_time(time(nullptr) + seconds).get()));
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  return info;
}

// The serial numbers of the store's collected certificates, in order.
inline std::vector<long> collected() {
  std::vector<long> serials;
  for (int i = 0; i < OPENSSL_sk_num(pki_store->collected_certs); i++)
    serials.push_back(ASN1_INTEGER_get(X509_get0_serialNumber(
        static_cast<X509 *>(OPENSSL_sk_value(pki_store->collected_certs, i)))));
  return serials;
}

// Levels 0 to 4.
inline std::vector<std::string> complaints() {
  std::vector<std::string> found;
  for (const log_entry &entry : captured_log())
    if (entry.level <= 4)
      found.push_back(std::to_string(entry.level) + " " + entry.text);
  return found;
}
using lines = std::vector<std::string>;

// An empty store, empty caches, and a clock that stands still at the real time.
class validator_test : public support::store_test {
 protected:
  void SetUp() override {
    store_test::SetUp();
    fake_clock::set(time(nullptr));
  }
  void TearDown() override {
    zv_cv_set_trace(nullptr, nullptr);
    zv_cv_disable_crl_check(0);
    store_test::TearDown();
  }
};

// With a root, an intermediate and an end entity.
class chain_test : public validator_test {
 protected:
  cert root_ = make_root(), inter_ = make_inter(), leaf_ = make_leaf();

  verification chain() const { return {.leaf = leaf_, .untrusted = {inter_}, .trusted = {root_}}; }
  verification chain_of(const cert &inter, const cert &leaf) const {
    return {.leaf = leaf, .untrusted = {inter}, .trusted = {root_}};
  }
};

}  // namespace validator_support

#endif
