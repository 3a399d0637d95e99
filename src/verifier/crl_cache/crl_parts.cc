#include "verifier/crl_cache/crl_parts.h"

#include <libpki/error.h>
#include <libpki/util.h>

#include "verifier/crl_cache/extensions.h"
#include "verifier/crl_cache/general_names.h"

namespace pki {

namespace {

constexpr unsigned char tag_sequence = 0x30;

uint32_t element_size(uint32_t content_size) {
  return der_header_size(content_size) + content_size;
}

bool append_octets(octets *out, const octets &part) {
  return out->append(part.data(), part.size());
}

bool append_entries(octets *out, const crl_parts &parts) {
  return !parts.has_entries || (out->append_header(tag_sequence, parts.entries.size()) &&
                                append_octets(out, parts.entries));
}

bool encode_parts(octets *out, const crl_parts &parts) {
  uint32_t entries = parts.has_entries ? element_size(parts.entries.size()) : 0;
  uint32_t tbs = parts.head.size() + entries + parts.extensions.size();
  return out->append_header(tag_sequence, element_size(tbs) + parts.tail.size()) &&
         out->append_header(tag_sequence, tbs) && append_octets(out, parts.head) &&
         append_entries(out, parts) && append_octets(out, parts.extensions) &&
         append_octets(out, parts.tail);
}

}  // namespace

X509_CRL *build_crl(const crl_parts &parts) {
  octets der;
  if (!encode_parts(&der, parts)) {
    ERR_raise(ERR_LIB_ASN1, ERR_R_MALLOC_FAILURE);
    return nullptr;
  }
  memory_watch memory;
  ERR_set_mark();
  const unsigned char *in = der.data();
  x509_crl_ptr crl(d2i_X509_CRL(nullptr, &in, static_cast<long>(der.size())));
  if (!crl || in != der.data() + der.size() || memory.ran_out()) {
    ERR_clear_last_mark();
    return nullptr;
  }
  ERR_pop_to_mark();  // of extensions that OpenSSL looked into and did not understand
  return crl.release();
}

int name_entry_issuer(X509_REVOKED *entry, const X509_NAME *issuer) {
  general_names_ptr names(GENERAL_NAMES_new());
  GENERAL_NAME *name = GENERAL_NAME_new();
  X509_NAME *copy = X509_NAME_dup(issuer);
  if (!name || !copy) {
    GENERAL_NAME_free(name);
    X509_NAME_free(copy);
    return PKI_OUT_OF_MEMORY;
  }
  GENERAL_NAME_set0_value(name, GEN_DIRNAME, copy);
  if (!names || sk_GENERAL_NAME_push(names.get(), name) <= 0) {
    GENERAL_NAME_free(name);
    return PKI_OUT_OF_MEMORY;
  }
  int at;
  while ((at = X509_REVOKED_get_ext_by_NID(entry, NID_certificate_issuer, -1)) >= 0)
    X509_EXTENSION_free(X509_REVOKED_delete_ext(entry, at));
  if (X509_REVOKED_add1_ext_i2d(entry, NID_certificate_issuer, names.get(), 0,
                                X509V3_ADD_DEFAULT) == 1)
    return PKI_OK;
  return PKI_OUT_OF_MEMORY;
}

int names_entry_issuer(const X509_REVOKED *entry, bool *named) {
  openssl_error_mark none_is_no_error;
  memory_watch memory;
  *named = false;
  // It may stand more than once.
  for (int at = -1;
       !*named && (at = X509_REVOKED_get_ext_by_NID(entry, NID_certificate_issuer, at)) >= 0;) {
    general_names_ptr names(
        static_cast<GENERAL_NAMES *>(X509V3_EXT_d2i(X509_REVOKED_get_ext(entry, at))));
    *named = cv_find_dn(names.get()) != nullptr;
  }
  return memory.ran_out() ? PKI_OUT_OF_MEMORY : PKI_OK;
}

}  // namespace pki
