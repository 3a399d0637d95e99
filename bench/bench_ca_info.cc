// parse_ca_info_doc: a document of the usual size into a record.
#include <benchmark/benchmark.h>
#include <libpki/libpki.h>

#include "bench_support.h"

namespace {

std::string cert_element(const support::cert &cert) {
  return "<X509Certificate>" + support::base64_lines(support::der(cert)) + "</X509Certificate>\n";
}

support::cert ca_cert(const std::string &name, long serial) {
  support::cert_options options;
  options.subject = support::common_name(name);
  options.serial = serial;
  options.public_key = support::make_key(2048);
  options.ca = true;
  return support::make_cert(options);
}

std::string make_document() {
  std::string scep_ca = cert_element(ca_cert("SCEP CA", 1));
  return "<?xml version=\"1.0\"?>\n<QRNPkiConfig>\n"
         "<IssuerName>CN=SCEP CA</IssuerName>\n"
         "<CertReqMethod><SCEP url=\"http://ca.example/scep\">" +
         scep_ca +
         "<Digest alg=\"SHA256\"/><Cipher alg=\"DES-EDE3-CBC\"/></SCEP></CertReqMethod>\n"
         "<CertLookupMethod><SCEPGetCert url=\"http://ca.example/scep\">" +
         scep_ca +
         "</SCEPGetCert></CertLookupMethod>\n"
         "<CertStatusQueryMethod><OCSP url=\"http://ca.example/ocsp\"/></CertStatusQueryMethod>\n"
         "<TrustedRoots>" +
         cert_element(ca_cert("Root CA", 2)) + scep_ca +
         "</TrustedRoots>\n"
         "<AdditionalCerts>" +
         cert_element(ca_cert("Additional CA", 3)) +
         "</AdditionalCerts>\n"
         "</QRNPkiConfig>\n";
}

void empty_provisioned() {
  while (OPENSSL_sk_num(pki_store->provisioned_certs) > 0)
    X509_free(static_cast<X509 *>(OPENSSL_sk_pop(pki_store->provisioned_certs)));
}

void parse_ca_info_doc_usual(benchmark::State &state) {
  const std::string &document = bench::document();
  for (auto _ : state) {
    ca_info *info = alloc_ca_info();
    int error = parse_ca_info_doc(bench::octets(document), static_cast<int>(document.size()),
                                  pki_store, info);
    if (error || OPENSSL_sk_num(info->trusted_roots) != 2)
      state.SkipWithError(pki_strerror(static_cast<unsigned>(error)));
    free_ca_info(info);
    empty_provisioned();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(document.size()));
}
BENCHMARK(parse_ca_info_doc_usual);

}  // namespace

const std::string &bench::document() {
  static const std::string document = make_document();
  return document;
}
