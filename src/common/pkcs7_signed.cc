// SignedData with authenticated attributes around an inner PKCS#7.
#include <libpki/error.h>
#include <libpki/util.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include "common/log.h"
#include "common/pkcs7.h"

namespace pki {

namespace {

constexpr int copy_chunk_bytes = 4096;

// The first contents octet behind a DER header, or null if the header leaves none.
const unsigned char *contents_octets(const unsigned char *der, int length) {
  const unsigned char *at = der;
  const unsigned char *end = der + length;
  if (at == end)
    return nullptr;
  if ((*at++ & 0x1f) == 0x1f) {
    while (at < end && (*at & 0x80))
      at++;
    if (at == end)
      return nullptr;
    at++;
  }
  if (at == end)
    return nullptr;
  int more = *at & 0x80 ? *at & 0x7f : 0;
  at++;
  return end - at > more ? at + more : nullptr;
}

int data_food(const PKCS7 *content, BIO **bio) {
  const ASN1_OCTET_STRING *data = content->d.data;
  bool has_octets = data && data->data && data->length > 0;
  *bio = has_octets ? bio_over(data->data, data->length) : BIO_new(BIO_s_null());
  return *bio ? PKI_OK : openssl_failure(PKI_BIO_CREAT_FAILED);
}

// The inner structure's own DER, without the ContentInfo around it.
struct inner_structure {
  const void *object;
  i2d_fn *i2d;
};

inner_structure inner_of(const PKCS7 *content) {
  switch (OBJ_obj2nid(content->type)) {
    case NID_pkcs7_signed:
      return {content->d.sign, reinterpret_cast<i2d_fn *>(i2d_PKCS7_SIGNED)};
    case NID_pkcs7_enveloped:
      return {content->d.enveloped, reinterpret_cast<i2d_fn *>(i2d_PKCS7_ENVELOPE)};
    default:
      return {content->d.signed_and_enveloped, reinterpret_cast<i2d_fn *>(i2d_PKCS7_SIGN_ENVELOPE)};
  }
}

int structure_food(const inner_structure &inner, BIO **bio, unsigned char **buffer) {
  if (!inner.object)
    return PKI_INVALID_DER;
  int length;
  malloc_ptr<unsigned char> der(der_encode(inner.object, inner.i2d, &length));
  if (!der)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  const unsigned char *contents = contents_octets(der.get(), length);
  if (!contents) {
    malloc_ptr<char> hex(to_hex_string(der.get(), length));
    syslog(log_error, "Invalid DER-encoding encountered! der=%s", text_or_null(hex.get()));
    return PKI_INVALID_DER;
  }
  *bio = bio_over(contents, static_cast<int>(der.get() + length - contents));
  if (!*bio)
    return openssl_failure(PKI_BIO_CREAT_FAILED);
  *buffer = der.release();
  return PKI_OK;
}

// The digest food with what it reads from.
struct food {
  malloc_ptr<unsigned char> buffer;
  bio_ptr bio;
};

int take_food(PKCS7 *content, food *out) {
  BIO *bio = nullptr;
  unsigned char *buffer = nullptr;
  int error = get_pkcs7_digest_food(content, &bio, &buffer);
  out->buffer.reset(buffer);
  out->bio.reset(bio);
  return error;
}

// A writer that cannot take all octets has run out of memory; OpenSSL's own copy would go on and
// sign what arrived.
bool copy_all(BIO *in, BIO *out) {
  unsigned char chunk[copy_chunk_bytes];
  int got;
  while ((got = BIO_read(in, chunk, sizeof chunk)) > 0)
    if (BIO_write(out, chunk, got) != got)
      return false;
  return true;
}

// Takes over `attribute`, also when it fails.
bool append_attribute(PKCS7_SIGNER_INFO *signer, X509_ATTRIBUTE *attribute) {
  if (!attribute)
    return false;
  if (!signer->auth_attr)
    signer->auth_attr = sk_X509_ATTRIBUTE_new_null();
  if (signer->auth_attr && sk_X509_ATTRIBUTE_push(signer->auth_attr, attribute) > 0)
    return true;
  X509_ATTRIBUTE_free(attribute);
  return false;
}

bool add_attributes(PKCS7_SIGNER_INFO *signer, X509_ATTRIBUTE **attributes, int count) {
  if (!append_attribute(signer, X509_ATTRIBUTE_create(NID_pkcs9_contentType, V_ASN1_OBJECT,
                                                      OBJ_nid2obj(NID_pkcs7_data))))
    return false;
  for (int i = count - 1; i >= 0; i--)
    if (!append_attribute(signer, X509_ATTRIBUTE_dup(attributes[i])))
      return false;
  return true;
}

int write_content(PKCS7 *p7, PKCS7 *content) {
  bio_chain_ptr writer(PKCS7_dataInit(p7, nullptr));
  if (!writer)
    return openssl_failure(PKI_P7_DATAINIT_FAILED);
  food in;
  if (int error = take_food(content, &in))
    return error;
  if (!copy_all(in.bio.get(), writer.get()))
    return openssl_failure(PKI_OUT_OF_MEMORY);
  if (PKCS7_dataFinal(p7, writer.get()) != 1)
    return openssl_failure(PKI_P7_DATAFINAL_FAILED);
  return PKI_OK;
}

// After a failure the content is the caller's again.
void give_back_content(PKCS7 *p7) {
  p7->d.sign->contents = nullptr;
}

// OpenSSL's signing does not notice when it runs out of memory in some places: then it signs what
// was never written, or leaves parts out that the encoding needs. Only looking again tells.
bool verifies_as_signed(PKCS7 *made, X509 *signer_cert, EVP_PKEY *key) {
  if (i2d_PKCS7(made, nullptr) < 1)
    return false;
  x509_ptr stand_in;
  if (!has_public_key(signer_cert, key)) {
    if (create_dummy_cert(key, &signer_cert) != PKI_OK)
      return false;
    stand_in.reset(signer_cert);
  }
  food content;
  if (take_food(made->d.sign->contents, &content) != PKI_OK)
    return false;
  bio_chain_ptr digests(PKCS7_dataInit(made, content.bio.get()));
  if (!digests)
    return false;
  (void)content.bio.release();  // the chain's last link now
  unsigned char chunk[copy_chunk_bytes];
  while (BIO_read(digests.get(), chunk, sizeof chunk) > 0)
    continue;
  return PKCS7_signatureVerify(digests.get(), made,
                               sk_PKCS7_SIGNER_INFO_value(made->d.sign->signer_info, 0),
                               signer_cert) == 1;
}

PKCS7_SIGNER_INFO *first_signer_info(PKCS7 *p7) {
  return sk_PKCS7_SIGNER_INFO_value(p7->d.sign->signer_info, 0);
}

bool signer_info_names(const PKCS7_SIGNER_INFO *info, const X509 *signer) {
  const PKCS7_ISSUER_AND_SERIAL *named = info->issuer_and_serial;
  return named && X509_NAME_cmp(X509_get_subject_name(signer), named->issuer) == 0 &&
         ASN1_INTEGER_cmp(X509_get0_serialNumber(signer), named->serial) == 0;
}

// Its attributes are the ones that are read, so the first SignerInfo must be the given signer's,
// under the signer's own key: a message can carry another certificate of the same name.
bool is_first_signer(PKCS7 *p7, STACK_OF(X509) * candidates, const X509 *signer) {
  if (!signer_info_names(first_signer_info(p7), signer))
    return false;
  x509_borrowed_list used(PKCS7_get0_signers(p7, candidates, 0));
  return used && sk_X509_num(used.get()) > 0 &&
         has_public_key(sk_X509_value(used.get(), 0), X509_get0_pubkey(signer));
}

X509 *carried_signer(PKCS7 *p7) {
  const PKCS7_ISSUER_AND_SERIAL *named = first_signer_info(p7)->issuer_and_serial;
  STACK_OF(X509) *carried = p7->d.sign->cert;
  return named && carried ? X509_find_by_issuer_and_serial(carried, named->issuer, named->serial)
                          : nullptr;
}

bool is_embedded_data(const food &in) {
  return !in.buffer && BIO_method_type(in.bio.get()) == BIO_TYPE_MEM;
}

int verify_signatures(PKCS7 *p7, STACK_OF(X509) * candidates) {
  food in;
  if (int error = take_food(p7->d.sign->contents, &in))
    return error;
  if (!has_bearable_signers(p7->d.sign))
    return openssl_failure(PKI_P7_VERIFY_FAILED);
  bio_ptr nowhere(BIO_new(BIO_s_null()));
  if (!nowhere)
    return openssl_failure(PKI_BIO_CREAT_FAILED);
  // OpenSSL finds data itself, and may lose what it makes of a memory BIO that it is given.
  BIO *detached = is_embedded_data(in) ? nullptr : in.bio.get();
  if (PKCS7_verify(p7, candidates, nullptr, detached, nowhere.get(), verify_flags) != 1)
    return openssl_failure(PKI_P7_VERIFY_FAILED);
  return PKI_OK;
}

}  // namespace

}  // namespace pki

