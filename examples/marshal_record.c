/*
 * A host that keeps a record of its own in a file: a tunnel with an address inside it, a peer that
 * is a name or a number, and a list of networks, all under a digest.
 *
 *   marshal_record write FILE      writes a record
 *   marshal_record read FILE       reads it back and prints it
 *   marshal_record dump FILE       shows the stream
 *
 * Exit code 0: done, 1: the file is not what was written, 2: it cannot be read or written.
 */
#include <libpki/libpki.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { DONE = 0, REFUSED = 1, FAILED = 2 };

/* Tags: never give one another meaning once a file has been written with it. */
enum {
  TAG_ENVELOPE = 1,
  TAG_DIGEST,
  TAG_TUNNEL,
  TAG_TUNNEL_END,
  TAG_NAME,
  TAG_CREATED,
  TAG_ADDRESS,
  TAG_ADDRESS_END,
  TAG_HOST,
  TAG_PORT,
  TAG_PEER,
  TAG_PEER_END,
  TAG_PEER_NAME,
  TAG_PEER_NUMBER,
  TAG_NETWORKS,
  TAG_NETWORKS_END,
  TAG_NETWORK,
  TAG_COUNT
};
static const char *tag_names[TAG_COUNT] = {
    "EOD",      "ENVELOPE",      "DIGEST",      "TUNNEL_START",   "TUNNEL_END",   "NAME",
    "CREATED",  "ADDRESS_START", "ADDRESS_END", "HOST",           "PORT",         "PEER_START",
    "PEER_END", "PEER_NAME",     "PEER_NUMBER", "NETWORKS_START", "NETWORKS_END", "NETWORK"};

struct address {
  char *host;
  int port;
};
enum { PEER_BY_NAME = 1, PEER_BY_NUMBER };
struct peer {
  int kind;
  union {
    char *name;
    int number;
  } value;
};
struct tunnel {
  char *name;
  time_t created;
  struct address address;
  struct peer peer;
  STACK *networks; /* char * */
};

static void *new_tunnel(void) {
  return calloc(1, sizeof(struct tunnel));
}

static void free_tunnel(void *object) {
  struct tunnel *tunnel = object;
  if (!tunnel)
    return;
  free(tunnel->name);
  free(tunnel->address.host);
  if (tunnel->peer.kind == PEER_BY_NAME)
    free(tunnel->peer.value.name);
  OPENSSL_sk_pop_free(tunnel->networks, free);
  free(tunnel);
}

static const marshal_field address_fields[] = {
    {.offset = offsetof(struct address, host), .tag = TAG_HOST, .enc = enc_str, .dec = dec_str},
    {.offset = offsetof(struct address, port), .tag = TAG_PORT, .enc = enc_int, .dec = dec_int},
    {.tag = 0}};
static const marshal_struct_desc address_desc = {
    .end_tag = TAG_ADDRESS_END, .is_inline = 1, .fields = address_fields};

static const marshal_field peer_kinds[] = {
    {.selector = PEER_BY_NAME, .tag = TAG_PEER_NAME, .enc = enc_str, .dec = dec_str},
    {.selector = PEER_BY_NUMBER, .tag = TAG_PEER_NUMBER, .enc = enc_int, .dec = dec_int},
    {.tag = 0}};
static const marshal_choice_desc peer_desc = {.end_tag = TAG_PEER_END,
                                              .selector_offset = offsetof(struct peer, kind),
                                              .value_offset = offsetof(struct peer, value),
                                              .is_inline = 1,
                                              .alternatives = peer_kinds};

static const marshal_stack_desc networks_desc = {
    .end_tag = TAG_NETWORKS_END,
    .elem_free = free,
    .element = {.tag = TAG_NETWORK, .enc = enc_str, .dec = dec_str}};

static const marshal_field tunnel_fields[] = {
    {.offset = offsetof(struct tunnel, name), .tag = TAG_NAME, .enc = enc_str, .dec = dec_str},
    {.offset = offsetof(struct tunnel, created),
     .tag = TAG_CREATED,
     .enc = enc_time,
     .dec = dec_time},
    {.offset = offsetof(struct tunnel, address),
     .tag = TAG_ADDRESS,
     .enc = enc_struct,
     .enc_arg = &address_desc,
     .dec = dec_struct,
     .dec_arg = &address_desc},
    {.offset = offsetof(struct tunnel, peer),
     .tag = TAG_PEER,
     .enc = enc_choice,
     .enc_arg = &peer_desc,
     .dec = dec_choice,
     .dec_arg = &peer_desc},
    {.offset = offsetof(struct tunnel, networks),
     .tag = TAG_NETWORKS,
     .enc = enc_stack,
     .enc_arg = &networks_desc,
     .dec = dec_stack,
     .dec_arg = &networks_desc},
    {.tag = 0}};
static const marshal_struct_desc tunnel_desc = {
    .end_tag = TAG_TUNNEL_END, .ctor = new_tunnel, .dtor = free_tunnel, .fields = tunnel_fields};

