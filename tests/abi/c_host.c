/*
 * A host in plain C99 that knows the library by its public headers only. It exits with 0 when
 * everything is as documented; otherwise it names what is not, a line each.
 */
#include <libpki/libpki.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static int failures = 0;

static void check(int holds, const char *what, int line) {
  if (holds)
    return;
  fprintf(stderr, "c_host.c:%d: not so: %s\n", line, what);
  failures++;
}

#define CHECK(condition) check((condition) != 0, #condition, __LINE__)

static void check_start(void) {
  CHECK(pki_store != NULL);
  CHECK(libpki_init() == PKI_OK);
  CHECK(libpki_init() == 16);
  CHECK(pki_store->key_store && pki_store->ca_infos);
  CHECK(pki_store->provisioned_certs && pki_store->collected_certs);
  CHECK(pki_store->global_status_rules != NULL);
  CHECK(pki_nid_list != NULL);
  libpki_term();
  CHECK(libpki_init() == 16);
}

static void check_errors(void) {
  CHECK(!strcmp(pki_strerror(0), "Ok"));
  CHECK(!strcmp(pki_strerror(PKI_NO_SUCH_CA), "NO SUCH CA"));
  CHECK(!strcmp(pki_strerror(87), "OCSP ERROR"));
  CHECK(!strcmp(pki_strerror(88), "unknown status 88\n"));
  CHECK(log_openssl_errors(3) == 0);
  CHECK(openssl_malloc_failure() == 0);
}

static void check_names(void) {
  X509_NAME *name = NULL;
  char *line;
  CHECK(parse_rfc1779_str("CN=device, O=Example, C=US", &name) == 0);
  CHECK(X509_NAME_entry_count(name) == 3);
  line = X509_NAME_oneline(name, NULL, 0);
  CHECK(line && !strcmp(line, "/C=US/O=Example/CN=device"));
  OPENSSL_free(line);
  X509_NAME_free(name);
  CHECK(parse_rfc1779_str("color=blue", &name) == PKI_DN_UNKNOWN_KEY);
  CHECK(name == NULL);
}

static void check_utilities(void) {
  char *hex = to_hex_string("\x01\xfe", 2);
  char *copy = NULL;
  char *host = NULL;
  char *path = NULL;
  CHECK(hex && !strcmp(hex, "01FE"));
  free(hex);
  CHECK(parse_url("http://example.com/pki?a=1", &copy, &host, &path) == 0);
  CHECK(host && !strcmp(host, "example.com"));
  CHECK(path && !strcmp(path, "/pki?a=1"));
  free(copy);
}

static void check_records(void) {
  ca_info *info = alloc_ca_info();
  ca_info *found;
  crl_info *source;
  CHECK(info != NULL);
  info->label = pki_strdup("home");
  CHECK(pki_add_ca_info(info) == 0);
  free_ca_info(info);
  found = pki_find_ca_info_by_label("home");
  CHECK(found == info);
  free_ca_info(found);
  CHECK(pki_remove_ca("home") == 0);
  CHECK(pki_remove_ca("home") == PKI_NO_SUCH_CA);
  CHECK(pki_find_ca_info_by_label("home") == NULL);
  source = create_crl_info("http://example.com/crl", 0, PKI_ALL_REASONS, 1, NULL, NULL);
  CHECK(source && source->reasons == 511 && !strcmp(source->url, "http://example.com/crl"));
  CHECK(dup_crl_info(source) == source);
  free_crl_info(source);
  free_crl_info(source);
}

static void check_store(X509 *cert) {
  STACK *found = NULL;
  CHECK(pki_add_untrusted_cert(cert, 1) == 0);
  CHECK(pki_find_certs_by_subject(X509_get_subject_name(cert), &found) == 0);
  CHECK(OPENSSL_sk_num(found) == 1 && OPENSSL_sk_value(found, 0) == cert);
  OPENSSL_sk_pop_free(found, (OPENSSL_sk_freefunc)X509_free);
  CHECK(pki_delete_cert(pki_store->provisioned_certs, cert) == 0);
}

