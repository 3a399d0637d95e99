/*
 * oids.h: the object identifiers that the library adds to OpenSSL's registry.
 *
 * libpki_init registers them. Refer to them by pki_nid_list[row] and read the number at the time
 * of use: after pki_cleanup_oids and a new registration the numbers may differ.
 */
#ifndef LIBPKI_OIDS_H
#define LIBPKI_OIDS_H

#include <libpki/types.h>

PKI_BEGIN_DECLS

/* Rows of pki_nid_list. The order is fixed. */
enum pki_oid_row {
  PKI_OID_VENDOR = 0,                /* 1.3.6.1.4.1.<enterprise number> "zelvo" */
  PKI_OID_VENDOR_PKI = 1,            /* vendor.1       "zelvo-pki" */
  PKI_OID_CERT_REQ_ATTRS = 2,        /* vendor.1.1     "cert-req-attrs" */
  PKI_OID_SERIAL_NUMBER = 3,         /* vendor.1.1.1   "qrn-serial-number" */
  PKI_OID_SECRET = 4,                /* vendor.1.1.2   "qrn-secret" */
  PKI_OID_TRUNCATED_CRL = 5,         /* vendor.1.2     "truncated-crl" */
  PKI_OID_VERISIGN = 6,              /* 2.16.840.1.113733 "verisign" */
  PKI_OID_VERISIGN_PKI = 7,          /* .1             "verisign-pki" */
  PKI_OID_VERISIGN_ATTRIBUTES = 8,   /* .1.9           "verisign-attributes" */
  PKI_OID_SCEP_MESSAGE_TYPE = 9,     /* .1.9.2         "verisign-message-type" */
  PKI_OID_SCEP_PKI_STATUS = 10,      /* .1.9.3         "verisign-pki-status" */
  PKI_OID_SCEP_FAIL_INFO = 11,       /* .1.9.4         "verisign-failure-info" */
  PKI_OID_SCEP_SENDER_NONCE = 12,    /* .1.9.5         "verisign-sender-nonce" */
  PKI_OID_SCEP_RECIPIENT_NONCE = 13, /* .1.9.6         "verisign-recip-nonce" */
  PKI_OID_SCEP_TRANSACTION_ID = 14,  /* .1.9.7         "verisign-trans-id" */
  PKI_OID_SCEP_EXTENSION_REQ = 15,   /* .1.9.8         "verisign-extension-req" */
  PKI_OID_SCEP_VERSION = 16,         /* .1.9.9         "verisign-version" */
  PKI_OID_SCEP_DUAL_STATUS = 17,     /* .1.9.10        "verisign-dualstatus" */
  PKI_OID_COUNT = 18
};

/*
 * OpenSSL's number of each object identifier, row by row; valid while the objects are registered.
 */
extern PKI_API int32_t *pki_nid_list;

/*
 * Registers the library's object identifiers, unless that is done already. An object that OpenSSL
 * or the host knows under the same identifier keeps its number.
 * Returns 1, or 0 when memory ran out (two lines at level 0 say so). Not guarded: libpki_init
 * calls it before other threads use the library.
 */
PKI_API int pki_register_oids(void);

/*
 * Ends the registration of object identifiers: frees pki_nid_list. OpenSSL 3.0 keeps the names of
 * the objects until the process ends. Does nothing when nothing is registered. Not guarded.
 */
PKI_API void pki_cleanup_oids(void);

PKI_END_DECLS

#endif
