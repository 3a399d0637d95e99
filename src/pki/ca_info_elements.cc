// The CA-info document's elements: where each may stand, and what it puts into the CA.
#include <libpki/error.h>
#include <libpki/names.h>
#include <libpki/util.h>

#include "common/cert_key.h"
#include "common/limits.h"
#include "common/locks.h"
#include "common/log.h"
#include "common/text.h"
#include "pki/ca_info_context.h"
#include "pki/internal.h"

namespace pki {

namespace {

struct transition {
  const char *element;
  int32_t from;
  int32_t to;
};

// Searched in this order.
const transition transitions[] = {
    {"QRNPkiConfig", state_document, state_root},
    {"Expires", state_root, state_expires},
    {"IssuerName", state_root, state_issuer_name},
    {"CertReqMethod", state_root, state_cert_req_method},
    {"CertLookupMethod", state_root, state_cert_lookup_method},
    {"CertStatusQueryMethod", state_root, state_cert_status_query_method},
    {"TrustedRoots", state_root, state_trusted_roots},
    {"AdditionalCerts", state_root, state_additional_certs},
    {"SCEP", state_cert_req_method, state_scep},
    {"X509Certificate", state_scep, state_scep_cert},
    {"Digest", state_scep, state_scep_digest},
    {"Cipher", state_scep, state_scep_cipher},
    {"CRS", state_cert_req_method, state_crs},
    {"X509Certificate", state_crs, state_crs_cert},
    {"Digest", state_crs, state_crs_digest},
    {"Cipher", state_crs, state_crs_cipher},
    {"SCEPGetCert", state_cert_lookup_method, state_scep_get_cert},
    {"X509Certificate", state_scep_get_cert, state_scep_get_cert_cert},
    {"CRSGetCert", state_cert_lookup_method, state_crs_get_cert},
    {"LDAPGetCert", state_cert_lookup_method, state_ldap_get_cert},
    {"OCSP", state_cert_status_query_method, state_ocsp},
    {"X509Certificate", state_ocsp, state_ocsp_cert},
    {"X509Certificate", state_trusted_roots, state_trusted_root_cert},
    {"X509Certificate", state_additional_certs, state_additional_cert},
};

const char *text_of(const xmlChar *text) {
  return reinterpret_cast<const char *>(text);
}

// The last method of a list, or null.
template <class Method>
Method *last_method(const STACK *list) {
  mutex_lock lock(&list_mutex);
  int count = OPENSSL_sk_num(list);
  return count > 0 ? static_cast<Method *>(OPENSSL_sk_value(list, count - 1)) : nullptr;
}

// Pushes onto a list of a CA or of the store.
bool push_element(STACK *list, void *element) {
  mutex_lock lock(&list_mutex);
  return OPENSSL_sk_push(list, element) > 0;
}

// Takes `method` over into `list`; on failure it is freed.
template <class Method>
bool adopt_method(STACK *list, Method *method, void (*release)(Method *)) {
  if (method && push_element(list, method))
    return true;
  release(method);
  return false;
}

// ---- starts ----

int start_scep(ca_info_context *context, const char *element, const xmlChar **attributes) {
  cert_req_info *method = alloc_cert_req_info_m(PKI_CERT_REQ_SCEP);
  if (!adopt_method(context->ca->cert_req_methods, method, free_cert_req_info))
    return openssl_failure(PKI_OUT_OF_MEMORY);
  return copy_attr(attributes, &static_cast<scep_req_info *>(method->data)->url, "url", element);
}

// Digest and Cipher: an attribute of the SCEP method around them.
int start_scep_algorithm(ca_info_context *context, char *scep_req_info::*field, const char *element,
                         const xmlChar **attributes) {
  auto *method = last_method<cert_req_info>(context->ca->cert_req_methods);
  if (!method)
    return PKI_OK;
  return copy_attr(attributes, &(static_cast<scep_req_info *>(method->data)->*field), "alg",
                   element);
}

int start_lookup(ca_info_context *context, int mechanism, const char *element,
                 const xmlChar **attributes) {
  cert_query_info *method = alloc_cert_query_info_m(mechanism);
  if (!adopt_method(context->ca->cert_lookup_methods, method, free_cert_query_info))
    return openssl_failure(PKI_OUT_OF_MEMORY);
  char **url = mechanism == PKI_CERT_QUERY_SCEP
                   ? &static_cast<scep_query_info *>(method->data)->url
                   : &static_cast<ldap_query_info *>(method->data)->url;
  return copy_attr(attributes, url, "url", element);
}

int start_ocsp(ca_info_context *context, const char *element, const xmlChar **attributes) {
  cert_status_info *method = alloc_cert_status_info_m(PKI_STATUS_OCSP);
  if (!adopt_method(context->ca->cert_status_methods, method, free_cert_status_info))
    return openssl_failure(PKI_OUT_OF_MEMORY);
  return copy_attr(attributes, &static_cast<ocsp_info *>(method->data)->url, "url", element);
}

// ---- ends ----

// The accumulated text, NUL-terminated; it belongs to the context.
int take_text(ca_info_context *context, char **text) {
  BIO *bio = context->text.get();
  if (!bio)
    return PKI_XML_INTERNAL_ERROR_NO_BUF;
  if (BIO_write(bio, "", 1) != 1)
    return openssl_failure(PKI_BIO_WRITE_ERROR);
  *text = nullptr;
  if (BIO_get_mem_data(bio, text) < 1 || !*text)
    return openssl_failure(PKI_BIO_BUF_GET_FAILED);
  return PKI_OK;
}

// OpenSSL wipes all the room that a buffer has. A buffer that once held a long text would cost that
// for each short one behind it, so it is replaced, unless memory is short.
bool replace_long_buffer(BIO *text) {
  openssl_error_mark discard_errors;
  BUF_MEM *buffer = nullptr;
  if (BIO_get_mem_ptr(text, &buffer) != 1 || buffer->max <= kept_text_bytes)
    return false;
  BUF_MEM *fresh = BUF_MEM_new();
  if (!fresh)
    return false;
  BIO_set_mem_buf(text, fresh, BIO_CLOSE);
  return true;
}

void drop_text(ca_info_context *context) {
  if (context->text && !replace_long_buffer(context->text.get()))
    (void)BIO_reset(context->text.get());
}

int end_expires(ca_info_context *context) {
  char *text = nullptr;
  int error = take_text(context, &text);
  if (!error)
    error = parse_time_str(text, &context->ca->expires);
  drop_text(context);
  return error;
}

int end_issuer_name(ca_info_context *context) {
  char *text = nullptr;
  X509_NAME *name = nullptr;
  int error = take_text(context, &text);
  if (!error)
    error = parse_rfc1779_str(text, &name);
  if (!error) {
    X509_NAME_free(context->ca->issuer_name);
    context->ca->issuer_name = name;
  }
  drop_text(context);
  return error;
}

// Reads the base64 DER of one certificate out of the accumulated text.
int decode_cert(ca_info_context *context, x509_ptr *cert) {
  if (!context->text)
    return PKI_XML_INTERNAL_ERROR_NO_BUF;
  bio_ptr base64(BIO_new(BIO_f_base64()));
  if (!base64) {
    drop_text(context);
    return openssl_failure(PKI_BIO_CREAT_FAILED);
  }
  BIO_push(base64.get(), context->text.get());
  cert->reset(d2i_X509_bio(base64.get(), nullptr));
  int error = *cert ? PKI_OK : openssl_failure(PKI_XML_CERT_DEC_FAILED);
  if (!error && lost_its_key(cert->get()))
    error = PKI_OUT_OF_MEMORY;
  BIO_pop(base64.get());
  drop_text(context);
  return error;
}

int decode_cert_into(ca_info_context *context, X509 **destination) {
  x509_ptr cert;
  if (int error = decode_cert(context, &cert))
    return error;
  X509_free(*destination);
  *destination = cert.release();
  return PKI_OK;
}

int decode_cert_onto(ca_info_context *context, STACK *list) {
  x509_ptr cert;
  if (int error = decode_cert(context, &cert))
    return error;
  if (!push_element(list, cert.get()))
    return openssl_failure(PKI_OUT_OF_MEMORY);
  cert.release();
  return PKI_OK;
}

int end_scep_cert(ca_info_context *context) {
  auto *method = last_method<cert_req_info>(context->ca->cert_req_methods);
  if (!method || method->mechanism != PKI_CERT_REQ_SCEP)
    return PKI_OK;
  return decode_cert_into(context, &static_cast<scep_req_info *>(method->data)->ca_cert);
}

int end_scep_get_cert_cert(ca_info_context *context) {
  auto *method = last_method<cert_query_info>(context->ca->cert_lookup_methods);
  if (!method || method->mechanism != PKI_CERT_QUERY_SCEP)
    return PKI_OK;
  return decode_cert_into(context, &static_cast<scep_query_info *>(method->data)->ca_cert);
}

}  // namespace

int32_t next_state(int32_t state, const char *element) {
  for (const transition &row : transitions)
    if (row.from == state && equal_ignoring_case(row.element, element))
      return row.to;
  return state_ignored;
}

bool keeps_text(int32_t state) {
  switch (state) {
    case state_expires:
    case state_issuer_name:
    case state_scep_cert:
    case state_scep_get_cert_cert:
    case state_trusted_root_cert:
    case state_additional_cert:
      return true;
    default:
      return false;
  }
}

int copy_attr(const xmlChar **attributes, char **destination, const char *attribute,
              const char *element) {
  for (const xmlChar **pair = attributes; pair && pair[0] && pair[1]; pair += 2) {
    if (!equal_ignoring_case(text_of(pair[0]), attribute))
      continue;
    char *copy = pki_strdup(text_of(pair[1]));
    if (!copy)
      return PKI_OUT_OF_MEMORY;
    std::free(*destination);
    *destination = copy;
    return PKI_OK;
  }
  syslog(log_error, "Error parsing ca-info document: attribute %s not found for tag %s", attribute,
         element);
  return PKI_XML_ATTR_NOT_FOUND;
}

int start_element(ca_info_context *context, int error, const char *element,
                  const xmlChar **attributes) {
  int32_t state = context->states[context->top];
  switch (state) {
    case state_ignored:
      syslog(log_warning, "Parsing ca-info document: ignoring unexpected tag '%s'", element);
      return error;
    case state_scep:
      return start_scep(context, element, attributes);
    case state_scep_digest:
      return start_scep_algorithm(context, &scep_req_info::digest, element, attributes);
    case state_scep_cipher:
      return start_scep_algorithm(context, &scep_req_info::cipher, element, attributes);
    case state_scep_get_cert:
      return start_lookup(context, PKI_CERT_QUERY_SCEP, element, attributes);
    case state_ldap_get_cert:
      return start_lookup(context, PKI_CERT_QUERY_LDAP, element, attributes);
    case state_ocsp:
      return start_ocsp(context, element, attributes);
    case state_document:
    case state_ocsp_cert:
      break;
    default:
      if (state > state_ignored && state <= state_additional_cert)
        return error;
  }
  syslog(log_error, "Internal error parsing ca-info document: unexpected state %d, tag '%s'", state,
         element);
  return error;
}

int end_element(ca_info_context *context) {
  switch (context->states[context->top]) {
    case state_expires:
      return end_expires(context);
    case state_issuer_name:
      return end_issuer_name(context);
    case state_scep_cert:
      return end_scep_cert(context);
    case state_scep_get_cert_cert:
      return end_scep_get_cert_cert(context);
    case state_trusted_root_cert:
      return decode_cert_onto(context, context->ca->trusted_roots);
    case state_additional_cert:
      return decode_cert_onto(context, context->store->provisioned_certs);
    default:
      return PKI_OK;
  }
}

}  // namespace pki
