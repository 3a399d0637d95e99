/*
 * marshal.h: the marshal stream, a tagged binary form of a host's own structures, driven by
 * tables that the host declares, under a digest or a signature where it wants one.
 * docs/marshalling.md has a whole program, docs/marshal-format.md the format with an example octet
 * by octet.
 *
 * A stream is a run of blocks. A block is a tag (one octet), the length of its data in base 128
 * (most significant group first, 0x80 set in all octets but the last) and the data. Numbers are in
 * the byte order of the machine.
 *
 * Tags are 1 to 255; 0 marks the end of the data. Any BIO of OpenSSL serves as a stream; it is
 * used by one thread at a time. Tables are only read: they may be constant, and shared by all
 * threads. A tag outside 1 to 255 is written by its low eight bits and never found again.
 * Composites nest at most 256 deep, written or read (an envelope counts for 16 and its structure
 * for one, so 15 envelopes nest); deeper ones give 2, with a line "marshalled data is nested too
 * deep" at level 4.
 *
 * Lengths: a writer leaves out the groups of a length that are zero, inner ones too. So data of
 * 16384 octets or more is announced rightly only if no group of seven bits between the highest
 * that is set and the lowest is zero (16512 is, 16384 is not): keep what you marshal shorter.
 *
 * All functions return 0 or an error code. "2 or 9" (or another number) is 2 if OpenSSL's error
 * queue shows that memory ran out, else 9, and the queue goes to the log at level 3.
 */
#ifndef LIBPKI_MARSHAL_H
#define LIBPKI_MARSHAL_H

#include <libpki/types.h>
#include <openssl/bio.h>
#include <openssl/evp.h>

PKI_BEGIN_DECLS

/*
 * A field's encoder. `field` points at the field in the caller's object (for a field that is a
 * pointer, at that pointer), `tag` is the tag for its first block, `arg` what the table says.
 */
typedef int marshal_enc_fn(BIO *bio, void *field, int tag, void *arg);

/*
 * A field's decoder, called when the first block of the field has been read: its tag, its `len`
 * octets of data (null for none; they stay the caller's), the field to fill, and what the table
 * says. Further blocks it reads from `bio` itself.
 *
 * The object to fill has to be initialised: what it holds is freed or replaced.
 */
typedef int marshal_dec_fn(BIO *bio, int tag, const unsigned char *data, int len, void *target,
                           void *arg);

/* Make and free an object; X509_new and X509_free are such, behind a cast. */
typedef void *marshal_ctor_fn(void);
typedef void marshal_dtor_fn(void *object);

/*
 * A row of a table: a field of a structure, an alternative of a choice, the element of a stack.
 * The table ends with a row whose `enc` and `dec` are null; a row with one of them null ends it
 * for writing or for reading only. The first row that fits counts, so no tag may be there twice,
 * and no selector.
 */
typedef struct marshal_field {
#if defined(__GNUC__)
  __extension__
#endif
      union {
    int offset;   /* structure: of the field in the object, in octets; see offsetof */
    int selector; /* choice: what the selector says when this alternative is present */
  };
  int tag;             /* of the field's first block */
  marshal_enc_fn *enc; /* writes the field */
  const void *enc_arg; /* its `arg`: the description of a composite */
  marshal_dec_fn *dec; /* reads the field */
  const void *dec_arg; /* its `arg`: the description of a composite, MARSHAL_D2I(...), or null */
} marshal_field;

/* The `dec_arg` of dec_asn1_struct: OpenSSL's decoder for the type, as MARSHAL_D2I(d2i_X509). */
#ifdef __cplusplus
#define MARSHAL_D2I(d2i) (reinterpret_cast<const void *>(d2i))
#else
#define MARSHAL_D2I(d2i) ((const void *)(uintptr_t)(d2i))
#endif

/* A structure. Inline: embedded in its parent; else the field is a pointer to an object. */
typedef struct marshal_struct_desc {
  int own;     /* yours: never read */
  int end_tag; /* of the empty block that closes it */
  marshal_ctor_fn *ctor;
  marshal_dtor_fn *dtor;
  unsigned char is_inline; /* not 0: `ctor` and `dtor` are not used */
  const marshal_field *fields;
} marshal_struct_desc;

/* A tagged union. */
typedef struct marshal_choice_desc {
  int own;     /* yours: never read */
  int end_tag; /* of the empty block that closes it */
  marshal_ctor_fn *ctor;
  marshal_dtor_fn *dtor;
  int selector_offset; /* in the object, of the int that says which alternative is present */
  int value_offset;    /* in the object, of the value, the same for all alternatives */
  unsigned char is_inline;
  const marshal_field *alternatives;
} marshal_choice_desc;

