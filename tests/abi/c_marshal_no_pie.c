/*
 * A C host that is not position-independent: such a program may have the address of a function of
 * a shared library within itself. The library tells its own decoders by their addresses; here it
 * has to know them all the same, or it would forget or free the wrong thing when an inline choice
 * stands twice. It exits with 0 when everything is as documented; otherwise it names what is not, a
 * line each. What leaks, a sanitizer's build finds.
 */
#include <libpki/libpki.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static int failures = 0;

static void check(int holds, const char *what, int line) {
  if (holds)
    return;
  fprintf(stderr, "c_marshal_no_pie.c:%d: not so: %s\n", line, what);
  failures++;
}

#define CHECK(condition) check((condition) != 0, #condition, __LINE__)

/* ---- a record with a choice: a text, a number, a key, a list or a point ---- */

enum kind { NOTHING, TEXT, NUMBER, KEY, LIST, POINT };
enum tag {
  RECORD_START = 1,
  RECORD_END,
  CHOICE_START,
  CHOICE_END,
  TEXT_TAG,
  NUMBER_TAG,
  KEY_TAG,
  LIST_START,
  LIST_END,
  ELEMENT,
  POINT_START,
  POINT_END,
  POINT_NAME
};

typedef struct point {
  char *name;
} point;

typedef struct record {
  int kind;
  union {
    char *text;
    int number;
    EVP_PKEY *key;
    STACK *list;
    point *point;
  } value;
} record;

static int objects = 0;
static int elements_freed = 0;

static void free_element(void *element) {
  elements_freed++;
  free(element);
}

static void *new_point(void) {
  objects++;
  return calloc(1, sizeof(point));
}

static void free_point(void *object) {
  if (!object)
    return;
  objects--;
  free(((point *)object)->name);
  free(object);
}

static void *new_record(void) {
  objects++;
  return calloc(1, sizeof(record));
}

static void free_record(void *object) {
  record *of = object;
  if (!of)
    return;
  objects--;
  switch (of->kind) {
    case TEXT:
      free(of->value.text);
      break;
    case KEY:
      EVP_PKEY_free(of->value.key);
      break;
    case LIST:
      OPENSSL_sk_pop_free(of->value.list, free_element);
      break;
    case POINT:
      free_point(of->value.point);
      break;
    default:
      break;
  }
  free(of);
}

static const marshal_field point_fields[] = {
    {.offset = offsetof(point, name), .tag = POINT_NAME, .enc = enc_str, .dec = dec_str},
    {.enc = NULL, .dec = NULL},
};

static const marshal_struct_desc point_desc = {
    .end_tag = POINT_END, .ctor = new_point, .dtor = free_point, .fields = point_fields};

static const marshal_stack_desc list_desc = {
    .end_tag = LIST_END,
    .elem_free = free_element,
    .element = {.tag = ELEMENT, .enc = enc_str, .dec = dec_str},
};

static const marshal_field alternatives[] = {
    {.selector = TEXT, .tag = TEXT_TAG, .enc = enc_str, .dec = dec_str},
    {.selector = NUMBER, .tag = NUMBER_TAG, .enc = enc_int, .dec = dec_int},
    {.selector = KEY, .tag = KEY_TAG, .enc = enc_pub_key, .dec = dec_pub_key},
    {.selector = LIST,
     .tag = LIST_START,
     .enc = enc_stack,
     .enc_arg = &list_desc,
     .dec = dec_stack,
     .dec_arg = &list_desc},
    {.selector = POINT,
     .tag = POINT_START,
     .enc = enc_struct,
     .enc_arg = &point_desc,
     .dec = dec_struct,
     .dec_arg = &point_desc},
    {.enc = NULL, .dec = NULL},
};

static const marshal_choice_desc choice_desc = {
    .end_tag = CHOICE_END,
    .selector_offset = offsetof(record, kind),
    .value_offset = offsetof(record, value),
    .is_inline = 1,
    .alternatives = alternatives,
};

