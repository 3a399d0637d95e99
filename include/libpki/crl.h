/*
 * crl.h: look into a CRL of any size (RFC 5280 5) while its octets go by, for tools that show it
 * to a person. Whether a certificate is revoked is for verify.h to say: nothing here judges the
 * CRL's dates or scope, or who may sign it.
 */
#ifndef LIBPKI_CRL_H
#define LIBPKI_CRL_H

#include <libpki/types.h>
#include <sys/types.h>

PKI_BEGIN_DECLS

/*
 * Stores the next octets, at least one and at most `size`, at `buffer`. Returns their number, 0 at
 * the end, or a negative number when reading fails.
 */
typedef ssize_t pki_crl_read_fn(void *context, void *buffer, size_t size);

/* Where a CRL comes from. */
typedef struct pki_crl_source {
  pki_crl_read_fn *read;
  void *context;   /* handed to `read` */
  uint64_t length; /* of what is read until the end, or 0: not known */
} pki_crl_source;

/* What is wanted of it; each field may be null. */
typedef struct pki_crl_query {
  const ASN1_INTEGER *serial; /* entries with this serial number are kept */
  const X509_NAME *issuer;    /* only those for certificates of this issuer (RFC 5280 5.3.3) */
  X509 *signer;               /* the signature is checked with this certificate's key */
} pki_crl_query;

enum {
  PKI_CRL_NOT_CHECKED = 0, /* no signer was given */
  PKI_CRL_SIGNED = 1,      /* the signer's key made the signature */
  PKI_CRL_NOT_SIGNED = 2   /* it did not, or the signature cannot be read */
};

/* What was found. */
typedef struct pki_crl_report {
  X509_CRL *crl;             /* everything but the entries, and those that were looked for; marked
                                with the extension pki_nid_list[PKI_OID_TRUNCATED_CRL] */
  uint64_t entries;          /* in the whole list */
  uint64_t critical_entries; /* of them with a critical extension that the library does not know,
                                for which it refuses the CRL when it verifies certificates */
  uint64_t octets;           /* of the CRL, with what stands in front of it in a PKCS#7 message */
  int signature;             /* PKI_CRL_SIGNED, ... */
} pki_crl_report;

/*
 * Reads a CRL, as DER or as the first one in a PKCS#7 SignedData (RFC 2315 9.1), and tells what is
 * in it. `query` may be null. The octets behind the CRL are not looked at. It takes some 15 KiB of
 * memory for an ordinary CRL, however long it is, and below 1 MiB for any.
 *
 * `report->crl` is the caller's to free. Its signature is over more entries than it has: it is to
 * be looked at, and neither to be verified again nor cached. An entry of it that was looked for
 * names its certificate's issuer wherever that is not the CRL's. `read` is called in the calling
 * thread, may block, and must return.
 *
 * Returns 0; 2 out of memory; 15 this is no CRL, an element of it is longer than 10000 octets,
 * more than 64 entries, or 64 KiB of them, are looked for, or `length` is above 4294967295; 48
 * `read` failed, or ended too early; 63 `source`, its `read` or `report` is null; 84 the digest of
 * the signature algorithm is not known or cannot be used. A failure leaves the report empty, and
 * OpenSSL's reasons in the system log at level 3. Octets that are left over in a structure of the
 * CRL are logged at level 4. After libpki_init. Any thread.
 */
PKI_API int pki_scan_crl(const pki_crl_source *source, const pki_crl_query *query,
                         pki_crl_report *report);

PKI_END_DECLS

#endif
