// Looking an issued certificate up: GetCert.
#include <libpki/error.h>

#include "common/log.h"
#include "scep_client/internal.h"

namespace pki {

namespace {

using issuer_and_serial_ptr =
    std::unique_ptr<PKCS7_ISSUER_AND_SERIAL, free_with<PKCS7_ISSUER_AND_SERIAL_free>>;

int make_query_target(const cert_info &query, issuer_and_serial_ptr *out) {
  issuer_and_serial_ptr made(PKCS7_ISSUER_AND_SERIAL_new());
  if (!made || X509_NAME_set(&made->issuer, query.issuer) != 1)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  ASN1_INTEGER *serial = ASN1_INTEGER_dup(query.serial);
  if (!serial)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  ASN1_INTEGER_free(made->serial);
  made->serial = serial;
  *out = std::move(made);
  return PKI_OK;
}

int make_query(const cert_info &query, const scep_req_info &info, EVP_PKEY *key,
               pkcs7_ptr *request) {
  issuer_and_serial_ptr target;
  if (int error = make_query_target(query, &target))
    return error;
  PKCS7 *made;
  scep_algorithms algorithms = find_algorithms(info);
  int error = gen_scep_get_cert(target.get(), key, nullptr, key, info.ca_cert, algorithms.md,
                                algorithms.cipher, &made);
  request->reset(made);
  if (!error)
    return PKI_OK;
  syslog(log_error, "failed to generate scep GetCert request: err = `%s'",
         pki_strerror(static_cast<unsigned>(error)));
  return PKI_FAILED_TO_GEN_GET_CERT;
}

}  // namespace

}  // namespace pki

using namespace pki;

int scep_qry_cert(cert_info *query, scep_req_info *info, EVP_PKEY *private_key) {
  if (!query || !query->issuer || !query->serial || !info || !info->url || !info->ca_cert ||
      !private_key)
    return PKI_INVALID_ARGS;
  openssl_error_mark discard_errors;  // what OpenSSL could do without does not outlive the call
  pkcs7_ptr request;
  if (int error = make_query(*query, *info, private_key, &request))
    return error;
  scep_answer answer = {};
  int parse_error;
  int error = exchange_scep(request.get(), *info, private_key, requester_cert(request.get()),
                            &answer, &parse_error);
  if (parse_error)
    syslog(log_error, "failed to parse scep response to GetCert: err = `%s'",
           pki_strerror(static_cast<unsigned>(parse_error)));
  if (error)
    return error;
  if (answer.status != SCEP_STATUS_SUCCESS)
    return report_rejection(answer.message.get());
  X509 *cert = nullptr;
  error = take_issued_cert(answer.content.get(), &cert);
  if (error)
    return error;
  X509_free(query->cert);
  query->cert = cert;
  return PKI_OK;
}
