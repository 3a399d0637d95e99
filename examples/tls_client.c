/*
 * A TLS client that judges its server by libpki's internet flavour: path rules, and the status of
 * every certificate by the OCSP responders and CRLs that it names. One that names none counts as
 * good: a host that knows where its status is to be had adds a rule (pki_add_crl_info).
 *
 *   tls_client HOST PORT TRUSTED.pem
 *
 * HOST is a name or an IPv4 address. Prints the verdict. Exit code 0: accepted, 1: rejected, 2: it
 * did not come to a verdict.
 */
#include <libpki/libpki.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <stdio.h>

enum { ACCEPTED = 0, REJECTED = 1, NO_VERDICT = 2 };

static int no_verdict(const char *what) {
  fprintf(stderr, "tls_client: %s\n", what);
  ERR_print_errors_fp(stderr);
  return NO_VERDICT;
}

/* Everything that the connections of a host have in common. Null on failure. */
static SSL_CTX *make_context(const char *trusted) {
  SSL_CTX *context = SSL_CTX_new(TLS_client_method());
  if (!context)
    return NULL;
  /* OpenSSL builds the chain; the callback judges each certificate, from the top down. */
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, zv_cv_cert_validator_internet);
  if (SSL_CTX_load_verify_file(context, trusted) == 1 &&
      SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1)
    return context;
  SSL_CTX_free(context);
  return NULL;
}

/* Whom we mean: in the handshake, so that the server picks the right certificate (RFC 6066: names
 * only), and in the check of what it sends, which an empty name would turn off. */
static int expect_host(SSL *tls, const char *host) {
  X509_VERIFY_PARAM *param = SSL_get0_param(tls);
  if (X509_VERIFY_PARAM_set1_ip_asc(param, host) == 1)
    return 1;
  ERR_clear_error(); /* it is no address, then */
  SSL_set_hostflags(tls, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return host[0] != '\0' && SSL_set1_host(tls, host) == 1 &&
         SSL_set_tlsext_host_name(tls, host) == 1;
}

/* An accepted chain may leave an error that was forgiven in SSL_get_verify_result, so whether the
 * handshake succeeds is what counts. */
static int judge(SSL *tls, const char *host) {
  if (SSL_connect(tls) == 1) {
    printf("%s: accepted, %s\n", host, SSL_get_version(tls));
    SSL_shutdown(tls); /* a real client talks to the server here */
    return ACCEPTED;
  }
  unsigned long error = ERR_peek_last_error();
  if (ERR_GET_LIB(error) != ERR_LIB_SSL || ERR_GET_REASON(error) != SSL_R_CERTIFICATE_VERIFY_FAILED)
    return no_verdict("the handshake failed");
  ERR_clear_error();
  printf("%s: rejected, %s\n", host, X509_verify_cert_error_string(SSL_get_verify_result(tls)));
  return REJECTED; /* the system log says why in detail */
}

static int connect_and_judge(SSL_CTX *context, const char *host, const char *port) {
  BIO *connection = BIO_new(BIO_s_connect());
  SSL *tls = SSL_new(context);
  int result = NO_VERDICT;
  if (!connection || !tls || BIO_set_conn_hostname(connection, host) != 1 ||
      BIO_set_conn_port(connection, port) != 1 || !expect_host(tls, host))
    result = no_verdict("cannot set the connection up");
  else if (BIO_do_connect(connection) != 1)
    result = no_verdict("cannot connect");
  else {
    SSL_set_bio(tls, connection, connection);
    connection = NULL; /* it belongs to tls now */
    result = judge(tls, host);
  }
  SSL_free(tls);
  BIO_free_all(connection);
  return result;
}

int main(int argc, char **argv) {
  if (argc != 4)
    return no_verdict("usage: tls_client HOST PORT TRUSTED.pem");
  signal(SIGPIPE, SIG_IGN); /* a server that hangs up is an error, not the end */
  if (libpki_init() != PKI_OK)
    return no_verdict("cannot start libpki");
  SSL_CTX *context = make_context(argv[3]);
  if (!context)
    return no_verdict("cannot use the trusted certificates");
  int result = connect_and_judge(context, argv[1], argv[2]);
  SSL_CTX_free(context);
  return result;
}
