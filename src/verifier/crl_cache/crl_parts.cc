#include "verifier/crl_cache/crl_parts.h"

#include <libpki/error.h>
#include <libpki/util.h>

#include <algorithm>

#include "common/alloc.h"
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

struct placed_entry {
  X509_REVOKED *entry;
  int place;
};

bool stands_before(const placed_entry &one, const placed_entry &other) {
  int order = ASN1_STRING_cmp(X509_REVOKED_get0_serialNumber(one.entry),
                              X509_REVOKED_get0_serialNumber(other.entry));
  return order < 0 || (order == 0 && one.place < other.place);
}

// OpenSSL takes note that the list is another, but does not sort it itself.
bool note_new_order(X509_CRL *crl) {
  STACK_OF(X509_REVOKED) *list = X509_CRL_get_REVOKED(crl);
  auto *compare = sk_X509_REVOKED_set_cmp_func(list, nullptr);
  bool noted = X509_CRL_sort(crl) == 1;
  (void)sk_X509_REVOKED_set_cmp_func(list, compare);
  return noted;
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

// X509_CRL_sort leaves it to the C library, and to how much memory that has, whether entries of one
// number change places; the first of them decides.
int sort_entries(X509_CRL *crl) {
  STACK_OF(X509_REVOKED) *list = X509_CRL_get_REVOKED(crl);
  const int count = sk_X509_REVOKED_num(list);
  if (count < 1)
    return PKI_OK;
  const auto size = static_cast<size_t>(count) * sizeof(placed_entry);
  malloc_ptr<placed_entry> entries(static_cast<placed_entry *>(allocate(size)));
  if (!entries)
    return PKI_OUT_OF_MEMORY;
  placed_entry *first = entries.get();
  for (int i = 0; i < count; i++)
    first[i] = {sk_X509_REVOKED_value(list, i), i};
  std::sort(first, first + count, stands_before);
  for (int i = 0; i < count; i++)
    (void)sk_X509_REVOKED_set(list, i, first[i].entry);
  return note_new_order(crl) ? PKI_OK : PKI_INTERNAL_ERROR;
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
