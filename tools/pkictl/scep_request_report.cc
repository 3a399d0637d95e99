#include "tools/pkictl/scep_request_report.h"

#include <libpki/oids.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include "tools/common/cert_text.h"
#include "tools/common/ossl.h"

namespace pkictl {

namespace {

std::string object_text(const ASN1_OBJECT *object) {
  int nid = OBJ_obj2nid(object);
  char text[128];
  if (nid != NID_undef)
    return OBJ_nid2sn(nid);
  OBJ_obj2txt(text, sizeof text, object, 1);
  return text;
}

// The device's secret, and the pass phrase of other clients (RFC 8894 2.4).
bool is_secret(int nid) {
  return nid == pki_nid_list[PKI_OID_SECRET] || nid == NID_pkcs9_challengePassword;
}

std::string size_text(int octets, const char *note) {
  return std::to_string(octets) + " octets" + note;
}

bool is_text(int type) {
  return type == V_ASN1_PRINTABLESTRING || type == V_ASN1_UTF8STRING || type == V_ASN1_IA5STRING;
}

std::string extension_names(X509_REQ *request) {
  STACK_OF(X509_EXTENSION) *extensions = X509_REQ_get_extensions(request);
  ERR_clear_error();
  std::string names;
  for (int i = 0; i < sk_X509_EXTENSION_num(extensions); i++)
    names += (names.empty() ? "" : ", ") +
             object_text(X509_EXTENSION_get_object(sk_X509_EXTENSION_value(extensions, i)));
  sk_X509_EXTENSION_pop_free(extensions, X509_EXTENSION_free);
  return names;
}

// Only what is known to be public is shown; of the rest, the size.
std::string attribute_text(X509_REQ *request, X509_ATTRIBUTE *attribute, int nid) {
  const ASN1_TYPE *value = X509_ATTRIBUTE_get0_type(attribute, 0);
  if (!value || value->type == V_ASN1_BOOLEAN || value->type == V_ASN1_NULL ||
      value->type == V_ASN1_OBJECT)
    return "a value of another kind";
  const unsigned char *octets = ASN1_STRING_get0_data(value->value.asn1_string);
  int length = ASN1_STRING_length(value->value.asn1_string);
  if (is_secret(nid))
    return size_text(length, ", a secret, not shown");
  if (nid == NID_ext_req)
    return extension_names(request);
  return is_text(value->type) ? std::string(octets, octets + length) : size_text(length, "");
}

json attributes_json(X509_REQ *request) {
  json list = json::array();
  for (int i = 0; i < X509_REQ_get_attr_count(request); i++) {
    X509_ATTRIBUTE *attribute = X509_REQ_get_attr(request, i);
    const ASN1_OBJECT *object = X509_ATTRIBUTE_get0_object(attribute);
    list.push_back({{"name", object_text(object)},
                    {"value", attribute_text(request, attribute, OBJ_obj2nid(object))}});
  }
  return list;
}

std::string key_text(EVP_PKEY *key) {
  if (!key)
    return "unreadable";
  const char *type = EVP_PKEY_get0_type_name(key);
  return std::string(type ? type : "unknown") + " " + std::to_string(EVP_PKEY_get_bits(key));
}

}  // namespace

json request_json(X509_REQ *request) {
  EVP_PKEY *key = X509_REQ_get0_pubkey(request);
  bool proven = key && X509_REQ_verify(request, key) == 1;
  ERR_clear_error();
  return {{"kind", "PKCS#10 request"},
          {"subject", tools::name_text(X509_REQ_get_subject_name(request))},
          {"key", key_text(key)},
          {"signature_algorithm", OBJ_nid2sn(X509_REQ_get_signature_nid(request))},
          {"signature", proven ? "good" : "bad"},
          {"attributes", attributes_json(request)}};
}

}  // namespace pkictl
