// What the tests of the OCSP query share: a CA, a device's certificate, certificates of responders,
// and the query itself with a clock that stands still.
#ifndef TESTS_UNIT_VERIFIER_CERT_VERIFIER_OCSP_SUPPORT_H
#define TESTS_UNIT_VERIFIER_CERT_VERIFIER_OCSP_SUPPORT_H

#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <string>
#include <utility>
#include <vector>

#include "fakes/clock.h"
#include "fakes/log_capture.h"
#include "support/certs.h"
#include "support/ocsp_responder.h"
#include "unit/verifier/cache_support.h"
#include "unit/verifier/issued_certs.h"
#include "unit/verifier/own_log.h"
#include "verifier/cert_status.h"

namespace ocsp_support {

using namespace issued_certs;
using cache_support::record;
using cache_support::start;
using cache_support::status_of;
using support::ocsp_nonce;
using support::ocsp_options;
using support::ocsp_responder;
using support::ocsp_single;

constexpr long responder_serial = 20;

const std::pair<std::string, std::string> ocsp_signing = {"extendedKeyUsage", "OCSPSigning"};
const std::pair<std::string, std::string> no_check = {"noCheck", "ignored"};
inline std::pair<std::string, std::string> ask_at(const std::string &url) {
  return {"authorityInfoAccess", "OCSP;URI:" + url};
}

inline support::cert issue_responder(const extensions &more = {ocsp_signing, no_check}) {
  return issue("responder", responder_serial, responder_key, more);
}

inline bool in_list(const STACK *list, const support::cert &wanted) {
  for (int i = 0; i < OPENSSL_sk_num(list); i++)
    if (X509_cmp(static_cast<X509 *>(OPENSSL_sk_value(list, i)), wanted.get()) == 0)
      return true;
  return false;
}

// The size of what a response's OCTET STRING holds.
inline std::string basic_length_line(const std::string &der) {
  const auto *in = reinterpret_cast<const unsigned char *>(der.data());
  OCSP_RESPONSE *response = d2i_OCSP_RESPONSE(nullptr, &in, static_cast<long>(der.size()));
  OCSP_BASICRESP *basic = OCSP_response_get1_basic(response);
  int length = i2d_OCSP_BASICRESP(basic, nullptr);
  OCSP_BASICRESP_free(basic);
  OCSP_RESPONSE_free(response);
  return "7: basic-rsp len: " + std::to_string(length) + "\n";
}

class ocsp_query_test : public support::store_test {
 protected:
  void SetUp() override {
    store_test::SetUp();
    fake_clock::set(start);
  }

  // What the issuer itself answers.
  ocsp_options by_issuer(int status = V_OCSP_CERTSTATUS_GOOD) const {
    ocsp_options options;
    options.signer = issuer;
    options.signing_key = support::test_key(issuer_key);
    options.single.status = status;
    return options;
  }
  // What a responder of that certificate and key answers, with its certificate.
  ocsp_options by(const support::cert &signer, int owner = responder_key) const {
    ocsp_options options;
    options.signer = signer;
    options.signing_key = support::test_key(owner);
    options.certs = {signer};
    return options;
  }

  record query(const std::string &url) { return query(url, device); }
  record query(const std::string &url, const support::cert &cert) {
    std::string url_copy = url;
    pki::ocsp_locator locator = {pki::locator_ocsp_url, url_copy.data(), configured.get(),
                                 ocsp_flag};
    last_url = url;
    return cache_support::hold(
        pki::zv_cv_ocsp_get_sts_info(&locator, cert.get(), issuer.get(), context, internet, depth));
  }
  record ask(ocsp_responder &responder) { return query(responder.url("/ocsp")); }
  // Asks a responder that answers like this.
  record ask(const ocsp_options &options) {
    ocsp_responder responder(options);
    return ask(responder);
  }

  // The first line of each query.
  std::string lookup_line() const {
    return "7: look up status of cert '/CN=device' using OCSP (" + last_url + ")\n";
  }
  // The log without the two lines that begin a query whose answer could be opened.
  std::string judgement() const {
    std::string log = own_log();
    if (log.rfind(lookup_line(), 0) != 0)
      return log;
    log.erase(0, lookup_line().size());
    if (log.rfind("7: basic-rsp len: ", 0) == 0)
      log.erase(0, log.find('\n') + 1);
    return log;
  }

  static std::string found_line(int count) {
    return "7: Found " + std::to_string(count) +
           " signer certs which could verify the ocsp response\n";
  }
  static std::string accepted_lines(const char *status = "ok") {
    return std::string("7: ocsp-response was accepted\n7: cert (/CN=device) status is: ") + status +
           "\n";
  }
  static constexpr char by_issuer_line[] =
      "7: ocsp-response signer is the same as the cert issuer - accepting it\n";
  static constexpr char no_check_line[] =
      "7: ocsp-response signer's certificate has the no-check extension - not doing any status "
      "check on it\n";
  static constexpr char configured_line[] =
      "7: ocsp-response signer is the same as the configured one - accepting it\n";
  static constexpr char no_next_update_line[] =
      "4: the ocsp response has no next-update - it cannot be used\n";
  static constexpr char none_trusted_line[] = "3: no ocsp-response signer certs were trusted\n";
  static constexpr char no_signer_line[] =
      "3: No signer cert found which could verify the ocsp response\n";
  // What the query gives and logs when the issuer's answer is believed.
  std::string accepted_from_issuer(const char *status = "ok") const {
    return found_line(1) + by_issuer_line + accepted_lines(status);
  }

  support::cert issuer = make_issuer();
  support::cert device = issue("device", device_serial, device_key);
  support::cert configured;  // the locator's signer
  int ocsp_flag = 0;
  unsigned char internet = 1;
  X509_STORE_CTX *context = nullptr;
  int depth = 0;
  std::string last_url;
};

}  // namespace ocsp_support

#endif
