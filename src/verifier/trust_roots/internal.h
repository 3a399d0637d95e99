// The built-in trust roots' private parts.
#ifndef PKI_VERIFIER_TRUST_ROOTS_INTERNAL_H
#define PKI_VERIFIER_TRUST_ROOTS_INTERNAL_H

#include <libpki/records.h>

namespace pki {

// A certificate that is compiled in; the build makes the images from files.
struct built_in_cert {
  const unsigned char *der;
  long size;
  const char *label;  // in the log
};

// The CA "root"'s certificates, in the order of its list.
constexpr int root_cert_count = 5;
extern const built_in_cert root_certs[root_cert_count];
extern const built_in_cert chain_cert;
extern const built_in_cert engineering_cert;

// A new certificate, or null with lines at level 3.
[[nodiscard]] X509 *decode_built_in(const built_in_cert &image);

// What certificates of one issuer are looked up in.
enum override_method { override_ocsp = 1, override_crl = 2, override_always_ok = 3 };
constexpr int no_signer = 3;
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): it reads like a line of a table
struct override_rule {
  const char *issuer;  // RFC 1779; null: the subject of the CA's first built-in certificate
  int method;
  const char *url;  // null for override_always_ok
  int signer;       // which built-in certificate of the CA signs the CRL, or no_signer
};
constexpr int root_override_count = 5;
extern const override_rule root_override_rules[root_override_count];
extern const override_rule eng_override_rule;

// Gives a CA the rules; `certs` are its built-in certificates. The first failure ends it, with a
// line at level 3: 2, 50 without a CA, the codes of parse_rfc1779_str and of pki_add_*_info.
[[nodiscard]] int add_cert_sts_info(ca_info *info, const override_rule *rules, int count,
                                    X509 *const *certs);

// Adds the certificates of the PEM files in `folder` (ends with "/") to the CA "other". What
// cannot be used is skipped, with a line at level 3.
void add_root_files(const char *folder);

}  // namespace pki

#endif
