#include "tools/pkilab/crl_signers.h"

#include "tools/pkilab/ocsp_signers.h"
#include "tools/pkilab/signer_files.h"

namespace pkilab {

namespace {

// The certificate's oddities as part of a name.
std::string variant(const crl_options &options, const std::string &crl_url) {
  std::string text;
  if (options.same_name)
    text += "-same-name";
  if (!options.crl_sign)
    text += "-no-crl-sign";
  return crl_url.empty() ? text : text + "-dp-" + short_digest(crl_url);
}

}  // namespace

const ca::pair &crl_signers::get(const ca::pair &issuer, const crl_options &options,
                                 const std::string &authority) {
  if (options.signer == crl_signer::issuer)
    return issuer;
  if (options.signer == crl_signer::other_ca)
    return other_ca(keys_, issuer);
  bool is_stranger = options.signer == crl_signer::stranger;
  std::string url;
  if (options.signer_dp)
    url = crl_url(authority, keys_.name_of(issuer), *options.signer_dp);
  std::string name = keys_.name_of(issuer) + (is_stranger ? " stranger" : variant(options, url));
  std::lock_guard lock(mutex_);
  auto found = made_.find(name);
  if (found != made_.end())
    return found->second;
  ca::pair made = is_stranger ? make_stranger(issuer) : load_or_make(name, issuer, options, url);
  return made_.emplace(name, std::move(made)).first->second;
}

ca::pair crl_signers::load_or_make(const std::string &name, const ca::pair &issuer,
                                   const crl_options &options, const std::string &crl_url) const {
  constexpr time_t ten_years = 3650L * 24 * 60 * 60;
  name_ptr own_name = signer_name("pkilab CRL signer " + name);
  cert_wishes wishes;
  wishes.subject = options.same_name ? X509_get_subject_name(issuer.cert.get()) : own_name.get();
  wishes.not_after = time(nullptr) + ten_years;
  wishes.key_usage = options.crl_sign ? "cRLSign" : "digitalSignature";
  if (!crl_url.empty())
    wishes.crl_urls = {crl_url};
  return load_or_issue(keys_, issuer, "crl/" + name, wishes);
}

// Somebody with the CA's name, and a certificate of their own making.
ca::pair crl_signers::make_stranger(const ca::pair &issuer) const {
  ca::pair made;
  made.key = keys_.make_key();
  cert_wishes wishes;
  wishes.subject = X509_get_subject_name(issuer.cert.get());
  wishes.public_key = made.key.get();
  wishes.key_usage = "cRLSign";
  tools::cert_ptr self = make_ca_cert(made.key.get(), "a stranger", nullptr, nullptr);
  made.cert = make_device_cert(wishes, self.get(), made.key.get());
  return made;
}

}  // namespace pkilab
