/*
 * records.h: the records that describe CAs, keys, certificates, methods and status rules.
 *
 * alloc_* gives an empty record with one reference, or null when memory runs out. dup_* takes one
 * more reference and returns the same pointer; free_* drops one and destroys the record with the
 * last. dup_*(NULL) is NULL, free_*(NULL) does nothing. Reference counts change atomically; the
 * other fields are for one thread at a time until the record is in the store.
 *
 * A record owns its texts (malloc), names and integers (copies), certificates and keys (one
 * OpenSSL reference each), and its lists with one reference on each element.
 */
#ifndef LIBPKI_RECORDS_H
#define LIBPKI_RECORDS_H

#include <libpki/types.h>
#include <openssl/x509v3.h>
#include <time.h>

PKI_BEGIN_DECLS

/* Mechanism and rule numbers; they are stored data and never change. */
enum { PKI_CERT_REQ_SCEP = 1 };
enum { PKI_CERT_QUERY_SCEP = 1, PKI_CERT_QUERY_LDAP = 3 };
enum { PKI_STATUS_OCSP = 1, PKI_STATUS_CRL = 2, PKI_STATUS_AOK = 3 };
enum { PKI_MATCH_ISSUER = 1, PKI_MATCH_SUBJECT = 2, PKI_MATCH_SERIAL = 3 };

/* crl_info.reasons: bit n is bit n of RFC 5280's ReasonFlags; 511, like 0, is every reason. */
#define PKI_ALL_REASONS 511u

/* crl_info.flags above the creator's byte: what the record points at but does not own. */
#define PKI_CRL_URL_BORROWED (UINT32_C(1) << 16)
#define PKI_CRL_ISSUER_BORROWED (UINT32_C(1) << 17)

/* One provisioned CA. */
typedef struct ca_info {
  char *label;                /* key of the store's CA list */
  char *ca_pointer_url;       /* where the CA-info document is fetched */
  EVP_PKEY *doc_key;          /* verifies the document's signature */
  struct tm expires;          /* the document's expiry, as far as it could be read; else zero */
  X509_NAME *issuer_name;     /* the CA's issuer name, or null */
  STACK *trusted_roots;       /* of X509 */
  STACK *cert_req_methods;    /* of cert_req_info, in document order */
  STACK *cert_lookup_methods; /* of cert_query_info, in document order */
  STACK *cert_status_methods; /* of cert_status_info, in document order */
  int32_t ref_count;
} ca_info;

/* One certificate issued for a key. */
typedef struct cert_info {
  char *label;
  X509 *cert;
  X509_NAME *issuer; /* copies of what the certificate says */
  X509_NAME *subject;
  ASN1_INTEGER *serial;
  int32_t ref_count;
} cert_info;

/* One key pair of the device. */
typedef struct key_info {
  char *label;
  EVP_PKEY *key; /* private and public */
  STACK *certs;  /* of cert_info */
  int32_t ref_count;
} key_info;

/* How to enroll by SCEP. Owned by its cert_req_info, not counted. */
typedef struct scep_req_info {
  char *url;
  X509 *ca_cert; /* the CA certificate of the exchange */
  char *digest;  /* OpenSSL's digest name, or null */
  char *cipher;  /* OpenSSL's cipher name, or null */
} scep_req_info;

/* One enrollment method of a CA. */
typedef struct cert_req_info {
  int32_t mechanism; /* PKI_CERT_REQ_SCEP */
  void *data;        /* its scep_req_info */
  int32_t ref_count;
} cert_req_info;

/* How to look certificates up by SCEP GetCert. Owned by its cert_query_info. */
typedef struct scep_query_info {
  char *url;
  X509 *ca_cert;
} scep_query_info;

/* How to look certificates up by LDAP. Owned by its cert_query_info. */
typedef struct ldap_query_info {
  char *url;
} ldap_query_info;

/* One certificate look-up method of a CA. */
typedef struct cert_query_info {
  int32_t mechanism; /* PKI_CERT_QUERY_SCEP or PKI_CERT_QUERY_LDAP */
  void *data;        /* its scep_query_info or ldap_query_info */
  int32_t ref_count;
} cert_query_info;

