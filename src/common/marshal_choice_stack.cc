// Choices and stacks of the marshal stream.
#include <libpki/error.h>

#include "common/log.h"
#include "common/marshal.h"
#include "common/ossl_ptr.h"

namespace pki {

namespace {

const marshal_field *alternative_to_write(const marshal_choice_desc *desc, int selector) {
  for (const marshal_field *row = desc->alternatives; row->enc; row++)
    if (row->selector == selector)
      return row;
  return nullptr;
}

const marshal_field *alternative_to_read(const marshal_choice_desc *desc, int tag) {
  for (const marshal_field *row = desc->alternatives; row->dec; row++)
    if (row->tag == tag)
      return row;
  return nullptr;
}

int write_value(BIO *bio, void *object, const marshal_choice_desc *desc) {
  int selector = *marshal_selector(object, desc);
  const marshal_field *row = alternative_to_write(desc, selector);
  if (!row) {
    syslog(log_warning, "read unexpected tag: %d", selector);
    return PKI_OK;
  }
  void *value = marshal_place(object, desc->value_offset);
  return row->enc(bio, value, row->tag, const_cast<void *>(row->enc_arg));
}

// What a decoder of the host's fills nobody else can empty: another alternative would take for its
// own what the stream left there, now or a few alternatives later.
bool can_be_emptied(const marshal_choice_desc *desc) {
  for (const marshal_field *row = desc->alternatives; marshal_is_row(row); row++)
    if (!marshal_knows_field(row->dec, row->dec_arg))
      return false;
  return true;
}

void drop_alternative(const marshal_field *row, void *value) {
  marshal_release_field(row->dec, row->dec_arg, value);
  marshal_forget_field(row->dec, row->dec_arg, value);
}

// A choice may hold a value already: its constructor's, or, of an inline one that stands twice, the
// first one's. The decoder of another alternative would take it for one of its own.
int make_room_for_alternative(void *object, const marshal_choice_desc *desc,
                              const marshal_field *next) {
  int selector = *marshal_selector(object, desc);
  if (selector == next->selector)
    return PKI_OK;
  const marshal_field *present = marshal_row_of(desc, selector);
  if (present && !marshal_fresh::here() && !can_be_emptied(desc)) {
    syslog(log_warning, "choice type %d cannot replace type %d", next->tag, present->tag);
    return PKI_BIO_EOD;
  }
  void *value = marshal_place(object, desc->value_offset);
  if (present)
    drop_alternative(present, value);
  if (present || !marshal_fresh::here())
    marshal_forget_field(next->dec, next->dec_arg, value);
  return PKI_OK;
}

int read_value(BIO *bio, const marshal_block &block, void *object,
               const marshal_choice_desc *desc) {
  const marshal_field *row = alternative_to_read(desc, block.tag());
  if (!row) {
    syslog(log_warning, "unknown choice type %d", block.tag());
    return PKI_OK;
  }
  if (int error = make_room_for_alternative(object, desc, row))
    return error;
  *marshal_selector(object, desc) = row->selector;
  return block.decode(bio, row->dec, marshal_place(object, desc->value_offset), row->dec_arg);
}

int read_choice(BIO *bio, void *object, const marshal_choice_desc *desc) {
  marshal_block block;
  if (int error = block.read(bio))
    return error;
  if (block.tag() == desc->end_tag)
    return PKI_OK;
  if (int error = read_value(bio, block, object, desc))
    return error;
  do {
    if (int error = block.read(bio))
      return error;
  } while (block.tag() != desc->end_tag);
  return PKI_OK;
}

int read_element(BIO *bio, const marshal_block &block, STACK *elements,
                 const marshal_stack_desc *desc) {
  void *element = nullptr;
  if (int error = block.decode(bio, desc->element.dec, &element, desc->element.dec_arg))
    return error;
  if (OPENSSL_sk_push(elements, element) > 0)
    return PKI_OK;
  if (element)
    desc->elem_free(element);
  return openssl_failure(PKI_OUT_OF_MEMORY);
}

int read_elements(BIO *bio, STACK *elements, const marshal_stack_desc *desc) {
  for (;;) {
    marshal_block block;
    if (int error = block.read(bio))
      return error;
    if (block.tag() == desc->end_tag)
      return PKI_OK;
    if (block.tag() == 0) {
      syslog(log_warning, "unexpected EOD - no end-tag found");
      return PKI_OK;
    }
    if (block.tag() != desc->element.tag) {
      syslog(log_warning, "read unexpected tag: %d", block.tag());
      continue;
    }
    if (int error = read_element(bio, block, elements, desc))
      return error;
  }
}

}  // namespace

}  // namespace pki

using namespace pki;

int enc_choice(BIO *bio, void *field, int tag, void *arg) {
  const auto *desc = static_cast<const marshal_choice_desc *>(arg);
  if (!bio || !field || !desc || !desc->alternatives)
    return PKI_INVALID_ARGS;
  return marshal_write_object(bio, field, tag, desc, write_value);
}

int dec_choice(BIO *bio, int /*tag*/, const unsigned char * /*data*/, int /*len*/, void *target,
               void *arg) {
  const auto *desc = static_cast<const marshal_choice_desc *>(arg);
  if (!bio || !target || !desc || !desc->alternatives || !marshal_can_make(desc))
    return PKI_INVALID_ARGS;
  return marshal_read_object(bio, target, desc, read_choice);
}

int enc_stack(BIO *bio, void *field, int tag, void *arg) {
  const auto *desc = static_cast<const marshal_stack_desc *>(arg);
  if (!bio || !field || !desc || !desc->element.enc)
    return PKI_INVALID_ARGS;
  marshal_level level;
  if (int error = level.check())
    return error;
  if (int error = write_block(bio, tag, nullptr, 0))
    return error;
  const STACK *elements = *static_cast<STACK **>(field);
  for (int index = 0; index < OPENSSL_sk_num(elements); index++) {
    void *element = OPENSSL_sk_value(elements, index);
    if (!element)
      continue;
    void *element_arg = const_cast<void *>(desc->element.enc_arg);
    if (int error = desc->element.enc(bio, &element, desc->element.tag, element_arg))
      return error;
  }
  return write_block(bio, desc->end_tag, nullptr, 0);
}

int dec_stack(BIO *bio, int /*tag*/, const unsigned char * /*data*/, int /*len*/, void *target,
              void *arg) {
  const auto *desc = static_cast<const marshal_stack_desc *>(arg);
  if (!bio || !target || !desc || !desc->elem_free || !desc->element.dec)
    return PKI_INVALID_ARGS;
  auto *field = static_cast<STACK **>(target);
  OPENSSL_sk_pop_free(*field, desc->elem_free);
  *field = OPENSSL_sk_new_null();
  if (!*field)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  marshal_level level;
  int error = level.check();
  if (!error)
    error = read_elements(bio, *field, desc);
  if (error) {
    OPENSSL_sk_pop_free(*field, desc->elem_free);
    *field = nullptr;
  }
  return error;
}
