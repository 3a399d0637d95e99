// A SCEP CA in a process of its own, as lean as one can be: what a benchmark of enrollment waits
// for besides the library.
#ifndef BENCH_ENROLL_CA_H
#define BENCH_ENROLL_CA_H

#include <sys/types.h>

#include <string>

#include "support/certs.h"

namespace bench {

class enroll_ca {
 public:
  // Forks: to be made before the process starts threads.
  enroll_ca();
  ~enroll_ca();
  enroll_ca(const enroll_ca &) = delete;
  enroll_ca &operator=(const enroll_ca &) = delete;

  // Empty when the process could not be started.
  const std::string &url() const { return url_; }
  const support::cert &certificate() const { return certificate_; }
  // The processor's time that the CA has used so far.
  double cpu_ms() const;

 private:
  support::cert certificate_;
  std::string url_;
  pid_t child_ = -1;
};

}  // namespace bench

#endif
