#include "tools/pkilab/signer_files.h"

#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"
#include "tools/common/text.h"
#include "tools/pkilab/issued_certs.h"

namespace pkilab {

namespace {

ca::pair issue(const ca &keys, const ca::pair &issuer, const std::string &start,
               cert_wishes wishes) {
  tools::make_folders(start.substr(0, start.rfind('/')));
  ca::pair made;
  made.key = keys.make_key();
  wishes.public_key = made.key.get();
  made.cert = issued_certs(keys).issue(wishes, issuer);
  // The certificate last: it is what says that both are there.
  tools::write_file(start + "-key.pem", tools::private_pem(made.key.get()), 0600);
  tools::write_file(start + ".pem", tools::cert_pem(made.cert.get()), 0644);
  return made;
}

}  // namespace

name_ptr signer_name(const std::string &common_name) {
  name_ptr made(X509_NAME_new());
  auto add = [&made](const char *field, const std::string &value) {
    return X509_NAME_add_entry_by_txt(made.get(), field, MBSTRING_UTF8,
                                      reinterpret_cast<const unsigned char *>(value.c_str()), -1,
                                      -1, 0) == 1;
  };
  if (!made || !add("O", "pkilab") || !add("CN", common_name.substr(0, ub_common_name)))
    throw tools::failure("cannot name a signer: " + tools::openssl_reason());
  return made;
}

ca::pair load_or_issue(const ca &keys, const ca::pair &issuer, const std::string &name,
                       cert_wishes wishes) {
  std::string start = keys.folder() + "/" + name;
  if (!tools::file_exists(start + ".pem"))
    return issue(keys, issuer, start, std::move(wishes));
  ca::pair kept = {tools::load_private_key(start + "-key.pem"),
                   tools::load_certificate(start + ".pem")};
  bool fits = X509_check_private_key(kept.cert.get(), kept.key.get()) == 1 &&
              X509_verify(kept.cert.get(), issuer.key.get()) == 1;
  if (!fits)
    throw tools::failure(start + ".pem belongs to other keys; remove it, and it is made anew");
  return kept;
}

std::string short_digest(const std::string &text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  if (EVP_Digest(text.data(), text.size(), digest, nullptr, EVP_sha256(), nullptr) != 1)
    throw tools::failure("cannot compute a digest: " + tools::openssl_reason());
  return tools::hex(std::string(digest, digest + 4));
}

}  // namespace pkilab
