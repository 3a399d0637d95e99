/*
 * attributes.h: the authenticated attributes of a SignedData's first SignerInfo (RFC 2315 9.2).
 *
 * Readers look at the first SignerInfo only and write their output only on success; what they hand
 * out belongs to the message. They return the codes of get_attr, then their own one for a value of
 * another type. Builders return a new object of the caller's, or null on any failure. Any thread.
 */
#ifndef LIBPKI_ATTRIBUTES_H
#define LIBPKI_ATTRIBUTES_H

#include <libpki/types.h>
#include <openssl/pkcs7.h>

PKI_BEGIN_DECLS

/*
 * An attribute's first value.
 * Returns 0; 63 a null argument; 66 not a SignedData; 67 no signers; 68 no such attribute.
 */
PKI_API int get_attr(PKCS7 *p7, int nid, ASN1_TYPE **value);

/*
 * Octets and length of an attribute that is an OCTET STRING or BIT STRING. The octets are not
 * NUL-terminated, and null for an empty BIT STRING.
 * Return 0; 71 another type; the codes of get_attr.
 */
PKI_API int get_os_attr_val(PKCS7 *p7, int nid, const unsigned char **data);
PKI_API int get_os_attr_len(PKCS7 *p7, int nid, int *length);

/*
 * The text of an attribute. It is the octets of a NumericString, PrintableString, T61String,
 * VideotexString, IA5String, GraphicString, VisibleString, GeneralString, UniversalString,
 * BMPString or INTEGER, with a NUL behind them. Of an INTEGER, the octets of its magnitude; the
 * first such reading puts the NUL into the message, so two threads must not make it at once.
 * Returns 0; 2 no memory for the NUL; 70 another type (UTF8String too); the codes of get_attr.
 */
PKI_API int get_string_attr(PKCS7 *p7, int nid, const char **text);

/*
 * The value of an attribute that is an INTEGER, -1 for one that no long holds.
 * Returns 0; 69 another type; the codes of get_attr.
 */
PKI_API int get_integer_attr(PKCS7 *p7, int nid, long *value);

/*
 * New ASN.1 objects from values of C. An INTEGER, for ASN1_INTEGER_free; null when memory runs
 * out.
 */
PKI_API ASN1_INTEGER *to_integer(long value);
/*
 * An OCTET STRING. Null for null `data` or a negative length; an empty string for length 0.
 */
PKI_API ASN1_OCTET_STRING *to_octetstring(const void *data, int length);
/* A PrintableString; the characters are not checked. */
PKI_API ASN1_PRINTABLESTRING *to_printablestring(const char *text);

/* New attributes with one value, for X509_ATTRIBUTE_free. */
PKI_API X509_ATTRIBUTE *create_octetstring_attr(int nid, const void *data, int length);
PKI_API X509_ATTRIBUTE *create_printablestring_attr(int nid, const char *text);
/* `number` in decimal, as a PrintableString. */
PKI_API X509_ATTRIBUTE *create_printablestring_attr_num(int nid, int number);

PKI_END_DECLS

#endif
