#include <libpki/error.h>
#include <libpki/names.h>
#include <openssl/objects.h>

#include <cstring>

#include "common/limits.h"
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "common/text.h"

namespace pki {

namespace {

// One flag for each 7-bit character: is it in ASN.1's PrintableString?
struct printable_table {
  unsigned char flags[128] = {};
  constexpr printable_table() {
    for (const char *c =
             "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 '()+,-./:=?";
         *c; c++)
      flags[static_cast<unsigned char>(*c)] = 1;
  }
};
constexpr printable_table ps_chars;

bool is_printable_string(const char *value, size_t length) {
  for (size_t i = 0; i < length; i++) {
    auto octet = static_cast<unsigned char>(value[i]);
    if (octet >= sizeof ps_chars.flags || !ps_chars.flags[octet])
      return false;
  }
  return true;
}

int string_type(const ASN1_OBJECT *attribute, const char *value, size_t length) {
  switch (OBJ_obj2nid(attribute)) {
    case NID_pkcs9_emailAddress:
    case NID_domainComponent:
      return V_ASN1_IA5STRING;
    case NID_countryName:
    case NID_serialNumber:
      return V_ASN1_PRINTABLESTRING;
    default:
      return is_printable_string(value, length) ? V_ASN1_PRINTABLESTRING : V_ASN1_UTF8STRING;
  }
}

void skip_space(const char **text) {
  while (is_space(**text))
    ++*text;
}

// "key =" at `*text`: the key without the white space behind it and without a leading "OID.".
// Leaves `*text` behind the "=".
bool read_key(const char **text, char key[name_key_characters + 1]) {
  const char *equals = std::strchr(*text, '=');
  if (!equals)
    return false;
  const char *start = *text;
  const char *end = equals;
  while (end > start && is_space(end[-1]))
    end--;
  if (end - start >= 4 && equal_ignoring_case(start, "OID.", 4))
    start += 4;
  size_t length = static_cast<size_t>(end - start);
  if (length > name_key_characters)
    length = name_key_characters;
  std::memcpy(key, start, length);
  key[length] = '\0';
  *text = equals + 1;
  return true;
}

struct text_span {
  const char *start;
  size_t length;
};

// A value, quoted or not. Leaves `*text` at the separator or the end.
bool read_value(const char **text, text_span *value) {
  skip_space(text);
  if (**text == '"') {
    const char *start = *text + 1;
    const char *quote = std::strchr(start, '"');
    if (!quote)
      return false;
    *value = {start, static_cast<size_t>(quote - start)};
    *text = quote + 1;
    skip_space(text);
    return true;
  }
  const char *start = *text;
  const char *end = start + std::strcspn(start, ",;+");
  *text = end;
  while (end > start && is_space(end[-1]))
    end--;
  *value = {start, static_cast<size_t>(end - start)};
  return true;
}

// Puts the attribute at the front of the name, in an RDN of its own or in the front one.
bool add_in_front(X509_NAME *name, const ASN1_OBJECT *attribute, const text_span &value,
                  bool joins) {
  x509_name_entry_ptr entry(X509_NAME_ENTRY_create_by_OBJ(
      nullptr, attribute, string_type(attribute, value.start, value.length),
      reinterpret_cast<const unsigned char *>(value.start), static_cast<int>(value.length)));
  return entry && X509_NAME_add_entry(name, entry.get(), 0, joins ? 1 : 0) == 1;
}

int parse_attribute(const char **text, const char *whole, bool joins, X509_NAME *name) {
  char key[name_key_characters + 1];
  const char *start = *text;
  if (!read_key(text, key)) {
    syslog(log_warning, "no '=' found for key '%s' in string '%s'", start, whole);
    return PKI_DN_NO_VALUE;
  }
  text_span value;
  if (!read_value(text, &value))
    return PKI_DN_OPEN_QS;
  int queue_end = openssl_queue_end();
  asn1_object_ptr attribute(OBJ_txt2obj(key, 0));
  if (!attribute && openssl_malloc_failure_behind(queue_end))
    return PKI_OUT_OF_MEMORY;
  // OpenSSL knows things without an identifier by name too, which no encoding can hold.
  if (!attribute || OBJ_length(attribute.get()) == 0) {
    syslog(log_error, "Unknown key `%s' in name '%s'", key, whole);
    return PKI_DN_UNKNOWN_KEY;
  }
  return add_in_front(name, attribute.get(), value, joins) ? PKI_OK : PKI_OUT_OF_MEMORY;
}

int parse_attributes(const char *text, X509_NAME *name) {
  const char *whole = text;
  bool joins = false;
  skip_space(&text);
  while (*text) {
    if (int error = parse_attribute(&text, whole, joins, name))
      return error;
    joins = *text == '+';
    if (*text)
      text++;
    skip_space(&text);
  }
  return PKI_OK;
}

// Encodes the name, which keeps its encoding, so that threads that share it later only read it.
// Octets that are no UTF-8 do not encode, and are let through as they came. When memory runs out
// while it orders the members of an RDN, OpenSSL 3.0 leaves them unwritten and reports success, so
// the encoding is read back.
bool encode_once(X509_NAME *name) {
  const unsigned char *der = nullptr;
  size_t length = 0;
  int queue_end = openssl_queue_end();
  if (X509_NAME_get0_der(name, &der, &length) != 1)
    return !openssl_malloc_failure_behind(queue_end);
  x509_name_ptr decoded(d2i_X509_NAME(nullptr, &der, static_cast<long>(length)));
  return decoded && X509_NAME_entry_count(decoded.get()) == X509_NAME_entry_count(name);
}

}  // namespace

}  // namespace pki

int parse_rfc1779_str(const char *text, X509_NAME **name) {
  if (!name)
    return PKI_INVALID_ARGS;
  *name = nullptr;
  if (text && std::strlen(text) > pki::name_text_bytes)
    return PKI_INVALID_ARGS;
  // What OpenSSL queues about a key that it does not know is no news to anybody.
  pki::openssl_error_mark discard_errors;
  pki::x509_name_ptr parsed(X509_NAME_new());
  if (!parsed)
    return PKI_OUT_OF_MEMORY;
  if (int error = text ? pki::parse_attributes(text, parsed.get()) : PKI_OK)
    return error;
  if (!pki::encode_once(parsed.get()))
    return PKI_OUT_OF_MEMORY;
  *name = parsed.release();
  return PKI_OK;
}
