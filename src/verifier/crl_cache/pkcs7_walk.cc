#include "verifier/crl_cache/pkcs7_walk.h"

#include <libpki/error.h>
#include <libpki/util.h>

#include "common/limits.h"
#include "common/log.h"
#include "verifier/crl_cache/extensions.h"

namespace pki {

namespace {

// The outer headers and the content type are short.
constexpr uint32_t outer_limit = 50;
constexpr unsigned char tag_certificates = 0xa0;
constexpr unsigned char tag_crls = 0xa1;

class pkcs7_walk {
 public:
  pkcs7_walk(crl_stream *stream, uint32_t content_length)
      : stream_(stream), left_(content_length) {}

  int open(const pkcs7_start &start) {
    if (!start.found)
      return read_header(outer_limit);
    if (start.header_size > outer_limit)
      return PKI_ASN1_DECODE_ERROR;
    left_ -= start.header_size;
    return PKI_OK;
  }

  int check_content_type() {
    unsigned char *end = scratch_;
    if (int error = cv_slurp_der_obj(stream_, &end, outer_limit, &left_))
      return error;
    const unsigned char *in = scratch_;
    memory_watch memory;
    asn1_object_ptr type(d2i_ASN1_OBJECT(nullptr, &in, end - scratch_));
    if (!type)
      return memory.ran_out() ? PKI_OUT_OF_MEMORY : PKI_ASN1_DECODE_ERROR;
    int nid = OBJ_obj2nid(type.get());
    if (nid == NID_pkcs7_signed)
      return PKI_OK;
    syslog(log_error, "Content-type (%s) in P7 is not SignedData", OBJ_nid2sn(nid));
    return PKI_ASN1_DECODE_ERROR;
  }

  // [0], SignedData; version, digestAlgorithms and contentInfo; certificates, if there.
  int go_to_crls() {
    for (int header = 0; header < 2; header++)
      if (int error = read_header(outer_limit))
        return error;
    for (int element = 0; element < 3; element++)
      if (int error = cv_skip_der_obj(stream_, scratch_, &left_))
        return error;
    if (int error = read_header(crl_max_buffered_bytes))
      return error;
    if (scratch_[0] == tag_certificates) {
      if (int error = cv_skip_content(stream_, scratch_, &left_, length_))
        return error;
      if (int error = read_header(crl_max_buffered_bytes))
        return error;
    }
    return scratch_[0] == tag_crls ? PKI_OK : PKI_ASN1_DECODE_ERROR;
  }

  [[nodiscard]] uint32_t length() const { return length_; }

 private:
  int read_header(uint32_t limit) {
    unsigned char *end = scratch_;
    return cv_slurp_der_hdr(stream_, &end, limit, &left_, &length_);
  }

  crl_stream *stream_;
  uint32_t left_;
  uint32_t length_ = 0;
  unsigned char scratch_[der_scratch_bytes] = {};
};

}  // namespace

int find_crl_in_pkcs7(crl_request *request, crl_stream *stream, uint32_t content_length,
                      const pkcs7_start &start) {
  pkcs7_walk walk(stream, content_length);
  if (int error = walk.open(start))
    return error;
  if (int error = walk.check_content_type())
    return error;
  if (int error = walk.go_to_crls())
    return error;
  return cv_crl_decode_crl(request, stream, walk.length(), nullptr);
}

}  // namespace pki
