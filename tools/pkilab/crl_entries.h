// The entries of a CRL: those that count, and made-up ones in any number.
#ifndef TOOLS_PKILAB_CRL_ENTRIES_H
#define TOOLS_PKILAB_CRL_ENTRIES_H

#include <cstdint>
#include <ctime>
#include <string>

#include "tools/pkilab/crl_options.h"
#include "tools/pkilab/http_message.h"
#include "tools/pkilab/issued_certs.h"
#include "tools/pkilab/revocations.h"

namespace pkilab {

/*
 * Made-up entries: serial numbers of 20 octets in rising order, always the same ones, so that the
 * first 1,000 of a list of 1,000,000 are those of a list of 1,000. Each entry is as long as the
 * others, and none is ever kept.
 */
class generated_entries {
 public:
  generated_entries(uint64_t count, bool reason_in_each);

  uint64_t length() const { return count_ * entry_.size(); }
  // The list's octets in pieces of some 64 KiB; false when the sink took no more.
  bool make(const octet_sink &sink) const;

 private:
  uint64_t count_;
  std::string entry_;  // without its serial number
};

// Hexadecimal, as words and commands take it; from 0.
std::string generated_serial(uint64_t index);

class entry_writer;

// What makes the other entries.
class listed_entries {
 public:
  // `keys` must outlive it.
  explicit listed_entries(const ca &keys) : keys_(keys), certs_(keys), revoked_(keys.folder()) {}

  // The entries of a CRL of `issuer`'s certificates that says `crl_issuer` made it, as they stand
  // in the folder. `*count` receives their number. Throws tools::failure.
  std::string make(const ca::pair &issuer, const X509_NAME *crl_issuer, const crl_options &options,
                   time_t now, size_t *count) const;

 private:
  void add_revoked(const ca::pair &own, const crl_options &options, entry_writer *writer) const;

  const ca &keys_;
  issued_certs certs_;
  revocations revoked_;
};

}  // namespace pkilab

#endif
