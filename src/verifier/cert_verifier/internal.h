// The status cache's private parts.
#ifndef PKI_VERIFIER_CERT_VERIFIER_INTERNAL_H
#define PKI_VERIFIER_CERT_VERIFIER_INTERNAL_H

#include <libpki/verify.h>
#include <pthread.h>

namespace pki {

// A tail queue, oldest insertion first. `lock` is always taken for writing: look-ups count hits.
struct cert_sts_info_cache {
  cert_sts_info *first;
  cert_sts_info **last;  // the last record's link.next, or &first
  int32_t count;
  pthread_rwlock_t lock;
};

extern cert_sts_info_cache pki_csi_cache;
extern int csi_is_init;
extern int disable_crl_check;  // read and written atomically

}  // namespace pki

#endif
