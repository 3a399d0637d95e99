#include "crl_entries.h"

#include <libpki/error.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <memory>

namespace fuzz {

namespace {

struct free_names {
  void operator()(GENERAL_NAMES *names) const { GENERAL_NAMES_free(names); }
};
using names_ptr = std::unique_ptr<GENERAL_NAMES, free_names>;

template <class T>
std::string encode(const T *value, int (*i2d)(const T *, unsigned char **)) {
  if (!value)
    return "-";
  unsigned char *out = nullptr;
  int size = i2d(value, &out);
  std::string octets(reinterpret_cast<char *>(out), size > 0 ? static_cast<size_t>(size) : 0);
  OPENSSL_free(out);
  return octets;
}

std::string time_text(const ASN1_TIME *time) {
  if (!time)
    return "-";
  return std::to_string(ASN1_STRING_type(time)) +
         std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(time)),
                     static_cast<size_t>(ASN1_STRING_length(time)));
}

bool is_issuer(X509_EXTENSION *extension) {
  return OBJ_obj2nid(X509_EXTENSION_get_object(extension)) == NID_certificate_issuer;
}

const X509_NAME *directory_name(const names_ptr &names) {
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); i++) {
    const GENERAL_NAME *name = sk_GENERAL_NAME_value(names.get(), i);
    if (name->type == GEN_DIRNAME)
      return name->d.directoryName;
  }
  return nullptr;
}

names_ptr read_names(X509_EXTENSION *extension) {
  ERR_set_mark();
  names_ptr names(static_cast<GENERAL_NAMES *>(X509V3_EXT_d2i(extension)));
  ERR_pop_to_mark();
  return names;
}

// The last extension that names one holds.
bool take_issuer(const X509_REVOKED *entry, const X509_NAME *wanted, bool *is_wanted) {
  bool named = false;
  for (int i = 0; i < X509_REVOKED_get_ext_count(entry); i++) {
    X509_EXTENSION *extension = X509_REVOKED_get_ext(entry, i);
    if (!is_issuer(extension))
      continue;
    names_ptr names = read_names(extension);
    if (const X509_NAME *found = directory_name(names)) {
      *is_wanted = X509_NAME_cmp(found, wanted) == 0;
      named = true;
    }
  }
  return named;
}

std::string without_issuer(const X509_REVOKED *entry) {
  std::string text = time_text(X509_REVOKED_get0_revocationDate(entry));
  for (int i = 0; i < X509_REVOKED_get_ext_count(entry); i++) {
    X509_EXTENSION *extension = X509_REVOKED_get_ext(entry, i);
    if (!is_issuer(extension))
      text += encode<X509_EXTENSION>(extension, i2d_X509_EXTENSION);
  }
  return text;
}

int code_of_extension(X509_EXTENSION *extension) {
  int nid = OBJ_obj2nid(X509_EXTENSION_get_object(extension));
  if (nid == NID_certificate_issuer && !read_names(extension))
    return PKI_ASN1_DECODE_ERROR;
  bool known =
      nid == NID_crl_reason || nid == NID_invalidity_date || nid == NID_hold_instruction_code;
  return X509_EXTENSION_get_critical(extension) && !known ? PKI_UNKNOWN_CRITICAL_EXTENSION : PKI_OK;
}

template <class Visit>
void each_entry(const X509_CRL *crl, const Visit &visit) {
  STACK_OF(X509_REVOKED) *entries = X509_CRL_get_REVOKED(const_cast<X509_CRL *>(crl));
  for (int i = 0; i < sk_X509_REVOKED_num(entries); i++)
    visit(sk_X509_REVOKED_value(entries, i));
}

}  // namespace

std::vector<std::string> all_entries(const X509_CRL *crl) {
  std::vector<std::string> all;
  each_entry(crl, [&](X509_REVOKED *entry) {
    all.push_back(encode<X509_REVOKED>(entry, i2d_X509_REVOKED));
  });
  return all;
}

std::vector<std::string> entries_about(const X509_CRL *crl, X509 *target, bool start_at_target) {
  const X509_NAME *wanted = X509_get_issuer_name(target);
  bool is_wanted = start_at_target || X509_NAME_cmp(X509_CRL_get_issuer(crl), wanted) == 0;
  std::vector<std::string> found;
  each_entry(crl, [&](X509_REVOKED *entry) {
    take_issuer(entry, wanted, &is_wanted);
    if (is_wanted && ASN1_INTEGER_cmp(X509_REVOKED_get0_serialNumber(entry),
                                      X509_get0_serialNumber(target)) == 0)
      found.push_back(without_issuer(entry));
  });
  return found;
}

bool names_issuers(const X509_CRL *crl) {
  bool named = false, ignored = false;
  each_entry(crl, [&](X509_REVOKED *entry) {
    named |= take_issuer(entry, X509_CRL_get_issuer(crl), &ignored);
  });
  return named;
}

std::string frame_of(const X509_CRL *crl) {
  const ASN1_BIT_STRING *signature = nullptr;
  const X509_ALGOR *algorithm = nullptr;
  X509_CRL_get0_signature(crl, &signature, &algorithm);
  std::string text = std::to_string(X509_CRL_get_version(crl)) +
                     encode<X509_NAME>(X509_CRL_get_issuer(crl), i2d_X509_NAME) +
                     time_text(X509_CRL_get0_lastUpdate(crl)) +
                     time_text(X509_CRL_get0_nextUpdate(crl)) +
                     encode<X509_ALGOR>(algorithm, i2d_X509_ALGOR) +
                     encode<ASN1_BIT_STRING>(signature, i2d_ASN1_BIT_STRING);
  for (int i = 0; i < X509_CRL_get_ext_count(crl); i++)
    text += encode<X509_EXTENSION>(X509_CRL_get_ext(crl, i), i2d_X509_EXTENSION);
  return text;
}

std::string encoding_of(const X509_CRL *crl) {
  return encode<X509_CRL>(crl, i2d_X509_CRL);
}

int code_of_entries(const X509_CRL *crl) {
  int code = PKI_OK;
  each_entry(crl, [&](X509_REVOKED *entry) {
    for (int i = 0; i < X509_REVOKED_get_ext_count(entry) && !code; i++)
      code = code_of_extension(X509_REVOKED_get_ext(entry, i));
  });
  return code;
}

}  // namespace fuzz
