// What envelopes with a digest and with a signature have in common.
#include <gtest/gtest.h>
#include <libpki/marshal.h>
#include <openssl/err.h>

#include "fakes/log_capture.h"
#include "support/certs.h"
#include "support/marshal.h"
#include "unit/common/envelope_tags.h"

namespace {

using support::block;
using support::decode;
using support::empty_stream;
using support::end_of_data;
using support::field;
using support::hex;
using support::int_block;
using support::last_field;
using support::note;
using support::note_octets;
using support::note_owner;
using support::octets_in;
using support::stream;
using support::stream_of;

using envelope_tags::check;
using envelope_tags::content;
using envelope_tags::start;

struct protection {
  const char *name;
  marshal_enc_fn *create;
  marshal_dec_fn *verify;
  size_t check_size;
};

int dtor_calls = 0;
bool dtor_saw_null = false;
void counting_dtor(void *object) {
  dtor_calls++;
  dtor_saw_null |= !object;
  support::free_note(object);
}
const marshal_struct_desc counted = {0, support::note_end,   support::new_note, counting_dtor,
                                     0, support::note_fields};

struct MarshalEnvelope : testing::TestWithParam<protection> {
  void SetUp() override {
    support::clear_openssl_errors();
    clear_log();
    dtor_calls = 0;
    dtor_saw_null = false;
  }
  void TearDown() override {
    EXPECT_EQ(ERR_peek_error(), 0ul);
    support::clear_openssl_errors();
  }
  // What `create` says, and what it wrote.
  int write(note *object) {
    stream out = empty_stream();
    int code = GetParam().create(out.get(), &object, 0x7777, support::arg(&desc));
    written = octets_in(out);
    return code;
  }
  int read(const std::string &octets) {
    return decode(octets, GetParam().verify, &target.object, &desc);
  }
  support::key pair = support::test_key(0);
  support::key public_half = support::public_part(pair);
  marshal_envelope_desc desc = {start,      check,      content,          &counted,
                                EVP_sha1(), pair.get(), public_half.get()};
  std::string written;
  note_owner sent{"a note", 42};
  note_owner target;
};

TEST_P(MarshalEnvelope, IsAnEmptyStartTheStructureAndACheckBlock) {
  ASSERT_EQ(write(sent.object), 0);
  const std::string opening = block(start) + note_octets("a note", 42, content);
  EXPECT_EQ(hex(written.substr(0, opening.size())), hex(opening));
  EXPECT_EQ(written[opening.size()], check);
}

TEST_P(MarshalEnvelope, ComesBackAndIsReadToItsEnd) {
  ASSERT_EQ(write(sent.object), 0);
  stream in = stream_of(written + block(9));
  EXPECT_EQ(decode(in.get(), GetParam().verify, &target.object, &desc), 0);
  EXPECT_STREQ(target->text, "a note");
  EXPECT_EQ(target->number, 42);
  EXPECT_EQ(octets_in(in), block(9));
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_P(MarshalEnvelope, GoesThroughMarshallAndUnmarshall) {
  const marshal_item item = {1, GetParam().create, &desc, GetParam().verify, &desc};
  stream io = empty_stream();
  ASSERT_EQ(marshall(io.get(), sent.object, &item, "MAGIC", 5), 0);
  ASSERT_EQ(unmarshall(io.get(), &target.object, &item, "MAGIC", 5), 0);
  EXPECT_STREQ(target->text, "a note");
  EXPECT_EQ(octets_in(io), end_of_data);
}

TEST_P(MarshalEnvelope, FiltersAreGoneAfterwards) {
  stream io = empty_stream();
  note *object = sent.object;
  ASSERT_EQ(GetParam().create(io.get(), &object, 1, support::arg(&desc)), 0);
  EXPECT_EQ(BIO_next(io.get()), nullptr);
  EXPECT_EQ(BIO_find_type(io.get(), BIO_TYPE_MD), nullptr);
  ASSERT_EQ(write_block(io.get(), 9, "behind", 6), 0);
  ASSERT_EQ(decode(io.get(), GetParam().verify, &target.object, &desc), 0);
  EXPECT_EQ(BIO_find_type(io.get(), BIO_TYPE_MD), nullptr);
  EXPECT_EQ(octets_in(io), block(9, "behind"));
  EXPECT_EQ(decode("", GetParam().verify, &target.object, &desc), 42);
}

TEST_P(MarshalEnvelope, NullObjectIsAnEnvelopeOfNothing) {
  ASSERT_EQ(write(nullptr), 0);
  EXPECT_EQ(hex(written.substr(0, 3)), hex(block(start) + std::string(1, check)));
}

TEST_P(MarshalEnvelope, TagsOfStartStructureAndCheckAreNotCompared) {
  ASSERT_EQ(write(sent.object), 0);
  const size_t check_at = block(start).size() + note_octets("a note", 42).size();
  for (size_t at : {size_t{0}, check_at}) {
    std::string other = written;
    other[at] = 0x66;
    EXPECT_EQ(read(other), 0) << at;
  }
  // The structure's own tag is not compared either, but it is protected.
  marshal_envelope_desc elsewhere = desc;
  elsewhere.struct_tag = 0x55;
  elsewhere.start_tag = 0x56;
  elsewhere.check_tag = 0x57;
  EXPECT_EQ(decode(written, GetParam().verify, &target.object, &elsewhere), 0);
}

TEST_P(MarshalEnvelope, ObjectThatIsThereIsReplaced) {
  ASSERT_EQ(write(sent.object), 0);
  note_owner there("old", 1);
  int before = support::notes_alive;
  EXPECT_EQ(decode(written, GetParam().verify, &there.object, &desc), 0);
  EXPECT_STREQ(there->text, "a note");
  EXPECT_EQ(support::notes_alive, before);
}

TEST_P(MarshalEnvelope, AFailureAnywhereLeavesNullAndFreesTheObjectThatWasThere) {
  ASSERT_EQ(write(sent.object), 0);
  for (size_t length = 2; length < written.size(); length++) {
    note_owner there("old", 1);
    int others = support::notes_alive - 1;
    EXPECT_EQ(decode(written.substr(0, length), GetParam().verify, &there.object, &desc), 42);
    EXPECT_EQ(there.object, nullptr) << length;
    EXPECT_EQ(support::notes_alive, others) << length;
  }
}

TEST_P(MarshalEnvelope, DestructorTakesANullWhereNothingWasRead) {
  EXPECT_EQ(read(block(start)), 42);
  EXPECT_EQ(dtor_calls, 1);
  EXPECT_TRUE(dtor_saw_null);
}

TEST_P(MarshalEnvelope, AFailureInTheStructureKeepsItsCode) {
  EXPECT_EQ(read(block(start) + block(content) + block(support::note_number, "abc")), 42);
  EXPECT_EQ(target.object, nullptr);
  EXPECT_EQ(read(block(start) + block(content) + support::from_hex("128880808000")), 2);
  EXPECT_EQ(target.object, nullptr);
}

TEST_P(MarshalEnvelope, AFieldsFailureEndsItAndTakesTheFilterOff) {
  const marshal_field fields[] = {
      field(0, 1, support::enc_fails_with_77, support::dec_fails_with_77), last_field()};
  const marshal_struct_desc failing = {0, 2, support::new_note, support::free_note, 0, fields};
  desc.struct_desc = &failing;
  stream out = empty_stream();
  note *object = sent.object;
  EXPECT_EQ(GetParam().create(out.get(), &object, 1, support::arg(&desc)), 77);
  EXPECT_EQ(octets_in(out), block(start) + block(content));
  EXPECT_EQ(BIO_find_type(out.get(), BIO_TYPE_MD), nullptr);
  EXPECT_EQ(read(block(start) + block(content) + block(1)), 77);
  EXPECT_EQ(target.object, nullptr);
}

// The callback of a BIO can refuse what the filter is asked.
long refuse_context(BIO *, int operation, const char *, size_t, int command, long, int result,
                    size_t *) {
  return operation == BIO_CB_CTRL && command == BIO_C_GET_MD_CTX ? 0 : result;
}
int enc_spoils_filter(BIO *bio, void *, int, void *) {
  BIO_set_callback_ex(bio, refuse_context);
  return 0;
}
int dec_spoils_filter(BIO *bio, int, const unsigned char *, int, void *, void *) {
  BIO_set_callback_ex(bio, refuse_context);
  return 0;
}
const marshal_field spoiling_fields[] = {field(0, 1, enc_spoils_filter, dec_spoils_filter),
                                         last_field()};
const marshal_struct_desc spoiling = {
    0, 2, support::new_note, support::free_note, 0, spoiling_fields};

TEST_P(MarshalEnvelope, FilterWithoutADigestIs43) {
  desc.struct_desc = &spoiling;
  EXPECT_EQ(write(sent.object), 43);
  EXPECT_EQ(written, block(start) + block(content) + block(2)) << "no check block";
  EXPECT_EQ(read(block(start) + block(content) + block(1) + block(2) + block(check)), 43);
  EXPECT_EQ(target.object, nullptr);
}

TEST_P(MarshalEnvelope, FilterWithoutADigestIsOutOfMemoryWhenOpensslSaysSo) {
  desc.struct_desc = &spoiling;
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(write(sent.object), 2);
  EXPECT_TRUE(logged_containing(3, "malloc failure")) << log_dump();
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(read(block(start) + block(content) + block(1) + block(2) + block(check)), 2);
}

TEST_P(MarshalEnvelope, DigestThatOpensslCannotMakeIs19) {
  for (const EVP_MD *md : {static_cast<const EVP_MD *>(nullptr), EVP_whirlpool()}) {
    desc.md = md;
    clear_log();
    EXPECT_EQ(write(sent.object), 19);
    EXPECT_EQ(written, block(start));
    target.object = static_cast<note *>(support::new_note());
    EXPECT_EQ(read(block(start) + note_octets("a note", 42) + block(check)), 19);
    EXPECT_EQ(target.object, nullptr);
    for (const log_entry &entry : captured_log())
      EXPECT_EQ(entry.level, 3);
  }
}

TEST_P(MarshalEnvelope, StreamThatTakesNoMoreIs9WhereverThatIs) {
  ASSERT_EQ(write(sent.object), 0);
  for (size_t room = 0; room < written.size(); room++) {
    support::script of;
    of.writes_left = room;
    stream out = support::scripted(&of);
    note *object = sent.object;
    EXPECT_EQ(GetParam().create(out.get(), &object, 1, support::arg(&desc)), 9) << room;
    EXPECT_EQ(BIO_find_type(out.get(), BIO_TYPE_MD), nullptr);
  }
}

TEST_P(MarshalEnvelope, StreamsOfOneOctetACallServe) {
  support::script to;
  stream out = support::scripted(&to);
  note *object = sent.object;
  ASSERT_EQ(GetParam().create(out.get(), &object, 1, support::arg(&desc)), 0);
  support::script from{.input = to.output};
  EXPECT_EQ(decode(support::scripted(&from).get(), GetParam().verify, &target.object, &desc), 0);
  EXPECT_STREQ(target->text, "a note");
}

struct wrapper {
  int number;
  note *inner;
};
void *new_wrapper() {
  return calloc(1, sizeof(wrapper));
}
void free_wrapper(void *object) {
  if (object)
    support::free_note(static_cast<wrapper *>(object)->inner);
  free(object);
}

TEST_P(MarshalEnvelope, AnEnvelopeWithinAnEnvelopeIsProtectedByBoth) {
  const marshal_field fields[] = {
      field(offsetof(wrapper, number), 0x30, enc_int, dec_int),
      field(offsetof(wrapper, inner), start, GetParam().create, GetParam().verify, &desc),
      last_field()};
  const marshal_struct_desc outer_desc = {0, 0x31, new_wrapper, free_wrapper, 0, fields};
  marshal_envelope_desc outer = desc;
  outer.struct_desc = &outer_desc;
  wrapper object = {5, sent.object}, *address = &object, *back = nullptr;
  stream io = empty_stream();
  ASSERT_EQ(GetParam().create(io.get(), &address, 1, support::arg(&outer)), 0);
  const std::string octets = octets_in(io);
  const size_t check_at =
      octets.size() - block(check, std::string(GetParam().check_size, 'x')).size();
  ASSERT_EQ(decode(octets, GetParam().verify, &back, &outer), 0);
  EXPECT_STREQ(back->inner->text, "a note");
  free_wrapper(back);
  for (size_t at = 1; at < octets.size(); at++) {
    std::string other = octets;
    other[at] ^= 4;
    back = nullptr;
    if (decode(other, GetParam().verify, &back, &outer) == 0) {
      EXPECT_EQ(at, check_at) << "only the outer check block's tag is unprotected";
    } else {
      EXPECT_EQ(back, nullptr) << at;
    }
    free_wrapper(back);
  }
}

TEST_P(MarshalEnvelope, InlineStructuresAndNullArgumentsAreRefused) {
  stream io = empty_stream();
  note *object = sent.object;
  target.object = static_cast<note *>(support::new_note());
  note *before = target.object;
  auto create = [&](BIO *bio, void *from, void *how) {
    return GetParam().create(bio, from, 1, how);
  };
  auto verify = [&](BIO *bio, void *to, void *how) {
    return GetParam().verify(bio, 1, nullptr, 0, to, how);
  };
  EXPECT_EQ(create(nullptr, &object, &desc), 63);
  EXPECT_EQ(create(io.get(), nullptr, &desc), 63);
  EXPECT_EQ(create(io.get(), &object, nullptr), 63);
  EXPECT_EQ(verify(nullptr, &target.object, &desc), 63);
  EXPECT_EQ(verify(io.get(), nullptr, &desc), 63);
  EXPECT_EQ(verify(io.get(), &target.object, nullptr), 63);
  desc.struct_desc = &support::inline_note_desc;
  EXPECT_EQ(create(io.get(), &object, &desc), 63);
  EXPECT_EQ(verify(io.get(), &target.object, &desc), 63);
  desc.struct_desc = nullptr;
  EXPECT_EQ(create(io.get(), &object, &desc), 63);
  EXPECT_EQ(verify(io.get(), &target.object, &desc), 63);
  EXPECT_EQ(octets_in(io), "");
  EXPECT_EQ(target.object, before) << "left as it was";
}

INSTANTIATE_TEST_SUITE_P(With, MarshalEnvelope,
                         testing::Values(protection{"Digest", create_digest, verify_digest, 20},
                                         protection{"Signature", create_sig, verify_sig, 128}),
                         [](const auto &of) { return of.param.name; });

}  // namespace