static const marshal_field record_fields[] = {
    {.offset = 0,
     .tag = CHOICE_START,
     .enc = enc_choice,
     .enc_arg = &choice_desc,
     .dec = dec_choice,
     .dec_arg = &choice_desc},
    {.enc = NULL, .dec = NULL},
};

static const marshal_struct_desc record_desc = {
    .end_tag = RECORD_END, .ctor = new_record, .dtor = free_record, .fields = record_fields};

static const marshal_item record_item = {.tag = RECORD_START,
                                         .enc = enc_struct,
                                         .enc_arg = &record_desc,
                                         .dec = dec_struct,
                                         .dec_arg = &record_desc};

/* ---- streams ---- */

static EVP_PKEY *pair;

static void write_empty(BIO *out, int tag) {
  CHECK(write_block(out, tag, NULL, 0) == 0);
}

static void write_choice(BIO *out, int kind) {
  int number = 0x55555555;
  unsigned char *der = NULL;
  int length;
  write_empty(out, CHOICE_START);
  switch (kind) {
    case TEXT:
      CHECK(write_block(out, TEXT_TAG, "some text", 9) == 0);
      break;
    case NUMBER:
      CHECK(enc_int(out, &number, NUMBER_TAG, NULL) == 0);
      break;
    case KEY:
      length = i2d_PUBKEY(pair, &der);
      CHECK(write_block(out, KEY_TAG, der, length) == 0);
      OPENSSL_free(der);
      break;
    case LIST:
      write_empty(out, LIST_START);
      CHECK(write_block(out, ELEMENT, "one", 3) == 0);
      CHECK(write_block(out, ELEMENT, "two", 3) == 0);
      write_empty(out, LIST_END);
      break;
    default:
      write_empty(out, POINT_START);
      CHECK(write_block(out, POINT_NAME, "here", 4) == 0);
      write_empty(out, POINT_END);
      break;
  }
  write_empty(out, CHOICE_END);
}

static void check_value(const record *of, int kind) {
  CHECK(of->kind == kind);
  if (of->kind != kind)
    return;
  switch (kind) {
    case TEXT:
      CHECK(!strcmp(of->value.text, "some text"));
      break;
    case NUMBER:
      CHECK(of->value.number == 0x55555555);
      break;
    case KEY:
      CHECK(EVP_PKEY_eq(of->value.key, pair) == 1);
      break;
    case LIST:
      CHECK(OPENSSL_sk_num(of->value.list) == 2);
      break;
    default:
      CHECK(!strcmp(of->value.point->name, "here"));
      break;
  }
}

/* The choice stands three times, each time with another alternative. */
static void check_sequence(int first, int second, int third) {
  const int kinds[] = {first, second, third};
  int lists = 0, i;
  BIO *io = NULL;
  record *read = NULL;
  CHECK(new_write_buffer(&io, 0) == 0);
  write_empty(io, RECORD_START);
  for (i = 0; i < 3; i++) {
    write_choice(io, kinds[i]);
    lists += kinds[i] == LIST;
  }
  write_empty(io, RECORD_END);
  elements_freed = 0;
  CHECK(unmarshall(io, &read, &record_item, NULL, 0) == 0);
  CHECK(read != NULL);
  if (read)
    check_value(read, third);
  free_record(read);
  CHECK(elements_freed == 2 * lists);
  CHECK(objects == 0);
  BIO_free(io);
}

static void check_round_trip(void) {
  char text[] = "some text";
  record sent, *read = NULL;
  BIO *io = NULL;
  sent.kind = TEXT;
  sent.value.text = text;
  CHECK(new_write_buffer(&io, 0) == 0);
  CHECK(marshall(io, &sent, &record_item, "MAGIC", 5) == 0);
  CHECK(unmarshall(io, &read, &record_item, "MAGIC", 5) == 0);
  if (read)
    check_value(read, TEXT);
  free_record(read);
  BIO_free(io);
}

/* ---- a choice of two structures within ---- */

