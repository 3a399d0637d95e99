// The lab's keys and certificates, kept in a folder.
#ifndef TOOLS_PKILAB_CA_H
#define TOOLS_PKILAB_CA_H

#include <array>
#include <mutex>
#include <string>
#include <vector>

#include "tools/common/ossl.h"

namespace pkilab {

/*
 * What is in the folder; private keys have mode 0600.
 *
 *   doc-key.pem, doc-key.pub.pem            signs CA-info documents
 *   root-key.pem, root-cert.pem             a self-signed root CA
 *   issuing-key.pem, issuing-cert.pem       the SCEP CA; self-signed, so that issuer and subject
 *                                           are the same
 *   additional-key.pem, additional-cert.pem a CA below the root
 *   issued/SERIAL.pem                       what the lab issued; see issued_certs.h
 *   revoked/SERIAL.txt                      what of it is revoked; see revocations.h
 *   ocsp/NAME.pem                           OCSP responders; see ocsp_signers.h
 *   crl/NAME.pem                            signers of CRLs; see crl_signers.h
 */
class ca {
 public:
  struct pair {
    tools::key_ptr key;
    tools::cert_ptr cert;
  };

  // Makes the folder, those above it, and every file that is missing, and reads the others. Throws
  // tools::failure, also where a certificate does not belong to its key.
  explicit ca(const std::string &folder, int key_bits = 2048);
  ca(const ca &) = delete;
  ca &operator=(const ca &) = delete;

  // Those of its keys and certificates, within the folder.
  static std::vector<std::string> file_names();

  const std::string &folder() const { return folder_; }
  EVP_PKEY *document_key() const { return document_key_.get(); }
  const pair &root() const { return root_; }
  const pair &issuing() const { return issuing_; }
  const pair &additional() const { return additional_; }
  // All three.
  std::array<const pair *, 3> pairs() const { return {&root_, &issuing_, &additional_}; }

  // "root", "issuing" or "additional"; null for any other name.
  const pair *find(const std::string &name) const;
  std::string name_of(const pair &own) const;

  // A new key, as strong as the others.
  tools::key_ptr make_key() const;

  // A key that nobody knows, the same for as long as the object lives.
  EVP_PKEY *stranger_key() const;

 private:
  tools::key_ptr load_or_make_key(const std::string &name) const;
  pair load_or_make_pair(const std::string &name, const std::string &common_name,
                         const pair *signer) const;
  void load_or_make_document_key();
  std::string path(const std::string &file) const { return folder_ + "/" + file; }

  std::string folder_;
  int key_bits_;
  tools::key_ptr document_key_;
  pair root_;
  pair issuing_;
  pair additional_;
  mutable std::once_flag stranger_made_;
  mutable tools::key_ptr stranger_key_;
};

}  // namespace pkilab

#endif
