/*
 * names.h: names and times that come in as text. Any thread.
 */
#ifndef LIBPKI_NAMES_H
#define LIBPKI_NAMES_H

#include <libpki/types.h>
#include <time.h>

PKI_BEGIN_DECLS

/*
 * Reads a distinguished name in the string form of RFC 1779, most specific part first:
 * "CN=device, O=Example, C=US". Separators are ",", ";" and "+" (which joins an attribute to the
 * RDN before it); a value in double quotes is taken literally; there is no backslash escape.
 * Keys are OpenSSL's short and long names and dotted numbers, the latter also behind "OID.". The
 * letter case of a key counts, as it does in OpenSSL's names: "CN", not "cn".
 * emailAddress and domainComponent become IA5String, countryName and serialNumber
 * PrintableString, all others PrintableString where their characters allow and else UTF8String.
 *
 * `*name` receives a new name, most general part first, which the caller frees with
 * X509_NAME_free; null on failure. A null text is an empty name.
 * Returns 0; 2 out of memory; 53 unknown key (a line at level 3); 54 no "=" (a line at level 4);
 * 55 a quoted value that never closes; 63 `name` is null, or the text has more than 64 KiB.
 */
PKI_API int parse_rfc1779_str(const char *text, X509_NAME **name);

/*
 * Reads an HTTP-style date in UTC. It is an optional weekday and comma, then day, month
 * abbreviation, year, hours, minutes and seconds.
 *
 * The month counts only if the text ends right behind its three letters, so a whole date always
 * ends with 37 or 38. Callers rely on the codes; see docs/security.md.
 *
 * Fields read before a failure stay set in `*time`.
 * Returns 0; 36 no day; 37 no such month; 38 no year; 39 no hour; 40 no minutes; 41 no seconds;
 * 63 an argument is null.
 */
PKI_API int parse_time_str(const char *text, struct tm *time);

PKI_END_DECLS

#endif
