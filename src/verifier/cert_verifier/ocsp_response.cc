// What an OCSP responder's answer has to be, apart from its signature (RFC 6960 3.2 and 4.2).
#include <libpki/error.h>
#include <libpki/util.h>
#include <openssl/asn1t.h>

#include <ctime>

#include "verifier/cert_verifier/internal.h"
#include "verifier/cert_verifier/ocsp.h"

namespace pki {

namespace {

// 500 days: some responders sign in advance and for long.
constexpr time_t oldest_this_update_seconds = 43200000 + ocsp_clock_tolerance_seconds;
constexpr int time_characters = 40;

// OCSPResponse with its parts at hand; OpenSSL's own type shows neither the type of the response
// bytes nor their length.
struct response_bytes {
  ASN1_OBJECT *type;
  ASN1_OCTET_STRING *octets;
};
struct response {
  ASN1_ENUMERATED *status;
  response_bytes *bytes;
};

// clang-format off
ASN1_SEQUENCE(response_bytes) = {
    ASN1_SIMPLE(response_bytes, type, ASN1_OBJECT),
    ASN1_SIMPLE(response_bytes, octets, ASN1_OCTET_STRING),
} static_ASN1_SEQUENCE_END(response_bytes)

ASN1_SEQUENCE(response) = {
    ASN1_SIMPLE(response, status, ASN1_ENUMERATED),
    ASN1_EXP_OPT(response, bytes, response_bytes, 0),
} static_ASN1_SEQUENCE_END(response)
    // clang-format on

