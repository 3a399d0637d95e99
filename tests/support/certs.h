// Keys, names, certificates and CRLs for tests.
#ifndef TESTS_SUPPORT_CERTS_H
#define TESTS_SUPPORT_CERTS_H

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace support {

// Shared owners, for the tests' convenience.
using key = std::shared_ptr<EVP_PKEY>;
using cert = std::shared_ptr<X509>;
using crl = std::shared_ptr<X509_CRL>;
using name = std::shared_ptr<X509_NAME>;
using integer = std::shared_ptr<ASN1_INTEGER>;
using asn1_time = std::shared_ptr<ASN1_TIME>;

// A fresh RSA key.
key make_key(int bits = 1024);
// An RSA-1024 key made once a process for each `which`: fast, where identity matters only.
key test_key(int which = 0);
// An ECDSA P-256 key.
key make_ec_key();
// The same key without its private part.
key public_part(const key &pair);

// {"C","US"},{"O","Example"},{"CN","device"}: in the name's own order.
name make_name(const std::vector<std::pair<std::string, std::string>> &entries);
// A name of one CN.
name common_name(const std::string &text);
integer make_serial(long value);
// Big-endian magnitude.
integer make_serial(const std::string &octets);
// The octets of a string; "(none)" for null.
std::string octets_of(const ASN1_STRING *string);
// The time `seconds` after the epoch.
asn1_time make_time(time_t seconds);

struct cert_options {
  name subject;  // default: CN=subject
  name issuer;   // default: the subject
  long serial = 1;
  key public_key;         // default: test_key(0)
  key signing_key;        // default: the public key
  time_t not_before = 0;  // default: a day before the real now
  time_t not_after = 0;   // default: a year after the real now
  bool ca = false;        // basicConstraints CA and keyUsage keyCertSign, cRLSign
  // Further extensions, {name or OID, value} as in openssl.cnf: {"extendedKeyUsage",
  // "OCSPSigning"}, {"1.2.3.4", "critical,DER:05:00"}, {"authorityInfoAccess",
  // "OCSP;URI:http://127.0.0.1/"}, {"noCheck", "ignored"}.
  std::vector<std::pair<std::string, std::string>> extensions;
  long version = 2;                // 0 is version 1; only version 3 carries extensions
  const EVP_MD *digest = nullptr;  // default: SHA-256
};
cert make_cert(const cert_options &options = {});
// A self-signed CA certificate of that CN, with test_key(which).
cert make_ca(const std::string &cn, int which = 0, long serial = 1);
// A plain certificate with this issuer CN, subject CN and serial, signed with test_key(0).
cert simple_cert(const std::string &issuer, const std::string &subject, long serial);
// The same, with an extension that makes its DER exactly `size` octets (at least about 400).
cert cert_of_size(size_t size, const std::string &issuer, const std::string &subject, long serial);

struct crl_options {
  name issuer;                // default: CN=issuer
  key signing_key;            // default: test_key(0)
  std::vector<long> revoked;  // serial numbers
  time_t this_update = 0;     // default: a day before the real now
  time_t next_update = 0;     // default: a week after the real now
  // Adds an issuingDistributionPoint with these onlySomeReasons bits (ReasonFlags numbering).
  std::vector<int> only_some_reasons;
  size_t padding = 0;  // adds a non-critical private extension of so many octets
};
crl make_crl(const crl_options &options = {});
// A CRL whose DER is exactly `size` octets (at least about 400).
crl crl_of_size(size_t size, const std::string &issuer_cn);

std::string der(const cert &object);
std::string der(const crl &object);
std::string pem(const cert &object);
std::string private_pem(const key &object);
std::string public_pem(const key &object);
// base64 in lines of 64 characters, as CA-info documents carry certificates.
std::string base64_lines(const std::string &octets);

// Empties the calling thread's OpenSSL error queue.
void clear_openssl_errors();
// Queues `reason` (ERR_R_MALLOC_FAILURE, ...) in it.
void raise_openssl_error(int reason);

}  // namespace support

#endif
