#include "support/ca_info_doc.h"

#include <openssl/asn1.h>

#include <cstdlib>

#include "support/need.h"

namespace support {

namespace {

void add_signer(PKCS7 *message, const message_signer &signer, bool attributes) {
  X509 *named = X509_new();
  if (signer.issuer)
    X509_set_issuer_name(named, signer.issuer.get());
  X509_set_serialNumber(named, make_serial(signer.serial).get());
  X509_set_pubkey(named, signer.signing_key.get());
  PKCS7_SIGNER_INFO *info =
      PKCS7_add_signature(message, named, signer.signing_key.get(), EVP_sha256());
  need(info, "SignerInfo");
  if (attributes)
    need(PKCS7_add_attrib_content_type(info, nullptr) == 1, "contentType");
  X509_free(named);
}

// Runs `octets` through the message's digests and signs.
void finish(PKCS7 *message, const std::string &octets) {
  BIO *writer = PKCS7_dataInit(message, nullptr);
  need(writer, "PKCS7_dataInit");
  if (!octets.empty())
    need(BIO_write(writer, octets.data(), static_cast<int>(octets.size())) > 0, "content");
  (void)BIO_flush(writer);
  need(PKCS7_dataFinal(message, writer) == 1, "PKCS7_dataFinal");
  BIO_free_all(writer);
}

std::string text(const char *value) {
  return value ? value : "(null)";
}

// A certificate whose key OpenSSL could not read, for want of memory, is of no use.
std::string cert_der(X509 *certificate) {
  if (!certificate)
    return "(null)";
  return X509_get0_pubkey(certificate) ? encode<X509>(certificate, i2d_X509) : "(no key)";
}

std::string sizes(const ca_info *info) {
  std::string all;
  for (const STACK *list : {info->trusted_roots, info->cert_req_methods, info->cert_lookup_methods,
                            info->cert_status_methods})
    all += std::to_string(OPENSSL_sk_num(list)) + " ";
  return all;
}

}  // namespace

std::string element(const std::string &tag, const std::string &content,
                    const std::string &attributes) {
  return "<" + tag + (attributes.empty() ? "" : " " + attributes) + ">" + content + "</" + tag +
         ">";
}

std::string ca_info_doc(const std::string &content) {
  return element("QRNPkiConfig", content);
}

std::string cert_element(const cert &certificate) {
  return element("X509Certificate", "\n" + base64_lines(der(certificate)));
}

std::string nested_elements(size_t depth, const std::string &tag) {
  std::string document;
  for (size_t i = 0; i < depth; i++)
    document += "<" + tag + ">";
  for (size_t i = 0; i < depth; i++)
    document += "</" + tag + ">";
  return document;
}

const ca_info_sample &sample() {
  static const ca_info_sample made = [] {
    ca_info_sample it;
    it.scep_cert = simple_cert("sample root", "scep", 11);
    it.query_cert = simple_cert("sample root", "query", 12);
    it.root = make_ca("sample root", 0, 13);
    it.additional = simple_cert("sample root", "additional", 14);
    it.document = ca_info_doc(
        element("IssuerName", "CN=sample CA, C=US") +
        element("CertReqMethod",
                element("SCEP",
                        cert_element(it.scep_cert) + element("Digest", "", "alg=\"SHA1\"") +
                            element("Cipher", "", "alg=\"DES-CBC\""),
                        "url=\"http://ca.test/scep?a=1&amp;b=2\"")) +
        element("CertLookupMethod",
                element("SCEPGetCert", cert_element(it.query_cert), "url=\"http://ca.test/get\"") +
                    element("LDAPGetCert", "", "url=\"ldap://ca.test\"")) +
        element("CertStatusQueryMethod", element("OCSP", "", "url=\"http://ca.test/ocsp\"")) +
        element("TrustedRoots", cert_element(it.root)) +
        element("AdditionalCerts", cert_element(it.additional)));
    return it;
  }();
  return made;
}

std::string sample_difference(const ca_info *info) {
  const ca_info_sample &want = sample();
  if (oneline(info->issuer_name) != "/C=US/CN=sample CA")
    return "issuer name " + oneline(info->issuer_name);
  if (sizes(info) != "1 1 2 1 ")
    return "list sizes " + sizes(info);
  auto *scep = static_cast<scep_req_info *>(at<cert_req_info>(info->cert_req_methods, 0)->data);
  if (text(scep->url) != "http://ca.test/scep?a=1&b=2")
    return "SCEP url " + text(scep->url);
  if (text(scep->digest) != "SHA1" || text(scep->cipher) != "DES-CBC")
    return "SCEP algorithms " + text(scep->digest) + " " + text(scep->cipher);
  if (cert_der(scep->ca_cert) != der(want.scep_cert))
    return "SCEP certificate";
  auto *query =
      static_cast<scep_query_info *>(at<cert_query_info>(info->cert_lookup_methods, 0)->data);
  if (text(query->url) != "http://ca.test/get" || cert_der(query->ca_cert) != der(want.query_cert))
    return "SCEPGetCert";
  auto *ldap =
      static_cast<ldap_query_info *>(at<cert_query_info>(info->cert_lookup_methods, 1)->data);
  if (text(ldap->url) != "ldap://ca.test")
    return "LDAPGetCert url " + text(ldap->url);
  auto *ocsp = static_cast<ocsp_info *>(at<cert_status_info>(info->cert_status_methods, 0)->data);
  if (text(ocsp->url) != "http://ca.test/ocsp")
    return "OCSP url " + text(ocsp->url);
  if (cert_der(at<X509>(info->trusted_roots, 0)) != der(want.root))
    return "trusted root";
  return "";
}

pkcs7 make_message(const message_options &options) {
  pkcs7 message(PKCS7_new(), PKCS7_free);
  need(PKCS7_set_type(message.get(), NID_pkcs7_signed) == 1, "PKCS7_set_type");
  need(PKCS7_content_new(message.get(), NID_pkcs7_data) == 1, "PKCS7_content_new");
  for (const message_signer &signer : options.signers)
    add_signer(message.get(), signer, options.attributes);
  for (const cert &certificate : options.carried)
    need(PKCS7_add_certificate(message.get(), certificate.get()) == 1, "PKCS7_add_certificate");
  if (options.detached)
    PKCS7_set_detached(message.get(), 1);
  finish(message.get(), options.content);
  if (options.inner)
    need(PKCS7_set_content(message.get(), PKCS7_dup(options.inner.get())) == 1,
         "PKCS7_set_content");
  return read_message(encode<PKCS7>(message.get(), i2d_PKCS7));
}

std::string sign_document(const std::string &document, const key &signing_key) {
  message_options options;
  options.content = document;
  options.signers = {{signing_key, nullptr, 1}};
  return der(make_message(options));
}

pkcs7 read_message(const std::string &octets) {
  const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
  PKCS7 *read = d2i_PKCS7(nullptr, &in, static_cast<long>(octets.size()));
  need(read, "d2i_PKCS7");
  return pkcs7(read, PKCS7_free);
}

std::string der(const pkcs7 &object) {
  return encode<PKCS7>(object.get(), i2d_PKCS7);
}

pkcs7 make_data(const std::string &octets, bool present) {
  pkcs7 made(PKCS7_new(), PKCS7_free);
  need(PKCS7_set_type(made.get(), NID_pkcs7_data) == 1, "PKCS7_set_type");
  if (!present) {
    ASN1_OCTET_STRING_free(made->d.data);
    made->d.data = nullptr;
    return made;
  }
  need(ASN1_OCTET_STRING_set(made->d.data, reinterpret_cast<const unsigned char *>(octets.data()),
                             static_cast<int>(octets.size())) == 1,
       "octets");
  return made;
}

pkcs7 make_envelope(const std::string &octets, const cert &recipient) {
  STACK_OF(X509) *recipients = sk_X509_new_null();
  sk_X509_push(recipients, recipient.get());
  BIO *in = BIO_new_mem_buf(octets.data(), static_cast<int>(octets.size()));
  PKCS7 *made = PKCS7_encrypt(recipients, in, EVP_aes_128_cbc(), PKCS7_BINARY);
  BIO_free(in);
  sk_X509_free(recipients);
  need(made, "PKCS7_encrypt");
  pkcs7 owner(made, PKCS7_free);
  return read_message(encode<PKCS7>(made, i2d_PKCS7));
}

pkcs7 make_bare_message(int nid) {
  // SEQUENCE { contentType OBJECT IDENTIFIER }; all these types are 1.2.840.113549.1.7.x.
  const ASN1_OBJECT *object = OBJ_nid2obj(nid);
  size_t length = OBJ_length(object);
  std::string octets = "\x30";
  octets += static_cast<char>(length + 2);
  octets += '\x06';
  octets += static_cast<char>(length);
  octets.append(reinterpret_cast<const char *>(OBJ_get0_data(object)), length);
  return read_message(octets);
}

pkcs7 make_signed_and_enveloped(const std::string &octets, const key &signing_key,
                                const cert &recipient) {
  pkcs7 message(PKCS7_new(), PKCS7_free);
  need(PKCS7_set_type(message.get(), NID_pkcs7_signedAndEnveloped) == 1, "PKCS7_set_type");
  add_signer(message.get(), {signing_key, nullptr, 1}, true);
  need(PKCS7_set_cipher(message.get(), EVP_aes_128_cbc()) == 1, "PKCS7_set_cipher");
  need(PKCS7_add_recipient(message.get(), recipient.get()), "PKCS7_add_recipient");
  finish(message.get(), octets);
  return read_message(encode<PKCS7>(message.get(), i2d_PKCS7));
}

std::string contents_octets(const pkcs7 &object) {
  // ContentInfo SEQUENCE, OBJECT IDENTIFIER, [0], structure: step over four headers.
  std::string octets = der(object);
  const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
  const unsigned char *end = in + octets.size();
  for (int level = 0; level < 4; level++) {
    long length;
    int tag, type;
    need(!(ASN1_get_object(&in, &length, &tag, &type, end - in) & 0x80), "ASN1_get_object");
    if (level == 1)
      in += length;
    else
      end = in + length;
  }
  return std::string(reinterpret_cast<const char *>(in), static_cast<size_t>(end - in));
}

std::vector<const void *> elements(const STACK *list) {
  std::vector<const void *> all;
  for (int i = 0; i < OPENSSL_sk_num(list); i++)
    all.push_back(OPENSSL_sk_value(list, i));
  return all;
}

std::vector<std::string> ders(const STACK *list) {
  std::vector<std::string> all;
  for (int i = 0; i < OPENSSL_sk_num(list); i++)
    all.push_back(encode<X509>(at<X509>(list, i), i2d_X509));
  return all;
}

std::string oneline(const X509_NAME *subject) {
  if (!subject)
    return "(null)";
  char buffer[512];
  X509_NAME_oneline(subject, buffer, sizeof buffer);
  return buffer;
}

}  // namespace support
