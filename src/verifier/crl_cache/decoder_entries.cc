// The revoked certificates of a CertificateList.
#include <libpki/error.h>
#include <libpki/util.h>

#include "common/limits.h"
#include "common/log.h"
#include "verifier/crl_cache/decoder_internal.h"

namespace pki {

namespace {

constexpr uint32_t serial_header_bytes = 2;

}  // namespace

int crl_decoder::prepare_serial() {
  const ASN1_INTEGER *serial = X509_get0_serialNumber(request_->target_cert);
  int size = i2d_ASN1_INTEGER(serial, nullptr);
  serial_.reset(size > 0 ? static_cast<unsigned char *>(allocate(static_cast<size_t>(size)))
                         : nullptr);
  unsigned char *der = serial_.get();
  if (!der || i2d_ASN1_INTEGER(serial, &der) != size)
    return PKI_OUT_OF_MEMORY;
  // A serial number that is too long for a common entry is found by OpenSSL's decoder.
  wanted_ = {serial_.get() + serial_header_bytes,
             static_cast<uint32_t>(size) - serial_header_bytes};
  return PKI_OK;
}

int crl_decoder::prepare_issuers() {
  const X509_NAME *target_issuer = X509_get_issuer_name(request_->target_cert);
  if (prepare_to_compare(issuer_.get()) || prepare_to_compare(target_issuer))
    return PKI_OUT_OF_MEMORY;
  starts_at_target_ =
      request_->entries_may_start_at_target || X509_NAME_cmp(issuer_.get(), target_issuer) == 0;
  return PKI_OK;
}

// Straight from the read buffer.
void crl_decoder::pass_common_entries(uint32_t *remaining) {
  const unsigned char *in = stream_->cur;
  uint32_t left = stream_->avail < *remaining ? stream_->avail : *remaining;
  uint32_t passed = 0;
  uint32_t entries = 0;
  while (uint32_t size = common_foreign_entry(in + passed, left - passed, wanted_)) {
    passed += size;
    entries++;
  }
  entries_ += entries;
  stream_->cur += passed;
  stream_->avail -= passed;
  *remaining -= passed;
}

int crl_decoder::read_entries(uint32_t length) {
  if (!request_->target_cert)
    return PKI_INVALID_ARGS;
  if (int error = prepare_serial())
    return error;
  if (int error = prepare_issuers())
    return error;
  parts_.has_entries = true;
  while (length > 0) {
    if (request_->truncated)
      pass_common_entries(&length);
    if (length == 0)
      break;
    element entry;
    if (int error = read_element(&entry, &length))
      return error;
    entries_++;
    if (request_->truncated && common_foreign_entry(entry.data, entry.size, wanted_) == entry.size)
      continue;
    if (int error = read_unusual_entry(entry))
      return error;
  }
  if (request_->look)
    request_->look->entries = entries_;
  if (length != 0)
    syslog(log_warning,
           "CRL-Info parse inconsistency: %u bytes left after parsing crl-info revoked-certs",
           length);
  return PKI_OK;
}

int crl_decoder::read_unusual_entry(const element &entry) {
  const unsigned char *in = entry.data;
  X509_REVOKED *slot = spare_.release();
  spare_.reset(d2i_X509_REVOKED(slot ? &slot : nullptr, &in, entry.size));
  if (!spare_)
    return decode_failure();
  X509_NAME *issuer = entry_issuer_.release();
  bool unknown_critical = false;
  int error = cv_proc_rev_ext(X509_REVOKED_get0_extensions(spare_.get()), &issuer,
                              request_->look ? &unknown_critical : nullptr);
  entry_issuer_.reset(issuer);
  if (error)
    return error;
  if (unknown_critical)
    request_->look->critical_entries++;
  if (request_->truncated)
    return is_wanted(spare_.get()) ? keep_truncated(entry) : PKI_OK;
  return parts_.entries.append(entry.data, entry.size) ? PKI_OK : PKI_OUT_OF_MEMORY;
}

bool crl_decoder::is_wanted(const X509_REVOKED *entry) const {
  const look_for kept = request_->look ? request_->look->kept : look_for::target;
  if (kept == look_for::nothing)
    return false;
  if (ASN1_INTEGER_cmp(X509_REVOKED_get0_serialNumber(entry),
                       X509_get0_serialNumber(request_->target_cert)) != 0)
    return false;
  if (kept == look_for::serial)
    return true;
  if (!entry_issuer_)
    return starts_at_target_;
  return X509_NAME_cmp(entry_issuer_.get(), X509_get_issuer_name(request_->target_cert)) == 0;
}

// The entry that named its issuer may have been dropped: what it inherits is written out.
int crl_decoder::keep_truncated(const element &entry) {
  if (++kept_ > crl_max_kept_entries)
    return PKI_ASN1_DECODE_ERROR;
  if (int error = append_kept(entry))
    return error;
  return parts_.entries.size() > crl_max_kept_bytes ? PKI_ASN1_DECODE_ERROR : PKI_OK;
}

int crl_decoder::append_kept(const element &entry) {
  bool named = false;
  if (int error = names_entry_issuer(spare_.get(), &named))
    return error;
  if (!entry_issuer_ || named)
    return parts_.entries.append(entry.data, entry.size) ? PKI_OK : PKI_OUT_OF_MEMORY;
  if (int error = name_entry_issuer(spare_.get(), entry_issuer_.get()))
    return error;
  int error = append_encoding(&parts_.entries, spare_.get(), i2d_X509_REVOKED);
  spare_.reset();
  return error;
}

}  // namespace pki
