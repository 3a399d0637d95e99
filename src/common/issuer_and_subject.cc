// IssuerAndSubject: OpenSSL has no type for the pair that a GetCertInitial names.
#include <libpki/scep_msg.h>
#include <openssl/asn1.h>
#include <openssl/err.h>

#include "common/ossl_ptr.h"

namespace pki {

namespace {

constexpr char source_name[] = "common/issuer_and_subject";

using pair_ptr = std::unique_ptr<SCEP_ISSUER_AND_SUBJECT, free_with<SCEP_ISSUER_AND_SUBJECT_free>>;

// Where decoding can fail; the number is the position in OpenSSL's error entry.
enum decode_step { step_record = 1, step_header, step_issuer, step_subject, step_end };

SCEP_ISSUER_AND_SUBJECT *decode_error(decode_step step, long offset) {
  ERR_new();
  ERR_set_debug(source_name, step, "d2i_SCEP_ISSUER_AND_SUBJECT");
  ERR_set_error(ERR_LIB_ASN1, ERR_R_NESTED_ASN1_ERROR, "address offset=%ld", offset);
  return nullptr;
}

bool decode_name(X509_NAME **name, const unsigned char **in, const unsigned char *end) {
  X509_NAME *decoded = d2i_X509_NAME(nullptr, in, end - *in);
  if (!decoded)
    return false;
  X509_NAME_free(*name);
  *name = decoded;
  return true;
}

// OpenSSL's convention for an output that is there but null: it receives the encoding itself.
int encode_into_new_memory(const SCEP_ISSUER_AND_SUBJECT *value, int total, unsigned char **out) {
  auto *made = static_cast<unsigned char *>(OPENSSL_malloc(static_cast<size_t>(total)));
  if (!made)
    return -1;
  unsigned char *end = made;
  *out = made;
  return i2d_SCEP_ISSUER_AND_SUBJECT(value, &end);
}

}  // namespace

}  // namespace pki

using namespace pki;

SCEP_ISSUER_AND_SUBJECT *SCEP_ISSUER_AND_SUBJECT_new(void) {
  auto *made = make<SCEP_ISSUER_AND_SUBJECT>();
  if (!made)
    ERR_raise(ERR_LIB_ASN1, ERR_R_MALLOC_FAILURE);
  return made;
}

void SCEP_ISSUER_AND_SUBJECT_free(SCEP_ISSUER_AND_SUBJECT *value) {
  if (!value)
    return;
  X509_NAME_free(value->issuer);
  X509_NAME_free(value->subject);
  std::free(value);
}

int i2d_SCEP_ISSUER_AND_SUBJECT(const SCEP_ISSUER_AND_SUBJECT *value, unsigned char **out) {
  if (!value)
    return 0;
  int issuer = i2d_X509_NAME(value->issuer, nullptr);
  int subject = i2d_X509_NAME(value->subject, nullptr);
  if (issuer < 1 || subject < 1)
    return 0;
  int total = ASN1_object_size(1, issuer + subject, V_ASN1_SEQUENCE);
  if (!out)
    return total;
  if (!*out)
    return encode_into_new_memory(value, total, out);
  ASN1_put_object(out, 1, issuer + subject, V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL);
  i2d_X509_NAME(value->issuer, out);
  i2d_X509_NAME(value->subject, out);
  return total;
}

SCEP_ISSUER_AND_SUBJECT *d2i_SCEP_ISSUER_AND_SUBJECT(SCEP_ISSUER_AND_SUBJECT **value,
                                                     const unsigned char **in, long len) {
  bool reuses = value && *value;
  pair_ptr made(reuses ? nullptr : SCEP_ISSUER_AND_SUBJECT_new());
  SCEP_ISSUER_AND_SUBJECT *pair = reuses ? *value : made.get();
  if (!pair)
    return decode_error(step_record, 0);
  const unsigned char *at = *in;
  long length;
  int tag;
  int tag_class;
  int form = ASN1_get_object(&at, &length, &tag, &tag_class, len);
  if (form != V_ASN1_CONSTRUCTED || tag != V_ASN1_SEQUENCE || tag_class != V_ASN1_UNIVERSAL)
    return decode_error(step_header, 0);
  const unsigned char *end = at + length;
  if (!decode_name(&pair->issuer, &at, end))
    return decode_error(step_issuer, at - *in);
  if (!decode_name(&pair->subject, &at, end))
    return decode_error(step_subject, at - *in);
  if (at != end)
    return decode_error(step_end, at - *in);
  *in = end;
  made.release();
  if (value)
    *value = pair;
  return pair;
}
