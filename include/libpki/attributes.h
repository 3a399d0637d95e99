/*
 * attributes.h: the authenticated attributes of a SignedData's first SignerInfo (RFC 2315 9.2).
 *
 * Readers look at the first SignerInfo only and write their output only on success; what they
 * hand out belongs to the message. They return 63 a null argument; 66 not a SignedData; 67 no
 * signers; 68 no such attribute; then their own code for a value of another type. Builders return a
 * new object of the caller's, or null on any failure. Any thread.
 */
#ifndef LIBPKI_ATTRIBUTES_H
#define LIBPKI_ATTRIBUTES_H

#include <libpki/types.h>
#include <openssl/pkcs7.h>

PKI_BEGIN_DECLS

/* The attribute's first value. */
PKI_API int get_attr(PKCS7 *p7, int nid, ASN1_TYPE **value);

/*
 * Octets and length of an OCTET STRING or BIT STRING; 71 for other types. Not NUL-terminated; null
 * for an empty BIT STRING.
 */
PKI_API int get_os_attr_val(PKCS7 *p7, int nid, const unsigned char **data);
PKI_API int get_os_attr_len(PKCS7 *p7, int nid, int *length);

/*
 * The octets of a NumericString, PrintableString, T61String, VideotexString, IA5String,
 * GraphicString, VisibleString, GeneralString, UniversalString, BMPString or INTEGER, with a NUL
 * behind them; 70 for other types (UTF8String too). Of an INTEGER, the octets of its magnitude;
 * the first such reading puts the NUL into the message, so two threads must not make it at once;
 * 2 when there is no memory for it.
 */
PKI_API int get_string_attr(PKCS7 *p7, int nid, const char **text);

/* The value of an INTEGER, -1 for one that no long holds; 69 for other types. */
PKI_API int get_integer_attr(PKCS7 *p7, int nid, long *value);

/* A new INTEGER, for ASN1_INTEGER_free; null when memory runs out. */
PKI_API ASN1_INTEGER *to_integer(long value);
/* Null for null `data` or a negative length; an empty string for length 0. */
PKI_API ASN1_OCTET_STRING *to_octetstring(const void *data, int length);
/* The characters are not checked. */
PKI_API ASN1_PRINTABLESTRING *to_printablestring(const char *text);

/* Attributes of one value. */
PKI_API X509_ATTRIBUTE *create_octetstring_attr(int nid, const void *data, int length);
PKI_API X509_ATTRIBUTE *create_printablestring_attr(int nid, const char *text);
/* `number` in decimal, as a PrintableString. */
PKI_API X509_ATTRIBUTE *create_printablestring_attr_num(int nid, int number);

PKI_END_DECLS

#endif
