#include "tools/pkictl/give_up.h"

#include <libpki/scep_client.h>
#include <signal.h>
#include <unistd.h>

#include <initializer_list>

namespace pkictl {

namespace {

volatile sig_atomic_t interrupted_by = 0;
volatile sig_atomic_t time_is_up = 0;

void on_signal(int number) {
  if (number == SIGALRM && !interrupted_by)
    time_is_up = 1;
  if (number != SIGALRM)
    interrupted_by = number;
  scep_stop_polling(1);
  alarm(1);  // again, in case this one came just before the sleep that it was to end
}

void handle(int number, void (*handler)(int)) {
  struct sigaction how = {};
  how.sa_handler = handler;
  how.sa_flags = SA_RESTART;
  sigemptyset(&how.sa_mask);
  sigaddset(&how.sa_mask, SIGINT);
  sigaddset(&how.sa_mask, SIGTERM);
  sigaddset(&how.sa_mask, SIGALRM);
  sigaction(number, &how, nullptr);
}

}  // namespace

give_up_watch::give_up_watch(unsigned timeout_s) {
  for (int number : {SIGINT, SIGTERM, SIGALRM})
    handle(number, on_signal);
  alarm(timeout_s);
}

give_up_watch::~give_up_watch() {
  alarm(0);
  for (int number : {SIGINT, SIGTERM})
    handle(number, SIG_DFL);
  handle(SIGALRM, SIG_IGN);  // one may be on its way
}

bool give_up_watch::interrupted() const {
  return interrupted_by != 0;
}

bool give_up_watch::timed_out() const {
  return time_is_up != 0;
}

}  // namespace pkictl