/* A list of elements of one type; an element is a pointer, so it is no inline composite. */
typedef struct marshal_stack_desc {
  int own;     /* yours: never read */
  int end_tag; /* of the empty block that closes it */
  marshal_dtor_fn *elem_free;
  /* Its `enc` is given the address of an element pointer, its `dec` that of a null pointer. */
  marshal_field element;
} marshal_stack_desc;

/* What marshall and unmarshall write and read: a row without a place. */
typedef struct marshal_item {
  int tag;
  marshal_enc_fn *enc; /* enc_struct, create_digest, create_sig, ... */
  const void *enc_arg;
  marshal_dec_fn *dec; /* dec_struct, verify_digest, verify_sig, ... */
  const void *dec_arg;
} marshal_item;

/* A structure under a digest or a signature. */
typedef struct marshal_envelope_desc {
  int start_tag;  /* of the empty block that opens the envelope */
  int check_tag;  /* of the block with the digest or the signature */
  int struct_tag; /* of the structure's first block */
  /* Not inline; its `dtor` takes a null pointer too. */
  const marshal_struct_desc *struct_desc;
  const EVP_MD *md;     /* create_digest, verify_digest: EVP_sha1(); signatures: any digest */
  EVP_PKEY *sign_key;   /* create_sig */
  EVP_PKEY *verify_key; /* verify_sig */
} marshal_envelope_desc;

/*
 * Write and read a whole item: a magic, an object, the end of the data.
 *
 * marshall writes `magic_len` octets of `magic`, as they are (none if `magic` is null), `object`
 * as `item` says (its encoder gets the address of the pointer: a structure is not inline), and the
 * end of the data (two octets 0).
 *
 * unmarshall reads them back into `*target`, up to the end of the data, which stays unread.
 * `target` is the address of your pointer: null, or an object that is freed when the item's first
 * block has been read (a failure before leaves it). The tag of that block is not compared. Another
 * magic than `expected_magic` (null: none is read) gives 7 and a line at level 2 that shows both,
 * with a dot for each octet that is no printable ASCII; when memory runs out, their first 256.
 *
 * Return 0; 7 another magic; 63 a null argument, or a negative length; else what the item's encoder
 * or decoder, write_fully, read_fully and read_block return. A damaged stream is 42, with an
 * envelope 3, 4 or 29, and 2 where a damaged length is beyond any memory.
 */
PKI_API int marshall(BIO *bio, void *object, const marshal_item *item, const void *magic,
                     int magic_len);
PKI_API int unmarshall(BIO *bio, void *target, const marshal_item *item, const void *expected_magic,
                       int magic_len);

/*
 * Write and read structures, choices and stacks. `arg` is the description (marshal_struct_desc,
 * ...). All three are written as an empty block with the given tag, their content, and an empty
 * block with `end_tag`; a null object as nothing, a null stack as an empty one. Null elements are
 * left out.
 *
 * Reading takes fields in any order, and again: the last one counts. What is missing stays as
 * `ctor` (or the parent) left it. Unknown tags are skipped a block at a time, with a line at level
 * 4 each; an unknown alternative to the end of the choice, with one line. A choice without an
 * alternative leaves the object as it is. The end of the data (tag 0) ends the structure or stack
 * that it is met in, with a line at level 4, and is no failure there. A null argument, or a
 * description that lacks something, gives 63 at once and leaves the target. Any other failure, and
 * a 63 of a field's decoder, frees what was read and leaves the target null; inline objects stay as
 * far as they got.
 *
 * A choice may hold another alternative than the one that is read: its constructor's, or, where an
 * inline choice stands twice or is read again, the former one. That is freed as what it is, by the
 * alternative that the selector names. Objects of dec_asn1_struct and of decoders of your own are
 * forgotten instead: a hostile stream can make a host lose some, as many as its length allows; a
 * host that minds has them in structures that are not inline. The place is then made empty for the
 * new alternative: numbers 0, pointers null, and in a choice within a selector that names nothing
 * (0, or the first number that is not listed). So every member of an inline structure that is an
 * alternative needs a row, for what has none keeps what another alternative left; and the selector
 * of an inline choice has no row of its own (dec_int), or a stream would say what is freed.
 *
 * What decoders of your own fill, and rows that are only written, cannot be made empty. An inline
 * choice with such a row, at any depth within its alternatives, therefore keeps the alternative
 * that the stream gave it: another one gives 42, with a line "choice type %d cannot replace type
 * %d" (their tags) at level 4, and what is there stays. What a constructor chose is replaced when
 * the object is read for the first time; so a constructor leaves no object of your own decoders in
 * such a choice, and who hands such a choice to dec_choice himself gives it a selector that names
 * none.
 *
 * Return 0; 2 out of memory, or nested too deep; 42 an inline choice cannot take another
 * alternative; 63 a null argument; else what the encoders or decoders of the fields, write_block
 * and read_block return.
 */
