// The certificates that are compiled in, and where the public ones' CRLs were published.
#include <libpki/error.h>
#include <syslog.h>

#include "common/log.h"
#include "common/ossl_ptr.h"
#include "verifier/trust_roots/images.h"
#include "verifier/trust_roots/internal.h"

namespace pki {

namespace {

template <size_t Size>
constexpr built_in_cert image(const unsigned char (&der)[Size], const char *label) {
  return {der, static_cast<long>(Size), label};
}

constexpr const char *pca3_name =
    "OU=Class 3 Public Primary Certification Authority, O=\"VeriSign, Inc.\", C=US";

}  // namespace

const built_in_cert root_certs[root_cert_count] = {
    image(verisign_pca3_der, "verisign root cert PCA3"),
    image(verisign_pca3_g2_der, "verisign root cert PCA3-G2"),
    image(verisign_pca3_g3_der, "verisign root cert PCA3-G3"),
    image(zelvo_corprootg1_der, "zelvo cms root"),
    image(zelvo_emrroot_der, "zelvo emergency root"),
};
const built_in_cert chain_cert = image(verisign_pca3_g2_chain_der, "verisign g2 chain cert");
const built_in_cert engineering_cert = image(zelvo_engrootv1_der, "zelvo eng root");

const override_rule root_override_rules[root_override_count] = {
    {pca3_name, override_crl, "http://crl.verisign.com/pca3.crl", 0},
    {pca3_name, override_crl, "http://crl.verisign.com/pca3.1.1.crl", 0},
    {"OU=VeriSign Trust Network, OU=\"(c) 1998 VeriSign, Inc. - For authorized use only\", "
     "OU=Class 3 Public Primary Certification Authority - G2, O=\"VeriSign, Inc.\", C=US",
     override_crl, "http://crl.verisign.com/pca3-g2.crl", 1},
    {"CN=VeriSign Class 3 Public Primary Certification Authority - G3, "
     "OU=\"(c) 1999 VeriSign, Inc. - For authorized use only\", OU=VeriSign Trust Network, "
     "O=\"VeriSign, Inc.\", C=US",
     override_crl, "http://s.symcb.com/pca3-g3.crl", 2},
    {"OU=www.verisign.com/CPS Incorp.by Ref. LIABILITY LTD.(c)97 VeriSign, "
     "OU=VeriSign International Server CA - Class 3, OU=\"VeriSign, Inc.\", "
     "O=VeriSign Trust Network",
     override_crl, "http://crl.verisign.com/Class3InternationalServer.crl", no_signer},
};

// A vendor puts in a root with a name of its own.
const override_rule eng_override_rule = {nullptr, override_always_ok, nullptr, no_signer};

X509 *decode_built_in(const built_in_cert &image) {
  const unsigned char *in = image.der;
  x509_ptr cert(d2i_X509(nullptr, &in, image.size));
  // OpenSSL takes a certificate all the same when memory ran out over its key.
  if (cert && X509_get0_pubkey(cert.get()))
    return cert.release();
  syslog(log_error, "failed to decode %s", image.label);
  log_openssl_errors(log_error);
  return nullptr;
}

}  // namespace pki
