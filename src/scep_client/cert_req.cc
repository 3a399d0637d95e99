// Enrolling: PKCSReq, then GetCertInitial while the CA answers PENDING.
#include <board/board.h>
#include <libpki/error.h>

#include <cstring>

#include "common/log.h"
#include "common/oids.h"
#include "common/scep_msg.h"
#include "scep_client/internal.h"

namespace pki {

namespace {

constexpr int serial_number_capacity = 48;
constexpr int secret_capacity = 256;
constexpr int device_attribute_count = 2;

using x509_attribute_ptr = std::unique_ptr<X509_ATTRIBUTE, free_with<X509_ATTRIBUTE_free>>;
using ias_ptr = std::unique_ptr<SCEP_ISSUER_AND_SUBJECT, free_with<SCEP_ISSUER_AND_SUBJECT_free>>;

// The attribute that carries the secret, overwritten before it is freed.
struct secret_attribute_eraser {
  void operator()(X509_ATTRIBUTE *attribute) const {
    const ASN1_TYPE *value = X509_ATTRIBUTE_get0_type(attribute, 0);
    if (value && value->type == V_ASN1_OCTET_STRING && value->value.octet_string->data)
      OPENSSL_cleanse(value->value.octet_string->data,
                      static_cast<size_t>(value->value.octet_string->length));
    X509_ATTRIBUTE_free(attribute);
  }
};
using secret_attribute_ptr = std::unique_ptr<X509_ATTRIBUTE, secret_attribute_eraser>;

// What the board says of itself; the secret does not outlive it.
struct device_identity {
  char serial_number[serial_number_capacity] = {};
  unsigned char secret[secret_capacity] = {};
  int secret_length = sizeof secret;

  device_identity() = default;
  device_identity(const device_identity &) = delete;
  device_identity &operator=(const device_identity &) = delete;
  ~device_identity() { OPENSSL_cleanse(secret, sizeof secret); }
};

int read_device_identity(device_identity *device) {
  int failure = board_info_serialnumber(device->serial_number, sizeof device->serial_number) |
                board_key_secret(device->secret, &device->secret_length);
  device->serial_number[sizeof device->serial_number - 1] = '\0';
  bool plausible = device->secret_length >= 0 && device->secret_length <= secret_capacity;
  if (failure || !plausible) {
    syslog(log_error, "failed to get qrn serial-number from : %d", failure);
    return PKI_FLASH_ERROR;
  }
  return PKI_OK;
}

struct device_attributes {
  x509_attribute_ptr serial_number;
  secret_attribute_ptr secret;
};

// OpenSSL frees its copy as it is when it runs out of memory behind it, so the secret comes last.
X509_ATTRIBUTE *create_secret_attribute(const device_identity &device) {
  const unsigned char zeros[secret_capacity] = {};
  X509_ATTRIBUTE *made = X509_ATTRIBUTE_create_by_NID(
      nullptr, registered_nid(PKI_OID_SECRET), V_ASN1_OCTET_STRING, zeros, device.secret_length);
  if (made)
    std::memcpy(X509_ATTRIBUTE_get0_type(made, 0)->value.octet_string->data, device.secret,
                static_cast<size_t>(device.secret_length));
  return made;
}

int make_device_attributes(device_attributes *made) {
  device_identity device;
  if (int error = read_device_identity(&device))
    return error;
  made->serial_number.reset(X509_ATTRIBUTE_create_by_NID(
      nullptr, registered_nid(PKI_OID_SERIAL_NUMBER), V_ASN1_PRINTABLESTRING, device.serial_number,
      static_cast<int>(std::strlen(device.serial_number))));
  made->secret.reset(create_secret_attribute(device));
  return made->serial_number && made->secret ? PKI_OK : openssl_failure(PKI_OUT_OF_MEMORY);
}

// One enrollment, from the first request to the last answer.
struct enrollment {
  EVP_PKEY *key;
  const scep_req_info &info;
  scep_algorithms algorithms;
  pkcs7_ptr request;
  x509_ptr own_cert;
  ias_ptr ias;
};

int make_first_request(enrollment *e, const X509_NAME *subject) {
  device_attributes device;
  if (int error = make_device_attributes(&device))
    return error;
  e->algorithms = find_algorithms(e->info);
  X509_ATTRIBUTE *attributes[device_attribute_count] = {device.serial_number.get(),
                                                        device.secret.get()};
  PKCS7 *made;
  int error =
      gen_scep_cert_req(e->key, e->key, subject, e->info.ca_cert, attributes,
                        device_attribute_count, e->algorithms.md, e->algorithms.cipher, &made);
  e->request.reset(made);
  if (error)
    syslog(log_error, "failed to generate scep CertReq request: %s",
           pki_strerror(static_cast<unsigned>(error)));
  return error;
}

int keep_own_cert(enrollment *e) {
  X509 *cert = requester_cert(e->request.get());
  if (!cert || !take_reference(cert))
    return PKI_CRYPTO_LOCK_FAILED;
  e->own_cert.reset(cert);
  return PKI_OK;
}

// What every poll asks for: the CA, and the name in the requester's own certificate.
int make_poll_target(enrollment *e) {
  e->ias.reset(SCEP_ISSUER_AND_SUBJECT_new());
  if (!e->ias)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  e->ias->issuer = X509_NAME_dup(X509_get_subject_name(e->info.ca_cert));
  e->ias->subject = X509_NAME_dup(X509_get_subject_name(e->own_cert.get()));
  return e->ias->issuer && e->ias->subject ? PKI_OK : openssl_failure(PKI_OUT_OF_MEMORY);
}

int make_poll(enrollment *e, PKCS7 *last_response) {
  PKCS7 *made;
  int error = gen_scep_get_cert_init(e->ias.get(), e->key, e->own_cert.get(), e->info.ca_cert,
                                     last_response, e->algorithms.md, e->algorithms.cipher, &made);
  e->request.reset(made);
  if (error)
    syslog(log_error, "failed to generate scep CertInit request: %s",
           pki_strerror(static_cast<unsigned>(error)));
  return error;
}

int poll_until_answered(enrollment *e, X509 **cert) {
  for (unsigned int polls = 0;; polls++) {
    scep_answer answer = {};
    int parse_error;
    if (int error = exchange_scep(e->request.get(), e->info, e->key, e->own_cert.get(), &answer,
                                  &parse_error))
      return error;
    if (answer.status == SCEP_STATUS_SUCCESS)
      return take_issued_cert(answer.content.get(), cert);
    if (answer.status != SCEP_STATUS_PENDING)
      return report_rejection(answer.message.get());
    e->request.reset();
    if (int error = wait_for_poll(polls))
      return error;
    if (int error = make_poll(e, answer.message.get()))
      return error;
  }
}

}  // namespace

}  // namespace pki

using namespace pki;

int scep_cert_req(EVP_PKEY *private_key, const X509_NAME *subject, const scep_req_info *info,
                  X509 **cert) {
  if (!cert)
    return PKI_INVALID_ARGS;
  *cert = nullptr;
  if (!private_key || !info || !info->url || !info->ca_cert)
    return PKI_INVALID_ARGS;
  openssl_error_mark discard_errors;  // what OpenSSL could do without does not outlive the call
  enrollment e = {private_key, *info, {}, nullptr, nullptr, nullptr};
  if (int error = make_first_request(&e, subject))
    return error;
  if (int error = keep_own_cert(&e))
    return error;
  if (int error = make_poll_target(&e))
    return error;
  return poll_until_answered(&e, cert);
}
