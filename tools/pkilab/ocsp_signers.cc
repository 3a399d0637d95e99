#include "tools/pkilab/ocsp_signers.h"

#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"
#include "tools/common/text.h"
#include "tools/pkilab/ca_certs.h"

namespace pkilab {

namespace {

using name_ptr = std::unique_ptr<X509_NAME, tools::free_with<X509_NAME_free>>;

name_ptr responder_name(const std::string &name) {
  name_ptr made(X509_NAME_new());
  std::string common_name = "pkilab OCSP responder " + name;
  auto add = [&made](const char *field, const std::string &value) {
    return X509_NAME_add_entry_by_txt(made.get(), field, MBSTRING_UTF8,
                                      reinterpret_cast<const unsigned char *>(value.c_str()), -1,
                                      -1, 0) == 1;
  };
  if (!made || !add("O", "pkilab") || !add("CN", common_name.substr(0, ub_common_name)))
    throw tools::failure("cannot name an OCSP responder: " + tools::openssl_reason());
  return made;
}

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
  unsigned char digest[EVP_MAX_MD_SIZE];
  if (EVP_Digest(ocsp_url.data(), ocsp_url.size(), digest, nullptr, EVP_sha256(), nullptr) != 1)
    throw tools::failure("cannot compute a digest: " + tools::openssl_reason());
  return text + "-aia-" + tools::hex(std::string(digest, digest + 4));
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

std::string ocsp_signers::name_of(const ca::pair &issuer) const {
  if (&issuer == &keys_.root())
    return "root";
  return &issuer == &keys_.issuing() ? "issuing" : "additional";
}

const ca::pair &ocsp_signers::get(const ca::pair &issuer, const ocsp_options &options,
                                  const std::string &authority) {
  if (options.signer == ocsp_signer::issuer)
    return issuer;
  const ca::pair &ca = options.signer == ocsp_signer::other_ca ? other_ca(keys_, issuer) : issuer;
  std::string url = aia_url(options, authority);
  std::string name = name_of(ca) + variant(options, url);
  if (options.signer == ocsp_signer::stranger)
    name = "stranger" + variant(options, url);
  if (options.signer == ocsp_signer::impostor)
    name = "impostor of " + name_of(ca);
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
  std::string start = keys_.folder() + "/ocsp/" + name;
  if (!tools::file_exists(start + ".pem"))
    return make(name, issuer, options, ocsp_url);
  ca::pair kept = {tools::load_private_key(start + "-key.pem"),
                   tools::load_certificate(start + ".pem")};
  bool fits = X509_check_private_key(kept.cert.get(), kept.key.get()) == 1 &&
              X509_verify(kept.cert.get(), issuer.key.get()) == 1;
  if (!fits)
    throw tools::failure(start + ".pem belongs to other keys; remove it, and it is made anew");
  return kept;
}

ca::pair ocsp_signers::make(const std::string &name, const ca::pair &issuer,
                            const ocsp_options &options, const std::string &ocsp_url) const {
  std::string folder = keys_.folder() + "/ocsp";
  tools::make_folders(folder);
  ca::pair made;
  made.key = keys_.make_key();
  name_ptr subject = responder_name(name);
  made.cert = certs_.issue(wishes_for(subject.get(), made.key.get(), options, ocsp_url), issuer);
  // The certificate last: it is what says that both are there.
  tools::write_file(folder + "/" + name + "-key.pem", tools::private_pem(made.key.get()), 0600);
  tools::write_file(folder + "/" + name + ".pem", tools::cert_pem(made.cert.get()), 0644);
  return made;
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