/*
 * One condition of a status rule. A name or low bound that is null never holds. A name holds for a
 * certificate whose name has its attributes in their order, possibly with others between them; they
 * are compared octet by octet, with their kind of string. So take it out of a certificate: a text
 * (parse_rfc1779_str, and with it the name in a CA-info document) does not say that the CA writes
 * UTF8String, say.
 */
typedef struct cert_match_rule {
  int32_t type;       /* PKI_MATCH_* */
  void *name_or_low;  /* X509_NAME of the issuer or subject, or the lowest ASN1_INTEGER */
  ASN1_INTEGER *high; /* the highest serial number; null: no upper bound */
  int32_t ref_count;
} cert_match_rule;

/*
 * cert_status_info.flags: when the rule's source is asked. FLAG0: after the sources that the
 * certificate itself names; without it before them. FLAG1: the source is final, so that nothing
 * behind it is asked, also when it does not answer.
 */
#define PKI_STATUS_FLAG0 UINT32_C(1)
#define PKI_STATUS_FLAG1 UINT32_C(2)

/* One certificate-status rule; it applies to a certificate when all its match rules hold. */
typedef struct cert_status_info {
  STACK *rules;      /* of cert_match_rule; empty: applies to every certificate */
  uint32_t flags;    /* PKI_STATUS_FLAG* */
  int32_t mechanism; /* PKI_STATUS_* */
  void *data;        /* OCSP: ocsp_info; CRL: STACK of crl_info; AOK: null */
  int32_t ref_count;
} cert_status_info;

/* One OCSP responder. */
typedef struct ocsp_info {
  char *url;
  X509 *responder_cert; /* or null */
  uint32_t option;      /* bit 0: what `responder_cert` signed is believed without asking for
                           the status of that certificate; the others are not used */
  int32_t ref_count;
} ocsp_info;

/* One CRL source. */
typedef struct crl_info {
  char *url;
  int format;             /* of what is fetched: 0 DER, bare or inside PKCS#7; 1 bare; 2 PKCS#7 */
  uint32_t reasons;       /* of the cached CRLs, one that covers at least these will do */
  uint32_t flags;         /* bit 0: it is a delta CRL; and PKI_CRL_*_BORROWED */
  X509_NAME *crl_issuer;  /* or null */
  X509 *crl_signer;       /* or null */
  DIST_POINT *dist_point; /* borrowed; null from the allocator */
  int32_t ref_count;
} crl_info;

/* Make, release and share a record of a CA. */
PKI_API ca_info *alloc_ca_info(void);
PKI_API void free_ca_info(ca_info *info);
PKI_API ca_info *dup_ca_info(ca_info *info);

/* Make and free lists of ca_info and of key_info; freeing one releases every element. */
PKI_API STACK *alloc_ca_infos(void);
PKI_API void free_ca_infos(STACK *list);
PKI_API STACK *alloc_key_store(void);
PKI_API void free_key_store(STACK *list);

/* Make, release and share a record of a key. */
PKI_API key_info *alloc_key_info(void);
PKI_API void free_key_info(key_info *info);
PKI_API key_info *dup_key_info(key_info *info);

/* Make, release and share a record of a certificate that was issued for a key. */
PKI_API cert_info *alloc_cert_info(void);
PKI_API void free_cert_info(cert_info *info);
PKI_API cert_info *dup_cert_info(cert_info *info);

/*
 * Make, release and share a record of how to enroll. alloc_cert_req_info_m also makes the record
 * that `data` points at: `mechanism` is PKI_CERT_REQ_SCEP. Another one gives null and a line at
 * level 3; so does freeing a record of another mechanism, whose `data` is then left alone.
 */
PKI_API cert_req_info *alloc_cert_req_info(void);
PKI_API cert_req_info *alloc_cert_req_info_m(int mechanism);
PKI_API void free_cert_req_info(cert_req_info *info);
PKI_API cert_req_info *dup_cert_req_info(cert_req_info *info);
PKI_API scep_req_info *alloc_scep_req_info(void);
PKI_API void free_scep_req_info(scep_req_info *info);

