// The digest and the signature themselves.
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
using support::hex;
using support::note;
using support::note_octets;
using support::note_owner;
using support::octets_in;
using support::stream;

using envelope_tags::check;
using envelope_tags::content;
using envelope_tags::start;

std::string digest_of(const std::string &octets, const EVP_MD *md) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EVP_Digest(octets.data(), octets.size(), digest, &length, md, nullptr);
  return std::string(reinterpret_cast<char *>(digest), length);
}

struct MarshalCheck : testing::Test {
  void SetUp() override {
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override {
    EXPECT_EQ(ERR_peek_error(), 0ul);
    support::clear_openssl_errors();
  }
  int write(marshal_enc_fn *create) {
    stream out = empty_stream();
    int code = create(out.get(), &sent.object, 1, support::arg(&desc));
    written = octets_in(out);
    return code;
  }
  int read(marshal_dec_fn *verify, const std::string &octets) {
    return decode(octets, verify, &target.object, &desc);
  }
  void expect_openssl_lines() {
    EXPECT_FALSE(captured_log().empty());
    for (const log_entry &entry : captured_log()) {
      EXPECT_EQ(entry.level, 3);
      EXPECT_EQ(entry.text.rfind("OpenSSL error: ", 0), 0u) << entry.text;
    }
  }
  support::key pair = support::test_key(0);
  support::key public_half = support::public_part(pair);
  marshal_envelope_desc desc = {start,      check,   content, &support::note_desc,
                                EVP_sha1(), nullptr, nullptr};
  const std::string structure = note_octets("a note", 42, content);
  const std::string opening = block(start) + structure;
  std::string written;
  note_owner sent{"a note", 42};
  note_owner target;
};

// ---- digests ----

TEST_F(MarshalCheck, DigestIsOfTheWholeStructureAndOfNothingElse) {
  for (const EVP_MD *md : {EVP_sha1(), EVP_md5(), EVP_sha256(), EVP_sha512()}) {
    desc.md = md;
    ASSERT_EQ(write(create_digest), 0);
    EXPECT_EQ(hex(written), hex(opening + block(check, digest_of(structure, md))));
  }
}

TEST_F(MarshalCheck, DigestOfNoStructureIsThatOfNothing) {
  note *none = nullptr;
  stream out = empty_stream();
  ASSERT_EQ(create_digest(out.get(), &none, 1, support::arg(&desc)), 0);
  EXPECT_EQ(octets_in(out), block(start) + block(check, digest_of("", EVP_sha1())));
}

TEST_F(MarshalCheck, AnyDigestOf20OctetsServes) {
  desc.md = EVP_ripemd160();
  ASSERT_EQ(write(create_digest), 0);
  EXPECT_EQ(read(verify_digest, written), 0);
  desc.md = EVP_sha1();
  EXPECT_EQ(read(verify_digest, written), 4);
}

TEST_F(MarshalCheck, DigestOfAnotherLengthIs3) {
  for (const EVP_MD *md : {EVP_md5(), EVP_sha224(), EVP_sha256(), EVP_sha512()}) {
    desc.md = md;
    ASSERT_EQ(write(create_digest), 0);
    EXPECT_EQ(read(verify_digest, written), 3) << EVP_MD_get0_name(md);
    EXPECT_EQ(target.object, nullptr);
    desc.md = EVP_sha1();
    EXPECT_EQ(read(verify_digest, written), 3) << EVP_MD_get0_name(md);
    EXPECT_EQ(target.object, nullptr);
  }
}

TEST_F(MarshalCheck, CheckBlockOf20OctetsDoesNotFitALongerOrShorterDigest) {
  for (const EVP_MD *md : {EVP_md5(), EVP_sha256()}) {
    desc.md = md;
    std::string first_20 = (digest_of(structure, md) + std::string(20, '\0')).substr(0, 20);
    EXPECT_EQ(read(verify_digest, opening + block(check, first_20)), 3);
    EXPECT_EQ(target.object, nullptr);
  }
}

TEST_F(MarshalCheck, CheckBlockOfAnyOtherLengthIs3) {
  std::string digest = digest_of(structure, EVP_sha1());
  for (size_t length : {0, 1, 19, 21, 40, 300}) {
    std::string value = (digest + std::string(300, 'x')).substr(0, length);
    EXPECT_EQ(read(verify_digest, opening + block(check, value)), 3) << length;
    EXPECT_EQ(target.object, nullptr);
  }
}

TEST_F(MarshalCheck, AnotherDigestIs4) {
  std::string digest = digest_of(structure, EVP_sha1());
  for (size_t at = 0; at < 20; at++) {
    std::string other = digest;
    other[at] ^= 0x10;
    EXPECT_EQ(read(verify_digest, opening + block(check, other)), 4) << at;
    EXPECT_EQ(target.object, nullptr);
  }
  EXPECT_EQ(support::notes_alive, 1);
}

TEST_F(MarshalCheck, AChangeWithinTheStructuresDataIs4) {
  ASSERT_EQ(write(create_digest), 0);
  const size_t text_at = block(start).size() + block(content).size() + 2;
  for (size_t at = text_at; at < text_at + 6; at++) {
    std::string other = written;
    other[at] ^= 1;
    EXPECT_EQ(read(verify_digest, other), 4) << at;
    EXPECT_EQ(target.object, nullptr);
  }
}

TEST_F(MarshalCheck, LengthOfTheCheckBlockMayHaveLeadingZeroGroups) {
  const std::string digest = digest_of(structure, EVP_sha1());
  EXPECT_EQ(read(verify_digest, opening + support::from_hex("218014") + digest), 0);
  EXPECT_EQ(read(verify_digest, opening + support::from_hex("21808014") + digest), 0);
}

TEST_F(MarshalCheck, StartOfTheEnvelopeMayCarryData) {
  EXPECT_EQ(read(verify_digest,
                 block(start, "x") + structure + block(check, digest_of(structure, EVP_sha1()))),
            0);
  EXPECT_STREQ(target->text, "a note");
}

TEST_F(MarshalCheck, UnknownBlocksWithinTheStructureAreDigestedToo) {
  std::string longer = block(content) + block(0x77, "unknown") + block(support::note_end);
  EXPECT_EQ(
      read(verify_digest, block(start) + longer + block(check, digest_of(longer, EVP_sha1()))), 0);
  EXPECT_TRUE(was_logged(4, "read unexpected tag: 119")) << log_dump();
}

TEST_F(MarshalCheck, StructureThatEndsWithTheEndOfTheDataIsDigestedUpToThere) {
  std::string shorter = block(content) + support::end_of_data;
  EXPECT_EQ(
      read(verify_digest, block(start) + shorter + block(check, digest_of(shorter, EVP_sha1()))),
      0);
  EXPECT_TRUE(was_logged(4, "unexpected EOD - no end-tag found")) << log_dump();
}

TEST_F(MarshalCheck, KeysAreNotNeededForADigest) {
  ASSERT_EQ(write(create_digest), 0);
  EXPECT_EQ(read(verify_digest, written), 0);
}

// ---- signatures ----

TEST_F(MarshalCheck, SignatureIsOfTheStructuresDigest) {
  for (const EVP_MD *md : {EVP_sha1(), EVP_sha256()}) {
    desc.md = md;
    desc.sign_key = pair.get();
    ASSERT_EQ(write(create_sig), 0);
    ASSERT_EQ(written.substr(0, opening.size()), opening);
    ASSERT_EQ(written.size(), opening.size() + 3 + 128);
    EXPECT_EQ(hex(written.substr(opening.size(), 3)), "218100");
    std::string signature = written.substr(opening.size() + 3);
    EVP_MD_CTX *context = EVP_MD_CTX_new();
    EVP_VerifyInit(context, md);
    EVP_VerifyUpdate(context, structure.data(), structure.size());
    EXPECT_EQ(EVP_VerifyFinal(context, reinterpret_cast<const unsigned char *>(signature.data()),
                              128, pair.get()),
              1);
    EVP_MD_CTX_free(context);
  }
}

TEST_F(MarshalCheck, SignatureIsWrittenWithItsActualLength) {
  support::key curve = support::make_ec_key();
  desc.sign_key = desc.verify_key = curve.get();
  desc.md = EVP_sha256();
  bool shorter = false;
  for (int i = 0; i < 300 && !shorter; i++) {
    ASSERT_EQ(write(create_sig), 0);
    const unsigned length = static_cast<unsigned char>(written[opening.size() + 1]);
    EXPECT_EQ(written.size(), opening.size() + 2 + length);
    shorter = length < static_cast<unsigned>(EVP_PKEY_get_size(curve.get()));
    ASSERT_EQ(read(verify_sig, written), 0);
  }
  EXPECT_TRUE(shorter) << "a signature shorter than the longest was never made";
}

TEST_F(MarshalCheck, SignatureOfTheOtherKeyIs29) {
  support::key other = support::public_part(support::test_key(1));
  desc.sign_key = pair.get();
  ASSERT_EQ(write(create_sig), 0);
  desc.verify_key = other.get();
  EXPECT_EQ(read(verify_sig, written), 29);
  EXPECT_EQ(target.object, nullptr);
  expect_openssl_lines();
  desc.verify_key = public_half.get();
  EXPECT_EQ(read(verify_sig, written), 0);
}

TEST_F(MarshalCheck, WhatIsNoSignatureIs29) {
  desc.verify_key = public_half.get();
  for (const std::string &junk :
       {std::string(), std::string("x"), std::string(128, '\1'), std::string(300, 'x')}) {
    EXPECT_EQ(read(verify_sig, opening + block(check, junk)), 29) << junk.size();
    EXPECT_EQ(target.object, nullptr);
  }
  support::key curve = support::make_ec_key();
  desc.verify_key = curve.get();
  for (const std::string &junk : {std::string(), std::string("x"), std::string(71, '\x30')})
    EXPECT_EQ(read(verify_sig, opening + block(check, junk)), 29) << junk.size();
}

TEST_F(MarshalCheck, SignatureUnderAnotherDigestIs29) {
  desc.sign_key = pair.get();
  desc.verify_key = public_half.get();
  ASSERT_EQ(write(create_sig), 0);
  desc.md = EVP_sha256();
  EXPECT_EQ(read(verify_sig, written), 29);
}

TEST_F(MarshalCheck, ADigestIsNoSignature) {
  desc.verify_key = public_half.get();
  ASSERT_EQ(write(create_digest), 0);
  EXPECT_EQ(read(verify_sig, written), 29);
  EXPECT_EQ(target.object, nullptr);
}

TEST_F(MarshalCheck, KeyThatCannotSignIs44) {
  desc.sign_key = public_half.get();
  EXPECT_EQ(write(create_sig), 44);
  EXPECT_EQ(written, opening) << "no check block";
  expect_openssl_lines();
}

TEST_F(MarshalCheck, KeyWithoutASizeIs44) {
  support::key empty(EVP_PKEY_new(), EVP_PKEY_free);
  desc.sign_key = empty.get();
  EXPECT_EQ(write(create_sig), 44);
  EXPECT_EQ(written, opening) << "no check block";
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(write(create_sig), 2);
}

TEST_F(MarshalCheck, OutOfMemoryInOpensslsQueueIsThatCode) {
  desc.sign_key = public_half.get();
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(write(create_sig), 2);
  desc.verify_key = public_half.get();
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(read(verify_sig, opening + block(check, "junk")), 2);
  EXPECT_EQ(target.object, nullptr);
}

TEST_F(MarshalCheck, NoKeyIs44And29) {
  EXPECT_EQ(write(create_sig), 44);
  EXPECT_EQ(read(verify_sig, opening + block(check, "junk")), 29);
  EXPECT_EQ(target.object, nullptr);
}

}  // namespace
