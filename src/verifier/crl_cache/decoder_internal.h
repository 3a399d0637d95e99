// The decoder's state while it goes through one CertificateList.
#ifndef PKI_VERIFIER_CRL_CACHE_DECODER_INTERNAL_H
#define PKI_VERIFIER_CRL_CACHE_DECODER_INTERNAL_H

#include <libpki/error.h>

#include "verifier/crl_cache/common_entry.h"
#include "verifier/crl_cache/crl_parts.h"
#include "verifier/crl_cache/decoder.h"
#include "verifier/crl_cache/extensions.h"

namespace pki {

using x509_revoked_ptr = std::unique_ptr<X509_REVOKED, free_with<X509_REVOKED_free>>;

class crl_decoder {
 public:
  crl_decoder(crl_request *request, crl_stream *stream) : request_(request), stream_(stream) {}

  // The steps, in their order. Codes as cv_crl_decode_crl.
  int open(uint32_t content_length);
  int look_for_pkcs7(pkcs7_start *pkcs7);
  int decode_tbs();
  int decode_signature();
  int build();

 private:
  // The code of a failed decoding; OpenSSL's queue stays, for the fetch to log.
  [[nodiscard]] int decode_failure() const {
    return memory_.ran_out() ? PKI_OUT_OF_MEMORY : PKI_ASN1_DECODE_ERROR;
  }

  // An element in the buffer, from its header on.
  struct element {
    const unsigned char *data;
    uint32_t size;
  };

  // decoder.cc
  int read_element(element *read, uint32_t *remaining);
  int read_version_and_algorithm();
  int take_version(const unsigned char *start, uint32_t size);
  int start_digest(const element &algorithm);
  int begin_digest(const EVP_MD *digest);
  int read_names_and_times();
  int read_after_this_update();
  int read_next_update(unsigned char *end, uint32_t length);
  int read_extensions(unsigned char *end, uint32_t length);
  int end_tbs();
  int next_header(unsigned char **end, uint32_t *length);

  // decoder_entries.cc
  int read_entries(uint32_t length);
  int prepare_serial();
  int prepare_issuers();
  void pass_common_entries(uint32_t *remaining);
  int read_unusual_entry(const element &entry);
  bool is_wanted(const X509_REVOKED *entry) const;
  int keep_truncated(const element &entry);
  int append_kept(const element &entry);

  crl_request *request_;
  crl_stream *stream_;
  memory_watch memory_;
  malloc_ptr<unsigned char> buffer_;
  uint32_t outer_header_size_ = 0;
  uint32_t outer_left_ = 0;
  uint32_t tbs_left_ = 0;
  crl_parts parts_;
  x509_name_ptr issuer_;

  malloc_ptr<unsigned char> serial_;  // the target's, as DER
  wanted_serial wanted_ = {nullptr, 0};
  x509_revoked_ptr spare_;      // reused from entry to entry
  x509_name_ptr entry_issuer_;  // null until an entry names one
  bool starts_at_target_ = false;
  int kept_ = 0;
  uint64_t entries_ = 0;
};

}  // namespace pki

#endif
