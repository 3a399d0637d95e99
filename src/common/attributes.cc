// Reading and building authenticated attributes.
#include <libpki/attributes.h>
#include <libpki/error.h>

#include <cstdio>
#include <cstring>

#include "common/log.h"
#include "common/ossl_ptr.h"
#include "common/pkcs7.h"

namespace pki {

namespace {

using asn1_integer_ptr = std::unique_ptr<ASN1_INTEGER, free_with<ASN1_INTEGER_free>>;
using asn1_string_ptr = std::unique_ptr<ASN1_STRING, free_with<ASN1_STRING_free>>;

bool is_octet_type(int type) {
  return type == V_ASN1_OCTET_STRING || type == V_ASN1_BIT_STRING;
}

// INTEGER is one on purpose: its content octets can be read as text.
bool is_string_type(int type) {
  switch (type) {
    case V_ASN1_INTEGER:
    case V_ASN1_NUMERICSTRING:
    case V_ASN1_PRINTABLESTRING:
    case V_ASN1_T61STRING:
    case V_ASN1_VIDEOTEXSTRING:
    case V_ASN1_IA5STRING:
    case V_ASN1_GRAPHICSTRING:
    case V_ASN1_VISIBLESTRING:
    case V_ASN1_GENERALSTRING:
    case V_ASN1_UNIVERSALSTRING:
    case V_ASN1_BMPSTRING:
      return true;
    default:
      return false;
  }
}

int get_octets(PKCS7 *p7, int nid, const ASN1_STRING **octets) {
  ASN1_TYPE *value;
  if (int error = get_attr(p7, nid, &value))
    return error;
  if (!is_octet_type(value->type))
    return PKI_ATTR_NOT_OCTET_STRING;
  *octets = value->value.asn1_string;
  return PKI_OK;
}

// A flag that OpenSSL has no use for: there is a NUL behind the octets.
constexpr long is_terminated = 0x40000000;

// OpenSSL keeps a NUL behind the octets of strings, but not behind those of an INTEGER. Done once:
// pointers that were handed out stay good.
bool terminate(ASN1_STRING *text) {
  if (text->flags & is_terminated)
    return true;
  int length = text->length;
  malloc_ptr<unsigned char> octets(copy_octets(text->data, length));
  if (!octets || ASN1_STRING_set(text, octets.get(), length) != 1)
    return false;
  text->flags |= is_terminated;
  return true;
}

// Takes `value` over, also when it fails.
X509_ATTRIBUTE *create_attr(int nid, ASN1_STRING *value) {
  asn1_string_ptr owner(value);
  if (!value)
    return nullptr;
  X509_ATTRIBUTE *attribute = X509_ATTRIBUTE_create(nid, value->type, value);
  if (attribute)
    owner.release();
  return attribute;
}

}  // namespace

}  // namespace pki

using namespace pki;

int get_attr(PKCS7 *p7, int nid, ASN1_TYPE **value) {
  if (!p7 || !value)
    return PKI_INVALID_ARGS;
  const PKCS7_SIGNED *signed_data = signed_data_of(p7);
  if (!signed_data)
    return PKI_NOT_SIGNED_DATA;
  PKCS7_SIGNER_INFO *signer = sk_PKCS7_SIGNER_INFO_value(signed_data->signer_info, 0);
  if (!signer)
    return PKI_NO_SIGNERS;
  ASN1_TYPE *found = PKCS7_get_signed_attribute(signer, nid);
  if (!found)
    return PKI_ATTR_NOT_FOUND;
  *value = found;
  return PKI_OK;
}

int get_os_attr_val(PKCS7 *p7, int nid, const unsigned char **data) {
  if (!data)
    return PKI_INVALID_ARGS;
  const ASN1_STRING *octets;
  if (int error = get_octets(p7, nid, &octets))
    return error;
  *data = ASN1_STRING_get0_data(octets);
  return PKI_OK;
}

int get_os_attr_len(PKCS7 *p7, int nid, int *length) {
  if (!length)
    return PKI_INVALID_ARGS;
  const ASN1_STRING *octets;
  if (int error = get_octets(p7, nid, &octets))
    return error;
  *length = ASN1_STRING_length(octets);
  return PKI_OK;
}

int get_string_attr(PKCS7 *p7, int nid, const char **text) {
  if (!text)
    return PKI_INVALID_ARGS;
  ASN1_TYPE *value;
  if (int error = get_attr(p7, nid, &value))
    return error;
  if (!is_string_type(value->type))
    return PKI_ATTR_NOT_STRING;
  ASN1_STRING *string = value->value.asn1_string;
  if (value->type == V_ASN1_INTEGER && !terminate(string))
    return log_reasons(PKI_OUT_OF_MEMORY);
  const unsigned char *octets = ASN1_STRING_get0_data(string);
  *text = octets ? reinterpret_cast<const char *>(octets) : "";
  return PKI_OK;
}

int get_integer_attr(PKCS7 *p7, int nid, long *number) {
  if (!number)
    return PKI_INVALID_ARGS;
  ASN1_TYPE *value;
  if (int error = get_attr(p7, nid, &value))
    return error;
  if (value->type != V_ASN1_INTEGER)
    return PKI_ATTR_NOT_INT;
  openssl_error_mark discard_errors;
  *number = ASN1_INTEGER_get(value->value.integer);
  return PKI_OK;
}

ASN1_INTEGER *to_integer(long value) {
  asn1_integer_ptr made(ASN1_INTEGER_new());
  return made && ASN1_INTEGER_set(made.get(), value) == 1 ? made.release() : nullptr;
}

ASN1_OCTET_STRING *to_octetstring(const void *data, int length) {
  if (!data || length < 0)
    return nullptr;
  asn1_string_ptr made(ASN1_OCTET_STRING_new());
  return made && ASN1_STRING_set(made.get(), data, length) == 1 ? made.release() : nullptr;
}

ASN1_PRINTABLESTRING *to_printablestring(const char *text) {
  if (!text)
    return nullptr;
  asn1_string_ptr made(ASN1_PRINTABLESTRING_new());
  return made && ASN1_STRING_set(made.get(), text, static_cast<int>(std::strlen(text))) == 1
             ? made.release()
             : nullptr;
}

X509_ATTRIBUTE *create_octetstring_attr(int nid, const void *data, int length) {
  return create_attr(nid, to_octetstring(data, length));
}

X509_ATTRIBUTE *create_printablestring_attr(int nid, const char *text) {
  return create_attr(nid, to_printablestring(text));
}

X509_ATTRIBUTE *create_printablestring_attr_num(int nid, int number) {
  char text[16];
  std::snprintf(text, sizeof text, "%d", number);
  return create_printablestring_attr(nid, text);
}
