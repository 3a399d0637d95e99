// Calls of the C library and OpenSSL that can be told to fail, in front of the real ones for
// every library in the process. Counts are process-wide; arm them, call, and reset.
#ifndef TESTS_FAKES_FAILURES_H
#define TESTS_FAKES_FAILURES_H

#include <functional>
#include <string>
#include <vector>

namespace fake_failures {

// What the next call returns instead of the real result, `after` successful calls later
// (0: the very next). Each is armed for one call; poll, send, X509_verify_cert, X509_up_ref and
// X509_get0_pubkey fail on the arming thread only, the latter two not when OpenSSL itself calls
// them.
void fail_wrlock(int error, int after = 0);       // pthread_rwlock_wrlock returns `error`
void fail_rdlock(int error, int after = 0);       // pthread_rwlock_rdlock
void fail_rwlock_init(int error, int after = 0);  // pthread_rwlock_init
void fail_x509_up_ref(int after = 0);             // X509_up_ref returns 0
void fail_responder_id(int after = 0);            // OCSP_resp_get0_id returns 0
void fail_x509_get0_pubkey(int after = 0);        // X509_get0_pubkey: null, for want of memory
void fail_produced_at(int after = 0);             // OCSP_resp_get0_produced_at returns null
void change_single_status(int status);            // OCSP_single_get0_status returns `status`
void fail_x509_crl_up_ref(int after = 0);         // X509_CRL_up_ref returns 0
void fail_evp_pkey_up_ref(int after = 0);         // EVP_PKEY_up_ref returns 0
void fail_rand_bytes(int after = 0);              // RAND_bytes returns 0
void fail_serialnumber(int error);                // board_info_serialnumber returns `error`
void fill_serialnumber(char octet);               // it fills its buffer with `octet`, no NUL; 0
void change_secret_length(int length);            // board_key_secret returns 0 and says `length`
void fail_poll(int error, int after = 0);         // poll returns -1 with errno `error`
void time_out_poll(int after = 0);                // poll returns 0 at once
// Polls of this thread that find nothing to read time out at once when `silent()` says that nothing
// more will come; until then they wait.
void time_out_polls_when(const std::function<bool()> &silent);
void fail_socket(int error, int after = 0);   // socket returns -1 with errno `error`
void fail_connect(int error, int after = 0);  // connect returns -1 with errno `error`
void fail_send(int error, int after = 0);     // send returns -1 with errno `error`
void short_send(int after = 0);               // send takes one octet only
void refuse_verify_cert(int after = 0);       // X509_verify_cert returns 0 and sets no error
// The next dlopen of this thread loads `name` (a text that lasts) instead.
void load_instead(const char *name);

// Answers name resolution of `host` with numeric addresses, in order, instead of the resolver;
// an empty list gives EAI_NONAME.
void resolve(const std::string &host, const std::vector<std::string> &addresses);
// The next resolution gives `failure`, one of EAI_*, and sets errno to `error`.
void fail_resolver(int failure, int error);

// The time-out, in milliseconds, of the last poll of the calling thread.
int last_poll_timeout();

// Calls of connect since the last reset.
int connect_calls();
// Calls of pthread_rwlock_wrlock and _rdlock since the last reset.
int wrlock_calls();
int rdlock_calls();
// Calls of signal, setlocale, and of SIGPIPE-raising send (without MSG_NOSIGNAL)
// since the last reset; a library must leave these to its host.
int host_setting_calls();

// Disarms everything and zeroes the counts.
void reset();

}  // namespace fake_failures

#endif
