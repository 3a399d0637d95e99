#include "enroll_ca.h"

#include <arpa/inet.h>
#include <libpki/libpki.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

namespace {

constexpr int ca_key = 7;

using pkcs7 = std::unique_ptr<PKCS7, decltype(&PKCS7_free)>;
using x509 = std::unique_ptr<X509, decltype(&X509_free)>;
using x509_req = std::unique_ptr<X509_REQ, decltype(&X509_REQ_free)>;

int listen_on_loopback(int *port) {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto *generic = reinterpret_cast<sockaddr *>(&address);
  if (listener < 0 || bind(listener, generic, length) != 0 || listen(listener, 16) != 0 ||
      getsockname(listener, generic, &length) != 0)
    return -1;
  *port = ntohs(address.sin_port);
  return listener;
}

// The octets of the base64 text between "message=" and the blank that ends the target.
std::string message_in(const std::string &head) {
  size_t begin = head.find("message=");
  size_t end = head.find(" HTTP/");
  if (begin == std::string::npos || end == std::string::npos)
    return {};
  begin += 8;
  std::string text;
  for (char c : head.substr(begin, end - begin))
    if (c != '\n')
      text += c;
  std::string octets(text.size() / 4 * 3, '\0');
  auto *out = reinterpret_cast<unsigned char *>(octets.data());
  int length = EVP_DecodeBlock(out, reinterpret_cast<const unsigned char *>(text.data()),
                               static_cast<int>(text.size()));
  return length < 0 ? std::string() : octets;
}

// As it is encoded: OpenSSL 3.0 would decode and encode it anew.
void copy_public_key(X509_PUBKEY *from, X509_PUBKEY *to) {
  ASN1_OBJECT *type;
  const unsigned char *bits;
  int length;
  X509_PUBKEY_get0_param(&type, &bits, &length, nullptr, from);
  auto *copy = static_cast<unsigned char *>(OPENSSL_memdup(bits, static_cast<size_t>(length)));
  X509_PUBKEY_set0_param(to, OBJ_dup(type), V_ASN1_NULL, nullptr, copy, length);
}

x509 issue(X509_REQ *request, const support::cert &ca) {
  static long serial = 1000;
  x509 cert(X509_new(), X509_free);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), ++serial);
  X509_set_issuer_name(cert.get(), X509_get_subject_name(ca.get()));
  X509_set_subject_name(cert.get(), X509_REQ_get_subject_name(request));
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 86400);
  copy_public_key(X509_REQ_get_X509_PUBKEY(request), X509_get_X509_PUBKEY(cert.get()));
  X509_sign(cert.get(), support::test_key(ca_key).get(), EVP_sha256());
  return cert;
}

std::string reply_to(const std::string &message, const support::cert &ca) {
  const auto *in = reinterpret_cast<const unsigned char *>(message.data());
  pkcs7 request(d2i_PKCS7(nullptr, &in, static_cast<long>(message.size())), PKCS7_free);
  EVP_PKEY *key = support::test_key(ca_key).get();
  X509 *requester = nullptr;  // belongs to the request
  void *payload = nullptr;
  if (!request || parse_scep_cert_req(request.get(), &requester, key, ca.get(), &payload))
    return {};
  x509_req asked(static_cast<X509_REQ *>(payload), X509_REQ_free);
  x509 issued = issue(asked.get(), ca);
  PKCS7 *made = nullptr;
  if (gen_scep_cert_rep(issued.get(), key, ca.get(), requester, request.get(), &made))
    return {};
  pkcs7 reply(made, PKCS7_free);
  int length = 0;
  unsigned char *der = der_encode(made, reinterpret_cast<i2d_fn *>(i2d_PKCS7), &length);
  std::string octets(reinterpret_cast<char *>(der), static_cast<size_t>(length));
  std::free(der);
  return octets;
}

void answer(int connection, const support::cert &ca) {
  std::string head;
  char buffer[16384];
  while (head.find("\r\n\r\n") == std::string::npos) {
    ssize_t length = read(connection, buffer, sizeof buffer);
    if (length <= 0)
      return;
    head.append(buffer, static_cast<size_t>(length));
  }
  std::string body = reply_to(message_in(head), ca);
  std::string whole = "HTTP/1.0 " + std::string(body.empty() ? "400 Bad Request" : "200 OK") +
                      "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  for (size_t sent = 0; sent < whole.size();) {
    ssize_t length = write(connection, whole.data() + sent, whole.size() - sent);
    if (length <= 0)
      return;
    sent += static_cast<size_t>(length);
  }
}

[[noreturn]] void serve(int listener, const support::cert &ca) {
  libpki_init();
  for (;;) {
    int connection = accept(listener, nullptr, nullptr);
    if (connection < 0)
      _exit(1);
    answer(connection, ca);
    close(connection);
  }
}

}  // namespace

namespace bench {

enroll_ca::enroll_ca() : certificate_(support::make_ca("Enrollment CA", ca_key)) {
  int port = 0;
  int listener = listen_on_loopback(&port);
  if (listener < 0)
    return;
  child_ = fork();
  if (child_ == 0)
    serve(listener, certificate_);
  close(listener);
  if (child_ > 0)
    url_ = "http://127.0.0.1:" + std::to_string(port) + "/scep";
}

double enroll_ca::cpu_ms() const {
  clockid_t clock;
  timespec used = {};
  if (clock_getcpuclockid(child_, &clock) == 0)
    clock_gettime(clock, &used);
  return static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) / 1e6;
}

enroll_ca::~enroll_ca() {
  if (child_ <= 0)
    return;
  kill(child_, SIGKILL);
  waitpid(child_, nullptr, 0);
}

}  // namespace bench
