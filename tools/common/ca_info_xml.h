// CA-info documents as their author sees them: XML to be written, checked and signed.
#ifndef TOOLS_COMMON_CA_INFO_XML_H
#define TOOLS_COMMON_CA_INFO_XML_H

#include <string>
#include <vector>

#include "tools/common/ossl.h"

namespace tools {

// What a document says. Empty texts and lists leave their elements out; certificates are DER.
struct ca_description {
  std::string issuer_name;  // RFC 1779, most specific part first
  std::string scep_url;
  std::string scep_cert;
  std::string digest;
  std::string cipher;
  std::string scep_get_cert_url;
  std::string scep_get_cert_cert;
  std::string ldap_url;
  std::string ocsp_url;
  std::vector<std::string> roots;
  std::vector<std::string> additional_certs;
  std::string expires;  // always written last
};

// The document, indented. Throws usage_failure for text that XML cannot carry.
std::string to_xml(const ca_description &ca);

struct prepared_document {
  std::string xml;
  bool expires_moved = false;
};

// Checks that `xml` is a well-formed document with the root QRNPkiConfig, and moves an Expires
// that stands before other elements to the end. A document that needs no move stays as it is,
// octet by octet. Throws failure; `name` is the document's name in its text.
prepared_document prepare_document(const std::string &xml, const std::string &name);

// The text of the document's Expires; "" when it has none or is not well-formed.
std::string expires_text(const std::string &xml);

// Signs with sign_bytes. Throws library_failure.
std::string sign_document(const std::string &xml, EVP_PKEY *key);

}  // namespace tools

#endif
