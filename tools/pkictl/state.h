// What the tool keeps between calls: a folder of PEM files.
#ifndef TOOLS_PKICTL_STATE_H
#define TOOLS_PKICTL_STATE_H

#include <string>
#include <vector>

#include "tools/common/ossl.h"

namespace CLI {
class App;
}

namespace pkictl {

// A provisioned CA: where its document came from, the document as signed, and the key that
// verifies it.
struct saved_ca {
  std::string url;
  std::string document;  // DER
  tools::key_ptr doc_key;
};

/*
 *   keys/KEY.pem          a private key
 *   certs/KEY/CERT.pem    a certificate issued for it
 *   cas/CA.pem            a CA's signed document and its key
 *
 * Files have mode 0600, folders 0700. A file is written beside its place and renamed into it, so
 * that it is always whole. A file that cannot be read stays as it is, and the failure names it.
 * Everything throws tools::failure, and usage_failure for a label that is none.
 */
class state_folder {
 public:
  // Can the folder be told? Not without --state where there is no home.
  static bool is_known(const std::string &given);

  // The folder for --state; for "" pkictl in $XDG_STATE_HOME or in ~/.local/state. It is made when
  // something is saved.
  explicit state_folder(const std::string &given);

  // The files of what is saved under these labels.
  std::string key_file(const std::string &key) const;
  std::string cert_file(const std::string &key, const std::string &cert) const;
  std::string ca_file(const std::string &ca) const;

  bool has_key(const std::string &key) const;
  bool has_cert(const std::string &key, const std::string &cert) const;
  std::vector<std::string> keys() const;
  std::vector<std::string> certs(const std::string &key) const;
  std::vector<std::string> cas() const;

  tools::key_ptr load_key(const std::string &key) const;
  // Also fails when the certificate is for another key.
  tools::cert_ptr load_cert(const std::string &key, const std::string &cert) const;
  saved_ca load_ca(const std::string &ca) const;

  void save_key(const std::string &key, EVP_PKEY *pair) const;
  void save_cert(const std::string &key, const std::string &cert, X509 *issued) const;
  void save_ca(const std::string &ca, const saved_ca &saved) const;

  // Removes a key and its certificates.
  void remove_key(const std::string &key) const;

 private:
  std::string folder_;
};

// Adds --state to a command.
void add_state_option(CLI::App *command, std::string *state);

// For the help of commands that have it.
extern const char *const state_footer;

// Throws usage_failure unless `label` can be a file's name: letters, digits, and "._-@+" behind
// the first, at most 100 of them.
void check_label(const std::string &what, const std::string &label);

}  // namespace pkictl

#endif
