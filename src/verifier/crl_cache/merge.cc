// A base CRL and its delta as one.
#include <libpki/error.h>
#include <libpki/util.h>

#include "common/log.h"
#include "common/oids.h"
#include "verifier/crl_cache/crl_parts.h"
#include "verifier/crl_cache/delta.h"

namespace pki {

namespace {

constexpr unsigned char tag_sequence = 0x30;
constexpr unsigned char tag_extensions = 0xa0;
constexpr unsigned char version_2[] = {0x02, 0x01, 0x01};

using x509_extension_ptr = std::unique_ptr<X509_EXTENSION, free_with<X509_EXTENSION_free>>;
using x509_revoked_ptr = std::unique_ptr<X509_REVOKED, free_with<X509_REVOKED_free>>;

class merger {
 public:
  merger(const X509_CRL *base, const X509_CRL *delta, const X509_NAME *first_issuer)
      : base_(base), delta_(delta), first_issuer_(first_issuer) {}

  int run(x509_crl_ptr *merged) {
    if (int error = add_head())
      return error;
    if (int error = add_delta_entries())
      return error;
    if (int error = add_base_entries())
      return error;
    if (int error = add_extensions())
      return error;
    if (int error = add_tail())
      return error;
    merged->reset(build_crl(parts_));
    return *merged ? PKI_OK : openssl_failure(PKI_INTERNAL_ERROR);
  }

 private:
  int add_algorithm(octets *out) {
    const X509_ALGOR *algorithm;
    X509_CRL_get0_signature(base_, nullptr, &algorithm);
    return append_encoding(out, algorithm, i2d_X509_ALGOR);
  }

  int add_time(const ASN1_TIME *time) {
    return time ? append_encoding(&parts_.head, time, i2d_ASN1_TIME) : PKI_OK;
  }

  int add_head() {
    if (!parts_.head.append(version_2, sizeof version_2))
      return PKI_OUT_OF_MEMORY;
    if (int error = add_algorithm(&parts_.head))
      return error;
    if (int error =
            append_encoding<X509_NAME>(&parts_.head, X509_CRL_get_issuer(base_), i2d_X509_NAME))
      return error;
    if (int error = add_time(X509_CRL_get0_lastUpdate(delta_)))
      return error;
    return add_time(X509_CRL_get0_nextUpdate(delta_));
  }

  int add_entries(const X509_CRL *crl, int first) {
    STACK_OF(X509_REVOKED) *entries = X509_CRL_get_REVOKED(const_cast<X509_CRL *>(crl));
    parts_.has_entries = parts_.has_entries || entries;
    for (int i = first; i < sk_X509_REVOKED_num(entries); i++)
      if (int error = append_encoding<X509_REVOKED>(
              &parts_.entries, sk_X509_REVOKED_value(entries, i), i2d_X509_REVOKED))
        return error;
    return PKI_OK;
  }

  int add_delta_entries() { return add_entries(delta_, 0); }

  int delta_names_issuers(bool *named) const {
    *named = false;
    STACK_OF(X509_REVOKED) *entries = X509_CRL_get_REVOKED(const_cast<X509_CRL *>(delta_));
    for (int i = 0; !*named && i < sk_X509_REVOKED_num(entries); i++)
      if (int error = names_entry_issuer(sk_X509_REVOKED_value(entries, i), named))
        return error;
    return PKI_OK;
  }

  // The first of them may name no issuer; behind an indirect delta it has to.
  int add_base_entries() {
    STACK_OF(X509_REVOKED) *entries = X509_CRL_get_REVOKED(const_cast<X509_CRL *>(base_));
    const X509_REVOKED *first = sk_X509_REVOKED_value(entries, 0);
    bool has_own = false, delta_has = false;
    if (first)
      if (int error = names_entry_issuer(first, &has_own))
        return error;
    if (int error = delta_names_issuers(&delta_has))
      return error;
    if (!first || has_own || !delta_has)
      return add_entries(base_, 0);
    x509_revoked_ptr named(X509_REVOKED_dup(first));
    if (!named)
      return openssl_failure(PKI_OUT_OF_MEMORY);
    if (int error = name_entry_issuer(named.get(), first_issuer_))
      return error;
    if (int error = append_encoding(&parts_.entries, named.get(), i2d_X509_REVOKED))
      return error;
    return add_entries(base_, 1);
  }

  static const X509_EXTENSION *number_of(const X509_CRL *crl) {
    return X509_CRL_get_ext(crl, X509_CRL_get_ext_by_NID(crl, NID_crl_number, -1));
  }

  int add_number(octets *list) {
    x509_extension_ptr number(X509_EXTENSION_dup(const_cast<X509_EXTENSION *>(number_of(delta_))));
    if (!number || X509_EXTENSION_set_critical(number.get(), 0) != 1)
      return openssl_failure(PKI_OUT_OF_MEMORY);
    return append_encoding(list, number.get(), i2d_X509_EXTENSION);
  }

  int add_base_extensions(octets *list) {
    for (int i = 0; i < X509_CRL_get_ext_count(base_); i++) {
      const X509_EXTENSION *extension = X509_CRL_get_ext(base_, i);
      int error = extension == number_of(base_)
                      ? add_number(list)
                      : append_encoding(list, extension, i2d_X509_EXTENSION);
      if (error)
        return error;
    }
    return PKI_OK;
  }

  int add_extensions() {
    if (!number_of(base_) || !number_of(delta_))
      return PKI_INTERNAL_ERROR;
    octets list;
    if (int error = add_base_extensions(&list))
      return error;
    uint32_t size = der_header_size(list.size()) + list.size();
    return parts_.extensions.append_header(tag_extensions, size) &&
                   parts_.extensions.append_header(tag_sequence, list.size()) &&
                   parts_.extensions.append(list.data(), list.size())
               ? PKI_OK
               : PKI_OUT_OF_MEMORY;
  }

  int add_tail() {
    if (int error = add_algorithm(&parts_.tail))
      return error;
    const ASN1_BIT_STRING *signature;
    X509_CRL_get0_signature(base_, &signature, nullptr);
    return append_encoding<ASN1_BIT_STRING>(&parts_.tail, signature, i2d_ASN1_BIT_STRING);
  }

  const X509_CRL *base_;
  const X509_CRL *delta_;
  const X509_NAME *first_issuer_;
  crl_parts parts_;
};

}  // namespace

int cv_merge_crl_dcrl(const X509_CRL *base, const X509_CRL *delta, x509_crl_ptr *merged,
                      const X509_NAME *first_issuer) {
  x509_crl_ptr made;
  if (!first_issuer)
    first_issuer = X509_CRL_get_issuer(base);
  if (int error = merger(base, delta, first_issuer).run(&made))
    return log_reasons(error);
  if (is_marked_truncated(delta) && !is_marked_truncated(base))
    if (int error = cv_crl_mark_truncated(made.get()))
      return error;
  *merged = std::move(made);
  return PKI_OK;
}

}  // namespace pki