    struct free_response {
  void operator()(response *value) const {
    ASN1_item_free(reinterpret_cast<ASN1_VALUE *>(value), ASN1_ITEM_rptr(response));
  }
};
using response_ptr = std::unique_ptr<response, free_response>;

struct time_bound {
  time_t reference;
  bool must_be_after;
};

int refuse(const char *reason) {
  syslog(log_error, "%s", reason);
  return PKI_OCSP_ERROR;
}

int check_response_status(const ASN1_ENUMERATED *status) {
  openssl_error_mark too_large_is_unknown;
  long number = ASN1_ENUMERATED_get(status);
  switch (number) {
    case OCSP_RESPONSE_STATUS_SUCCESSFUL:
      return PKI_OK;
    case OCSP_RESPONSE_STATUS_MALFORMEDREQUEST:
    case OCSP_RESPONSE_STATUS_INTERNALERROR:
    case OCSP_RESPONSE_STATUS_TRYLATER:
    case OCSP_RESPONSE_STATUS_SIGREQUIRED:
    case OCSP_RESPONSE_STATUS_UNAUTHORIZED:
      syslog(log_error, "Unexpected ocsp response code received: %ld", number);
      return PKI_OCSP_ERROR;
    default:
      syslog(log_error, "Unknown ocsp response code received: %ld", number);
      return PKI_OCSP_ERROR;
  }
}

int check_response_type(const response_bytes *bytes) {
  if (!bytes)
    return refuse("No response-bytes found in ocsp response");
  if (OBJ_obj2nid(bytes->type) == NID_id_pkix_OCSP_basic)
    return PKI_OK;
  syslog(log_error, "Unexpected response type found in ocsp response: %s",
         oid_line(bytes->type).get());
  return PKI_OCSP_ERROR;
}

const ASN1_OCTET_STRING *nonce_of(const X509_EXTENSION *extension) {
  return extension ? X509_EXTENSION_get_data(const_cast<X509_EXTENSION *>(extension)) : nullptr;
}

const X509_EXTENSION *request_nonce(OCSP_REQUEST *request) {
  return OCSP_REQUEST_get_ext(request,
                              OCSP_REQUEST_get_ext_by_NID(request, NID_id_pkix_OCSP_Nonce, -1));
}

const X509_EXTENSION *response_nonce(OCSP_BASICRESP *basic) {
  return OCSP_BASICRESP_get_ext(basic,
                                OCSP_BASICRESP_get_ext_by_NID(basic, NID_id_pkix_OCSP_Nonce, -1));
}

// RFC 6960 4.4.1: responders that sign in advance send none.
int check_nonce(const ocsp_query &query, OCSP_BASICRESP *basic) {
  const ASN1_OCTET_STRING *sent = nonce_of(request_nonce(query.request.get()));
  const ASN1_OCTET_STRING *received = nonce_of(response_nonce(basic));
  if (!sent || !received || ASN1_OCTET_STRING_cmp(sent, received) == 0)
    return PKI_OK;
  return refuse("Nonce returned in ocsp response did not match nonce sent in request");
}

int find_single(const ocsp_query &query, OCSP_BASICRESP *basic, OCSP_SINGLERESP **found) {
  int count = OCSP_resp_count(basic);
  if (count < 1)
    return refuse("No single-responses found in ocsp response");
  for (int i = 0; i < count; i++) {
    OCSP_SINGLERESP *single = OCSP_resp_get0(basic, i);
    if (OCSP_id_cmp(OCSP_SINGLERESP_get0_id(single), query.cert_id) == 0) {
      *found = single;
      return PKI_OK;
    }
  }
  return refuse("No single-responses found in ocsp response which match the requested cert-id");
}

bool is_known_or_harmless(X509_EXTENSION *extension) {
  ASN1_OBJECT *object = X509_EXTENSION_get_object(extension);
  if (!X509_EXTENSION_get_critical(extension) || OBJ_obj2nid(object) == NID_id_pkix_OCSP_Nonce)
    return true;
  syslog(log_warning, "Found unknown critical ocsp extension: %s", oid_line(object).get());
  return false;
}

// RFC 6960 4.4: those of the answer as a whole, and of the single response that is used.
int check_critical_extensions(OCSP_BASICRESP *basic, OCSP_SINGLERESP *single) {
  for (int i = 0; i < OCSP_BASICRESP_get_ext_count(basic); i++)
    if (!is_known_or_harmless(OCSP_BASICRESP_get_ext(basic, i)))
      return PKI_OCSP_ERROR;
  for (int i = 0; i < OCSP_SINGLERESP_get_ext_count(single); i++)
    if (!is_known_or_harmless(OCSP_SINGLERESP_get_ext(single, i)))
      return PKI_OCSP_ERROR;
  return PKI_OK;
}

void log_time_violation(const char *what, const ASN1_TIME *time, const char *end) {
  openssl_error_mark no_text_is_no_error;
  bio_ptr memory(BIO_new(BIO_s_mem()));
  char *text = nullptr;
  long length = 0;
  if (memory && ASN1_TIME_print(memory.get(), time) == 1)
    length = BIO_get_mem_data(memory.get(), &text);
  if (length > 0 && text)
    syslog(log_error, "%s (%.*s)%s", what,
           static_cast<int>(length < time_characters ? length : time_characters), text, end);
  else
    syslog(log_error, "%s (<no-mem>)%s", what, end);
}

// `name` is what a time that cannot be read is called; `violation` and `end` stand around a time
// that is out of bounds.
int cv_check_time(const ASN1_TIME *time, time_bound bound, const char *name, const char *violation,
                  const char *end) {
  if (!time)
    return PKI_INVALID_ARGS;
  openssl_error_mark the_line_says_it_all;
  int order = X509_cmp_time(time, &bound.reference);
  if (order == 0) {
    syslog(log_error, "Error parsing the %s time: %s", name, ASN1_STRING_get0_data(time));
    return PKI_TIME_MISMATCH;
  }
  if ((order > 0) == bound.must_be_after)
    return PKI_OK;
  log_time_violation(violation, time, end);
  return PKI_TIME_MISMATCH;
}

int check_times(const ASN1_TIME *produced_at, const ASN1_TIME *this_update,
                const ASN1_TIME *next_update) {
  const time_t now = time(nullptr);
  const time_bound not_in_future = {now + ocsp_clock_tolerance_seconds, false};
  if (int error = cv_check_time(produced_at, not_in_future, "producedAt",
                                "The ocsp response was produced in the future", "!"))
    return error;
  if (int error = cv_check_time(this_update, {now - oldest_this_update_seconds, true}, "thisUpdate",
                                "The status in the ocsp response was updated too long ago", ""))
    return error;
  if (int error = cv_check_time(this_update, not_in_future, "thisUpdate",
                                "The status in the ocsp response was in the future", "!"))
    return error;
  if (!next_update)
    return PKI_OK;
  return cv_check_time(next_update, {now - ocsp_clock_tolerance_seconds, true}, "nextUpdate",
                       "The next-update in ocsp response is in the past", "");
}

}  // namespace

int open_basic_response(const ocsp_reply &reply, ocsp_basicresp_ptr *basic) {
  const unsigned char *in = reply.body.get();
  response_ptr decoded(reinterpret_cast<response *>(
      ASN1_item_d2i(nullptr, &in, reply.length, ASN1_ITEM_rptr(response))));
  if (!decoded)
    return openssl_failure(PKI_ASN1_DECODE_ERROR);
  if (int error = check_response_status(decoded->status))
    return error;
  if (int error = check_response_type(decoded->bytes))
    return error;
  const ASN1_OCTET_STRING *octets = decoded->bytes->octets;
  syslog(log_debug, "basic-rsp len: %d", ASN1_STRING_length(octets));
  openssl_error_mark the_line_says_it_all;
  in = ASN1_STRING_get0_data(octets);
  basic->reset(d2i_OCSP_BASICRESP(nullptr, &in, ASN1_STRING_length(octets)));
  return *basic ? PKI_OK : refuse("Failed to decode basic-response in ocsp response");
}

int find_status(const ocsp_query &query, OCSP_BASICRESP *basic, ocsp_status *found) {
  if (int error = check_nonce(query, basic))
    return error;
  OCSP_SINGLERESP *single = nullptr;
  if (int error = find_single(query, basic, &single))
    return error;
  if (int error = check_critical_extensions(basic, single))
    return error;
  ASN1_GENERALIZEDTIME *this_update = nullptr;
  found->next_update = nullptr;
  found->status =
      OCSP_single_get0_status(single, nullptr, nullptr, &this_update, &found->next_update);
  return check_times(OCSP_resp_get0_produced_at(basic), this_update, found->next_update);
}

}  // namespace pki