PKI_API int enc_struct(BIO *bio, void *field, int tag, void *arg);
PKI_API int enc_choice(BIO *bio, void *field, int tag, void *arg);
PKI_API int enc_stack(BIO *bio, void *field, int tag, void *arg);
PKI_API int dec_struct(BIO *bio, int tag, const unsigned char *data, int len, void *target,
                       void *arg);
PKI_API int dec_choice(BIO *bio, int tag, const unsigned char *data, int len, void *target,
                       void *arg);
PKI_API int dec_stack(BIO *bio, int tag, const unsigned char *data, int len, void *target,
                      void *arg);

/*
 * Write and read a structure under a digest or a signature. `arg` is a marshal_envelope_desc.
 * Written as an empty block with `start_tag`, the structure, and a block with `check_tag` that
 * holds the digest or signature of all octets of the structure. The tag arguments are not used, and
 * neither the tag of the envelope nor that of the check is compared.
 *
 * verify_digest reads digests of 20 octets only (SHA-1). create_digest does not refuse an `md` of
 * another size, and what it then writes can never be read. A signature is one of `md` (EVP_sha256()
 * is a good one) by an RSA or an EC key; a key that signs no digests (Ed25519) gives 44. verify_key
 * may be a public key, and sign_key null where nothing is written.
 *
 * When reading fails, at any point, the structure is freed and the target null (63 leaves it).
 * An envelope around a null pointer is written, but cannot be read back.
 *
 * Return 0; 2; 3 the digest in the stream, or that of `md`, is not of 20 octets; 4 another digest;
 * 11, 19 no digest filter, no digest; 29 the signature does not fit, or there is no key; 43 the
 * filter has no digest; 44 cannot sign, or there is no key; 63 a null argument, or an inline
 * structure; else as enc_struct, dec_struct, write_block and read_block.
 */
PKI_API int create_digest(BIO *bio, void *field, int tag, void *arg);
PKI_API int verify_digest(BIO *bio, int tag, const unsigned char *data, int len, void *target,
                          void *arg);
PKI_API int create_sig(BIO *bio, void *field, int tag, void *arg);
PKI_API int verify_sig(BIO *bio, int tag, const unsigned char *data, int len, void *target,
                       void *arg);

/*
 * Write and read numbers and times. The types that `field` and `target` point at are in the names.
 * The data is 4 octets for an int and for a time_t, and 44 for a struct tm: nine numbers in their
 * order of the C standard (tm_sec to tm_isdst) and tm_gmtoff, of 4 octets each, then 4 octets 0.
 * Reading uses the first octets of longer data, and leaves tm_zone null. Where time_t may be of 32
 * or 64 bits, build the host as the library is built.
 * Return 0; 42 the data is shorter, nothing is stored; 63 a null argument, or a time or an offset
 * that 32 bits cannot hold, nothing is written; else as write_block.
 */
PKI_API int enc_int(BIO *bio, void *field, int tag, void *arg);
PKI_API int enc_time(BIO *bio, void *field, int tag, void *arg);
PKI_API int enc_struct_tm(BIO *bio, void *field, int tag, void *arg);
PKI_API int dec_int(BIO *bio, int tag, const unsigned char *data, int len, void *target, void *arg);
PKI_API int dec_time(BIO *bio, int tag, const unsigned char *data, int len, void *target,
                     void *arg);
PKI_API int dec_struct_tm(BIO *bio, int tag, const unsigned char *data, int len, void *target,
                          void *arg);

/*
 * Write and read a text (char *, malloc), without its NUL. Null is not written. Reading replaces a
 * text that is there, with a line at level 4. Octets 0 are not looked for. A text of 16384 octets
 * or more is written, but may not be read again, and all behind it neither: see above at "Lengths".
 * Return 0; 2; 63 a null argument; else as write_block.
 */
PKI_API int enc_str(BIO *bio, void *field, int tag, void *arg);
PKI_API int dec_str(BIO *bio, int tag, const unsigned char *data, int len, void *target, void *arg);

