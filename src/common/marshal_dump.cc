// The marshal stream for people to read. The one place that prints: it is asked to.
#include <libpki/error.h>
#include <libpki/util.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "common/alloc.h"
#include "common/limits.h"
#include "common/marshal.h"

namespace pki {

namespace {

bool mentions(const char *name, const char *upper_case, const char *lower_case) {
  return std::strstr(name, upper_case) || std::strstr(name, lower_case);
}

void indent_line(int level) {
  indent(level < dump_max_indent ? level : dump_max_indent);
}

void print_named(const char *name, const char *value, int *level) {
  if (mentions(name, "END", "end")) {
    if (*level < 1)
      std::puts("ERROR: found end-tag but level is 0");  // lint: allow puts: a dump is printed
    else
      *level -= 2;
  }
  indent_line(*level);
  std::printf("<%s val=\"%s\">\n", name, value);  // lint: allow printf: a dump is printed
  if (mentions(name, "START", "start") && *level < INT_MAX - 1)
    *level += 2;
}

void print_numbered(int tag, const char *value, int level) {
  indent_line(level);
  // lint: allow printf: a dump is printed
  std::printf("<%u val=\"%s\">\n", static_cast<unsigned>(tag), value);
}

int print_magic(BIO *bio, int len) {
  char magic[dump_max_magic_bytes + 1] = {};
  if (int error = read_fully(bio, magic, len))
    return error;
  // lint: allow printf: a dump is printed
  std::printf("magic: `%.*s'\n", len, magic);
  return PKI_OK;
}

}  // namespace

}  // namespace pki

using namespace pki;

void indent(int n) {
  if (n > 0)
    std::printf("%*s", n, "");  // lint: allow printf: a dump is printed
}

int dump_raw_bio(BIO *bio, int magic_len, const char **tag_names, int tag_name_count) {
  if (!bio)
    return PKI_INVALID_ARGS;
  if (magic_len > dump_max_magic_bytes)
    return PKI_OUT_OF_MEMORY;
  if (int error = print_magic(bio, magic_len))
    return error;
  int level = 0;
  marshal_block block;
  do {
    if (int error = block.read(bio))
      return error;
    malloc_ptr<char> hex(to_hex_string(block.data(), block.len()));
    const char *value = hex ? hex.get() : "no-mem";
    const char *name = tag_names && block.tag() < tag_name_count ? tag_names[block.tag()] : nullptr;
    if (name)
      print_named(name, value, &level);
    else
      print_numbered(block.tag(), value, level);
  } while (block.tag() != 0);
  return PKI_OK;
}
