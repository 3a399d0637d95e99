// A structure of the marshal stream under a digest or a signature.
#include <libpki/error.h>
#include <openssl/crypto.h>

#include "common/alloc.h"
#include "common/limits.h"
#include "common/log.h"
#include "common/marshal.h"
#include "common/ossl_ptr.h"

namespace pki {

namespace {

// The digest in the stream is of this size, whatever the algorithm.
constexpr int checked_digest_bytes = 20;

// The digest filter in front of a stream; gone with its scope.
class digest_filter {
 public:
  explicit digest_filter(BIO *bio) : head_(bio) {}
  digest_filter(const digest_filter &) = delete;
  digest_filter &operator=(const digest_filter &) = delete;
  ~digest_filter() {
    if (pushed_)
      pop_md_bio(&head_);
  }

  int push(const EVP_MD *md) {
    int error = push_md_bio(&head_, md);
    pushed_ = error == PKI_OK;
    return error;
  }

  // The digest so far. A copy: the filter passes nothing on once its own is finished.
  int copy_context(evp_md_ctx_ptr *copy) {
    EVP_MD_CTX *context = nullptr;
    if (BIO_get_md_ctx(head_, &context) <= 0)
      return openssl_failure(PKI_BIO_GET_MDCTX_FAILED);
    copy->reset(EVP_MD_CTX_new());
    if (!*copy || !EVP_MD_CTX_copy_ex(copy->get(), context))
      return log_reasons(PKI_OUT_OF_MEMORY);
    return PKI_OK;
  }

  [[nodiscard]] BIO *head() const { return head_; }

 private:
  BIO *head_;
  bool pushed_ = false;
};

struct digest_value {
  unsigned char octets[EVP_MAX_MD_SIZE] = {};
  unsigned size = 0;

  int finish(digest_filter *filter) {
    evp_md_ctx_ptr copy;
    if (int error = filter->copy_context(&copy))
      return error;
    if (!EVP_DigestFinal_ex(copy.get(), octets, &size))
      return openssl_failure(PKI_BIO_GET_MDCTX_FAILED);
    return PKI_OK;
  }
};

bool can_write(const marshal_envelope_desc *desc) {
  return desc && desc->struct_desc && !desc->struct_desc->is_inline && desc->struct_desc->fields;
}

bool can_read(const marshal_envelope_desc *desc) {
  return can_write(desc) && marshal_can_make(desc->struct_desc);
}

int write_digest(digest_filter *filter, const marshal_envelope_desc *desc) {
  digest_value digest;
  if (int error = digest.finish(filter))
    return error;
  return write_block(filter->head(), desc->check_tag, digest.octets, static_cast<int>(digest.size));
}

int write_signature(digest_filter *filter, const marshal_envelope_desc *desc) {
  if (!desc->sign_key)
    return PKI_SIGN_FAILED;
  evp_md_ctx_ptr copy;
  if (int error = filter->copy_context(&copy))
    return error;
  int capacity = EVP_PKEY_size(desc->sign_key);
  if (capacity <= 0)
    return openssl_failure(PKI_SIGN_FAILED);
  malloc_ptr<unsigned char> signature(
      static_cast<unsigned char *>(allocate(static_cast<size_t>(capacity))));
  if (!signature)
    return PKI_OUT_OF_MEMORY;
  unsigned size = 0;
  if (EVP_SignFinal(copy.get(), signature.get(), &size, desc->sign_key) != 1)
    return openssl_failure(PKI_SIGN_FAILED);
  return write_block(filter->head(), desc->check_tag, signature.get(), static_cast<int>(size));
}

int check_digest(digest_filter *filter, const marshal_envelope_desc *desc) {
  digest_value digest;
  if (int error = digest.finish(filter))
    return error;
  marshal_block check;
  if (int error = check.read(filter->head()))
    return error;
  if (check.len() != checked_digest_bytes || EVP_MD_size(desc->md) != checked_digest_bytes)
    return PKI_INVALID_HASH_SIZE;
  if (CRYPTO_memcmp(check.data(), digest.octets, checked_digest_bytes) != 0)
    return PKI_INVALID_HASH;
  return PKI_OK;
}

bool verifies(EVP_MD_CTX *digest, const marshal_block &signature, EVP_PKEY *key) {
  return EVP_VerifyFinal(digest, signature.data(), static_cast<unsigned>(signature.len()), key) > 0;
}

// Not every part of OpenSSL tells want of memory from a signature that does not fit: a refusal is
// believed when it was seen twice.
int check_signature(digest_filter *filter, const marshal_envelope_desc *desc) {
  if (!desc->verify_key)
    return PKI_SIG_VERIFY_FAILED;
  evp_md_ctx_ptr first, second;
  if (int error = filter->copy_context(&first))
    return error;
  if (int error = filter->copy_context(&second))
    return error;
  marshal_block signature;
  if (int error = signature.read(filter->head()))
    return error;
  ERR_set_mark();
  bool verified =
      verifies(first.get(), signature, desc->verify_key) ||
      (!openssl_malloc_failure() && verifies(second.get(), signature, desc->verify_key));
  if (!verified) {
    ERR_clear_last_mark();
    return openssl_failure(PKI_SIG_VERIFY_FAILED);
  }
  ERR_pop_to_mark();
  return PKI_OK;
}

using check_step = int(digest_filter *filter, const marshal_envelope_desc *desc);

int write_envelope(BIO *bio, void *field, const marshal_envelope_desc *desc,
                   check_step *write_check) {
  marshal_level level(marshal_envelope_levels);
  if (int error = level.check())
    return error;
  if (int error = write_block(bio, desc->start_tag, nullptr, 0))
    return error;
  digest_filter filter(bio);
  if (int error = filter.push(desc->md))
    return error;
  auto *structure = const_cast<marshal_struct_desc *>(desc->struct_desc);
  if (int error = enc_struct(filter.head(), field, desc->struct_tag, structure))
    return error;
  // cppcheck-suppress CastAddressToIntegerAtReturn; it does not see that this is a call
  return write_check(&filter, desc);
}

int read_checked(BIO *bio, void *target, const marshal_envelope_desc *desc, check_step *check) {
  marshal_level level(marshal_envelope_levels);
  if (int error = level.check())
    return error;
  digest_filter filter(bio);
  if (int error = filter.push(desc->md))
    return error;
  marshal_block start;
  if (int error = start.read(filter.head()))
    return error;
  if (int error = marshal_read_struct(filter.head(), target, desc->struct_desc))
    return error;
  // cppcheck-suppress CastAddressToIntegerAtReturn; it does not see that this is a call
  return check(&filter, desc);
}

// Nobody gets to see what was not found to be in order.
int read_envelope(BIO *bio, void *target, const marshal_envelope_desc *desc, check_step *check) {
  int error = read_checked(bio, target, desc, check);
  if (error)
    marshal_drop_object(target, desc->struct_desc);
  return error;
}

}  // namespace

}  // namespace pki

