/*
 * store.h: the process-wide store, its start-up, what goes in, what is found, what goes out.
 *
 * Threads. libpki_init runs once, before other threads use the library. Any thread may then add
 * untrusted certificates and search; every list of the store and of a CA is guarded. Adding and
 * removing CAs and keys, provisioning and enrollment belong to one management thread.
 *
 * Ownership. Finds hand out a reference of the caller's own: release records with their free_*
 * and certificates with X509_free. Adds take a reference or copy; the caller keeps its own.
 *
 * Every operation that returns int gives 0 or a code of error.h, 63 (PKI_INVALID_ARGS) for a
 * required argument that is null. Where a label has to be found, a null one is not found.
 */
#ifndef LIBPKI_STORE_H
#define LIBPKI_STORE_H

#include <libpki/records.h>
#include <openssl/evp.h>

PKI_BEGIN_DECLS

/*
 * The store. The lists are null until libpki_init has run; read and change them through the
 * functions. A key that a host has kept itself is pushed onto `key_store`, by the management thread
 * (docs/enrollment.md).
 */
typedef struct pki_store_object {
  STACK *key_store;           /* of key_info: the device's key pairs and their certificates */
  STACK *ca_infos;            /* of ca_info: the provisioned CAs */
  STACK *provisioned_certs;   /* of X509: untrusted, kept */
  STACK *collected_certs;     /* of X509: untrusted, met at run time; bounded */
  STACK *global_status_rules; /* of cert_status_info: asked behind those of the CAs */
} pki_store_object;

/* The process-wide store; never null. */
extern PKI_API pki_store_object *const pki_store;

/*
 * Brings the library up: OpenSSL, the object identifiers, both caches, the store.
 * Returns 0; 16 (PKI_NO_INFO_FILE) when that was done before, which changes nothing and does no
 * harm. Running out of memory is not reported: the step is tried again every 60 seconds, with a
 * line at level 6.
 */
PKI_API int libpki_init(void);

/* Does nothing: the store lives as long as the process. */
PKI_API void libpki_term(void);

/* ---- CAs ---- */

/*
 * Provisions a CA. Downloads the CA-info document from `ca_pointer_url` (http only; the device's
 * serial number goes along in the query "?serial="), checks its signature with `doc_key`, reads
 * it and enters the CA under `label`. A CA that already has this label stays and is found first.
 *
 * On failure no CA is added; additional certificates that the document brought before the error
 * stay among the provisioned ones. Blocks for the download; for the management thread.
 *
 * Returns 0; 63 an argument is null; 2 out of memory, or libpki_init has not run; 49 no reference
 * on the key; 45 the URL is no http URL; 78 the board does not give its serial number; 47 the
 * server did not answer 200 or its answer is unusable; 48 its answer could not be read; 20 the
 * document is no PKCS#7; 29 the signature is not the key's; 73 the signed content is not data; and
 * the codes of parse_ca_info_doc; 27 as create_dummy_cert. A refused URL, a serial number that is
 * not to be had and a failed download are logged at level 3 or 4, and so is what OpenSSL has to
 * say.
 */
PKI_API int pki_add_ca(const char *label, const char *ca_pointer_url, EVP_PKEY *doc_key);

/*
 * Reads a CA-info document (XML; docs/ca-info.md has its grammar) of `length` octets
 * into `info`. Additional certificates go straight into `store`'s provisioned list; everything
 * read before an error stays where it was put.
 *
 * Returns 0; 63 a null argument, a negative length, or an issuer name above 64 KiB; 34 not
 * well-formed XML, an entity that is not one of XML's own, or more than 10,000,000 octets; 2 out of
 * memory, or libxml2 could not be loaded (the first document of a process loads it; a line at level
 * 3); 30, 31 nesting deeper than 39 or unbalanced; 32 a required attribute is missing; 33 a
 * certificate that cannot be decoded; 35 an element without its text; 53 to 55 a bad issuer name;
 * 36 to 41 an expiry that does not parse and is not the last element; 9, 11, 13 BIO failures.
 * An expiry that does not parse and is the last element is logged at level 4 and the document
 * taken whole. For the management thread.
 */
PKI_API int parse_ca_info_doc(const unsigned char *document, int length, pki_store_object *store,
                              ca_info *info);

/*
 * Adds a CA's record to the store, which shares it. Labels are not compared: a second CA of a label
 * is added behind the first, which finds return. Returns 0; 2; 63.
 */
PKI_API int pki_add_ca_info(ca_info *info);

/* The first CA of that label (letter case counts), or null. */
PKI_API ca_info *pki_find_ca_info_by_label(const char *label);

/* The first CA with that issuer name, or null. */
PKI_API ca_info *pki_find_ca_info_by_issuer(const X509_NAME *name);

