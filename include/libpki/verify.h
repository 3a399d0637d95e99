/*
 * verify.h: the verify callbacks, certificate statuses, the status cache and the CRL cache.
 *
 * Any thread may use all of it once libpki_init has run. (Before, there are no rules, so that only
 * what certificates name themselves is asked.) Records and CRLs that are in a cache are shared:
 * treat them as constant. docs/validation.md has a program that judges certificates, and a picture
 * of how a status is decided.
 */
#ifndef LIBPKI_VERIFY_H
#define LIBPKI_VERIFY_H

#include <libpki/types.h>
#include <openssl/x509_vfy.h>

PKI_BEGIN_DECLS

/* ---- verifying ---- */

/*
 * Verify callbacks for OpenSSL, the internet and the local flavour. They are for
 * X509_STORE_set_verify_cb, X509_STORE_CTX_set_verify_cb or SSL_CTX_set_verify. The internet
 * flavour is for devices with a clock and a network: dates count, and responders and CRLs are asked
 * about every certificate below the top; one that names none, and that no rule is about, counts as
 * good, so add a rule for those (pki_add_ocsp_info, pki_add_crl_info). The local flavour is for
 * devices without: it forgives dates and asks nobody. OpenSSL builds the chain and checks
 * signatures, names and constraints; the callback judges what it reports, certificate by
 * certificate from the top down. Return 1 to accept, 0 to reject.
 *
 * Of OpenSSL's errors these are forgiven, deliberately:
 *   2        a missing issuer behind a certificate of the X509_STORE: the chain ends there. (A
 *            chain without any certificate of the store's is error 20, and rejected.) The internet
 *            flavour wants that certificate to be in date (a line at level 4), unless
 *            X509_V_FLAG_NO_CHECK_TIME is set.
 *   21       a single certificate whose signature nobody could check; OpenSSL 3 reports 20 first.
 *   9, 10    the validity period, by the local flavour only: for devices without a clock.
 *   19       a self-signed top that is not trusted, when the X509_STORE has an issuer for the
 *            certificate below the next one: that issuer takes the place of both. OpenSSL 3 looks
 *            for it itself, unless X509_V_FLAG_TRUSTED_FIRST is cleared and
 *            X509_V_FLAG_NO_ALT_CHAINS set. X509_STORE_CTX_get_num_untrusted stays as it was.
 * Every other error rejects. X509_STORE_CTX_get_error keeps the last error that was forgiven, also
 * when the chain is accepted in the end.
 *
 * A certificate that OpenSSL accepts is rejected when (with a line at level 4, unless noted):
 *   - there is none, or no chain (level 3); so X509_V_FLAG_NOTIFY_POLICY cannot be used;
 *   - the verification asks for another time than now (X509_V_FLAG_USE_CHECK_TIME);
 *   - its extensions cannot be read (OpenSSL 3 refuses it first);
 *   - it stands deeper than its own pathLenConstraint and one more;
 *   - it is not the top, and has a critical extension other than subjectKeyIdentifier, keyUsage,
 *     subjectAltName, issuerAltName, basicConstraints, authorityKeyIdentifier,
 *     cRLDistributionPoints, extKeyUsage and authorityInfoAccess;
 *   - it is neither top nor end entity, and has a keyUsage without cRLSign (keyCertSign is
 *     OpenSSL's to check), or no basicConstraints with cA. (A version 1 certificate without
 *     basicConstraints would pass; OpenSSL 3 refuses it first.)
 *   - internet flavour: its status is not good. The context's error is then
 *     X509_V_ERR_UNABLE_TO_GET_CRL (3, unknown) or X509_V_ERR_CERT_REVOKED (23). For the other
 *     rules OpenSSL itself sets X509_V_ERR_UNSPECIFIED (1): the log tells which.
 * The top of the chain is trusted as it is, and nobody is asked about it: so is a single
 * certificate that the X509_STORE holds. When OpenSSL accepts the top, every certificate above the
 * end entity, and the caller's untrusted ones but the first, go into the store's collected
 * certificates, whose limits pki_add_untrusted_cert has; behind a forgiven error 2 it does not ask
 * again about the top, and none do.
 *
 * Internet flavour: blocks while responders are asked; there is no limit on the whole, so give the
 * connection that waits for the verdict a time-out of its own. RFC 5280 6.1 and 6.3, RFC 6960.
 */
PKI_API int zv_cv_cert_validator_internet(int ok, X509_STORE_CTX *ctx);
PKI_API int zv_cv_cert_validator_local(int ok, X509_STORE_CTX *ctx);
/* The same under the names that older hosts use. */
PKI_API int zv_cv_cert_validator_internet_ex(int ok, X509_STORE_CTX *ctx);
PKI_API int zv_cv_cert_validator_local_ex(int ok, X509_STORE_CTX *ctx);

/*
 * The status of `cert`, issued by `issuer`. Only for an issuer out of a chain that was verified,
 * who did issue `cert`: what he and those whom he certified sign is believed, and the status cache
 * keeps it for every later check with him, whatever the X509_STORE. It comes from the cache, else
 * from the first source that knows it: status rules of the store with flag 0 clear, up to 8
 * responders and the CRLs that the certificate names, status rules with flag 0 set. A rule with
 * flag 1 ends the search. The answer is cached until it expires; that no source answered, for 30
 * seconds. Blocks while sources are asked.
 *
 * ctx       the verification that this belongs to; its trusted certificates are of use to the
 *           sources. May be null.
 * internet  pass 1.
 * depth     pass 0. Sources check their signers one deeper; at 10, or after 64 nested checks under
 *           one outermost check, the answer is unknown (a line at level 3).
 *
 * Returns PKI_CERT_OK, also when no source is known, and when checking is off and nothing is
 * cached; PKI_CERT_REVOKED; PKI_CERT_UNKNOWN when no source answers, its sources cannot be read or
 * memory runs out (a line at level 4), and for a null `cert`.
 */
