/*
 * trust_roots.h: the trust roots that are built into the library.
 *
 * Three CAs in the store carry them: "root" (the public Class 3 Public Primary Certification
 * Authorities, first generation, G2 and G3, and the vendor's corporate and emergency roots),
 * "engineering" (the vendor's engineering root) and "other" (what the device's folder of roots
 * holds). The vendor's own are put in when the library is built: see docs/trust-roots.md.
 */
#ifndef LIBPKI_TRUST_ROOTS_H
#define LIBPKI_TRUST_ROOTS_H

#include <libpki/types.h>

PKI_BEGIN_DECLS

/* The labels of the CAs, for pki_find_ca_info_by_label. */
#define PKI_ROOT_CA_LABEL "root"
#define PKI_ENGINEERING_CA_LABEL "engineering"
#define PKI_OTHER_CA_LABEL "other"

/*
 * Puts the built-in roots into the store, once a process, and copies all roots into `store`, each
 * time:
 *
 *   - the CA "root" with its status rules: what the public roots and their intermediate issued is
 *     looked up in the CRLs that those CAs published, after the certificate's own sources, when
 *     these give no definite answer. The intermediate becomes an untrusted certificate.
 *   - with `with_eng`, the CA "engineering" with a rule that takes what the engineering root issued
 *     for good, after the certificate's own sources, when these give no definite answer. The
 *     engineering root stays in the store: from then on every call copies it into its `store`,
 *     `with_eng` or not.
 *   - at each call, the PEM certificates of the folder /etc/pki/roots into the CA "other": the
 *     first certificate of each regular file of at most 1 MiB, if its subject has an
 *     organizationName and its key is of an algorithm that OpenSSL knows. Files that cannot be used
 *     are skipped with a line at level 3; encrypted ones are not asked about. No folder is no
 *     failure. What was read once stays trusted until the process ends, also when its file leaves
 *     the folder; a certificate of the issuer and serial number of one that the CA holds, such as
 *     that root renewed, is not taken.
 *
 * A CA of one of the labels that is in the store is added to, but for certificates whose issuer and
 * serial number it holds already; when that fails, it is left as it was.
 *
 * Returns 1; 0 when something of the first two, or the copying, failed (a line at level 3), when
 * `store` is null, or before libpki_init. What failed is tried again by the next call. Any thread.
 */
PKI_API int pki_ver_setup_trust_roots(X509_STORE *store, unsigned char with_eng);

/*
 * 1 if `cert` is one of the CA "engineering", else 0, also for null and when memory ran out (as a
 * rule a line at level 3). Any thread.
 */
PKI_API int pki_ver_eng_root(const X509 *cert);

PKI_END_DECLS

#endif
