// What the tests of decisions by CRLs share: a CA, a device's certificate, a server of CRLs, and
// the decision itself with a clock that stands still.
#ifndef TESTS_UNIT_VERIFIER_CRL_CACHE_DECIDE_SUPPORT_H
#define TESTS_UNIT_VERIFIER_CRL_CACHE_DECIDE_SUPPORT_H

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <utility>

#include "fakes/log_capture.h"
#include "support/test_server.h"
#include "unit/verifier/cache_support.h"
#include "unit/verifier/crl_cache/crl_objects.h"
#include "unit/verifier/issued_certs.h"
#include "verifier/cert_status.h"

namespace decide_support {

using namespace issued_certs;
using cache_support::record;
using cache_support::start;
using cache_support::status_of;
using support::crl_entry;
using support::crl_fields;
using certs = std::vector<support::cert>;

constexpr int no_answer = -1;

const std::pair<std::string, std::string> crl_sign = {"keyUsage", "critical,cRLSign"};
const std::pair<std::string, std::string> no_crl_sign = {"keyUsage", "critical,keyCertSign"};

// The issuer's CRL with these entries and extensions.
inline crl_fields crl_of(const std::string &entries = "", const std::string &crl_extensions = "",
                         int owner = issuer_key, const std::string &issuer = "issuer") {
  crl_fields fields;
  fields.issuer = support::der_name(issuer);
  if (!entries.empty())
    fields.entries = entries;
  fields.extensions = crl_extensions;
  fields.signing_key = support::test_key(owner);
  return fields;
}
inline crl_fields revoking_crl(const std::string &crl_extensions = "") {
  return crl_of(crl_entry(device_serial), crl_extensions);
}
inline std::string some_reasons(unsigned mask) {
  return support::issuing_dist_point({.reasons = mask});
}

// Serves files over HTTP.
class crl_server {
 public:
  crl_server() : server_([this](const std::string &request) { return respond(request); }) {}

  // From now on; what is not published gives 404.
  void publish(const std::string &path, const std::string &octets) {
    std::lock_guard lock(mutex_);
    files_[path] = octets;
  }
  void publish(const std::string &path, const crl_fields &fields) {
    publish(path, support::crl_octets(fields));
  }
  void withdraw(const std::string &path) {
    std::lock_guard lock(mutex_);
    files_.erase(path);
  }
  void announce_length(bool announce) { announce_ = announce; }
  // The length of this one stays unsaid.
  void hide_length_of(const std::string &path) {
    std::lock_guard lock(mutex_);
    hidden_.insert(path);
  }

  std::string url(const std::string &path) const { return server_.url(path); }
  // The paths asked for so far, in order, each with a blank behind it.
  std::string asked() const {
    std::string all;
    for (const std::string &request : server_.requests())
      all += path_of(request) + " ";
    return all;
  }
  size_t requests() const { return server_.requests().size(); }

 private:
  static std::string path_of(const std::string &request) {
    size_t from = request.find('/');
    return request.substr(from, request.find(' ', from) - from);
  }
  support::answer respond(const std::string &request) {
    std::lock_guard lock(mutex_);
    auto found = files_.find(path_of(request));
    if (found == files_.end())
      return support::status(404);
    if (announce_ && !hidden_.count(found->first))
      return support::ok(found->second, "application/pkix-crl");
    return support::raw("HTTP/1.0 200 OK\r\nContent-Type: application/pkix-crl\r\n\r\n" +
                        found->second);
  }

  std::mutex mutex_;
  std::map<std::string, std::string> files_;
  std::set<std::string> hidden_;
  std::atomic<bool> announce_{true};
  support::test_server server_;
};

// ---- distribution points ----

struct place {
  std::string path;
  std::optional<unsigned> reasons = {};
  std::string crl_issuer = {};
};

inline std::string encode_place(const crl_server &server, const place &each) {
  return extension_der::point(
      extension_der::full_name(support::der_uri(server.url(each.path))) +
      (each.reasons ? support::der_reasons(*each.reasons, 0x81) : "") +
      (each.crl_issuer.empty()
           ? ""
           : extension_der::crl_issuer(support::der_directory_name(each.crl_issuer))));
}
inline std::string encode_places(const crl_server &server, const std::vector<place> &all) {
  std::string encodings;
  for (const place &each : all)
    encodings += encode_place(server, each);
  return encodings;
}

inline testing::AssertionResult valid_until(const record &info, time_t when) {
  if (!info)
    return testing::AssertionFailure() << "no answer";
  int days = 0, seconds = 0;
  ASN1_TIME_diff(&days, &seconds, support::make_time(when).get(), info->valid_until);
  if (days == 0 && seconds == 0)
    return testing::AssertionSuccess();
  return testing::AssertionFailure() << "off by " << days << " days, " << seconds << " s";
}

// What a host verifies with.
class trust_context {
 public:
  explicit trust_context(const certs &trusted, const certs &untrusted = {})
      : store_(X509_STORE_new(), X509_STORE_free),
        untrusted_(sk_X509_new_null(), [](STACK_OF(X509) * list) { sk_X509_free(list); }),
        context_(X509_STORE_CTX_new(), X509_STORE_CTX_free),
        held_(untrusted) {
    for (const support::cert &each : trusted)
      X509_STORE_add_cert(store_.get(), each.get());
    for (const support::cert &each : untrusted)
      sk_X509_push(untrusted_.get(), each.get());
    X509_STORE_CTX_init(context_.get(), store_.get(), nullptr, untrusted_.get());
  }
  X509_STORE_CTX *get() const { return context_.get(); }
  X509_STORE *store() const { return store_.get(); }