static void check_status_cache(X509 *cert) {
  ASN1_TIME *until = ASN1_TIME_set(NULL, time(NULL) + 3600);
  cert_sts_info *info = cv_alloc_cert_sts_info(PKI_CERT_OK, cert, until);
  CHECK(info && info->status == PKI_CERT_OK);
  CHECK(!strcmp(zv_cv_cert_sts_to_str(info->status), "ok"));
  CHECK(zv_cv_add_cert_sts_info_cache(info) == 0);
  CHECK(zv_cv_find_cert_sts_info_cache(cert) == info);
  cv_free_cert_sts_info(info);
  CHECK(zv_cv_remove_cert_sts_info_cache(info) == 0);
  cv_free_cert_sts_info(info);
  CHECK(zv_cv_remove_cert_sts_info_cache(info) == PKI_NO_ENTRY);
  CHECK(zv_cv_find_cert_sts_info_cache(cert) == NULL);
  CHECK(zv_cv_clear_cert_sts_info_cache() == 0);
  cv_free_cert_sts_info(info);
  ASN1_TIME_free(until);
  CHECK(zv_cv_disable_crl_check(1) == 0);
  CHECK(zv_cv_disable_crl_check(0) == 1);
}

static void check_crl_cache(X509 *cert, EVP_PKEY *key) {
  X509_CRL *crl = X509_CRL_new();
  ASN1_TIME *now = ASN1_TIME_set(NULL, time(NULL));
  X509 *signer = NULL;
  X509_CRL *found;
  const X509_NAME *issuer = X509_get_subject_name(cert);
  CHECK(X509_CRL_set_issuer_name(crl, X509_get_subject_name(cert)) == 1);
  CHECK(X509_CRL_set1_lastUpdate(crl, now) == 1);
  CHECK(X509_CRL_sign(crl, key, EVP_sha256()) > 0);
  CHECK(zv_cv_add_crl_to_cache(crl, cert) == 0);
  found = zv_cv_find_crl_in_cache(issuer, PKI_ALL_REASONS, &signer);
  CHECK(found == crl);
  CHECK(signer == cert);
  X509_CRL_free(found);
  X509_free(signer);
  CHECK(zv_cv_rem_crl_from_cache(crl) == 0);
  CHECK(zv_cv_find_crl_in_cache(issuer, 0, NULL) == NULL);
  CHECK(zv_cv_clear_crl_cache() == 0);
  X509_CRL_free(crl);
  ASN1_TIME_free(now);
}

static void check_messages(EVP_PKEY *key) {
  unsigned char *der = NULL;
  unsigned char *content = NULL;
  int der_length = 0;
  int content_length = 0;
  CHECK(sign_bytes("hello", 5, key, &der, &der_length) == 0);
  CHECK(verify_bytes(der, der_length, key, &content, &content_length) == 0);
  CHECK(content_length == 5 && content && !memcmp(content, "hello", 5));
  free(content);
  free(der);
}

static X509 *make_cert(EVP_PKEY *key) {
  X509 *cert = NULL;
  X509_NAME *name = NULL;
  CHECK(create_dummy_cert(key, &cert) == 0);
  CHECK(parse_rfc1779_str("CN=device", &name) == 0);
  CHECK(X509_set_subject_name(cert, name) == 1);
  CHECK(X509_set_issuer_name(cert, name) == 1);
  X509_NAME_free(name);
  CHECK(X509_gmtime_adj(X509_getm_notBefore(cert), 0) != NULL);
  CHECK(X509_gmtime_adj(X509_getm_notAfter(cert), 3600) != NULL);
  CHECK(X509_sign(cert, key, EVP_sha256()) > 0);
  return cert;
}

int main(void) {
  EVP_PKEY *key;
  X509 *cert;
  check_start();
  key = EVP_RSA_gen(2048);
  CHECK(key != NULL);
  cert = make_cert(key);
  check_errors();
  check_names();
  check_utilities();
  check_records();
  check_store(cert);
  check_status_cache(cert);
  check_crl_cache(cert, key);
  check_messages(key);
  X509_free(cert);
  EVP_PKEY_free(key);
  return failures ? EXIT_FAILURE : EXIT_SUCCESS;
}
