/*
 * http.h: a blocking HTTP/1.0 client (RFC 1945) over plain TCP. No TLS, keep-alive, chunked
 * bodies or proxies. Any thread; each call blocks its own.
 */
#ifndef LIBPKI_HTTP_H
#define LIBPKI_HTTP_H

#include <libpki/types.h>
#include <sys/types.h>

PKI_BEGIN_DECLS

/*
 * Splits a URL. `*copy` receives a copy (malloc) that starts with the scheme, NUL-terminated;
 * `*host` (with its port, if any) and `*path` (from its first "/" with the query, or empty) point
 * into it. Free the copy only. Nothing else is checked, the scheme included.
 * Returns 0; 2 out of memory; 45 no "://" behind the first ":", all outputs null; 63 an argument is
 * null.
 */
PKI_API int parse_url(const char *url, char **copy, char **host, char **path);

/*
 * Waits up to `timeout_ms` milliseconds for `fd` to be readable, then reads once.
 * Returns the octets read, 0 at the end of the stream, negative on error or time-out (logged at
 * level 3). `*error` (may be null) receives errno, ETIMEDOUT on time-out, ENOTCONN at the end.
 * A signal that interrupts the wait does not end it.
 */
PKI_API ssize_t timed_read(int fd, void *buffer, size_t length, int timeout_ms, int *error);

/*
 * Reads a line, an octet at a time, 60 seconds each. `*length` is the capacity of `buffer` on
 * entry and the number of characters stored on return; carriage returns are dropped, the line
 * feed becomes the closing NUL. A line may take up to 64 KiB on the wire.
 * Returns 0; 48 with `*error` (may be null) EINVAL for a line that does not fit, else as
 * timed_read has it; 63 another argument is null.
 */
PKI_API int read_line(int fd, char *buffer, size_t *length, int *error);

/*
 * Send an HTTP request and read the answer. Up to 19 redirects (301, 302, 303, 307) to http URLs
 * are followed.
 *
 * host, path          as parse_url gives them; `host` is changed in place. "[address]:port" is an
 *                     IPv6 address. The first 8 addresses of a name are tried in order, 60
 *                     seconds each.
 * accept              (GET) value of the Accept line; null writes the text "(null)".
 * request_type, request_body, request_length
 *                     (POST) media type (or null) and octets to send.
 * status              receives the HTTP status. Other than 200 is no failure: the result is 0
 *                     with no body, so test it.
 * content_length      receives the announced length, also of an answer that fails later; -1 for
 *                     none, 0 when the status is not 200.
 * content_type        may be null; receives the media type (malloc) up to a blank or ";", or
 *                     null. The caller frees it also after a failure.
 * stream              0: the body is read whole into `*body` (malloc, exactly the announced
 *                     length, at most 64 MiB, non-null for length 0); else `*sock` receives the
 *                     open socket at the first octet of the body, which the caller closes.
 * body, sock          the one that `stream` asks for must be given; null or -1 unless the status
 *                     is 200.
 *
 * Return 0; 2 out of memory (also the system's, for the host's name or the connection: that is
 * logged at level 3), or a body above 64 MiB; 47 no such host, no connection, a port outside 1 to
 * 65535, nothing sent, no valid status line, no announced length (body), a body cut short; 48 the
 * head of the answer could not be read, has a line above 699 characters or is above 64 KiB; 63 a
 * required argument is null, or a negative length. 47 and 48 are logged at level 3, redirects at
 * level 7.
 */
PKI_API int send_http_get(char *host, const char *path, int *status, const char *accept,
                          int *content_length, char **content_type, unsigned char stream,
                          void **body, int *sock);
PKI_API int send_http_post(char *host, const char *path, const char *request_type,
                           const void *request_body, int request_length, int *status,
                           int *content_length, char **content_type, unsigned char stream,
                           void **body, int *sock);

PKI_END_DECLS

#endif