typedef struct moment {
  char *name;
  time_t since;
  struct tm when;
} moment;

typedef struct slot {
  int kind;
  union {
    moment moment;
    int numbers[24];
  } value;
} slot;

static const marshal_field moment_fields[] = {
    {.offset = offsetof(moment, name), .tag = 1, .enc = enc_str, .dec = dec_str},
    {.offset = offsetof(moment, since), .tag = 2, .enc = enc_time, .dec = dec_time},
    {.offset = offsetof(moment, when), .tag = 3, .enc = enc_struct_tm, .dec = dec_struct_tm},
    {.enc = NULL, .dec = NULL},
};

static const marshal_field number_fields[] = {
    {.offset = offsetof(moment, when) + offsetof(struct tm, tm_hour),
     .tag = 1,
     .enc = enc_int,
     .dec = dec_int},
    {.enc = NULL, .dec = NULL},
};

static const marshal_struct_desc moment_desc = {
    .end_tag = 9, .is_inline = 1, .fields = moment_fields};
static const marshal_struct_desc numbers_desc = {
    .end_tag = 9, .is_inline = 1, .fields = number_fields};

static const marshal_field slot_rows[] = {
    {.selector = 1,
     .tag = 11,
     .enc = enc_struct,
     .enc_arg = &moment_desc,
     .dec = dec_struct,
     .dec_arg = &moment_desc},
    {.selector = 2,
     .tag = 12,
     .enc = enc_struct,
     .enc_arg = &numbers_desc,
     .dec = dec_struct,
     .dec_arg = &numbers_desc},
    {.enc = NULL, .dec = NULL},
};

static const marshal_choice_desc slot_desc = {
    .end_tag = 10,
    .selector_offset = offsetof(slot, kind),
    .value_offset = offsetof(slot, value),
    .is_inline = 1,
    .alternatives = slot_rows,
};

static void read_slot(BIO *io, slot *into) {
  CHECK(dec_choice(io, 13, NULL, 0, into, (void *)(uintptr_t)&slot_desc) == 0);
}

/* The host's addresses of dec_int, dec_time and dec_struct_tm are the library's. */
static void check_emptied_place(void) {
  int number = 0x41414141;
  slot here;
  BIO *io = NULL;
  memset(&here, 0, sizeof here);
  CHECK(new_write_buffer(&io, 0) == 0);
  write_empty(io, 12);
  CHECK(enc_int(io, &number, 1, NULL) == 0);
  write_empty(io, 9);
  write_empty(io, 10);
  write_empty(io, 11);
  write_empty(io, 9);
  write_empty(io, 10);
  read_slot(io, &here);
  CHECK(here.kind == 2);
  CHECK(here.value.moment.when.tm_hour == number);
  read_slot(io, &here);
  CHECK(here.kind == 1);
  CHECK(here.value.moment.when.tm_hour == 0);
  BIO_free(io);
}

/* The tables may hold OpenSSL's decoders too. */
static void check_openssl_decoder(void) {
  const unsigned char der[] = {2, 1, 5};
  const marshal_field row = {.tag = 1,
                             .enc = enc_asn1_struct,
                             .dec = dec_asn1_struct,
                             .dec_arg = MARSHAL_D2I(d2i_ASN1_INTEGER)};
  ASN1_INTEGER *number = NULL;
  CHECK(row.dec(NULL, 1, der, 3, &number, (void *)(uintptr_t)row.dec_arg) == 0);
  CHECK(number && ASN1_INTEGER_get(number) == 5);
  ASN1_INTEGER_free(number);
}

int main(void) {
  int first, second, third;
  pair = EVP_RSA_gen(1024);
  CHECK(pair != NULL);
  check_round_trip();
  check_openssl_decoder();
  check_emptied_place();
  for (first = TEXT; first <= POINT; first++)
    for (second = TEXT; second <= POINT; second++)
      for (third = TEXT; third <= POINT; third++)
        check_sequence(first, second, third);
  EVP_PKEY_free(pair);
  return failures ? 1 : 0;
}