static const char magic[4] = {'T', 'U', 'N', '1'};

/* The digest is asked for when it is needed: EVP_sha1() is no constant in C. */
static marshal_envelope_desc envelope(void) {
  marshal_envelope_desc desc = {.start_tag = TAG_ENVELOPE,
                                .check_tag = TAG_DIGEST,
                                .struct_tag = TAG_TUNNEL,
                                .struct_desc = &tunnel_desc,
                                .md = EVP_sha1()};
  return desc;
}

static marshal_item item_of(const marshal_envelope_desc *desc) {
  marshal_item item = {.tag = TAG_ENVELOPE,
                       .enc = create_digest,
                       .enc_arg = desc,
                       .dec = verify_digest,
                       .dec_arg = desc};
  return item;
}

static int failed(const char *what, const char *path) {
  fprintf(stderr, "marshal_record: %s %s\n", what, path);
  return FAILED;
}

static int refused(const char *path, const char *why) {
  fprintf(stderr, "marshal_record: %s is not what was written: %s\n", path, why);
  return REFUSED;
}

/* Null when memory runs out. */
static struct tunnel *example_tunnel(void) {
  struct tunnel *tunnel = new_tunnel();
  if (!tunnel)
    return NULL;
  tunnel->name = pki_strdup("headquarters");
  tunnel->created = 1700000000;
  tunnel->address.host = pki_strdup("vpn.example");
  tunnel->address.port = 4500;
  tunnel->peer.kind = PEER_BY_NUMBER;
  tunnel->peer.value.number = 1234;
  tunnel->networks = OPENSSL_sk_new_null();
  char *network = pki_strdup("192.0.2.0/24");
  if (tunnel->name && tunnel->address.host && network &&
      OPENSSL_sk_push(tunnel->networks, network) > 0)
    return tunnel;
  free(network);
  free_tunnel(tunnel);
  return NULL;
}

static int write_record(BIO *file, const char *path) {
  struct tunnel *tunnel = example_tunnel();
  if (!tunnel)
    return failed("out of memory for", path);
  marshal_envelope_desc desc = envelope();
  marshal_item item = item_of(&desc);
  int error = marshall(file, tunnel, &item, magic, sizeof magic);
  free_tunnel(tunnel);
  if (error || BIO_flush(file) <= 0)
    return failed("cannot write", path);
  return DONE;
}

/* The digest tells damage; that a field is there at all is for the host to see. */
static int is_complete(const struct tunnel *tunnel) {
  return tunnel->name && tunnel->address.host && tunnel->networks &&
         (tunnel->peer.kind != PEER_BY_NAME || tunnel->peer.value.name);
}

static void print_tunnel(const struct tunnel *tunnel) {
  printf("%s: %s port %d, created %ld\n", tunnel->name, tunnel->address.host, tunnel->address.port,
         (long)tunnel->created);
  if (tunnel->peer.kind == PEER_BY_NAME)
    printf("  peer %s\n", tunnel->peer.value.name);
  else
    printf("  peer number %d\n", tunnel->peer.value.number);
  for (int index = 0; index < OPENSSL_sk_num(tunnel->networks); index++)
    printf("  network %s\n", (const char *)OPENSSL_sk_value(tunnel->networks, index));
}

static int read_record(BIO *file, const char *path) {
  marshal_envelope_desc desc = envelope();
  marshal_item item = item_of(&desc);
  struct tunnel *tunnel = NULL;
  int error = unmarshall(file, &tunnel, &item, magic, sizeof magic);
  if (error == PKI_BIO_READ_ERROR)
    return failed("cannot read", path);
  if (error)
    return refused(path, pki_strerror((unsigned)error));
  int complete = is_complete(tunnel);
  if (complete)
    print_tunnel(tunnel);
  free_tunnel(tunnel);
  return complete ? DONE : refused(path, "a field is missing");
}

static int dump_record(BIO *file, const char *path) {
  int error = dump_raw_bio(file, sizeof magic, tag_names, TAG_COUNT);
  return error ? refused(path, pki_strerror((unsigned)error)) : DONE;
}

static const struct {
  const char *name;
  int (*run)(BIO *file, const char *path);
  const char *mode;
} commands[] = {
    {"write", write_record, "wb"}, {"read", read_record, "rb"}, {"dump", dump_record, "rb"}};

int main(int argc, char **argv) {
  for (size_t index = 0; argc == 3 && index < sizeof commands / sizeof *commands; index++) {
    if (strcmp(argv[1], commands[index].name) != 0)
      continue;
    BIO *file = BIO_new_file(argv[2], commands[index].mode);
    if (!file)
      return failed("cannot open", argv[2]);
    int result = commands[index].run(file, argv[2]);
    BIO_free(file);
    return result;
  }
  fprintf(stderr, "usage: marshal_record write|read|dump FILE\n");
  return FAILED;
}
