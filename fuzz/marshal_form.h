// The table that the marshal fuzzer reads with: every kind of description, one that refers to
// itself, and envelopes.
#ifndef FUZZ_MARSHAL_FORM_H
#define FUZZ_MARSHAL_FORM_H

#include <libpki/error.h>

#include "fixed_key.h"
#include "invariant.h"
#include "support/marshal_record.h"

namespace fuzz {

// ---- an inline choice whose alternatives are structures, or a choice, within ----

using support::inner_choice;

struct event {
  char *name;
  time_t since;
  tm when;
};
struct numbers {
  int values[24];
};
enum varied_kind { varied_event = 1, varied_numbers, varied_choice, varied_text };
// The selector of a text lists 0, which names nothing elsewhere.
enum inner_kind { inner_text, inner_number };
struct varied {
  int kind;
  union {
    event event;
    numbers numbers;
    inner_choice choice;
    char *text;
  } value;
};

inline void clear_varied(varied *of) {
  if (of->kind == varied_event)
    std::free(of->value.event.name);
  if (of->kind == varied_choice && of->value.choice.kind == inner_text)
    std::free(of->value.choice.value.text);
  if (of->kind == varied_text)
    std::free(of->value.text);
}

inline const marshal_field event_fields[] = {
    support::field(offsetof(event, name), 0x21, enc_str, dec_str),
    support::field(offsetof(event, since), 0x22, enc_time, dec_time),
    support::field(offsetof(event, when), 0x23, enc_struct_tm, dec_struct_tm),
    support::last_field()};
inline const marshal_struct_desc event_desc = {0, 0x2f, nullptr, nullptr, 1, event_fields};

// The first, one in a pointer's place, and the last.
inline const marshal_field number_fields[] = {
    support::field(0, 0x31, enc_int, dec_int),
    support::field(offsetof(event, when) + offsetof(tm, tm_zone), 0x32, enc_int, dec_int),
    support::field(sizeof(int[23]), 0x33, enc_int, dec_int), support::last_field()};
inline const marshal_struct_desc numbers_desc = {0, 0x3f, nullptr, nullptr, 1, number_fields};

inline const marshal_field inner_rows[] = {support::field(inner_text, 0x41, enc_str, dec_str),
                                           support::field(inner_number, 0x42, enc_int, dec_int),
                                           support::last_field()};
inline const marshal_choice_desc inner_desc = {
    0, 0x4f,      nullptr, nullptr, offsetof(inner_choice, kind), offsetof(inner_choice, value),
    1, inner_rows};

inline const marshal_field varied_rows[] = {
    support::field(varied_event, 0x51, enc_struct, dec_struct, &event_desc),
    support::field(varied_numbers, 0x52, enc_struct, dec_struct, &numbers_desc),
    support::field(varied_choice, 0x53, enc_choice, dec_choice, &inner_desc),
    support::field(varied_text, 0x54, enc_str, dec_str), support::last_field()};
inline const marshal_choice_desc varied_desc = {
    0, 0x5f, nullptr, nullptr, offsetof(varied, kind), offsetof(varied, value), 1, varied_rows};

// ---- an inline choice with decoders of the host's ----

// Which decoder made it.
struct box {
  int maker;
};

// Finds a box of its own, or none.
template <int Maker>
int dec_box(BIO *, int, const unsigned char *, int, void *target, void *) {
  auto **field = static_cast<box **>(target);
  require(!*field || (*field)->maker == Maker, "another's object is never found");
  std::free(*field);
  *field = static_cast<box *>(std::malloc(sizeof(box)));
  if (!*field)
    return PKI_OUT_OF_MEMORY;
  (*field)->maker = Maker;
  return PKI_OK;
}
inline int enc_box(BIO *bio, void *field, int tag, void *) {
  return *static_cast<box **>(field) ? write_block(bio, tag, nullptr, 0) : PKI_OK;
}

struct shelf {
  char *label;
  box *on_it;
};
enum hosted_kind { hosted_box = 1, hosted_numbers, hosted_shelf, hosted_other_box };
struct hosted {
  int kind;
  union {
    box *box;
    numbers numbers;
    shelf shelf;
  } value;
};

inline void clear_hosted(hosted *of) {
  if (of->kind == hosted_box || of->kind == hosted_other_box)
    std::free(of->value.box);
  if (of->kind == hosted_shelf) {
    std::free(of->value.shelf.label);
    std::free(of->value.shelf.on_it);
  }
}

inline const marshal_field shelf_fields[] = {
    support::field(offsetof(shelf, label), 0x61, enc_str, dec_str),
    support::field(offsetof(shelf, on_it), 0x62, enc_box, dec_box<hosted_shelf>),
    support::last_field()};
inline const marshal_struct_desc shelf_desc = {0, 0x6f, nullptr, nullptr, 1, shelf_fields};

inline const marshal_field hosted_rows[] = {
    support::field(hosted_box, 0x71, enc_box, dec_box<hosted_box>),
    support::field(hosted_numbers, 0x72, enc_struct, dec_struct, &numbers_desc),
    support::field(hosted_shelf, 0x73, enc_struct, dec_struct, &shelf_desc),
    support::field(hosted_other_box, 0x74, enc_box, dec_box<hosted_other_box>),
    support::last_field()};
inline const marshal_choice_desc hosted_desc = {
    0, 0x7f, nullptr, nullptr, offsetof(hosted, kind), offsetof(hosted, value), 1, hosted_rows};

// ---- nodes ----

struct node {
  support::record *record;
  node *next;
  support::note *digested;
  support::note *signed_note;
  varied varied;
  hosted hosted;
};

inline void *new_node() {
  return std::calloc(1, sizeof(node));
}
inline void free_node(void *object) {
  auto *of = static_cast<node *>(object);
  if (!of)
    return;
  support::free_record(of->record);
  free_node(of->next);
  support::free_note(of->digested);
  support::free_note(of->signed_note);
  clear_varied(&of->varied);
  clear_hosted(&of->hosted);
  std::free(of);
}

// An envelope around nothing cannot be read back.
template <marshal_enc_fn *Create>
int enc_if_there(BIO *bio, void *field, int tag, void *arg) {
  return *static_cast<void **>(field) ? Create(bio, field, tag, arg) : PKI_OK;
}

inline int enc_nothing(BIO *, void *, int, void *) {
  return PKI_OK;
}

enum node_tags {
  node_start = 1,
  node_end,
  node_record,
  node_next,
  node_digest,
  node_sig,
  node_check,
  node_varied,
  node_hosted,
  node_hosted_again
};

// Made once a process: a key and a digest are no constants.
struct node_form {
  node_form()
      : digest{node_digest, node_check, support::note_start, &support::note_desc, EVP_sha1(),
               nullptr,     nullptr},
        signature{node_sig,     node_check,        support::note_start, &support::note_desc,
                  EVP_sha256(), fixed_key().get(), fixed_key().get()},
        fields{support::field(offsetof(node, record), node_record, enc_struct, dec_struct,
                              &support::record_desc),
               support::field(offsetof(node, next), node_next, enc_struct, dec_struct, &desc),
               support::field(offsetof(node, digested), node_digest, enc_if_there<create_digest>,
                              verify_digest, &digest),
               support::field(offsetof(node, signed_note), node_sig, enc_if_there<create_sig>,
                              verify_sig, &signature),
               support::field(offsetof(node, varied), node_varied, enc_choice, dec_choice,
                              &varied_desc),
               support::field(offsetof(node, hosted), node_hosted, enc_choice, dec_choice,
                              &hosted_desc),
               support::field(offsetof(node, hosted), node_hosted_again, enc_nothing, dec_choice,
                              &hosted_desc),
               support::last_field()} {}

  marshal_envelope_desc digest, signature;
  marshal_field fields[8];
  marshal_struct_desc desc = {0, node_end, new_node, free_node, 0, fields};
  marshal_item item = {node_start, enc_struct, &desc, dec_struct, &desc};
};

inline const node_form &form_of_nodes() {
  static const node_form form;
  return form;
}

}  // namespace fuzz

#endif
