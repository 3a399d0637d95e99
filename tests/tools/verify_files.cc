#include "verify_files.h"

#include <mutex>

#include "tools/common/cert_text.h"

namespace tool_test {

namespace {

constexpr time_t hour = 3600;

std::string cn_of(const support::cert &cert) {
  return tools::name_text(X509_get_subject_name(cert.get())).substr(3);
}

support::cert_options make_options(const std::string &cn, long serial, const support::cert &issuer,
                                   const cert_extensions &extensions) {
  std::string issuer_cn = issuer ? cn_of(issuer) : cn;
  support::cert_options options;
  options.subject = support::common_name(cn);
  options.issuer = support::common_name(issuer_cn);
  options.serial = serial;
  options.public_key = key_of(cn);
  options.signing_key = key_of(issuer_cn);
  options.extensions = extensions;
  return options;
}

}  // namespace

support::key key_of(const std::string &cn) {
  static std::mutex mutex;  // the responder's thread signs too
  static std::map<std::string, support::key> keys;
  std::lock_guard lock(mutex);
  support::key &key = keys[cn];
  if (!key)
    key = support::make_ec_key();
  return key;
}

verify_files::verify_files() : responder_(support::ocsp_options()) {
  responder_.answer_with([this](long serial) { return answer(serial); });
  root = issue("root", root_serial, nullptr, {}, true);
  inter = issue("inter", inter_serial, root, {responder_aia()}, true);
  leaf = issue("leaf", leaf_serial, inter, {responder_aia()});
  save("root.pem", root);
  save("inter.pem", inter);
  save("leaf.pem", leaf);
}

support::cert verify_files::issue(const std::string &cn, long serial, const support::cert &issuer,
                                  const cert_extensions &extensions, bool ca) const {
  support::cert_options options = make_options(cn, serial, issuer, extensions);
  options.ca = ca;
  return support::make_cert(options);
}

support::cert verify_files::issue_expired(const std::string &cn, long serial,
                                          const support::cert &issuer,
                                          const cert_extensions &extensions) const {
  support::cert_options options = make_options(cn, serial, issuer, extensions);
  options.not_before = time(nullptr) - 2 * hour;
  options.not_after = time(nullptr) - hour;
  return support::make_cert(options);
}

support::cert verify_files::issue_delegate(const support::cert &issuer) const {
  return issue("delegate", delegate_serial, issuer,
               {{"extendedKeyUsage", "OCSPSigning"}, responder_aia()});
}

std::pair<std::string, std::string> verify_files::responder_aia() const {
  return {"authorityInfoAccess", "OCSP;URI:" + url()};
}

std::string verify_files::save(const std::string &name, const support::cert &cert) const {
  return home_.write(name, support::pem(cert));
}

std::string verify_files::key_file(const std::string &cn) const {
  return home_.write(cn + "-key.pem", support::private_pem(key_of(cn)));
}

result verify_files::verify(const strings &options) const {
  return verify_file(path("leaf.pem"), options);
}

result verify_files::verify_file(const std::string &file, const strings &options) const {
  strings arguments = {"verify", file, "--chain", path("inter.pem"), "--trust", path("root.pem")};
  arguments.insert(arguments.end(), options.begin(), options.end());
  return pkictl(arguments);
}

result verify_files::pkictl(const strings &arguments) const {
  return tool_test::pkictl(arguments, {"XDG_STATE_HOME=" + path("state")});
}

support::ocsp_options verify_files::answer(long serial) const {
  support::cert signer = serial == inter_serial ? root : inter;
  support::ocsp_options options;
  if (delegate && serial != delegate_serial && serial != inter_serial) {
    signer = delegate;
    options.certs = {delegate};
  }
  options.signer = signer;
  options.signing_key = key_of(cn_of(signer));
  auto known = status.find(serial);
  options.single.status = known == status.end() ? V_OCSP_CERTSTATUS_GOOD : known->second;
  if (!with_next_update)
    options.single.next_update = support::ocsp_left_out;
  return options;
}

}  // namespace tool_test
