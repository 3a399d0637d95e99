// Structures of the marshal stream, how deep they nest, and how a block is skipped.
#include <libpki/error.h>

#include <cstdint>

#include "common/limits.h"
#include "common/log.h"
#include "common/marshal.h"

namespace pki {

namespace {

__attribute__((tls_model("initial-exec"))) thread_local int depth_of_this_thread = 0;
__attribute__((tls_model("initial-exec"))) thread_local bool fresh_on_this_thread = false;

class tag_set {
 public:
  // Returns whether it was there.
  bool add(int tag) {
    uint64_t &word = words_[tag / 64 % 4];
    uint64_t bit = uint64_t{1} << tag % 64;
    bool there = word & bit;
    word |= bit;
    return there;
  }

 private:
  uint64_t words_[4] = {};
};

// Rows with other tags may stand for the same place. Returns whether it was seen before.
bool mark_as_seen(const marshal_field *fields, const marshal_field *read, tag_set *seen) {
  if (seen->add(read->tag))
    return true;
  for (const marshal_field *row = fields; marshal_is_row(row); row++)
    if (row->offset == read->offset)
      seen->add(row->tag);
  return false;
}

const marshal_field *row_to_read(const marshal_field *row, int tag) {
  for (; row->dec; row++)
    if (row->tag == tag)
      return row;
  return nullptr;
}

int read_field(BIO *bio, const marshal_block &block, void *object, const marshal_field *fields,
               tag_set *seen) {
  const marshal_field *row = row_to_read(fields, block.tag());
  if (!row) {
    syslog(log_warning, "read unexpected tag: %d", block.tag());
    return PKI_OK;
  }
  bool again = mark_as_seen(fields, row, seen);
  marshal_fresh fresh(!again && marshal_fresh::here());
  return block.decode(bio, row->dec, marshal_place(object, row->offset), row->dec_arg);
}

int read_fields(BIO *bio, void *object, const marshal_struct_desc *desc) {
  tag_set seen;
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
    if (int error = read_field(bio, block, object, desc->fields, &seen))
      return error;
  }
}

int write_fields(BIO *bio, void *object, const marshal_struct_desc *desc) {
  for (const marshal_field *row = desc->fields; row->enc; row++) {
    void *place = marshal_place(object, row->offset);
    if (int error = row->enc(bio, place, row->tag, const_cast<void *>(row->enc_arg)))
      return error;
  }
  return PKI_OK;
}

}  // namespace

marshal_level::marshal_level(int weight) : weight_(weight) {
  depth_of_this_thread += weight_;
}

marshal_level::~marshal_level() {
  depth_of_this_thread -= weight_;
}

int marshal_level::check() const {
  if (depth_of_this_thread <= marshal_max_depth)
    return PKI_OK;
  syslog(log_warning, "marshalled data is nested too deep");
  return PKI_OUT_OF_MEMORY;
}

marshal_fresh::marshal_fresh(bool fresh) : before_(fresh_on_this_thread) {
  fresh_on_this_thread = fresh;
}

marshal_fresh::~marshal_fresh() {
  fresh_on_this_thread = before_;
}

bool marshal_fresh::here() {
  return fresh_on_this_thread;
}

int marshal_read_struct(BIO *bio, void *target, const marshal_struct_desc *desc) {
  if (!bio || !target || !desc || !desc->fields || !marshal_can_make(desc))
    return PKI_INVALID_ARGS;
  return marshal_read_object(bio, target, desc, read_fields);
}

}  // namespace pki

using namespace pki;

int enc_struct(BIO *bio, void *field, int tag, void *arg) {
  const auto *desc = static_cast<const marshal_struct_desc *>(arg);
  if (!bio || !field || !desc || !desc->fields)
    return PKI_INVALID_ARGS;
  return marshal_write_object(bio, field, tag, desc, write_fields);
}

int dec_struct(BIO *bio, int /*tag*/, const unsigned char * /*data*/, int /*len*/, void *target,
               void *arg) {
  return marshal_read_struct(bio, target, static_cast<const marshal_struct_desc *>(arg));
}

int skip_struct(BIO *bio, int tag, const unsigned char * /*data*/, int /*len*/, void * /*target*/,
                void *arg) {
  if (!arg)
    return PKI_INVALID_ARGS;
  int end_tag = *static_cast<const int *>(arg);
  while (tag != end_tag) {
    marshal_block block;
    if (int error = block.read(bio))
      return error;
    tag = block.tag();
  }
  return PKI_OK;
}
