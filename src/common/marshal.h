// What the parts of the marshal stream share.
#ifndef PKI_COMMON_MARSHAL_H
#define PKI_COMMON_MARSHAL_H

#include <libpki/error.h>
#include <libpki/marshal.h>

#include <cstdlib>

#include "common/log.h"

namespace pki {

// A block off a stream. Its data may be a secret of the host's, so it is not left behind.
class marshal_block {
 public:
  marshal_block() = default;
  marshal_block(const marshal_block &) = delete;
  marshal_block &operator=(const marshal_block &) = delete;
  ~marshal_block() { release(); }

  // Returns what read_block does; what was held before is freed.
  [[nodiscard]] int read(BIO *bio) {
    release();
    return read_block(bio, &tag_, &len_, &data_);
  }

  // Hands the block to a decoder.
  [[nodiscard]] int decode(BIO *bio, marshal_dec_fn *dec, void *target, const void *arg) const {
    return dec(bio, tag_, data_, len_, target, const_cast<void *>(arg));
  }

  [[nodiscard]] int tag() const { return tag_; }
  [[nodiscard]] int len() const { return len_; }
  [[nodiscard]] const unsigned char *data() const { return data_; }

 private:
  void release() {
    if (!data_)
      return;
    OPENSSL_cleanse(data_, static_cast<size_t>(len_));
    std::free(data_);
    data_ = nullptr;
  }

  int tag_ = 0;
  int len_ = 0;
  unsigned char *data_ = nullptr;
};

// One level of a composite. Composites nest by recursion, and a stream says how deep.
class marshal_level {
 public:
  explicit marshal_level(int weight = 1);
  marshal_level(const marshal_level &) = delete;
  marshal_level &operator=(const marshal_level &) = delete;
  ~marshal_level();

  // PKI_OUT_OF_MEMORY, and logged, when this level is too deep.
  [[nodiscard]] int check() const;

 private:
  int weight_;
};

// Whether the fields that are being read are as a constructor left them: in an object that was made
// for this stream, and for the first time there. Else what is in them may come from a stream.
class marshal_fresh {
 public:
  explicit marshal_fresh(bool fresh);
  marshal_fresh(const marshal_fresh &) = delete;
  marshal_fresh &operator=(const marshal_fresh &) = delete;
  ~marshal_fresh();
  [[nodiscard]] static bool here();

 private:
  bool before_;
};

// A place inside of an object.
[[nodiscard]] inline void *marshal_place(void *object, int offset) {
  return static_cast<char *>(object) + offset;
}

// An object that its parent points at, or embeds.
template <class Desc>
[[nodiscard]] void *marshal_object(void *field, const Desc *desc) {
  return desc->is_inline ? field : *static_cast<void **>(field);
}

template <class Desc>
[[nodiscard]] bool marshal_can_make(const Desc *desc) {
  return desc->is_inline || (desc->ctor && desc->dtor);
}

// A fresh object in place of what the target points at; the target itself for an inline one.
// Null, and a null target, when there is none.
template <class Desc>
[[nodiscard]] void *marshal_fresh_object(void *target, const Desc *desc) {
  if (desc->is_inline)
    return target;
  auto *pointer = static_cast<void **>(target);
  if (*pointer)
    desc->dtor(*pointer);
  return *pointer = desc->ctor();
}

// After a failure; an inline object stays as far as it got.
template <class Desc>
void marshal_drop_object(void *target, const Desc *desc) {
  if (desc->is_inline)
    return;
  auto *pointer = static_cast<void **>(target);
  desc->dtor(*pointer);
  *pointer = nullptr;
}

// A start block, what `write` writes of the object, and an end block; for a null object nothing.
template <class Desc, class Write>
[[nodiscard]] int marshal_write_object(BIO *bio, void *field, int tag, const Desc *desc,
                                       Write write) {
  void *object = marshal_object(field, desc);
  if (!object)
    return PKI_OK;
  marshal_level level;
  if (int error = level.check())
    return error;
  if (int error = write_block(bio, tag, nullptr, 0))
    return error;
  if (int error = write(bio, object, desc))
    return error;
  return write_block(bio, desc->end_tag, nullptr, 0);
}

// A fresh object that `read` fills, or none.
template <class Desc, class Read>
[[nodiscard]] int marshal_read_object(BIO *bio, void *target, const Desc *desc, Read read) {
  void *object = marshal_fresh_object(target, desc);
  if (!object)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  marshal_level level;
  marshal_fresh fresh(!desc->is_inline || marshal_fresh::here());
  int error = level.check();
  if (!error)
    error = read(bio, object, desc);
  if (error)
    marshal_drop_object(target, desc);
  return error;
}

// dec_struct, whatever function of that name a host may have.
[[nodiscard]] int marshal_read_struct(BIO *bio, void *target, const marshal_struct_desc *desc);

// A table ends with a row that is neither written nor read.
[[nodiscard]] inline bool marshal_is_row(const marshal_field *row) {
  return row && (row->enc || row->dec);
}

// The alternative that a selector names, or null.
[[nodiscard]] const marshal_field *marshal_row_of(const marshal_choice_desc *desc, int selector);

[[nodiscard]] inline int *marshal_selector(void *object, const marshal_choice_desc *desc) {
  return static_cast<int *>(marshal_place(object, desc->selector_offset));
}

// Frees what a field that `dec` fills holds, as what it is.
void marshal_release_field(marshal_dec_fn *dec, const void *dec_arg, void *field);
// Makes such a field empty, with what it holds left alone because it may be of another type: zeros
// and null pointers, and a selector that names nothing.
void marshal_forget_field(marshal_dec_fn *dec, const void *dec_arg, void *field);
// Whether forgetting empties all of the field: it has no decoder of the host's in it.
[[nodiscard]] bool marshal_knows_field(marshal_dec_fn *dec, const void *dec_arg);

}  // namespace pki

#endif
