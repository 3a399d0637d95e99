// A POST whose answer is of use up to a length only.
#ifndef PKI_HTTP_POST_WITHIN_H
#define PKI_HTTP_POST_WITHIN_H

#include <libpki/http.h>

namespace pki {

// send_http_post that reads the body whole, unless more than `limit` octets of it are announced:
// then nothing of it is read or held. The result is 0 all the same, with a null `*body`, and
// `*content_length` is what was announced. Above 64 MiB it is 2, as send_http_post has it.
[[nodiscard]] int send_http_post_within(int limit, char *host, const char *path,
                                        const char *request_type, const void *request_body,
                                        int request_length, int *status, int *content_length,
                                        char **content_type, void **body);

}  // namespace pki

#endif
