// What the record types share.
#ifndef PKI_PKI_STORE_ALLOC_INTERNAL_H
#define PKI_PKI_STORE_ALLOC_INTERNAL_H

#include <syslog.h>

#include <libpki/records.h>
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "common/ref_count.h"

namespace pki {

// A zeroed record with one reference.
template <class Record>
[[nodiscard]] Record *make_record() {
  Record *record = make<Record>();
  if (record)
    record->ref_count = 1;
  return record;
}

// An empty list, or null. OpenSSL's own word of the failure goes: it would make the next, unrelated
// one look like a want of memory.
[[nodiscard]] inline STACK *make_list() {
  openssl_error_mark null_says_it_all;
  return OPENSSL_sk_new_null();
}

// Frees a list and gives each element to `release`.
template <class Element>
void free_list(STACK *list, void (*release)(Element *)) {
  while (OPENSSL_sk_num(list) > 0)
    release(static_cast<Element *>(OPENSSL_sk_pop(list)));
  OPENSSL_sk_free(list);
}

inline void log_unsupported_mechanism(int mechanism) {
  syslog(log_error, "unsupported mechanism %d", mechanism);
}

}  // namespace pki

#endif