using namespace pki;

int get_pkcs7_digest_food(PKCS7 *content, BIO **bio, unsigned char **buffer) {
  if (!bio || !buffer)
    return PKI_INVALID_ARGS;
  *bio = nullptr;
  *buffer = nullptr;
  if (!content || !content->type)
    return PKI_INVALID_DER;
  switch (OBJ_obj2nid(content->type)) {
    case NID_pkcs7_data:
      return data_food(content, bio);
    case NID_pkcs7_signed:
    case NID_pkcs7_enveloped:
    case NID_pkcs7_signedAndEnveloped:
      return structure_food(inner_of(content), bio, buffer);
    default:
      return PKI_UNKNOWN_P7_CONTENT_TYPE;
  }
}

int pkcs7_sign(X509 *signer_cert, EVP_PKEY *key, const EVP_MD *md, PKCS7 *content,
               X509_ATTRIBUTE **attrs, int attr_count, PKCS7 **out) {
  if (!out)
    return PKI_INVALID_ARGS;
  *out = nullptr;
  if (!signer_cert || !key || !md || !content || attr_count < 0 || (!attrs && attr_count > 0))
    return PKI_INVALID_ARGS;
  pkcs7_ptr p7(PKCS7_new());
  if (!p7 || PKCS7_set_type(p7.get(), NID_pkcs7_signed) != 1 ||
      PKCS7_content_new(p7.get(), NID_pkcs7_data) != 1 ||
      PKCS7_add_certificate(p7.get(), signer_cert) != 1)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  PKCS7_SIGNER_INFO *signer = PKCS7_add_signature(p7.get(), signer_cert, key, md);
  if (!signer || !add_attributes(signer, attrs, attr_count))
    return openssl_failure(PKI_OUT_OF_MEMORY);
  if (int error = write_content(p7.get(), content))
    return error;
  if (PKCS7_set_content(p7.get(), content) != 1)
    return openssl_failure(PKI_INTERNAL_ERROR);
  if (!verifies_as_signed(p7.get(), signer_cert, key)) {
    give_back_content(p7.get());
    return openssl_failure(PKI_OUT_OF_MEMORY);
  }
  *out = p7.release();
  return PKI_OK;
}

int pkcs7_verify(PKCS7 *p7, X509 **signer, PKCS7 **content) {
  if (!p7)
    return PKI_INVALID_ARGS;
  const PKCS7_SIGNED *signed_data = signed_data_of(p7);
  if (!signed_data)
    return PKI_NOT_SIGNED_DATA;
  if (sk_PKCS7_SIGNER_INFO_num(signed_data->signer_info) < 1)
    return PKI_NO_SIGNERS;
  X509 *given = signer ? *signer : nullptr;
  x509_borrowed_list candidates(given ? list_of(given) : nullptr);
  if (given && !candidates)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  if (int error = verify_signatures(p7, candidates.get()))
    return error;
  if (given && !is_first_signer(p7, candidates.get(), given))
    return openssl_failure(PKI_SIGNER_NOT_FOUND);
  if (signer && !given)
    *signer = carried_signer(p7);
  if (content)
    *content = signed_data->contents;
  return PKI_OK;
}
