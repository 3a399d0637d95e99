#include "tools/pkictl/state_records.h"

#include <libpki/error.h>
#include <openssl/err.h>

#include <algorithm>
#include <cstddef>
#include <new>
#include <type_traits>

#include "tools/pkictl/state_format.h"

namespace pkictl {

namespace {

// The tables place fields with offsetof.
static_assert(std::is_standard_layout_v<cert_record> && std::is_standard_layout_v<key_record> &&
              std::is_standard_layout_v<ca_record> && std::is_standard_layout_v<state_record>);

constexpr size_t chunk_bytes = 8192;
constexpr int longest_exact_length = 16383;  // of a block; see libpki/marshal.h

template <class T>
void *make_record() {
  return new (std::nothrow) T;
}

int enc_octets(BIO *bio, void *field, int tag, void * /*arg*/) {
  const auto *octets = static_cast<const std::string *>(field);
  if (int error = write_block(bio, tag, nullptr, 0))
    return error;
  for (size_t at = 0; at < octets->size(); at += chunk_bytes) {
    size_t length = std::min(chunk_bytes, octets->size() - at);
    if (int error = write_block(bio, tag_chunk, octets->data() + at, static_cast<int>(length)))
      return error;
  }
  return write_block(bio, tag_octets_end, nullptr, 0);
}

// A chunk's octets into `*octets`.
int add_chunk(const unsigned char *data, int length, std::string *octets) {
  try {
    if (length > 0)
      octets->append(data, data + length);
    return PKI_OK;
  } catch (const std::bad_alloc &) {
    return PKI_OUT_OF_MEMORY;
  }
}

int dec_octets(BIO *bio, int /*tag*/, const unsigned char * /*data*/, int /*len*/, void *target,
               void * /*arg*/) {
  auto *octets = static_cast<std::string *>(target);
  octets->clear();
  for (;;) {
    unsigned char *data = nullptr;
    int length = 0;
    int tag = 0;
    if (int error = read_block(bio, &tag, &length, &data))
      return error;
    int error = tag == tag_chunk        ? add_chunk(data, length, octets)
                : tag == tag_octets_end ? PKI_OK
                                        : PKI_INVALID_ARGS;
    free(data);
    if (error || tag == tag_octets_end)
      return error;
  }
}

int write_der(BIO *bio, int tag, unsigned char *der, int length) {
  int error = PKI_KEY_CONV_ERROR;
  if (der && length > 0)
    error = length <= longest_exact_length ? write_block(bio, tag, der, length) : PKI_INVALID_ARGS;
  ERR_clear_error();
  return error;
}

// The library's own encoders of keys write nothing, so that no host puts a key into a stream
// unawares. Here they are meant to be there.
int enc_pkcs8(BIO *bio, void *field, int tag, void * /*arg*/) {
  PKCS8_PRIV_KEY_INFO *info = EVP_PKEY2PKCS8(*static_cast<EVP_PKEY **>(field));
  unsigned char *der = nullptr;
  int length = info ? i2d_PKCS8_PRIV_KEY_INFO(info, &der) : 0;
  int error = write_der(bio, tag, der, length);
  OPENSSL_clear_free(der, length > 0 ? static_cast<size_t>(length) : 0);
  PKCS8_PRIV_KEY_INFO_free(info);
  return error;
}

int enc_spki(BIO *bio, void *field, int tag, void * /*arg*/) {
  unsigned char *der = nullptr;
  int length = i2d_PUBKEY(*static_cast<EVP_PKEY **>(field), &der);
  int error = write_der(bio, tag, der, length);
  OPENSSL_free(der);
  return error;
}

constexpr marshal_field last_row = {{0}, 0, nullptr, nullptr, nullptr, nullptr};

constexpr marshal_field row(size_t offset, int tag, marshal_enc_fn *enc, marshal_dec_fn *dec,
                            const void *desc = nullptr) {
  return {{static_cast<int>(offset)}, tag, enc, desc, dec, desc};
}

template <class T>
constexpr marshal_struct_desc record_of(int end_tag, const marshal_field *fields) {
  return {0, end_tag, make_record<T>, free_record<T>, 0, fields};
}

template <class T>
constexpr marshal_stack_desc list_of(int end_tag, int element_tag,
                                     const marshal_struct_desc *desc) {
  return {0, end_tag, free_record<T>, row(0, element_tag, enc_struct, dec_struct, desc)};
}

const marshal_field cert_fields[] = {
    row(offsetof(cert_record, label), tag_label, enc_str, dec_str),
    row(offsetof(cert_record, der), tag_der, enc_octets, dec_octets), last_row};
const marshal_struct_desc cert_desc = record_of<cert_record>(tag_cert_end, cert_fields);
const marshal_stack_desc certs_desc = list_of<cert_record>(tag_certs_end, tag_cert, &cert_desc);

const marshal_field key_fields[] = {
    row(offsetof(key_record, label), tag_label, enc_str, dec_str),
    row(offsetof(key_record, pair), tag_private_key, enc_pkcs8, dec_prv_key),
    row(offsetof(key_record, certs), tag_certs, enc_stack, dec_stack, &certs_desc), last_row};
const marshal_struct_desc key_desc = record_of<key_record>(tag_key_end, key_fields);
const marshal_stack_desc keys_desc = list_of<key_record>(tag_keys_end, tag_key, &key_desc);

const marshal_field ca_fields[] = {
    row(offsetof(ca_record, label), tag_label, enc_str, dec_str),
    row(offsetof(ca_record, url), tag_url, enc_octets, dec_octets),
    row(offsetof(ca_record, document), tag_document, enc_octets, dec_octets),
    row(offsetof(ca_record, doc_key), tag_document_key, enc_spki, dec_pub_key), last_row};
const marshal_struct_desc ca_desc = record_of<ca_record>(tag_ca_end, ca_fields);
const marshal_stack_desc cas_desc = list_of<ca_record>(tag_cas_end, tag_ca, &ca_desc);

const marshal_field state_fields[] = {
    row(offsetof(state_record, cas), tag_cas, enc_stack, dec_stack, &cas_desc),
    row(offsetof(state_record, keys), tag_keys, enc_stack, dec_stack, &keys_desc), last_row};
const marshal_struct_desc state_desc = record_of<state_record>(tag_state_end, state_fields);

marshal_envelope_desc envelope() {
  return {tag_envelope, tag_digest, tag_state, &state_desc, EVP_sha1(), nullptr, nullptr};
}

marshal_item item_of(const marshal_envelope_desc *desc) {
  return {tag_envelope, create_digest, desc, verify_digest, desc};
}

// The end of the data, and nothing behind it.
int read_end(BIO *bio) {
  unsigned char end[2] = {};
  if (int error = read_fully(bio, end, sizeof end))
    return error;
  unsigned char more = 0;
  return end[0] || end[1] || BIO_read(bio, &more, 1) > 0 ? PKI_INVALID_ARGS : PKI_OK;
}

}  // namespace

int write_state(BIO *bio, state_record *record) {
  marshal_envelope_desc desc = envelope();
  marshal_item item = item_of(&desc);
  return marshall(bio, record, &item, state_magic.data(), state_magic.size());
}

int read_state(BIO *bio, state_record **record) {
  marshal_envelope_desc desc = envelope();
  marshal_item item = item_of(&desc);
  if (int error = unmarshall(bio, record, &item, state_magic.data(), state_magic.size()))
    return error;
  return read_end(bio);
}

}  // namespace pkictl
