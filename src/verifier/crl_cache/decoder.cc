// The parts of a CertificateList around its entries.
#include <libpki/error.h>
#include <libpki/util.h>
#include <openssl/x509v3.h>

#include <cstdio>

#include "common/limits.h"
#include "common/log.h"
#include "verifier/crl_cache/decoder_internal.h"

namespace pki {

namespace {

constexpr unsigned char tag_integer = 0x02;
constexpr unsigned char tag_object_identifier = 0x06;
constexpr unsigned char tag_utc_time = 0x17;
constexpr unsigned char tag_generalized_time = 0x18;
constexpr unsigned char tag_entries = 0x30;
constexpr unsigned char tag_extensions = 0xa0;
constexpr unsigned char any_form = 0xdf;

using x509_algor_ptr = std::unique_ptr<X509_ALGOR, free_with<X509_ALGOR_free>>;
using asn1_integer_ptr = std::unique_ptr<ASN1_INTEGER, free_with<ASN1_INTEGER_free>>;
using asn1_bit_string_ptr = std::unique_ptr<ASN1_BIT_STRING, free_with<ASN1_BIT_STRING_free>>;
using extensions_ptr = std::unique_ptr<X509_EXTENSIONS, free_with<[](X509_EXTENSIONS *list) {
                                         sk_X509_EXTENSION_pop_free(list, X509_EXTENSION_free);
                                       }>>;

bool is_time(unsigned char tag) {
  return (tag & any_form) == tag_utc_time || (tag & any_form) == tag_generalized_time;
}

// ECDSA and DSA signatures have no digest of their own name.
const EVP_MD *digest_of(const ASN1_OBJECT *signature_algorithm) {
  int nid = OBJ_obj2nid(signature_algorithm);
  if (nid == NID_undef)
    return nullptr;
  if (const EVP_MD *md = EVP_get_digestbyname(OBJ_nid2sn(nid)))
    return md;
  int digest_nid = NID_undef;
  if (OBJ_find_sigid_algs(nid, &digest_nid, nullptr) != 1 || digest_nid == NID_undef)
    return nullptr;
  return EVP_get_digestbynid(digest_nid);
}

}  // namespace

int crl_decoder::open(uint32_t content_length) {
  buffer_.reset(static_cast<unsigned char *>(allocate(crl_element_bytes)));
  if (!buffer_)
    return PKI_OUT_OF_MEMORY;
  unsigned char *end = buffer_.get();
  uint32_t remaining = content_length;
  uint32_t limit = content_length < crl_max_element_bytes ? content_length : crl_max_element_bytes;
  if (int error = cv_slurp_der_hdr(stream_, &end, limit, &remaining, &outer_left_))
    return error;
  outer_header_size_ = static_cast<uint32_t>(end - buffer_.get());
  return PKI_OK;
}

// A PKCS#7 message says what it is where a CRL has its tbsCertList.
int crl_decoder::look_for_pkcs7(pkcs7_start *pkcs7) {
  unsigned char tag = 0;
  if (outer_left_ > 0)
    if (int error = cv_peek_tag(stream_, &tag))
      return error;
  if (tag != tag_object_identifier)
    return PKI_OK;
  *pkcs7 = {true, outer_header_size_};
  return PKI_ASN1_DECODE_ERROR;
}

int crl_decoder::read_element(element *read, uint32_t *remaining) {
  unsigned char *end = buffer_.get();
  if (int error = cv_slurp_der_obj(stream_, &end, crl_max_element_bytes, remaining))
    return error;
  *read = {buffer_.get(), static_cast<uint32_t>(end - buffer_.get())};
  return PKI_OK;
}

int crl_decoder::next_header(unsigned char **end, uint32_t *length) {
  *end = buffer_.get();
  return cv_slurp_der_hdr(stream_, end, crl_max_element_bytes, &tbs_left_, length);
}

int crl_decoder::decode_tbs() {
  if (int error = read_version_and_algorithm())
    return error;
  if (int error = read_names_and_times())
    return error;
  if (tbs_left_ > 0)
    if (int error = read_after_this_update())
      return error;
  return end_tbs();
}

// What the digest has to see of these lies in the buffer, one behind the other.
int crl_decoder::read_version_and_algorithm() {
  unsigned char *end = buffer_.get();
  if (int error = cv_slurp_der_hdr(stream_, &end, crl_max_element_bytes, &outer_left_, &tbs_left_))
    return error;
  outer_left_ -= tbs_left_;
  auto room = [&] {
    auto used = static_cast<uint32_t>(end - buffer_.get());
    return used < crl_max_element_bytes ? crl_max_element_bytes - used : 0;
  };
  const unsigned char *start = end;
  if (int error = cv_slurp_der_obj(stream_, &end, room(), &tbs_left_))
    return error;
  if ((*start & any_form) == tag_integer) {
    if (int error = take_version(start, static_cast<uint32_t>(end - start)))
      return error;
    start = end;
    if (int error = cv_slurp_der_obj(stream_, &end, room(), &tbs_left_))
      return error;
  }
  element algorithm = {start, static_cast<uint32_t>(end - start)};
  if (int error = start_digest(algorithm))
    return error;
  return parts_.head.append(algorithm.data, algorithm.size) ? PKI_OK : PKI_OUT_OF_MEMORY;
}

// Version 1 is said by saying nothing.
int crl_decoder::take_version(const unsigned char *start, uint32_t size) {
  const unsigned char *in = start;
  asn1_integer_ptr version(d2i_ASN1_INTEGER(nullptr, &in, size));
  if (!version)
    return decode_failure();
  openssl_error_mark any_other_value_is_one;
  if (ASN1_INTEGER_get(version.get()) == 0)
    return PKI_OK;
  return parts_.head.append(start, size) ? PKI_OK : PKI_OUT_OF_MEMORY;
}

// OpenSSL does not always say that memory ran out: that a digest is missing is believed when a
// second look says so too, and there is memory.
int crl_decoder::begin_digest(const EVP_MD *digest) {
  ERR_set_mark();
  bool begun = EVP_DigestInit_ex(stream_->md, digest, nullptr) == 1;
  if (!begun) {
    EVP_MD_CTX_reset(stream_->md);
    begun = EVP_DigestInit_ex(stream_->md, digest, nullptr) == 1;
  }
  if (begun) {
    ERR_pop_to_mark();
    return PKI_OK;
  }
  ERR_clear_last_mark();
  evp_md_ctx_ptr least(EVP_MD_CTX_new());
  return memory_.ran_out() || !least ? PKI_OUT_OF_MEMORY : PKI_UNKNOWN_DIGEST_ALG;
}

int crl_decoder::start_digest(const element &algorithm) {
  const unsigned char *in = algorithm.data;
  x509_algor_ptr decoded(d2i_X509_ALGOR(nullptr, &in, algorithm.size));
  if (!decoded)
    return decode_failure();
  const ASN1_OBJECT *object;
  X509_ALGOR_get0(&object, nullptr, nullptr, decoded.get());
  const EVP_MD *digest = digest_of(object);
  if (!digest)
    return PKI_UNKNOWN_DIGEST_ALG;
  auto so_far = static_cast<size_t>(algorithm.data + algorithm.size - buffer_.get());
  if (int error = begin_digest(digest))
    return error;
  if (EVP_DigestUpdate(stream_->md, buffer_.get(), so_far) != 1)
    return PKI_OUT_OF_MEMORY;
  start_digest_at_cursor(stream_);
  return PKI_OK;
}

int crl_decoder::read_names_and_times() {
  element read;
  if (int error = read_element(&read, &tbs_left_))
    return error;
  const unsigned char *in = read.data;
  issuer_.reset(d2i_X509_NAME(nullptr, &in, read.size));
  if (!issuer_ || memory_.ran_out())
    return decode_failure();
  if (!parts_.head.append(read.data, read.size))
    return PKI_OUT_OF_MEMORY;
  if (int error = read_element(&read, &tbs_left_))
    return error;
  in = read.data;
  asn1_time_ptr this_update(d2i_ASN1_TIME(nullptr, &in, read.size));
  if (!this_update)
    return decode_failure();
  return parts_.head.append(read.data, read.size) ? PKI_OK : PKI_OUT_OF_MEMORY;
}

int crl_decoder::read_next_update(unsigned char *end, uint32_t length) {
  if (int error = cv_slurp_content(stream_, &end, crl_max_element_bytes, &tbs_left_, length))
    return error;
  auto size = static_cast<uint32_t>(end - buffer_.get());
  const unsigned char *in = buffer_.get();
  asn1_time_ptr next_update(d2i_ASN1_TIME(nullptr, &in, size));
  if (!next_update)
    return decode_failure();
  return parts_.head.append(buffer_.get(), size) ? PKI_OK : PKI_OUT_OF_MEMORY;
}

int crl_decoder::read_after_this_update() {
  unsigned char *end;
  uint32_t length;
  if (int error = next_header(&end, &length))
    return error;
  if (is_time(*buffer_)) {
    if (int error = read_next_update(end, length))
      return error;
    if (tbs_left_ == 0)
      return PKI_OK;
    if (int error = next_header(&end, &length))
      return error;
  }
  if (*buffer_ == tag_entries) {
    tbs_left_ -= length;
    if (int error = read_entries(length))
      return error;
    if (tbs_left_ == 0)
      return PKI_OK;
    if (int error = next_header(&end, &length))
      return error;
  }
  if (*buffer_ != tag_extensions)
    return PKI_ASN1_DECODE_ERROR;
  return read_extensions(end, length);
}

int crl_decoder::read_extensions(unsigned char *end, uint32_t length) {
  const unsigned char *content = end;
  if (int error = cv_slurp_content(stream_, &end, crl_max_element_bytes, &tbs_left_, length))
    return error;
  if (tbs_left_ != 0)
    syslog(log_warning,
           "CRL-Info parse inconsistency: %u bytes left over after parsing crl-info body",
           tbs_left_);
  const unsigned char *in = content;
  extensions_ptr decoded(d2i_X509_EXTENSIONS(nullptr, &in, length));
  if (!decoded || in != end)
    return decode_failure();
  // In a header of our own: OpenSSL takes fewer forms of length than we do.
  return parts_.extensions.append_header(tag_extensions, length) &&
                 parts_.extensions.append(content, length)
             ? PKI_OK
             : PKI_OUT_OF_MEMORY;
}

int crl_decoder::end_tbs() {
  end_digest_at_cursor(stream_);
  return EVP_MD_CTX_copy_ex(request_->tbs_digest, stream_->md) == 1 ? PKI_OK : PKI_OUT_OF_MEMORY;
}

int crl_decoder::decode_signature() {
  element read;
  if (int error = read_element(&read, &outer_left_))
    return error;
  const unsigned char *in = read.data;
  x509_algor_ptr algorithm(d2i_X509_ALGOR(nullptr, &in, read.size));
  if (!algorithm)
    return decode_failure();
  if (!parts_.tail.append(read.data, read.size))
    return PKI_OUT_OF_MEMORY;
  if (int error = read_element(&read, &outer_left_))
    return error;
  in = read.data;
  asn1_bit_string_ptr signature(d2i_ASN1_BIT_STRING(nullptr, &in, read.size));
  if (!signature)
    return decode_failure();
  if (outer_left_ != 0)
    syslog(log_warning, "CRL parse inconsistency: %u bytes left over after parsing crl body",
           outer_left_);
  return parts_.tail.append(read.data, read.size) ? PKI_OK : PKI_OUT_OF_MEMORY;
}

int crl_decoder::build() {
  x509_crl_ptr crl(build_crl(parts_));
  if (!crl)
    return decode_failure();
  // Where entries inherit their issuer, their order says whose they are.
  if (!entry_issuer_)
    if (int error = sort_entries(crl.get()))
      return error;
  request_->crl = crl.release();
  return PKI_OK;
}

namespace {

int decode_list(crl_decoder *decoder, pkcs7_start *pkcs7) {
  if (pkcs7)
    if (int error = decoder->look_for_pkcs7(pkcs7))
      return error;
  return decoder->decode_tbs();
}

int decode(crl_decoder *decoder, uint32_t content_length, pkcs7_start *pkcs7, bool announce) {
  if (int error = decoder->open(content_length))
    return error;
  if (int error = decode_list(decoder, pkcs7)) {
    if (announce)
      std::puts("c");  // lint: allow puts: hosts' scripts look for it
    return error;
  }
  if (int error = decoder->decode_signature())
    return error;
  return decoder->build();
}

}  // namespace

int cv_crl_decode_crl(crl_request *request, crl_stream *stream, uint32_t content_length,
                      pkcs7_start *pkcs7) {
  request->crl = nullptr;
  request->truncated = request->look || content_length > crl_max_element_bytes;
  if (pkcs7)
    *pkcs7 = {false, 0};
  crl_decoder decoder(request, stream);
  int error = decode(&decoder, content_length, pkcs7, !request->look);
  stream->mark = nullptr;
  return error;
}

}  // namespace pki