/* A new list of every CA (of ca_info), for free_ca_infos; null when memory runs out. */
PKI_API STACK *pki_get_all_ca_infos(void);

/* Removes the first CA of that label. Returns 0; 50 there is none; 63. */
PKI_API int pki_remove_ca(const char *label);

/* ---- keys ---- */

/* The first key of that label, or null. */
PKI_API key_info *pki_find_key_info_by_label(const char *label);

/* The first certificate record of that label in `key`'s list, or null. */
PKI_API cert_info *pki_find_cert_info_by_label(const char *label, const key_info *key);

/*
 * Makes an RSA key pair under `label`. `algorithm` is "RSA" in any letter case, or null for it.
 * `bits` below 1 means 1024. A key that already has this label stays and is found first.
 * Returns 0; 2 out of memory, OpenSSL makes no key of that size, or libpki_init has not run; 63 no
 * label; 64 another algorithm. For the management thread.
 */
PKI_API int pki_generate_key_pair(const char *label, const char *algorithm, int bits);

/*
 * Gets a certificate for the key `key_label` from the CA `ca_label`, by the CA's enrollment
 * methods in order (SCEP only; others are skipped with a line at level 4), and files it under
 * `cert_label` with the key and among the provisioned certificates. `subject` is the requested
 * name as parse_rfc1779_str reads it, or null for an empty one. The first method that can be used
 * decides: its error is the result.
 *
 * Returns 0; 50 no such CA; 51 no such key; 53 to 55, 63 a bad subject; 61 no method that can be
 * used; 52 ("NO SUCH CERT") still pending when it was given up; 65 the certificate is for another
 * key (a line at level 2 holds it); 75 it has no public key; 2, also for a null `cert_label`; 25;
 * 49; the codes of scep_cert_req. The key's list and the store are changed only by success. Blocks
 * for the whole enrollment (scep_client.h tells how to end one that is pending); for the management
 * thread.
 */
PKI_API int pki_get_certificate(const char *ca_label, const char *key_label, const char *cert_label,
                                const char *subject);

/*
 * Removes the first key of that label with its certificates, which leave the untrusted lists and
 * every CA's trusted roots too. Returns 0; 50 ("NO SUCH CA", not 51) there is no such key. For the
 * management thread.
 */
PKI_API int pki_remove_key(const char *label);

/*
 * Removes the key's first certificate of that label, which leaves the lists as with
 * pki_remove_key.
 * Returns 0; 51 no such key; 52 no such certificate.
 */
PKI_API int pki_remove_certificate(const char *key_label, const char *cert_label);

/* ---- certificates ---- */

/*
 * Adds a certificate to a list. `list` (of X509) stays as it is when a certificate of the same
 * issuer and serial number is in it. The store's collected list keeps the limits of
 * pki_add_untrusted_cert.
 * Returns 0; 2; 49 no reference could be taken; 63.
 */
PKI_API int pki_add_cert(STACK *list, X509 *cert);

/* Adds a certificate to a CA's trusted roots, as pki_add_cert does. Returns as pki_add_cert. */
PKI_API int pki_add_trusted_cert(X509 *cert, ca_info *info);

/*
 * Adds an untrusted certificate to the store. It goes to the provisioned list when `keep` is
 * non-zero, else to the collected list. That holds 512 certificates and 2 MiB of DER, and drops its
 * oldest; a certificate of more than 16 KiB of DER does not enter it, which is no failure.
 * Returns 0; 2, also for a certificate that the collected list cannot measure, as it cannot be
 * encoded; 49; 63; 80 no lock.
 */
PKI_API int pki_add_untrusted_cert(X509 *cert, unsigned char keep);

/*
 * The same for each certificate of a list, in order, up to the first failure.
 * Returns as pki_add_untrusted_cert.
 */
PKI_API int pki_add_untrusted_certs(const STACK *certs, unsigned char keep);

/*
 * Removes a certificate from a list: the first of `list` with the issuer and serial number of
 * `cert`.
 * Returns 0; 52 there is none; 63.
 */
PKI_API int pki_delete_cert(STACK *list, const X509 *cert);

/*
 * Removes an untrusted certificate from the store. It leaves the collected list, then the
 * provisioned list.
 * Returns 0 both held it; 52 one of them did not, though the other may have held it, and lost it;
 * 49 no reference could be taken; 63.
 */
PKI_API int pki_delete_untrusted_cert(const X509 *cert);

/*
 * Removes a certificate from the trusted roots of `info`, or with a null `info` from those of every
 * CA.
 * Returns 0, with a null `info` also where no CA had it; 52 it is not among them; 49 no reference
 * could be taken; 63.
 */
PKI_API int pki_delete_trusted_cert(const X509 *cert, ca_info *info);

