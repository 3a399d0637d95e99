#include "tools/pkictl/ca_info_use.h"

#include <libpki/types.h>
#include <openssl/evp.h>

#include "tools/pkictl/http_url.h"

namespace pkictl {

namespace {

void require_http(const std::string &what, const char *url, ca_info_use *use) {
  if (!is_http_url(url))
    use->faults.push_back("devices cannot use the " + what + " URL " + (url ? url : "") +
                          "; give one that begins with http://");
}

// `data` is what a SCEP method holds.
template <class Scep>
void judge_scep(const std::string &what, const void *data, ca_info_use *use) {
  const auto *scep = static_cast<const Scep *>(data);
  require_http(what, scep->url, use);
  if (!scep->ca_cert)
    use->gaps.push_back("the " + what + " method names no X509Certificate of the SCEP CA, and" +
                        " devices cannot use it without");
}

void require_known(const std::string &what, const char *name, bool is_known, const char *advice,
                   ca_info_use *use) {
  if (!is_known)
    use->faults.push_back("devices know no " + what + " " + name + " and take an old one; try " +
                          advice);
}

void judge_algorithms(const scep_req_info &scep, ca_info_use *use) {
  if (scep.digest)
    require_known("digest", scep.digest, EVP_get_digestbyname(scep.digest), "SHA256", use);
  if (scep.cipher)
    require_known("cipher", scep.cipher, EVP_get_cipherbyname(scep.cipher), "DES-EDE3-CBC", use);
}

template <class Method, class Judge>
void for_each(const STACK *list, int mechanism, Judge judge) {
  for (int i = 0; i < OPENSSL_sk_num(list); i++) {
    const auto *method = static_cast<const Method *>(OPENSSL_sk_value(list, i));
    if (method->mechanism == mechanism)
      judge(method->data);
  }
}

}  // namespace

ca_info_use judge_use(const ca_info &ca) {
  ca_info_use use;
  for_each<cert_req_info>(ca.cert_req_methods, PKI_CERT_REQ_SCEP, [&](const void *data) {
    judge_scep<scep_req_info>("SCEP", data, &use);
    judge_algorithms(*static_cast<const scep_req_info *>(data), &use);
  });
  for_each<cert_query_info>(ca.cert_lookup_methods, PKI_CERT_QUERY_SCEP, [&](const void *data) {
    judge_scep<scep_query_info>("SCEPGetCert", data, &use);
  });
  for_each<cert_status_info>(ca.cert_status_methods, PKI_STATUS_OCSP, [&](const void *data) {
    require_http("OCSP", static_cast<const ocsp_info *>(data)->url, &use);
  });
  if (!ca.issuer_name)
    use.gaps.push_back("the document names no IssuerName, by which devices look certificates up");
  if (OPENSSL_sk_num(ca.trusted_roots) < 1 && OPENSSL_sk_num(ca.cert_req_methods) < 1)
    use.gaps.push_back("the document names neither a trusted root nor a way to enroll");
  return use;
}

}  // namespace pkictl
