#include "tools/pkilab/ocsp_signers.h"

#include "tools/common/failure.h"
#include "tools/common/keys.h"
#include "tools/pkilab/ca_certs.h"
#include "tools/pkilab/signer_files.h"

namespace pkilab {

namespace {

cert_wishes wishes_for(const X509_NAME *subject, EVP_PKEY *key, const ocsp_options &options,
                       const std::string &ocsp_url) {
  time_t now = time(nullptr);
  cert_wishes wishes;
  wishes.subject = subject;
  wishes.public_key = key;
  wishes.not_before = now + options.valid_from;
  wishes.not_after = now + options.valid_until;
  wishes.ocsp_signing = options.signing_usage;
  wishes.ocsp_no_check = options.no_check;
  if (!ocsp_url.empty())
    wishes.ocsp_urls = {ocsp_url};
  return wishes;
}

// The certificate's oddities as part of a name.
std::string variant(const ocsp_options &options, const std::string &ocsp_url) {
  std::string text;
  if (!options.signing_usage)
    text += "-no-eku";
  if (!options.no_check)
    text += "-no-nocheck";
  if (options.valid_until < 0)
    text += "-expired";
  if (options.valid_from > 0)
    text += "-not-yet-valid";
  if (ocsp_url.empty())
    return text;
  return text + "-aia-" + short_digest(ocsp_url);
}

std::string aia_url(const ocsp_options &options, const std::string &authority) {
  if (!options.ocsp_aia)
    return "";
  std::string url = "http://" + authority + "/ocsp";
  return options.ocsp_aia->empty() ? url : url + "?" + *options.ocsp_aia;
}

}  // namespace

const ca::pair &other_ca(const ca &keys, const ca::pair &issuer) {
  return &issuer == &keys.issuing() ? keys.root() : keys.issuing();
}

const ca::pair &ocsp_signers::get(const ca::pair &issuer, const ocsp_options &options,
                                  const std::string &authority) {
  if (options.signer == ocsp_signer::issuer)
    return issuer;
  const ca::pair &ca = options.signer == ocsp_signer::other_ca ? other_ca(keys_, issuer) : issuer;
  std::string url = aia_url(options, authority);
  std::string name = keys_.name_of(ca) + variant(options, url);
  if (options.signer == ocsp_signer::stranger)
    name = "stranger" + variant(options, url);
  if (options.signer == ocsp_signer::impostor)
    name = "impostor of " + keys_.name_of(ca);
  std::lock_guard lock(mutex_);
  auto found = made_.find(name);
  if (found != made_.end())
    return found->second;
  ca::pair made = options.signer == ocsp_signer::stranger   ? make_stranger(name, options)
                  : options.signer == ocsp_signer::impostor ? make_impostor(ca)
                                                            : load_or_make(name, ca, options, url);
  return made_.emplace(name, std::move(made)).first->second;
}

ca::pair ocsp_signers::load_or_make(const std::string &name, const ca::pair &issuer,
                                    const ocsp_options &options,
                                    const std::string &ocsp_url) const {
  name_ptr subject = signer_name("pkilab OCSP responder " + name);
  return load_or_issue(keys_, issuer, "ocsp/" + name,
                       wishes_for(subject.get(), nullptr, options, ocsp_url));
}

ca::pair ocsp_signers::make_stranger(const std::string &name, const ocsp_options &options) const {
  ca::pair made;
  made.key = keys_.make_key();
  tools::cert_ptr self = make_ca_cert(made.key.get(), "a stranger's " + name, nullptr, nullptr);
  made.cert =
      make_device_cert(wishes_for(X509_get_subject_name(self.get()), made.key.get(), options, ""),
                       self.get(), made.key.get());
  return made;
}

ca::pair ocsp_signers::make_impostor(const ca::pair &issuer) const {
  ca::pair made;
  made.key = keys_.make_key();
  made.cert.reset(X509_dup(issuer.cert.get()));
  if (!made.cert || X509_set_pubkey(made.cert.get(), made.key.get()) != 1 ||
      X509_sign(made.cert.get(), made.key.get(), EVP_sha256()) < 1)
    throw tools::failure("cannot make an impostor: " + tools::openssl_reason());
  return made;
}

}  // namespace pkilab
