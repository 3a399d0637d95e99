#include "tools/pkilab/crl_entries.h"

#include "tools/common/text.h"
#include "tools/pkilab/crl_der.h"

namespace pkilab {

namespace {

constexpr const char *crl_reason_oid = "2.5.29.21";
constexpr const char *certificate_issuer_oid = "2.5.29.29";
constexpr size_t serial_size = 20;
constexpr size_t serial_offset = 4;  // behind two headers of two octets
constexpr size_t piece_size = 65536;

std::string reason_extension(int reason) {
  return der::extension(crl_reason_oid, false, der::enumerated(reason));
}

void put(uint64_t number, size_t octets, char *at) {
  for (size_t i = 0; i < octets; i++)
    at[i] = static_cast<char>(number >> (8 * (octets - 1 - i)));
}

// Spreads the bits of a counter (the finaliser of splitmix64).
uint64_t spread(uint64_t number) {
  number += 0x9E3779B97F4A7C15;
  number = (number ^ number >> 30) * 0xBF58476D1CE4E5B9;
  number = (number ^ number >> 27) * 0x94D049BB133111EB;
  return number ^ number >> 31;
}

// The counter stands high enough to keep the order, and the first octet is neither 0 nor negative.
void put_serial(uint64_t index, char *at) {
  uint64_t low = spread(index);
  put((uint64_t{0x10} << 56) + (index << 32) + (low >> 32), 8, at);
  put(low * 3, 8, at + 8);
  put(spread(~index), 4, at + 16);
}

struct entry {
  std::string serial;  // DER
  revocation how;
};

std::string encode(const entry &one, const std::string &more_extensions) {
  std::string extensions =
      (one.how.reason < 0 ? "" : reason_extension(one.how.reason)) + more_extensions;
  return der::wrap(der::sequence,
                   one.serial + der::time(one.how.at) +
                       (extensions.empty() ? "" : der::wrap(der::sequence, extensions)));
}

// Is what is revoked in the CRL's scope?
bool is_in_scope(X509 *cert, const revocation &how, const crl_options &options) {
  bool is_ca = X509_check_ca(cert) == 1;
  if (options.scope == crl_scope::attribute || (options.scope == crl_scope::user && is_ca) ||
      (options.scope == crl_scope::ca && !is_ca))
    return false;
  int bit = reason_bit(how.reason);
  return !options.reasons || (bit >= 0 && (*options.reasons >> bit & 1) != 0);
}

std::string certificate_issuer(const X509_NAME *name) {
  constexpr int directory_name = 4;
  std::string names =
      der::wrap(der::sequence, der::wrap(der::context(directory_name), der::name(name)));
  return der::extension(certificate_issuer_oid, true, names);
}

}  // namespace

class entry_writer {
 public:
  entry_writer(const crl_options &options, const X509_NAME *crl_issuer)
      : indirect_(options.indirect), current_(crl_issuer) {
    for (const std::string &oid : options.entry_critical)
      unknown_ += der::extension(oid, true, der::wrap(der::null, ""));
  }

  void add(const X509_NAME *whose, const entry &one) {
    // An entry inherits the issuer of the one before it (RFC 5280, 5.3.3).
    bool is_said = !indirect_ || X509_NAME_cmp(whose, current_) == 0;
    octets_ += encode(one, (is_said ? "" : certificate_issuer(whose)) + unknown_);
    current_ = whose;
    count_++;
  }

  const std::string &octets() const { return octets_; }
  size_t count() const { return count_; }

 private:
  bool indirect_;
  const X509_NAME *current_;  // whose certificate the next entry is about
  std::string unknown_;       // extensions in each
  std::string octets_;
  size_t count_ = 0;
};

generated_entries::generated_entries(uint64_t count, bool reason_in_each) : count_(count) {
  constexpr int key_compromise = 1;
  entry made = {der::wrap(der::integer, std::string(serial_size, '\0')), {}};
  made.how.at = 1735689600;  // 2025-01-01
  if (reason_in_each)
    made.how.reason = key_compromise;
  entry_ = encode(made, "");
}

bool generated_entries::make(const octet_sink &sink) const {
  std::string piece;
  piece.reserve(piece_size);
  for (uint64_t index = 0; index < count_; index++) {
    size_t at = piece.size();
    piece += entry_;
    put_serial(index, piece.data() + at + serial_offset);
    if (piece.size() + entry_.size() <= piece_size && index + 1 < count_)
      continue;
    if (!sink(piece))
      return false;
    piece.clear();
  }
  return true;
}

std::string generated_serial(uint64_t index) {
  char octets[serial_size];
  put_serial(index, octets);
  return tools::hex(std::string(octets, serial_size));
}

void listed_entries::add_revoked(const ca::pair &own, const crl_options &options,
                                 entry_writer *writer) const {
  const X509_NAME *name = X509_get_subject_name(own.cert.get());
  for (const serial_ptr &serial : revoked_.serials()) {
    tools::cert_ptr cert = certs_.find(name, serial.get());
    std::optional<revocation> how = cert ? revoked_.find(serial.get()) : std::nullopt;
    if (how && is_in_scope(cert.get(), *how, options))
      writer->add(name, {der::serial(serial.get()), *how});
  }
}

std::string listed_entries::make(const ca::pair &issuer, const X509_NAME *crl_issuer,
                                 const crl_options &options, time_t now, size_t *count) const {
  entry_writer writer(options, crl_issuer);
  if (options.lists_revoked)
    add_revoked(issuer, options, &writer);
  for (const crl_entry_wish &wish : options.entries)
    writer.add(X509_get_subject_name(issuer.cert.get()),
               {der::serial(tools::parse_serial(wish.serial).get()), {now, wish.reason}});
  for (const ca::pair *other : keys_.pairs())
    if (options.lists_revoked && options.indirect && other != &issuer)
      add_revoked(*other, options, &writer);
  *count = writer.count();
  return writer.octets();
}

}  // namespace pkilab
