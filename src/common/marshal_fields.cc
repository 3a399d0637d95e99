// What a field of the marshal stream holds, known by its decoder: how it is emptied.
//
// Decoders are told by their address. A host that is not position-independent has addresses of its
// own for them, so the library has to ask the dynamic linker for them too (see
// packaging/shared_addresses.list).
#include <cstring>
#include <ctime>

#include "common/marshal.h"
#include "common/ossl_ptr.h"

namespace pki {

namespace {

// The rows of an inline composite; those of a choice have one place.
struct member_rows {
  const marshal_field *first = nullptr;
  const marshal_choice_desc *choice = nullptr;

  void *place(void *object, const marshal_field *row) const {
    return marshal_place(object, choice ? choice->value_offset : row->offset);
  }
};

member_rows rows_within(marshal_dec_fn *dec, const void *dec_arg) {
  if (dec == dec_struct && dec_arg) {
    const auto *desc = static_cast<const marshal_struct_desc *>(dec_arg);
    if (desc->is_inline)
      return {desc->fields, nullptr};
  }
  if (dec == dec_choice && dec_arg) {
    const auto *desc = static_cast<const marshal_choice_desc *>(dec_arg);
    if (desc->is_inline)
      return {desc->alternatives, desc};
  }
  return {};
}

bool is_envelope(marshal_dec_fn *dec) {
  return dec == verify_digest || dec == verify_sig;
}

bool is_composite_aside(marshal_dec_fn *dec, const void *dec_arg) {
  if (!dec_arg)
    return false;
  return (dec == dec_struct && !static_cast<const marshal_struct_desc *>(dec_arg)->is_inline) ||
         (dec == dec_choice && !static_cast<const marshal_choice_desc *>(dec_arg)->is_inline);
}

bool is_pointer(marshal_dec_fn *dec, const void *dec_arg) {
  return dec == dec_str || dec == dec_pub_key || dec == dec_prv_key || dec == dec_asn1_struct ||
         dec == dec_stack || is_envelope(dec) || is_composite_aside(dec, dec_arg);
}

// 0 for what is no single value, or not known.
size_t value_size(marshal_dec_fn *dec, const void *dec_arg) {
  if (dec == dec_int)
    return sizeof(int);
  if (dec == dec_time)
    return sizeof(time_t);
  if (dec == dec_struct_tm)
    return sizeof(struct tm);
  return is_pointer(dec, dec_arg) ? sizeof(void *) : 0;
}

int selector_of_none(const marshal_choice_desc *desc) {
  int selector = 0;
  while (marshal_row_of(desc, selector))
    selector++;
  return selector;
}

void *take(void *field) {
  auto *pointer = static_cast<void **>(field);
  void *object = *pointer;
  *pointer = nullptr;
  return object;
}

void destroy(marshal_dtor_fn *dtor, void *object) {
  if (object && dtor)
    dtor(object);
}

void release_struct(const marshal_struct_desc *desc, void *field) {
  if (!desc->is_inline) {
    destroy(desc->dtor, take(field));
    return;
  }
  for (const marshal_field *row = desc->fields; marshal_is_row(row); row++)
    marshal_release_field(row->dec, row->dec_arg, marshal_place(field, row->offset));
}

void release_choice(const marshal_choice_desc *desc, void *field) {
  if (!desc->is_inline) {
    destroy(desc->dtor, take(field));
    return;
  }
  if (const marshal_field *row = marshal_row_of(desc, *marshal_selector(field, desc)))
    marshal_release_field(row->dec, row->dec_arg, marshal_place(field, desc->value_offset));
}

void release_stack(const marshal_stack_desc *desc, void *field) {
  if (desc->elem_free)
    OPENSSL_sk_pop_free(static_cast<STACK *>(take(field)), desc->elem_free);
}

void release_envelope(const marshal_envelope_desc *desc, void *field) {
  if (desc->struct_desc)
    destroy(desc->struct_desc->dtor, take(field));
}

}  // namespace

const marshal_field *marshal_row_of(const marshal_choice_desc *desc, int selector) {
  for (const marshal_field *row = desc->alternatives; marshal_is_row(row); row++)
    if (row->selector == selector)
      return row;
  return nullptr;
}

void marshal_release_field(marshal_dec_fn *dec, const void *dec_arg, void *field) {
  if (dec == dec_str)
    std::free(take(field));
  else if (dec == dec_pub_key || dec == dec_prv_key)
    EVP_PKEY_free(static_cast<EVP_PKEY *>(take(field)));
  else if (dec == dec_stack && dec_arg)
    release_stack(static_cast<const marshal_stack_desc *>(dec_arg), field);
  else if (dec == dec_struct && dec_arg)
    release_struct(static_cast<const marshal_struct_desc *>(dec_arg), field);
  else if (dec == dec_choice && dec_arg)
    release_choice(static_cast<const marshal_choice_desc *>(dec_arg), field);
  else if (is_envelope(dec) && dec_arg)
    release_envelope(static_cast<const marshal_envelope_desc *>(dec_arg), field);
}

void marshal_forget_field(marshal_dec_fn *dec, const void *dec_arg, void *field) {
  if (size_t size = value_size(dec, dec_arg))
    std::memset(field, 0, size);
  const member_rows within = rows_within(dec, dec_arg);
  for (const marshal_field *row = within.first; marshal_is_row(row); row++)
    marshal_forget_field(row->dec, row->dec_arg, within.place(field, row));
  if (within.choice)
    *marshal_selector(field, within.choice) = selector_of_none(within.choice);
}

bool marshal_knows_field(marshal_dec_fn *dec, const void *dec_arg) {
  const member_rows within = rows_within(dec, dec_arg);
  if (!within.first)
    return dec == skip_struct || value_size(dec, dec_arg) > 0;
  for (const marshal_field *row = within.first; marshal_is_row(row); row++)
    if (!marshal_knows_field(row->dec, row->dec_arg))
      return false;
  return true;
}

}  // namespace pki
