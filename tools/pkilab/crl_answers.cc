#include "tools/pkilab/crl_answers.h"

#include "tools/pkilab/crl_extensions.h"
#include "tools/pkilab/crl_list.h"

namespace pkilab {

namespace {

octet_stream plain_octets(const std::string &octets) {
  return {octets.size(), [octets](const octet_sink &sink) { return sink(octets); }};
}

std::string entry_text(uint64_t count) {
  return std::to_string(count) + (count == 1 ? " entry" : " entries");
}

std::string describe(const std::string &ca_name, const crl_options &options, uint64_t count) {
  return (options.delta ? "delta CRL of " : "CRL of ") + ca_name + ", " + entry_text(count);
}

}  // namespace

crl_answer crl_publisher::answer(const ca::pair &issuer, const crl_options &options,
                                 const std::string &authority) {
  if (options.body == crl_body::no_crl)
    return {plain_octets("these octets are no CRL"), "application/pkix-crl", "no CRL (as told)"};
  const ca::pair &signer = signers_.get(issuer, options, authority);
  bool has_own_name = options.signer == crl_signer::delegated;
  crl_material material;
  material.now = time(nullptr);
  material.issuer = X509_get_subject_name((has_own_name ? signer : issuer).cert.get());
  material.key = signer.key.get();
  size_t listed = 0;
  material.entries = entries_.make(issuer, material.issuer, options, material.now, &listed);
  material.extensions = crl_extensions(signer.cert.get(), options, authority, material.now);
  bool is_plain = options.body == crl_body::plain;
  return {
      wrapped(make_crl(material, options), issuer, signer, options.body),
      is_plain ? "application/pkix-crl" : "application/x-pkcs7-crl",
      describe(keys_.name_of(issuer), options, listed + static_cast<uint64_t>(options.generated))};
}

octet_stream crl_publisher::wrapped(octet_stream crl, const ca::pair &issuer,
                                    const ca::pair &signer, crl_body body) const {
  if (body == crl_body::plain)
    return crl;
  std::vector<X509 *> certs;
  if (body == crl_body::pkcs7_certs)
    certs.push_back(signer.cert.get());
  if (body == crl_body::pkcs7_certs && &signer != &issuer)
    certs.push_back(issuer.cert.get());
  return in_pkcs7(std::move(crl), certs);
}

}  // namespace pkilab