using namespace pki;

int push_md_bio(BIO **chain, const EVP_MD *md) {
  if (!chain)
    return PKI_INVALID_ARGS;
  bio_ptr filter(BIO_new(BIO_f_md()));
  if (!filter)
    return openssl_failure(PKI_BIO_CREAT_FAILED);
  if (BIO_set_md(filter.get(), md) <= 0)
    return openssl_failure(PKI_FAILED_TO_SET_MD);
  *chain = BIO_push(filter.release(), *chain);
  return PKI_OK;
}

void pop_md_bio(BIO **chain) {
  if (!chain)
    return;
  bio_ptr filter(*chain);
  *chain = BIO_pop(filter.get());
}

int create_digest(BIO *bio, void *field, int /*tag*/, void *arg) {
  const auto *desc = static_cast<const marshal_envelope_desc *>(arg);
  if (!bio || !field || !can_write(desc))
    return PKI_INVALID_ARGS;
  return write_envelope(bio, field, desc, write_digest);
}

int verify_digest(BIO *bio, int /*tag*/, const unsigned char * /*data*/, int /*len*/, void *target,
                  void *arg) {
  const auto *desc = static_cast<const marshal_envelope_desc *>(arg);
  if (!bio || !target || !can_read(desc))
    return PKI_INVALID_ARGS;
  return read_envelope(bio, target, desc, check_digest);
}

int create_sig(BIO *bio, void *field, int /*tag*/, void *arg) {
  const auto *desc = static_cast<const marshal_envelope_desc *>(arg);
  if (!bio || !field || !can_write(desc))
    return PKI_INVALID_ARGS;
  return write_envelope(bio, field, desc, write_signature);
}

int verify_sig(BIO *bio, int /*tag*/, const unsigned char * /*data*/, int /*len*/, void *target,
               void *arg) {
  const auto *desc = static_cast<const marshal_envelope_desc *>(arg);
  if (!bio || !target || !can_read(desc))
    return PKI_INVALID_ARGS;
  return read_envelope(bio, target, desc, check_signature);
}