PKI_API int zv_cv_check_cert_status(X509 *cert, X509 *issuer, X509_STORE_CTX *ctx,
                                    unsigned char internet, int depth);

/* ---- certificate statuses ---- */

enum { PKI_CERT_UNKNOWN = 0, PKI_CERT_OK = 1, PKI_CERT_REVOKED = 2 };

/* The status of one certificate and the time until which it may be reused. */
typedef struct cert_sts_info {
  int status;             /* PKI_CERT_* */
  X509 *cert;             /* one reference */
  ASN1_TIME *valid_until; /* owned */
  uint32_t ref_count;     /* changes atomically */
  struct {
    struct cert_sts_info *next;      /* null at the tail */
    struct cert_sts_info **previous; /* what points at this record; null: not in the cache */
  } link;
  uint32_t hits; /* look-ups that found this record; stops at 4294967295 */
} cert_sts_info;

/*
 * A status record, with a copy of `valid_until` and one more reference on `cert`; null when memory
 * runs out or an argument is null.
 */
PKI_API cert_sts_info *cv_alloc_cert_sts_info(int status, X509 *cert, const ASN1_TIME *valid_until);

/* One more reference on a status record; null for null. */
PKI_API cert_sts_info *cv_dup_cert_sts_info(cert_sts_info *info);

/* Drops a reference on a status record and destroys it with the last; nothing for null. */
PKI_API void cv_free_cert_sts_info(cert_sts_info *info);

/* A status as text: "unknown", "ok", "revoked", or "<invalid cert status>". */
PKI_API const char *zv_cv_cert_sts_to_str(int status);

/*
 * ---- the status cache: 20 records ----
 *
 * It serves all verifications of the process. A status that the library put there counts for the
 * issuer with whom it was found: every certificate of his name and key. One that the host put there
 * counts whoever the issuer is.
 */

/* Sets the status cache up, once; libpki_init calls it. */
PKI_API void zv_cv_init(void);

/*
 * Puts a record into the status cache, with one more reference. Does nothing and returns 0 when the
 * record has expired, its time cannot be read, or it is in the cache. A full cache first drops one
 * record: the first expired one, else the oldest of those with the fewest hits.
 * Returns 0; 63 null; 80 no lock.
 */
PKI_API int zv_cv_add_cert_sts_info_cache(cert_sts_info *info);

/*
 * The oldest cached status record of `cert`, with one more reference, or null. It may have expired:
 * look at valid_until.
 */
PKI_API cert_sts_info *zv_cv_find_cert_sts_info_cache(const X509 *cert);

/*
 * Takes a record out of the status cache. After 0 the cache's reference is the caller's to drop,
 * with cv_free_cert_sts_info. Returns 0; 63 null; 80 no lock; 81 the record is not in the cache,
 * and nothing is to be dropped.
 */
PKI_API int zv_cv_remove_cert_sts_info_cache(cert_sts_info *info);

/* Empties the status cache. Returns 0 or the lock's error number (an errno value, no code). */
PKI_API int zv_cv_clear_cert_sts_info_cache(void);

/*
 * Turns revocation checking off (non-zero) or on (0, as at load) and returns the previous value.
 * While it is off, a certificate whose status is not cached counts as good.
 */
PKI_API int zv_cv_disable_crl_check(int flag);
PKI_API int zv_cv_is_disabled_crl_check(void);

/*
 * ---- the CRL cache: 50000 octets of DER ----
 *
 * It serves all verifications of the process. A CRL that the library put there is believed again
 * for the issuer who vouched for its signer. For others it counts only where they name the URL that
 * it came from, and its signer is judged anew. One that the host put there is believed as it is.
 */

/* Sets the CRL cache up, once; libpki_init calls it. */
PKI_API void zv_crl_init(void);

/*
 * The first cached CRL of an issuer that covers at least `reasons` (bit n is bit n of
 * ReasonFlags), with one more reference, or null. With `signer` given, only a CRL with a known
 * signer fits, and `*signer` receives one more reference on that certificate. The caller
 * releases both.
 */
PKI_API X509_CRL *zv_cv_find_crl_in_cache(const X509_NAME *issuer, uint32_t reasons, X509 **signer);

/*
 * Caches a CRL and the certificate that verified it (or null), one more reference each. Do not
 * change or sort the CRL from then on. To make room, CRLs are dropped most recently used first.
 * A CRL that is cached already gets a second entry.
 * Returns 0; 2; 14 the CRL does not encode (or 2); 15 its issuingDistributionPoint cannot be read
 * (or 2); 49 no reference; 63 null, or a CRL that is marked as lacking entries; 80 no lock; 82 more
 * than 50000 octets.
 */
PKI_API int zv_cv_add_crl_to_cache(X509_CRL *crl, X509 *signer);

/*
 * Removes a CRL from the cache. It is this one or, where the object itself is not cached, the first
 * of the same issuer.
 * Returns 0; 63 null; 80 no lock; 81 there is none.
 */
PKI_API int zv_cv_rem_crl_from_cache(const X509_CRL *crl);

/* Empties the CRL cache. Returns 0 or the lock's error number (an errno value, no code). */
PKI_API int zv_cv_clear_crl_cache(void);

/*
 * RFC 5280 ReasonFlags as a mask. Bit n of the string, counted from its first, is bit n of the
 * mask. Only the first 32 bits count. 0 for null.
 */
PKI_API uint32_t zv_cv_get_crl_reasons(const ASN1_BIT_STRING *reasons);

PKI_END_DECLS

#endif
