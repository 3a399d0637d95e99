// What the tests of CRL fetching share: a record about a server of the test's own, and what
// getting its CRL gave and logged.
#ifndef TESTS_UNIT_VERIFIER_CRL_CACHE_FETCH_SUPPORT_H
#define TESTS_UNIT_VERIFIER_CRL_CACHE_FETCH_SUPPORT_H

#include <memory>
#include <string>
#include <vector>

#include "fakes/clock.h"
#include "fakes/failures.h"
#include "support/test_server.h"
#include "unit/verifier/crl_cache/decoder_support.h"
#include "unit/verifier/own_log.h"
#include "verifier/crl_cache/fetch.h"

namespace crl_support {

using support::test_server;

constexpr char crl_type[] = "application/pkix-crl";

// An answer with the body, with or without a Content-Length.
inline support::answer serve(const std::string &body, bool announced = true,
                             const std::string &type = crl_type) {
  if (announced)
    return support::ok(body, type);
  return support::raw("HTTP/1.0 200 OK\r\nContent-Type: " + type + "\r\n\r\n" + body);
}

// A self-signed certificate of a CRL signer.
inline support::cert signer_cert(const std::string &cn = "issuer", int key = 0, long serial = 1,
                                 const std::string &key_id = "") {
  support::cert_options options;
  options.subject = support::common_name(cn);
  options.public_key = support::test_key(key);
  options.serial = serial;
  options.not_before = support::crl_der_now - 86400;
  options.not_after = support::crl_der_now + 86400;
  if (!key_id.empty())
    options.extensions = {{"subjectKeyIdentifier", key_id}};
  return support::make_cert(options);
}

struct got_crl {
  int code = -1;
  support::crl crl;
  std::vector<support::cert> signers;
  bool from_cache = false;
  std::string out;  // on standard output
};

struct get_options {
  int format = 0;
  uint32_t reasons = 0;
  support::name crl_issuer = {};
  support::cert signer = {};  // configured
  support::cert target = crl_support::target();
  support::cert issuer = {};
  std::vector<support::cert> sent = {};  // untrusted, with the verification
  pki::cache_use use = {};
};

class crl_fetch_test : public support::store_test {
 protected:
  void SetUp() override {
    store_test::SetUp();
    fake_clock::set(support::crl_der_now);
  }

  static std::shared_ptr<X509_STORE_CTX> verification_with(const std::vector<support::cert> &sent) {
    if (sent.empty())
      return nullptr;
    STACK_OF(X509) *untrusted = sk_X509_new_null();
    for (const support::cert &cert : sent)
      sk_X509_push(untrusted, cert.get());
    std::shared_ptr<X509_STORE_CTX> made(X509_STORE_CTX_new(), [untrusted](X509_STORE_CTX *ctx) {
      X509_STORE_CTX_free(ctx);
      sk_X509_free(untrusted);
    });
    X509_STORE_CTX_init(made.get(), nullptr, nullptr, untrusted);
    return made;
  }

  got_crl get(const std::string &url, const get_options &options = {}) {
    crl_info *record = create_crl_info(url.c_str(), options.format, options.reasons, 0,
                                       options.crl_issuer.get(), options.signer.get());
    std::shared_ptr<X509_STORE_CTX> verification = verification_with(options.sent);
    pki::fetched_crl found;
    got_crl got;
    got.out = output_of([&] {
      got.code = pki::cv_get_crl(
          record, {options.target.get(), options.issuer.get(), verification.get(), false, 0},
          options.use, &found);
    });
    free_crl_info(record);
    // A failure leaves nothing; a success has a CRL and a signer.
    EXPECT_EQ(got.code == 0, found.crl != nullptr);
    EXPECT_EQ(got.code == 0, sk_X509_num(found.signers.get()) > 0);
    got.from_cache = found.from_cache;
    got.crl = hold(found.crl.release());
    for (int i = 0; i < sk_X509_num(found.signers.get()); i++) {
      X509 *signer = sk_X509_value(found.signers.get(), i);
      X509_up_ref(signer);
      got.signers.emplace_back(signer, X509_free);
    }
    EXPECT_FALSE(is_cached()) << "only the caller puts a CRL into the cache";
    return got;
  }
  // Serves the body once and gets it; last_url names it.
  got_crl get_body(const std::string &body, const get_options &options = {},
                   bool announced = true) {
    test_server server({serve(body, announced)});
    last_url = server.url("/crl");
    clear_log();
    return get(last_url, options);
  }

  // The download alone.
  decoded send(const std::string &url, int format = 0) {
    decoded result;
    result.context.reset(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    pki::crl_request request = {};
    request.tbs_digest = result.context.get();
    request.target_cert = target().get();
    last_url = url;
    out = output_of([&] { result.code = pki::cv_send_crl_request(&request, url.c_str(), format); });
    EXPECT_EQ(result.code == 0, request.crl != nullptr);
    result.crl = hold(request.crl);
    result.truncated = request.truncated;
    return result;
  }
  decoded send_body(const std::string &body, int format = 0, bool announced = true) {
    test_server server({serve(body, announced)});
    clear_log();
    return send(server.url("/crl"), format);
  }

  static void trust(const support::cert &cert) {
    ASSERT_EQ(0, pki_add_untrusted_cert(cert.get(), 1));
  }

  bool is_cached() const {
    X509_CRL *found = expected_in_cache ? nullptr
                                        : zv_cv_find_crl_in_cache(
                                              support::common_name("issuer").get(), 0, nullptr);
    X509_CRL_free(found);
    return found != nullptr;
  }

  std::string discarded_line() const { return "4: discarding downloaded CRL (" + last_url + ")\n"; }
  std::string failed_line(int code) const {
    return "3: Failed to decode CRL from '" + last_url + "': " + std::to_string(code) + "\n";
  }
  std::string failed_pkcs7_line(const std::string &message = "ASN1 DECODE ERROR") const {
    return "3: Failed to decode PKCS7 from '" + last_url + "': " + message + "\n";
  }
  static constexpr char full_line[] = "7: CRL (/CN=issuer) fully decoded\n";
  static constexpr char truncated_line[] = "7: CRL (/CN=issuer) too large - truncated it\n";

  std::string last_url, out;
  bool expected_in_cache = false;  // the test put one there
};

}  // namespace crl_support

#endif
