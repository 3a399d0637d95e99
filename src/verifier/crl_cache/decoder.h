// Decoding a CertificateList (RFC 5280 5.1) straight off a connection.
#ifndef PKI_VERIFIER_CRL_CACHE_DECODER_H
#define PKI_VERIFIER_CRL_CACHE_DECODER_H

#include "common/ossl_ptr.h"
#include "verifier/crl_cache/stream.h"

namespace pki {

// Which entries a look into a list keeps: those for the target certificate, all with its serial
// number, or none.
enum class look_for : unsigned char { target, serial, nothing };

// A look into a list, for somebody who wants to know what is in it, and no verdict.
struct crl_look {
  look_for kept = look_for::nothing;
  uint64_t entries = 0;           // in the list
  uint64_t critical_entries = 0;  // with a critical extension that is not known
};

// One fetch.
struct crl_request {
  X509_CRL *crl;           // the result; null after a failure
  EVP_MD_CTX *tbs_digest;  // over tbsCertList; made by the caller
  bool truncated;          // only entries for target_cert were kept
  X509 *target_cert;       // borrowed
  // The entries may start at the target's issuer instead of the CRL's: a configured signer of
  // another name speaks for the issuer.
  bool entries_may_start_at_target;
  // May be null. With it the list is truncated however short it is, no entry is refused for a
  // critical extension, and failures are not announced on standard output.
  crl_look *look = nullptr;
};

// What a body turned out to be that is no CertificateList: a PKCS#7 message, whose outer header
// has been read.
struct pkcs7_start {
  bool found;
  uint32_t header_size;
};

// Decodes the next `content_length` octets. A list longer than 10000 octets is truncated: read and
// digested whole, but only the entries for the target certificate are kept.
// Returns 0; 2; 15 also for more than 64 kept entries, or 64 KiB, of a truncated list; 48; 63 the
// list has entries and there is no target; 84 no digest for the signature algorithm; 86 an entry
// has a critical extension that is not known. `pkcs7` may be null.
[[nodiscard]] int cv_crl_decode_crl(crl_request *request, crl_stream *stream,
                                    uint32_t content_length, pkcs7_start *pkcs7);

// Marks a CRL that lacks entries, so that nobody takes it for the whole list.
// Returns 0; 2.
[[nodiscard]] int cv_crl_mark_truncated(X509_CRL *crl);
[[nodiscard]] bool is_marked_truncated(const X509_CRL *crl);

// The issuer that the entries of an indirect CRL name (RFC 5280 5.3.3): it holds until the next.
// Returns 0; 2; 15; 86 for critical extensions that are not known. `*current` may be null.
// OpenSSL's queue is left for the caller to log. With `unknown_critical` given, that is set instead
// of returning 86.
[[nodiscard]] int cv_proc_rev_ext(const STACK_OF(X509_EXTENSION) * extensions, X509_NAME **current,
                                  bool *unknown_critical = nullptr);

}  // namespace pki

#endif
