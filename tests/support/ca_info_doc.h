// CA-info documents, the PKCS#7 messages that carry them, and a fixture that reads them.
#ifndef TESTS_SUPPORT_CA_INFO_DOC_H
#define TESTS_SUPPORT_CA_INFO_DOC_H

#include <libpki/libpki.h>
#include <openssl/pkcs7.h>

#include <memory>
#include <string>
#include <vector>

#include "support/certs.h"
#include "support/store_fixture.h"

namespace support {

// ---- documents ----

// <name attributes>content</name>; `attributes` is written as it is.
std::string element(const std::string &name, const std::string &content = "",
                    const std::string &attributes = "");
// <QRNPkiConfig> around `content`.
std::string ca_info_doc(const std::string &content);
// <X509Certificate> around the certificate's base64, in lines.
std::string cert_element(const cert &certificate);
// `depth` elements, each the only child of the one before.
std::string nested_elements(size_t depth, const std::string &name = "x");

// A document with one of everything that is stored, and what it stores.
struct ca_info_sample {
  cert scep_cert, query_cert, root, additional;
  std::string document;
};
const ca_info_sample &sample();
// "" when `info` holds what the sample stores in a CA, else the first difference.
std::string sample_difference(const ca_info *info);

// ---- messages ----

using pkcs7 = std::shared_ptr<PKCS7>;

// One SignerInfo: who it names and whose key signs.
struct message_signer {
  key signing_key;
  name issuer = {};  // default: the empty name
  long serial = 1;
};
struct message_options {
  std::string content = "content";
  std::vector<message_signer> signers = {};
  std::vector<cert> carried = {};  // certificates in the message
  bool detached = false;
  bool attributes = true;  // sign attributes instead of the content itself
  pkcs7 inner = {};        // stands for the data afterwards; `content` is what is signed
};
// A SignedData, made by OpenSSL and read back as a receiver would.
pkcs7 make_message(const message_options &options);
// What an honest sender of documents makes: signed by `signing_key`, no certificates.
std::string sign_document(const std::string &document, const key &signing_key);

pkcs7 read_message(const std::string &octets);
std::string der(const pkcs7 &object);

// A ContentInfo of data; with `present` false one without content.
pkcs7 make_data(const std::string &octets, bool present = true);
// An EnvelopedData (AES-128-CBC) for the recipient.
pkcs7 make_envelope(const std::string &octets, const cert &recipient);
// A ContentInfo of that type (NID_pkcs7_...) and nothing else in it, as from the wire.
pkcs7 make_bare_message(int nid);
// A SignedAndEnvelopedData.
pkcs7 make_signed_and_enveloped(const std::string &octets, const key &signing_key,
                                const cert &recipient);
// Contents octets of the message's inner structure: what a SignedData around it digests.
std::string contents_octets(const pkcs7 &object);

// ---- lists ----

std::vector<const void *> elements(const STACK *list);

template <class Record>
Record *at(const STACK *list, int index) {
  return static_cast<Record *>(OPENSSL_sk_value(list, index));
}
// The DER of each certificate of a list.
std::vector<std::string> ders(const STACK *list);
// The name in one line: "/C=US/CN=x"; "" for an empty name, "(null)" for null.
std::string oneline(const X509_NAME *name);

// ---- fixture ----

class ca_info_test : public store_test {
 protected:
  void SetUp() override {
    store_test::SetUp();
    ca.reset(alloc_ca_info());
  }

  int parse(const std::string &document) {
    return parse_ca_info_doc(reinterpret_cast<const unsigned char *>(document.data()),
                             static_cast<int>(document.size()), pki_store, ca.get());
  }
  // The same document body within the root element.
  int parse_body(const std::string &content) { return parse(ca_info_doc(content)); }

  scep_req_info *scep_method(int index = 0) {
    return static_cast<scep_req_info *>(at<cert_req_info>(ca->cert_req_methods, index)->data);
  }
  scep_query_info *scep_query(int index = 0) {
    return static_cast<scep_query_info *>(
        at<cert_query_info>(ca->cert_lookup_methods, index)->data);
  }
  ldap_query_info *ldap_query(int index = 0) {
    return static_cast<ldap_query_info *>(
        at<cert_query_info>(ca->cert_lookup_methods, index)->data);
  }
  ocsp_info *ocsp_method(int index = 0) {
    return static_cast<ocsp_info *>(at<cert_status_info>(ca->cert_status_methods, index)->data);
  }

  struct free_ca {
    void operator()(ca_info *info) const { free_ca_info(info); }
  };
  std::unique_ptr<ca_info, free_ca> ca;
};

}  // namespace support

#endif
