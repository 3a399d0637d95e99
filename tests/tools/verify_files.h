// A root, an intermediate CA and an end entity in files, and a responder that knows their
// statuses: what a test hands to programs that verify certificates.
#ifndef TESTS_TOOLS_VERIFY_FILES_H
#define TESTS_TOOLS_VERIFY_FILES_H

#include <map>

#include "run_tool.h"
#include "support/ocsp_responder.h"

namespace tool_test {

using cert_extensions = std::vector<std::pair<std::string, std::string>>;

// The serial numbers, by which the responder knows the certificates.
constexpr long root_serial = 1;
constexpr long inter_serial = 2;
constexpr long leaf_serial = 3;
constexpr long delegate_serial = 4;

class verify_files {
 public:
  // Writes root.pem, inter.pem and leaf.pem; the last two name the responder.
  verify_files();

  // A certificate of this CN and serial number, with the key of that CN, issued by `issuer` (or
  // self-signed without one). Keys are ECDSA's: every security level takes them.
  support::cert issue(const std::string &cn, long serial, const support::cert &issuer,
                      const cert_extensions &extensions = {}, bool ca = false) const;
  // The same, that ended an hour ago.
  support::cert issue_expired(const std::string &cn, long serial, const support::cert &issuer,
                              const cert_extensions &extensions = {}) const;
  // A certificate that may sign the issuer's answers, and is to be asked for itself.
  support::cert issue_delegate(const support::cert &issuer) const;
  // {"authorityInfoAccess", "OCSP;URI:..."} with the responder's URL.
  std::pair<std::string, std::string> responder_aia() const;

  // Writes a certificate and returns the file's path.
  std::string save(const std::string &name, const support::cert &cert) const;
  std::string path(const std::string &name) const { return home_ / name; }
  std::string key_file(const std::string &cn) const;

  // pkictl verify with an empty state: the leaf, with --chain and --trust, and more options.
  result verify(const strings &options = {}) const;
  result verify_file(const std::string &file, const strings &options = {}) const;
  // pkictl with an empty state, and nothing added.
  result pkictl(const strings &arguments) const;

  std::string url() const { return responder_.url("/ocsp"); }
  size_t questions() const { return responder_.requests().size(); }

  support::cert root, inter, leaf;
  // What the responder says about the certificate of a serial number, "good" by default.
  std::map<long, int> status;
  // The responder signs as this one instead of as the issuer, and sends the certificate along.
  support::cert delegate;
  bool with_next_update = true;

 private:
  support::ocsp_options answer(long serial) const;

  folder home_;
  support::ocsp_responder responder_;
};

// The key of that CN, made once a process.
support::key key_of(const std::string &cn);

}  // namespace tool_test

#endif