/*
 * Find certificates of one issuer and serial number, or of one subject. The searches look through
 * the provisioned certificates, the collected ones and every CA's trusted roots, in this order, and
 * append what they find, one more reference each, to `*result` (of X509). A null `*result` is
 * replaced by a new list, the caller's. On failure `*result` is as it was. Finding nothing is no
 * failure.
 * Return 0; 2; 49; 63; 80 no lock.
 */
PKI_API int pki_find_certs_by_issuer_serial(const X509_NAME *issuer, const ASN1_INTEGER *serial,
                                            STACK **result);
PKI_API int pki_find_certs_by_subject(const X509_NAME *subject, STACK **result);

/*
 * Finds certificates by the hash of their public key. It is of the key's bits, without tag, length
 * and unused-bits octet (the key hash of RFC 6960). They are appended to `*result` (of X509) as by
 * pki_find_certs_by_subject.
 * Returns 0; 2, also for a digest that OpenSSL does not offer; 49; 63, also unless `hash_length` is
 * the size of `digest`; 80 no lock.
 */
PKI_API int pki_find_certs_by_key_hash(const EVP_MD *digest, const unsigned char *hash,
                                       int hash_length, STACK **result);

/* ---- status rules ---- */

/*
 * A status rule says where the status of the certificates that it matches is asked. It is added to
 * `info`, with which it leaves the store, or for a null `info` to the global rules, which come
 * behind those of the CAs. Either is asked about the certificates of every CA, as far as `rules`
 * match them.
 *
 * rules     which certificates: those for which all conditions of this list hold (of
 *           cert_match_rule, made with alloc_cert_match_rule). It is shared element by element:
 *           list and references stay the caller's. An empty list matches every certificate.
 *
 * Each rule has two flags (PKI_STATUS_FLAG0, PKI_STATUS_FLAG1), which say when it is asked:
 *
 *     flag 0  flag 1
 *        0       0    before the sources that the certificate itself names
 *        0       1    before them, and instead of them: nothing behind it is asked
 *        1       0    after them
 *        1       1    after them, and nothing behind it is asked
 *
 * docs/validation.md has a picture, and an example that compiles.
 */

/*
 * Adds a status rule: certificates that match count as good. With `flag` 0 they do before the
 * certificate's own sources are asked, and instead of that (flag 0 is clear); else when none of
 * those knew (flag 0 is set). Flag 1 is always set: nothing behind this rule is asked.
 * Returns 0; 2; 63 `rules` is null.
 */
PKI_API int pki_add_aok_info(ca_info *info, const STACK *rules, unsigned char flag);

/*
 * Adds a status rule: certificates that match are looked up in CRLs. `crl_infos` (of crl_info, made
 * with create_crl_info) is a list of sources that is shared element by element, and used as one
 * source. URLs are not checked here; one that is of no use is logged when it is asked.
 *
 * flag0     flag 0: 1 after the certificate's own sources, 0 before them. Give 0 or 1: the octet is
 *           kept as the record's `flags` as it is.
 * flag1     flag 1: not 0: final, nothing behind this rule is asked.
 *
 * Returns 0; 2; 63 `rules` or `crl_infos` is null.
 */
PKI_API int pki_add_crl_info(ca_info *info, const STACK *rules, const STACK *crl_infos,
                             unsigned char flag0, unsigned char flag1);

/*
 * Adds a status rule: certificates that match are asked for at the OCSP responder `url` (http; it
 * is copied, and not checked here: one that is of no use is logged when it is asked).
 *
 * responder_cert   a certificate whose owner may sign the answers, besides the issuer of the
 *                  certificate in question and whom that has delegated; shared. Or null.
 * option           1: what `responder_cert` signed is believed outright; 0: only if its own status
 *                  is good, which is asked first.
 * flag0, flag1     as for pki_add_crl_info.
 *
 * Returns 0; 2; 49 no reference on `responder_cert` can be taken; 63 `rules` or `url` is null.
 */
PKI_API int pki_add_ocsp_info(ca_info *info, const STACK *rules, const char *url,
                              X509 *responder_cert, unsigned char option, unsigned char flag0,
                              unsigned char flag1);

/* ---- which rules apply ---- */

/*
 * Lists the status rules that apply to a certificate. Appends to `result` (of cert_status_info) a
 * duplicate of each rule of `info`, or for a null `info` of the global rules, that applies to
 * `cert`, in order. Judge the outcome by the length of the list.
 * Returns 81 (PKI_NO_ENTRY) at the end of the rules, whether or not anything was appended; 2 out of
 * memory; 63.
 */
PKI_API int pki_find_sts_query_info(ca_info *info, X509 *cert, STACK *result);

PKI_END_DECLS

#endif
