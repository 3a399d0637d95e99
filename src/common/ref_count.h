// Reference counts of records: plain 32-bit fields of C structures, changed atomically, because
// records are shared between validating threads.
#ifndef PKI_COMMON_REF_COUNT_H
#define PKI_COMMON_REF_COUNT_H

#include <cstdint>

namespace pki {

template <class Record>
Record *dup_record(Record *record) {
  if (record)
    __atomic_add_fetch(&record->ref_count, 1, __ATOMIC_RELAXED);
  return record;
}

// True when the caller dropped the last reference and must destroy the record.
template <class Record>
[[nodiscard]] bool drop_reference(Record *record) {
  return static_cast<int32_t>(__atomic_sub_fetch(&record->ref_count, 1, __ATOMIC_ACQ_REL)) <= 0;
}

}  // namespace pki

#endif