/*
 * Read keys (EVP_PKEY *) and what OpenSSL has a decoder for. They are never written: a stream of
 * this library carries no key. The encoders of keys still see whether the key can be converted.
 * Reading serves streams of other writers: a DER SubjectPublicKeyInfo (RFC 5280 4.1), an
 * unencrypted PKCS#8 PrivateKeyInfo (RFC 5208 5), and what `arg` decodes (see MARSHAL_D2I), which
 * may use the object that is there, so do not share it. A key that is there is replaced, unless
 * reading fails. The target of dec_asn1_struct is after a failure what `arg` left: with most of
 * OpenSSL's decoders null, the object freed; with some (d2i_PUBKEY) the object that was there.
 * Return 0; 2 or 5 no PKCS#8; 2 or 6 no key that OpenSSL knows; 2 or 8 no SubjectPublicKeyInfo; 2
 * or 15 not what `arg` decodes; 63 a null argument.
 */
PKI_API int enc_pub_key(BIO *bio, void *field, int tag, void *arg);
PKI_API int enc_prv_key(BIO *bio, void *field, int tag, void *arg);
PKI_API int enc_asn1_struct(BIO *bio, void *field, int tag, void *arg);
PKI_API int dec_pub_key(BIO *bio, int tag, const unsigned char *data, int len, void *target,
                        void *arg);
PKI_API int dec_prv_key(BIO *bio, int tag, const unsigned char *data, int len, void *target,
                        void *arg);
PKI_API int dec_asn1_struct(BIO *bio, int tag, const unsigned char *data, int len, void *target,
                            void *arg);

/*
 * Drops a composite that the host has no use for: reads blocks up to one whose tag is that of the
 * int that `arg` points to, unless `tag` is it already. Nesting does not count, nor the end of the
 * data. Returns 0; 63 `arg` is null; else as read_block.
 */
PKI_API int skip_struct(BIO *bio, int tag, const unsigned char *data, int len, void *target,
                        void *arg);

/*
 * Write and read octets and blocks, for encoders and decoders of your own.
 *
 * write_fully and write_block write all of the `len` octets; of `tag` the low eight bits. Return 0;
 * 2 or 9 the BIO did not take them; 63 a null argument, a negative length, or, for a block, one of
 * 2147483647.
 *
 * read_fully reads exactly `len` octets. Returns 0; 42 the input ended before; 2 or 10 another
 * failure of the BIO; 63 a null argument, or a negative length.
 *
 * read_block reads a block. `*data` (malloc; the caller frees it; null for length 0) receives
 * exactly `*len` octets, `*tag` 0 to 255. Returns 0; 42 the input ended (within the tag or the
 * length with a line at level 4, and also when BIO_read returns 0, wants no other try and queues no
 * error, as TLS does at its end); 2 out of memory, or a length above 2147483646; 10 as read_fully;
 * 63 a null argument. After a failure `*data` is null and `*len` 0.
 */
PKI_API int write_fully(BIO *bio, const void *buf, int len);
PKI_API int read_fully(BIO *bio, void *buf, int len);
PKI_API int write_block(BIO *bio, int tag, const void *data, int len);
PKI_API int read_block(BIO *bio, int *tag, int *len, unsigned char **data);

/*
 * Puts a digest filter of `md` in front of `*chain`, which receives the new head; takes the head
 * off and frees it. The digest itself comes from the filter (BIO_get_md_ctx): finish a copy, for
 * the filter passes nothing on once its own context is finished.
 * push_md_bio returns 0; 2 or 11 no filter; 2 or 19 no such digest; 63 `chain` is null.
 */
PKI_API int push_md_bio(BIO **chain, const EVP_MD *md);
PKI_API void pop_md_bio(BIO **chain);

/*
 * A stream in memory with room for `initial_size` octets (0 or less: 5000), which grows. The
 * caller frees `*out` (BIO_free), and with it the memory. BIO_get_mem_data tells what was written.
 * Returns 0; 2 out of memory, or above what OpenSSL allows; 2 or 11, 12 no such BIO; 63.
 */
PKI_API int new_write_buffer(BIO **out, int initial_size);

/*
 * Prints a stream on standard output: the magic of `magic_len` octets (0 to 100), then a line a
 * block, `<NAME val="HEX">`, indented. The name is `tag_names[tag]` for a tag below
 * `tag_name_count` (an entry may be null), else the number. Names that contain "START" or "start"
 * indent what follows by two blanks, up to 512, those with "END" or "end" end that.
 * Returns 0 at the end of the data (tag 0); 2 without reading for a `magic_len` above 100; 63
 * `bio` is null; else as read_fully and read_block.
 */
PKI_API int dump_raw_bio(BIO *bio, int magic_len, const char **tag_names, int tag_name_count);

/* Prints `n` blanks on standard output. */
PKI_API void indent(int n);

PKI_END_DECLS

#endif
