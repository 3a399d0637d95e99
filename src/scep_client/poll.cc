// How long an enrollment waits for a CA that answers PENDING.
#include <libpki/error.h>
#include <unistd.h>

#include "common/log.h"
#include "scep_client/internal.h"

namespace pki {

namespace {

constexpr unsigned int poll_interval_s = 600;

int polling_stopped = 0;
unsigned int poll_limit = 0;

int give_up() {
  syslog(log_warning, "gave up polling for a pending certificate");
  return PKI_NO_SUCH_CERT;
}

bool is_stopped() {
  return __atomic_load_n(&polling_stopped, __ATOMIC_RELAXED) != 0;
}

}  // namespace

int wait_for_poll(unsigned int polls) {
  unsigned int limit = __atomic_load_n(&poll_limit, __ATOMIC_RELAXED);
  if (is_stopped() || (limit && polls >= limit))
    return give_up();
  // A signal ends a sleep early: then the host may have given up, else the rest is slept too.
  for (unsigned int left = poll_interval_s; left > 0;) {
    left = sleep(left);
    if (is_stopped())
      return give_up();
  }
  return PKI_OK;
}

}  // namespace pki

int scep_stop_polling(int stop) {
  return __atomic_exchange_n(&pki::polling_stopped, stop, __ATOMIC_RELAXED);
}

unsigned int scep_limit_polls(unsigned int polls) {
  return __atomic_exchange_n(&pki::poll_limit, polls, __ATOMIC_RELAXED);
}
