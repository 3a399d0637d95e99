// What a field of the marshal stream holds, known by its decoder: how it is emptied.
//
// Decoders are told by their address. A host that is not position-independent has addresses of its
// own for them, so the library has to ask the dynamic linker for them too (see
// packaging/shared_addresses.list).
#include "common/marshal.h"
#include "common/ossl_ptr.h"

namespace pki {

namespace {

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
  for (const marshal_field *row = desc->fields; row && row->dec; row++)
    marshal_release_field(row->dec, row->dec_arg, marshal_place(field, row->offset));
}

void release_choice(const marshal_choice_desc *desc, void *field) {
  if (!desc->is_inline) {
    destroy(desc->dtor, take(field));
    return;
  }
  int present = *static_cast<int *>(marshal_place(field, desc->selector_offset));
  for (const marshal_field *row = desc->alternatives; row && row->dec; row++) {
    if (row->selector != present)
      continue;
    marshal_release_field(row->dec, row->dec_arg, marshal_place(field, desc->value_offset));
    return;
  }
}

void release_stack(const marshal_stack_desc *desc, void *field) {
  if (desc->elem_free)
    OPENSSL_sk_pop_free(static_cast<STACK *>(take(field)), desc->elem_free);
}

// All alternatives: which one is there cannot be told.
void forget_choice(const marshal_choice_desc *desc, void *field) {
  for (const marshal_field *row = desc->alternatives; row && row->dec; row++)
    marshal_forget_field(row->dec, row->dec_arg, marshal_place(field, desc->value_offset));
}

void forget_struct(const marshal_struct_desc *desc, void *field) {
  for (const marshal_field *row = desc->fields; row && row->dec; row++)
    marshal_forget_field(row->dec, row->dec_arg, marshal_place(field, row->offset));
}

bool is_envelope(marshal_dec_fn *dec) {
  return dec == verify_digest || dec == verify_sig;
}

bool is_pointer(marshal_dec_fn *dec) {
  return dec == dec_str || dec == dec_pub_key || dec == dec_prv_key || dec == dec_asn1_struct ||
         dec == dec_stack || is_envelope(dec);
}

}  // namespace

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
    destroy(static_cast<const marshal_envelope_desc *>(dec_arg)->struct_desc->dtor, take(field));
}

void marshal_forget_field(marshal_dec_fn *dec, const void *dec_arg, void *field) {
  if (is_pointer(dec)) {
    take(field);
  } else if (dec == dec_struct && dec_arg) {
    const auto *desc = static_cast<const marshal_struct_desc *>(dec_arg);
    if (desc->is_inline)
      forget_struct(desc, field);
    else
      take(field);
  } else if (dec == dec_choice && dec_arg) {
    const auto *desc = static_cast<const marshal_choice_desc *>(dec_arg);
    if (desc->is_inline)
      forget_choice(desc, field);
    else
      take(field);
  }
}

}  // namespace pki