 private:
  std::shared_ptr<X509_STORE> store_;
  std::shared_ptr<STACK_OF(X509)> untrusted_;
  std::shared_ptr<X509_STORE_CTX> context_;
  certs held_;
};

// Lists whose length is announced are decoded in full; others keep what is about the device only.
class decide_test : public support::store_test {
 protected:
  void SetUp() override {
    store_test::SetUp();
    fake_clock::set(start);
    know(issuer);
  }

  // The store holds it from now on.
  static void know(const support::cert &cert) {
    EXPECT_EQ(0, pki_add_untrusted_cert(cert.get(), 1));
  }

  record ask(void *data) {
    return cache_support::hold(pki::zv_cv_crl_get_sts_info(
        data, device.get(), issuer.get(), trust ? trust->get() : nullptr, issuer_trusted, depth));
  }
  // The certificate's distribution points, and those of its freshestCRL.
  record decide_at(const std::vector<place> &places, const std::vector<place> &deltas = {}) {
    points dps = make_list(places), delta_dps = make_list(deltas);
    pki::dist_points_locator locator = {pki::locator_dist_points, dps.get(), delta_dps.get()};
    return ask(&locator);
  }
  record decide(const std::string &path) { return decide_at({{path}}); }
  // One CRL at one place.
  record decide(const crl_fields &fields) {
    server.publish("/crl", fields);
    return decide("/crl");
  }
  // Configured CRLs.
  record decide(const crl_objects::source_list &sources) {
    pki::crls_locator locator = {pki::locator_crls, sources.get()};
    return ask(&locator);
  }
  // A configured CRL with a configured signer.
  record decide_by(const support::cert &signer, const crl_fields &fields) {
    server.publish("/crl", fields);
    crl_objects::source_list sources;
    OPENSSL_sk_push(sources.get(),
                    create_crl_info(server.url("/crl").c_str(), 0, 0, 0, nullptr, signer.get()));
    return decide(sources);
  }

  using points = crl_objects::points;
  points make_list(const std::vector<place> &places) const {
    return crl_objects::make_points(encode_places(server, places));
  }
  // The extension that names these places.
  std::string freshest(const std::string &path) const {
    return support::freshest_crl({server.url(path)});
  }

  static std::string unknown_line(const std::string &mask) {
    return "Not enough CRL's found for cert (/CN=device) - reason mask is only " + mask +
           " => cert unknown";
  }
  static constexpr char good_line[] = "cert (/CN=device) not in any CRL => cert ok";
  static constexpr char revoked_line[] = "found cert (/CN=device) in crl => cert revoked";
  static constexpr char removed_line[] = "cert (/CN=device) listed as removeFromCRL => cert ok";
  static constexpr char nobody_trusted[] = "no crl-signer certs trusted - ignoring CRL";

  // What the cache holds of that issuer.
  static bool is_cached(const std::string &issuer_cn = "issuer", uint32_t reasons = 0) {
    return cache_support::peek(issuer_cn, reasons) != nullptr;
  }
  static void cache(const crl_fields &fields, const support::cert &signer) {
    EXPECT_EQ(0, zv_cv_add_crl_to_cache(crl_objects::crl_object(fields).get(), signer.get()));
  }
  // The status that checks of this certificate find.
  static void set_status(const support::cert &cert, int status) {
    record info = cache_support::make_record(cert, start + 3600, status);
    EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  }

  crl_server server;
  support::cert issuer = make_issuer();
  support::cert device = issue("device", device_serial, device_key);
  std::shared_ptr<trust_context> trust = std::make_shared<trust_context>(certs{issuer});
  unsigned char issuer_trusted = 1;
  int depth = 0;
};

// Both ways of decoding.
class decide_both_ways : public decide_test, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    decide_test::SetUp();
    server.announce_length(in_full());
  }
  static bool in_full() { return GetParam(); }
};
inline std::string way_name(const testing::TestParamInfo<bool> &info) {
  return info.param ? "InFull" : "Truncated";
}

}  // namespace decide_support

#endif
