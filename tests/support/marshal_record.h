// A record that uses every kind of description, for tests of whole items.
#ifndef TESTS_SUPPORT_MARSHAL_RECORD_H
#define TESTS_SUPPORT_MARSHAL_RECORD_H

#include "support/marshal.h"

namespace support {

// ---- encoders for keys and certificates, as another writer may have them ----

template <auto Encode, class Object>
int write_der(BIO *bio, void *field, int tag) {
  Object *object = *static_cast<Object **>(field);
  if (!object)
    return 0;
  unsigned char *out = nullptr;
  int length = Encode(object, &out);
  int code = length < 0 ? 2 : write_block(bio, tag, out, length);
  OPENSSL_free(out);
  return code;
}
inline int enc_real_pub_key(BIO *bio, void *field, int tag, void *) {
  return write_der<i2d_PUBKEY, EVP_PKEY>(bio, field, tag);
}
inline int enc_real_cert(BIO *bio, void *field, int tag, void *) {
  return write_der<i2d_X509, X509>(bio, field, tag);
}
inline int enc_real_prv_key(BIO *bio, void *field, int tag, void *) {
  EVP_PKEY *pair = *static_cast<EVP_PKEY **>(field);
  if (!pair)
    return 0;
  PKCS8_PRIV_KEY_INFO *info = EVP_PKEY2PKCS8(pair);
  int code = info ? write_der<i2d_PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO>(bio, &info, tag) : 2;
  PKCS8_PRIV_KEY_INFO_free(info);
  return code;
}

// ---- the record ----

enum record_kind { record_text = 1, record_number = 2, record_note = 3 };

struct record_choice {
  int kind;
  union {
    char *text;
    int number;
    note *aside;
  } value;
};
inline void clear_choice(record_choice *of) {
  if (of->kind == record_text)
    free(of->value.text);
  if (of->kind == record_note)
    free_note(of->value.aside);
  *of = {};
}

struct record {
  int version;
  char *name;
  time_t made;
  tm broken_down;
  note within;
  note *aside;
  record_choice choice;
  record_choice *choice_aside;
  STACK *names;
  STACK *notes;
  EVP_PKEY *public_key;
  EVP_PKEY *private_key;
  X509 *cert;
};
inline std::atomic<int> records_alive = 0;
inline void *new_record() {
  void *made = calloc(1, sizeof(record));
  if (made)
    records_alive++;
  return made;
}
inline std::atomic<int> choices_alive = 0;
inline void *new_choice() {
  void *made = calloc(1, sizeof(record_choice));
  if (made)
    choices_alive++;
  return made;
}
inline void free_choice(void *object) {
  if (!object)
    return;
  clear_choice(static_cast<record_choice *>(object));
  free(object);
  choices_alive--;
}
inline void free_record(void *object) {
  record *of = static_cast<record *>(object);
  if (!of)
    return;
  free(of->name);
  free(of->within.text);
  free_note(of->aside);
  clear_choice(&of->choice);
  free_choice(of->choice_aside);
  OPENSSL_sk_pop_free(of->names, free);
  OPENSSL_sk_pop_free(of->notes, free_note);
  EVP_PKEY_free(of->public_key);
  EVP_PKEY_free(of->private_key);
  X509_free(of->cert);
  free(of);
  records_alive--;
}

inline const marshal_field record_choice_rows[] = {
    field(record_text, 0x81, enc_str, dec_str), field(record_number, 0x82, enc_int, dec_int),
    field(record_note, 0x83, enc_struct, dec_struct, &note_desc), last_field()};
inline const marshal_choice_desc inline_choice_desc = {0,
                                                       0x84,
                                                       nullptr,
                                                       nullptr,
                                                       offsetof(record_choice, kind),
                                                       offsetof(record_choice, value),
                                                       1,
                                                       record_choice_rows};
inline const marshal_choice_desc aside_choice_desc = {0,
                                                      0x84,
                                                      new_choice,
                                                      free_choice,
                                                      offsetof(record_choice, kind),
                                                      offsetof(record_choice, value),
                                                      0,
                                                      record_choice_rows};
inline const marshal_stack_desc names_desc = {0, 0x85, free, field(0, 0x86, enc_str, dec_str)};
inline const marshal_stack_desc notes_desc = {0, 0x85, free_note,
                                              field(0, 0x87, enc_struct, dec_struct, &note_desc)};

inline const marshal_field record_fields[] = {
    field(offsetof(record, version), 0x91, enc_int, dec_int),
    field(offsetof(record, name), 0x92, enc_str, dec_str),
    field(offsetof(record, made), 0x93, enc_time, dec_time),
    field(offsetof(record, broken_down), 0x94, enc_struct_tm, dec_struct_tm),
    field(offsetof(record, within), 0x95, enc_struct, dec_struct, &inline_note_desc),
    field(offsetof(record, aside), 0x96, enc_struct, dec_struct, &note_desc),
    field(offsetof(record, choice), 0x97, enc_choice, dec_choice, &inline_choice_desc),
    field(offsetof(record, choice_aside), 0x98, enc_choice, dec_choice, &aside_choice_desc),
    field(offsetof(record, names), 0x99, enc_stack, dec_stack, &names_desc),
    field(offsetof(record, notes), 0x9a, enc_stack, dec_stack, &notes_desc),
    field(offsetof(record, public_key), 0x9b, enc_real_pub_key, dec_pub_key),
    field(offsetof(record, private_key), 0x9c, enc_real_prv_key, dec_prv_key),
    field(offsetof(record, cert), 0x9d, enc_real_cert, dec_asn1_struct, d2i(d2i_X509)),
    last_field()};
inline const marshal_struct_desc record_desc = {0, 0x9f, new_record, free_record, 0, record_fields};
inline const marshal_item record_item = {0x90, enc_struct, &record_desc, dec_struct, &record_desc};

struct record_owner {
  record *object = static_cast<record *>(new_record());
  record_owner() = default;
  ~record_owner() { free_record(object); }
  record_owner(const record_owner &) = delete;
  record_owner &operator=(const record_owner &) = delete;
};

inline note *make_note(const char *text, int number) {
  note *made = static_cast<note *>(new_note());
  made->text = strdup(text);
  made->number = number;
  return made;
}

// Gives every field a value.
inline void fill(record *of) {
  of->version = 3;
  of->name = strdup("record");
  of->made = 1700000000;
  gmtime_r(&of->made, &of->broken_down);
  of->within = {strdup("within"), 1};
  of->aside = make_note("aside", 2);
  of->choice.kind = record_text;
  of->choice.value.text = strdup("chosen");
  of->choice_aside = static_cast<record_choice *>(new_choice());
  of->choice_aside->kind = record_note;
  of->choice_aside->value.aside = make_note("chosen", 3);
  of->names = OPENSSL_sk_new_null();
  OPENSSL_sk_push(of->names, strdup("first"));
  OPENSSL_sk_push(of->names, strdup("second"));
  of->notes = OPENSSL_sk_new_null();
  OPENSSL_sk_push(of->notes, make_note("listed", 4));
  key half = public_part(test_key(0));
  EVP_PKEY_up_ref(half.get());
  of->public_key = half.get();
  of->private_key = EVP_PKEY_dup(test_key(0).get());
  of->cert = X509_dup(make_cert().get());
}

}  // namespace support

#endif
