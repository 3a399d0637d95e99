// The CA-info document's state machine: what the XML tokeniser's callbacks share.
#ifndef PKI_PKI_CA_INFO_CONTEXT_H
#define PKI_PKI_CA_INFO_CONTEXT_H

#include <libpki/store.h>
#include <libxml/parser.h>

#include "common/limits.h"
#include "common/ossl_ptr.h"

namespace pki {

enum ca_info_state : int32_t {
  state_ignored = 1,
  state_document = 2,
  state_root = 3,
  state_expires = 4,
  state_issuer_name = 5,
  state_cert_req_method = 6,
  state_cert_lookup_method = 7,
  state_cert_status_query_method = 8,
  state_trusted_roots = 9,
  state_additional_certs = 10,
  state_scep = 11,
  state_scep_cert = 12,
  state_scep_digest = 13,
  state_scep_cipher = 14,
  state_crs = 15,
  state_crs_cert = 16,
  state_crs_digest = 17,
  state_crs_cipher = 18,
  state_scep_get_cert = 19,
  state_crs_get_cert = 20,
  state_ldap_get_cert = 21,
  state_scep_get_cert_cert = 22,
  state_ocsp = 23,
  state_ocsp_cert = 24,
  state_trusted_root_cert = 26,
  state_additional_cert = 27,
};

struct ca_info_context {
  int32_t states[ca_info_state_slots];  // slot 0 is state_document
  int32_t top;                          // index of the current state
  pki_store_object *store;
  ca_info *ca;
  bio_ptr text;  // character data of the current element; made on first use
  int error;     // the first error; once set, every callback returns at once
  bool unread;   // an element started after the error and was not read
};

// A context for one document: state_document, no text, no error.
void init_ca_info_context(ca_info_context *context, pki_store_object *store, ca_info *ca);

// The state that `element` leads to from `state`, letter case ignored; state_ignored for none.
[[nodiscard]] int32_t next_state(int32_t state, const char *element);

// The tokeniser's callbacks; `context` is a ca_info_context.
void start_tag_handler(void *context, const xmlChar *element, const xmlChar **attributes);
void end_tag_handler(void *context, const xmlChar *element);
void text_handler(void *context, const xmlChar *text, int length);

// Copies the value of `attribute` (letter case ignored) to `*destination`, freeing what was
// there. `attributes` is null-terminated pairs of name and value, or null.
// Returns 0, 2, or 32 with a line at level 3.
[[nodiscard]] int copy_attr(const xmlChar **attributes, char **destination, const char *attribute,
                            const char *element);

// What the start of `element` does in the state on top, which it has entered. A state without an
// action says what it has to say in the log and leaves `error` as it is: the result.
[[nodiscard]] int start_element(ca_info_context *context, int error, const char *element,
                                const xmlChar **attributes);

// What the end of an element does with its text, by the state on top. Returns an error code.
[[nodiscard]] int end_element(ca_info_context *context);

// States whose character data is kept.
[[nodiscard]] bool keeps_text(int32_t state);

}  // namespace pki

#endif
