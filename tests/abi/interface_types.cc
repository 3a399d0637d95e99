// What hosts are built with and no exported function leads to: the constants of the headers, and
// the tables of the marshal stream, which go through void pointers. scripts/abi.sh holds them
// against what was kept, as it does with the library itself.
#include <libpki/libpki.h>

extern "C" {

extern const decltype(PKI_CERT_REQ_SCEP) certificate_request_mechanisms{};
extern const decltype(PKI_CERT_QUERY_SCEP) certificate_query_mechanisms{};
extern const decltype(PKI_STATUS_OCSP) status_mechanisms{};
extern const decltype(PKI_MATCH_ISSUER) match_types{};
extern const decltype(PKI_CERT_OK) cert_statuses{};
extern const decltype(PKI_CRL_SIGNED) crl_signatures{};
extern const decltype(PKI_CRL_FROM_NETWORK) crl_origins{};
extern const decltype(PKI_TRACE_CERT) trace_kinds{};
extern const decltype(SCEP_CERT_REP) scep_message_types{};
extern const decltype(SCEP_STATUS_SUCCESS) scep_statuses{};
extern const pki_error error_codes{};
extern const pki_oid_row oid_rows{};

extern const decltype(PKI_ALL_REASONS) all_reasons[PKI_ALL_REASONS]{};
extern const decltype(PKI_STATUS_FLAG0) status_flag0[PKI_STATUS_FLAG0]{};
extern const decltype(PKI_STATUS_FLAG1) status_flag1[PKI_STATUS_FLAG1]{};

extern const marshal_field field{};
extern const marshal_struct_desc struct_description{};
extern const marshal_choice_desc choice_description{};
extern const marshal_stack_desc stack_description{};
extern const marshal_envelope_desc envelope_description{};
extern const marshal_item item{};
}
