#include "fakes/failures.h"

#include <arpa/inet.h>
#include <board/board.h>
#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ocsp.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>

#include "fakes/allocator.h"

namespace {

// Fires once, after `skip` calls.
struct trap {
  bool armed = false;
  int skip = 0;
  int error = 0;
  pthread_t owner = {};

  void arm(int new_error, int after) {
    error = new_error;
    skip = after;
    armed = true;
    owner = pthread_self();
  }
  // A test's server makes the same calls on a thread of its own.
  bool fires_here() { return pthread_equal(owner, pthread_self()) && fires(); }
  bool fires() {
    if (!armed || skip-- > 0)
      return false;
    armed = false;
    return true;
  }
};

// Not recursive and taken for a few lines only; the real calls are made outside it.
std::mutex &mutex() {
  static std::mutex instance;
  return instance;
}

struct state {
  trap wrlock, rdlock, rwlock_init, x509_up_ref, x509_get0_pubkey, responder_id, produced_at,
      single_status, crl_up_ref, pkey_up_ref, rand_bytes, serialnumber, serial_octet, secret_length,
      poll_error, poll_timeout, socket, connect_error, send_error, send_short, verify_cert,
      resolver, resolver_errno;
  std::map<std::string, std::vector<std::string>> names;
  int connects = 0, wrlocks = 0, rdlocks = 0, host_settings = 0;
};

state &current() {
  static state instance;
  return instance;
}

bool fires(trap state::*which, int *error = nullptr) {
  std::lock_guard lock(mutex());
  trap &t = current().*which;
  if (error)
    *error = t.error;
  return t.fires();
}

bool fires_here(trap state::*which, int *error = nullptr) {
  std::lock_guard lock(mutex());
  trap &t = current().*which;
  if (error)
    *error = t.error;
  return t.fires_here();
}

bool called_by_openssl(const void *return_address) {
  Dl_info caller;
  return dladdr(return_address, &caller) && strstr(caller.dli_fname, "libcrypto");
}

thread_local int poll_timeout = -1;
thread_local std::function<bool()> is_silent;
thread_local const char *loaded_instead = nullptr;

void arm(trap state::*which, int error, int after) {
  std::lock_guard lock(mutex());
  (current().*which).arm(error, after);
}

void count(int state::*which) {
  std::lock_guard lock(mutex());
  (current().*which)++;
}

template <class Function>
Function *next(const char *name, Function *&cached) {
  Function *found = __atomic_load_n(&cached, __ATOMIC_RELAXED);
  if (!found) {
    fake_allocator::pause no_failures;
    found = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
    __atomic_store_n(&cached, found, __ATOMIC_RELAXED);
  }
  return found;
}

// The real function behind one of these fakes.
#define NEXT(name)                              \
  ([]() {                                       \
    static decltype(::name) *real;              \
    return next<decltype(::name)>(#name, real); \
  }())

}  // namespace

namespace fake_failures {

void fail_wrlock(int error, int after) {
  arm(&state::wrlock, error, after);
}
void fail_rdlock(int error, int after) {
  arm(&state::rdlock, error, after);
}
void fail_rwlock_init(int error, int after) {
  arm(&state::rwlock_init, error, after);
}
void fail_x509_up_ref(int after) {
  arm(&state::x509_up_ref, 0, after);
}
void fail_responder_id(int after) {
  arm(&state::responder_id, 0, after);
}
void fail_x509_get0_pubkey(int after) {
  arm(&state::x509_get0_pubkey, 0, after);
}
void fail_produced_at(int after) {
  arm(&state::produced_at, 0, after);
}
void change_single_status(int status) {
  arm(&state::single_status, status, 0);
}
void fail_x509_crl_up_ref(int after) {
  arm(&state::crl_up_ref, 0, after);
}
void fail_evp_pkey_up_ref(int after) {
  arm(&state::pkey_up_ref, 0, after);
}
void fail_rand_bytes(int after) {
  arm(&state::rand_bytes, 0, after);
}
void fail_serialnumber(int error) {
  arm(&state::serialnumber, error, 0);
}
void fill_serialnumber(char octet) {
  arm(&state::serial_octet, octet, 0);
}
void change_secret_length(int length) {
  arm(&state::secret_length, length, 0);
}
void fail_poll(int error, int after) {
  arm(&state::poll_error, error, after);
}
void time_out_poll(int after) {
  arm(&state::poll_timeout, 0, after);
}
void time_out_polls_when(const std::function<bool()> &silent) {
  is_silent = silent;
}
void fail_socket(int error, int after) {
  arm(&state::socket, error, after);
}
void fail_connect(int error, int after) {
  arm(&state::connect_error, error, after);
}
void fail_send(int error, int after) {
  arm(&state::send_error, error, after);
}
void short_send(int after) {
  arm(&state::send_short, 0, after);
}

void refuse_verify_cert(int after) {
  arm(&state::verify_cert, 0, after);
}

void load_instead(const char *name) {
  loaded_instead = name;
}

void resolve(const std::string &host, const std::vector<std::string> &addresses) {
  std::lock_guard lock(mutex());
  current().names[host] = addresses;
}

void fail_resolver(int failure, int error) {
  arm(&state::resolver_errno, error, 0);
  arm(&state::resolver, failure, 0);
}

int last_poll_timeout() {
  return poll_timeout;
}

int connect_calls() {
  return current().connects;
}
int wrlock_calls() {
  return current().wrlocks;
}
int rdlock_calls() {
  return current().rdlocks;
}
int host_setting_calls() {
  return current().host_settings;
}

void reset() {
  std::lock_guard lock(mutex());
  current() = state();
  is_silent = nullptr;
  loaded_instead = nullptr;
}

}  // namespace fake_failures

namespace {

// A list as getaddrinfo makes it; every node is one block, freed by our freeaddrinfo.
addrinfo *fake_addresses(const std::vector<std::string> &addresses) {
  addrinfo *first = nullptr;
  addrinfo **link = &first;
  for (const std::string &text : addresses) {
    auto *node = static_cast<addrinfo *>(calloc(1, sizeof(addrinfo) + sizeof(sockaddr_in6)));
    auto *address = reinterpret_cast<sockaddr *>(node + 1);
    node->ai_socktype = SOCK_STREAM;
    node->ai_protocol = IPPROTO_TCP;
    node->ai_addr = address;
    in6_addr six;
    if (inet_pton(AF_INET6, text.c_str(), &six) == 1) {
      auto *in6 = reinterpret_cast<sockaddr_in6 *>(address);
      in6->sin6_family = AF_INET6;
      in6->sin6_addr = six;
      node->ai_addrlen = sizeof *in6;
    } else {
      auto *in4 = reinterpret_cast<sockaddr_in *>(address);
      in4->sin_family = AF_INET;
      inet_pton(AF_INET, text.c_str(), &in4->sin_addr);
      node->ai_addrlen = sizeof *in4;
    }
    node->ai_family = address->sa_family;
    *link = node;
    link = &node->ai_next;
  }
  return first;
}

std::map<addrinfo *, bool> &fake_lists() {
  static std::map<addrinfo *, bool> lists;
  return lists;
}

}  // namespace

extern "C" {

int pthread_rwlock_wrlock(pthread_rwlock_t *lock) noexcept {
  int error;
  count(&state::wrlocks);
  if (fires(&state::wrlock, &error))
    return error;
  return NEXT(pthread_rwlock_wrlock)(lock);
}

int pthread_rwlock_rdlock(pthread_rwlock_t *lock) noexcept {
  int error;
  count(&state::rdlocks);
  if (fires(&state::rdlock, &error))
    return error;
  return NEXT(pthread_rwlock_rdlock)(lock);
}

int pthread_rwlock_init(pthread_rwlock_t *lock, const pthread_rwlockattr_t *attributes) noexcept {
  int error;
  if (fires(&state::rwlock_init, &error))
    return error;
  return NEXT(pthread_rwlock_init)(lock, attributes);
}

int X509_up_ref(X509 *cert) {
  // OpenSSL takes it for granted that its own calls succeed.
  if (!called_by_openssl(__builtin_return_address(0)) && fires_here(&state::x509_up_ref))
    return 0;
  return NEXT(X509_up_ref)(cert);
}

EVP_PKEY *X509_get0_pubkey(const X509 *cert) {
  if (called_by_openssl(__builtin_return_address(0)) || !fires_here(&state::x509_get0_pubkey))
    return NEXT(X509_get0_pubkey)(cert);
  ERR_raise(ERR_LIB_X509, ERR_R_MALLOC_FAILURE);
  return nullptr;
}

int OCSP_resp_get0_id(const OCSP_BASICRESP *basic, const ASN1_OCTET_STRING **key_hash,
                      const X509_NAME **name) {
  return fires(&state::responder_id) ? 0 : NEXT(OCSP_resp_get0_id)(basic, key_hash, name);
}

const ASN1_GENERALIZEDTIME *OCSP_resp_get0_produced_at(const OCSP_BASICRESP *basic) {
  return fires(&state::produced_at) ? nullptr : NEXT(OCSP_resp_get0_produced_at)(basic);
}

int OCSP_single_get0_status(OCSP_SINGLERESP *single, int *reason, ASN1_GENERALIZEDTIME **revoked,
                            ASN1_GENERALIZEDTIME **this_update,
                            ASN1_GENERALIZEDTIME **next_update) {
  int status = NEXT(OCSP_single_get0_status)(single, reason, revoked, this_update, next_update);
  int changed;
  return fires(&state::single_status, &changed) ? changed : status;
}

int X509_CRL_up_ref(X509_CRL *crl) {
  return fires(&state::crl_up_ref) ? 0 : NEXT(X509_CRL_up_ref)(crl);
}

int X509_verify_cert(X509_STORE_CTX *context) {
  return fires_here(&state::verify_cert) ? 0 : NEXT(X509_verify_cert)(context);
}

int EVP_PKEY_up_ref(EVP_PKEY *key) {
  return fires(&state::pkey_up_ref) ? 0 : NEXT(EVP_PKEY_up_ref)(key);
}

int RAND_bytes(unsigned char *buffer, int length) {
  return fires(&state::rand_bytes) ? 0 : NEXT(RAND_bytes)(buffer, length);
}

int board_info_serialnumber(char *buffer, int size) {
  int error;
  if (fires(&state::serialnumber, &error))
    return error;
  int octet;
  if (fires(&state::serial_octet, &octet)) {
    memset(buffer, octet, static_cast<size_t>(size));
    return 0;
  }
  return NEXT(board_info_serialnumber)(buffer, size);
}

int board_key_secret(unsigned char *buffer, int *length) {
  int said;
  if (!fires(&state::secret_length, &said))
    return NEXT(board_key_secret)(buffer, length);
  memset(buffer, 'x', static_cast<size_t>(*length));
  *length = said;
  return 0;
}

int poll(pollfd *fds, nfds_t how_many, int timeout) {
  int error;
  poll_timeout = timeout;
  if (fires_here(&state::poll_timeout))
    return 0;
  if (fires_here(&state::poll_error, &error)) {
    errno = error;
    return -1;
  }
  while (is_silent && (fds->events & POLLIN)) {
    // What was sent before the silence is there by now.
    bool silent = is_silent();
    int ready = NEXT(poll)(fds, how_many, silent ? 0 : 1);
    if (ready != 0 || silent)
      return ready;
  }
  return NEXT(poll)(fds, how_many, timeout);
}

void *dlopen(const char *name, int flags) noexcept {
  const char *other = std::exchange(loaded_instead, nullptr);
  return NEXT(dlopen)(other ? other : name, flags);
}

int socket(int domain, int type, int protocol) noexcept {
  int error;
  if (fires(&state::socket, &error)) {
    errno = error;
    return -1;
  }
  return NEXT(socket)(domain, type, protocol);
}

int connect(int fd, const sockaddr *address, socklen_t length) {
  int error;
  count(&state::connects);
  if (fires_here(&state::connect_error, &error)) {
    errno = error;
    return -1;
  }
  return NEXT(connect)(fd, address, length);
}

ssize_t send(int fd, const void *data, size_t length, int flags) {
  int error;
  if (!(flags & MSG_NOSIGNAL))
    count(&state::host_settings);
  if (fires_here(&state::send_error, &error)) {
    errno = error;
    return -1;
  }
  if (fires_here(&state::send_short) && length > 1)
    length = 1;
  return NEXT(send)(fd, data, length, flags);
}

int getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **result) {
  int failure, error;
  if (fires(&state::resolver, &failure) && fires(&state::resolver_errno, &error)) {
    errno = error;
    return failure;
  }
  {
    fake_allocator::pause no_failures;
    std::lock_guard lock(mutex());
    auto found = host ? current().names.find(host) : current().names.end();
    if (found != current().names.end()) {
      if (found->second.empty())
        return EAI_NONAME;
      *result = fake_addresses(found->second);
      fake_lists()[*result] = true;
      return 0;
    }
  }
  return NEXT(getaddrinfo)(host, service, hints, result);
}

void freeaddrinfo(addrinfo *list) noexcept {
  {
    std::lock_guard lock(mutex());
    if (fake_lists().erase(list)) {
      while (list) {
        addrinfo *node = list;
        list = list->ai_next;
        free(node);
      }
      return;
    }
  }
  NEXT(freeaddrinfo)(list);
}

sighandler_t signal(int number, sighandler_t handler) noexcept {
  count(&state::host_settings);
  return NEXT(signal)(number, handler);
}

char *setlocale(int category, const char *locale) noexcept {
  if (locale)
    count(&state::host_settings);
  return NEXT(setlocale)(category, locale);
}
}
