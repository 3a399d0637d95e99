// The table that the marshal fuzzer reads with: every kind of description, one that refers to
// itself, and envelopes.
#ifndef FUZZ_MARSHAL_FORM_H
#define FUZZ_MARSHAL_FORM_H

#include <libpki/error.h>

#include "fixed_key.h"
#include "support/marshal_record.h"

namespace fuzz {

struct node {
  support::record *record;
  node *next;
  support::note *digested;
  support::note *signed_note;
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
  std::free(of);
}

// An envelope around nothing cannot be read back.
template <marshal_enc_fn *Create>
int enc_if_there(BIO *bio, void *field, int tag, void *arg) {
  return *static_cast<void **>(field) ? Create(bio, field, tag, arg) : PKI_OK;
}

enum node_tags {
  node_start = 1,
  node_end,
  node_record,
  node_next,
  node_digest,
  node_sig,
  node_check
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
               support::last_field()} {}

  marshal_envelope_desc digest, signature;
  marshal_field fields[5];
  marshal_struct_desc desc = {0, node_end, new_node, free_node, 0, fields};
  marshal_item item = {node_start, enc_struct, &desc, dec_struct, &desc};
};

inline const node_form &form_of_nodes() {
  static const node_form form;
  return form;
}

}  // namespace fuzz

#endif