/*
 * Make, release and share a record of how to look certificates up. alloc_cert_query_info_m also
 * makes the record that `data` points at: `mechanism` is PKI_CERT_QUERY_SCEP or
 * PKI_CERT_QUERY_LDAP. Another one gives null and a line at level 3; so does freeing a record of
 * another mechanism, whose `data` is then left alone.
 */
PKI_API cert_query_info *alloc_cert_query_info(void);
PKI_API cert_query_info *alloc_cert_query_info_m(int mechanism);
PKI_API void free_cert_query_info(cert_query_info *info);
PKI_API cert_query_info *dup_cert_query_info(cert_query_info *info);
PKI_API scep_query_info *alloc_scep_query_info(void);
PKI_API void free_scep_query_info(scep_query_info *info);
PKI_API ldap_query_info *alloc_ldap_query_info(void);
PKI_API void free_ldap_query_info(ldap_query_info *info);

/*
 * Make, release and share a match rule: one condition of a status rule. Set `type` before
 * `name_or_low`: it decides how that is freed.
 */
PKI_API cert_match_rule *alloc_cert_match_rule(void);
PKI_API void free_cert_match_rule(cert_match_rule *rule);
PKI_API cert_match_rule *dup_cert_match_rule(cert_match_rule *rule);

/*
 * Make, release and share a status rule; pki_add_crl_info and its like make one and put it into
 * effect. alloc_cert_status_info_m also makes what `data` points at: `mechanism` is
 * PKI_STATUS_OCSP, PKI_STATUS_CRL or PKI_STATUS_AOK. Another one gives null and a line at level 3;
 * so does freeing a record of another mechanism, whose `data` is then left alone.
 */
PKI_API cert_status_info *alloc_cert_status_info(void);
PKI_API cert_status_info *alloc_cert_status_info_m(int mechanism);
PKI_API void free_cert_status_info(cert_status_info *info);
PKI_API cert_status_info *dup_cert_status_info(cert_status_info *info);

/* Make, release and share a record of an OCSP responder. */
PKI_API ocsp_info *alloc_ocsp_info(void);
PKI_API void free_ocsp_info(ocsp_info *info);
PKI_API ocsp_info *dup_ocsp_info(ocsp_info *info);

/* Make, release and share a record of a CRL source; create_crl_info also fills it. */
PKI_API crl_info *alloc_crl_info(void);
PKI_API void free_crl_info(crl_info *info);
PKI_API crl_info *dup_crl_info(crl_info *info);

/*
 * A record of a CRL source, for the list that pki_add_crl_info takes. Null when memory runs out.
 *
 * url       where the CRL is fetched: http only; copied, or null.
 * format    what is fetched: 0 DER, bare or inside a PKCS#7 message; 1 bare DER, whatever content
 *           type the server names; 2 a PKCS#7 message.
 * reasons   which CRL of the cache will do: one that covers at least these reasons for a revocation
 *           (bit n is bit n of RFC 5280's ReasonFlags). PKI_ALL_REASONS for an ordinary CRL. For
 *           which reasons a CRL speaks, it says itself.
 * flags     0 for a complete CRL; 1 for a delta CRL, which brings the complete ones of the same
 *           list up to date (RFC 5280 5.2.4).
 * issuer    who issues the CRL, where that is not the issuer of the certificates (an indirect CRL);
 *           copied, or null.
 * signer    the certificate of whoever signs the CRL, where the host knows it; one more reference
 *           is taken, and nobody else's signature counts. Or null. With another name than the
 *           certificates' issuer, and without `issuer`, its CRLs are about that issuer's
 *           certificates, and are not cached (unless they are indirect).
 */
PKI_API crl_info *create_crl_info(const char *url, int format, uint32_t reasons,
                                  unsigned char flags, const X509_NAME *issuer, X509 *signer);

PKI_END_DECLS

#endif
