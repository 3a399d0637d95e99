// Every truncation and every change of one octet of a protected item is refused and leaves no
// object, but for the octets that nothing depends on.
#include <gtest/gtest.h>
#include <libpki/marshal.h>
#include <openssl/err.h>

#include <set>

#include "fakes/log_capture.h"
#include "support/certs.h"
#include "support/marshal_record.h"
#include "unit/common/envelope_tags.h"

namespace {

using support::block;
using support::end_of_data;
using support::note_octets;
using support::note_owner;
using support::octets_in;
using support::record;
using support::stream;
using support::stream_of;

using envelope_tags::check;
using envelope_tags::content;
using envelope_tags::start;
const char magic[] = "MAGIC";
const size_t magic_length = 5;

struct MarshalTamper : testing::Test {
  void SetUp() override { clear_log(); }
  void TearDown() override {
    support::clear_openssl_errors();
    EXPECT_EQ(support::notes_alive, notes_before);
  }

  std::string marshalled(void *object) {
    stream out = support::empty_stream();
    EXPECT_EQ(marshall(out.get(), object, &item, magic, magic_length), 0);
    return octets_in(out);
  }
  // The code of reading `octets`; what was read is freed, and there must be nothing after a
  // failure.
  int read(const std::string &octets) {
    void *target = nullptr;
    int code = unmarshall(stream_of(octets).get(), &target, &item, magic, magic_length);
    EXPECT_EQ(code == 0, target != nullptr) << code;
    if (target)
      desc.struct_desc->dtor(target);
    return code;
  }
  // The octets that may be changed without being noticed, `check_size` being the length of the
  // check block's data.
  static std::set<size_t> unprotected(const std::string &octets, size_t check_size) {
    return {
        // The envelope opens whatever block it is, so the tag says nothing.
        magic_length,
        // The digest or signature is known by its place, not by its tag.
        octets.size() - end_of_data.size() - block(check, std::string(check_size, 'x')).size(),
        // The end of the data is not read.
        octets.size() - 2,
        octets.size() - 1,
    };
  }
  void expect_truncations_refused(const std::string &octets) {
    for (size_t length = 0; length < octets.size() - end_of_data.size(); length++)
      EXPECT_NE(read(octets.substr(0, length)), 0) << length;
    // Without the end of the data, which stays unread, nothing is missing.
    EXPECT_EQ(read(octets.substr(0, octets.size() - 2)), 0);
  }
  // Changes the octet at `at` by each of `changes`.
  void expect_changes_refused(const std::string &octets, size_t at, const std::vector<int> &changes,
                              bool noticed) {
    for (int change : changes) {
      std::string other = octets;
      other[at] = static_cast<char>(other[at] ^ change);
      int code = read(other);
      EXPECT_EQ(code != 0, noticed) << "octet " << at << " changed by " << change;
      if (at < magic_length) {
        EXPECT_EQ(code, 7) << at;
      }
    }
    clear_log();
  }
  // OpenSSL takes its time with keys that were changed: a short one serves.
  static void fill_shortly(record *of) {
    support::fill(of);
    X509_free(of->cert);
    EVP_PKEY_free(of->private_key);
    EVP_PKEY_free(of->public_key);
    of->cert = nullptr;
    of->private_key = nullptr;
    of->public_key = EVP_PKEY_dup(support::make_ec_key().get());
  }
  void sign() {
    item.enc = create_sig;
    item.dec = verify_sig;
  }

  static std::vector<int> all_changes() {
    std::vector<int> changes;
    for (int change = 1; change < 256; change++)
      changes.push_back(change);
    return changes;
  }

  const int notes_before = support::notes_alive;
  support::key pair = support::test_key(0);
  support::key public_half = support::public_part(pair);
  marshal_envelope_desc desc = {start,      check,      content,          &support::note_desc,
                                EVP_sha1(), pair.get(), public_half.get()};
  marshal_item item = {start, create_digest, &desc, verify_digest, &desc};
};

TEST_F(MarshalTamper, EveryChangeOfASmallDigestEnvelope) {
  note_owner sent("a note", 42);
  const std::string octets = marshalled(sent.object);
  const std::set<size_t> free = unprotected(octets, 20);
  for (size_t at = 0; at < octets.size(); at++)
    expect_changes_refused(octets, at, all_changes(), !free.count(at));
  expect_truncations_refused(octets);
}

// What was damaged is not only told by the digest: a length may lead out of the input (42) or out
// of an int (2), or the check block away (3), and a field may not do with its data (42).
TEST_F(MarshalTamper, AChangeOfATagOrALengthIs4OrTheCodeOfWhatItLedTo) {
  note_owner sent("a note", 42);
  const std::string octets = marshalled(sent.object);
  const size_t structure_at = magic_length + block(start).size();
  const size_t structure_end = structure_at + note_octets("a note", 42).size();
  std::set<int> seen;
  for (size_t at = structure_at; at < structure_end; at++)
    for (int change : all_changes()) {
      std::string other = octets;
      other[at] = static_cast<char>(other[at] ^ change);
      int code = read(other);
      EXPECT_TRUE(code == 4 || code == 42 || code == 2 || code == 3) << at << ": " << code;
      seen.insert(code);
    }
  EXPECT_TRUE(seen.count(4) && seen.count(42));
  clear_log();
}

TEST_F(MarshalTamper, EveryChangeOfASmallSignedEnvelope) {
  sign();
  note_owner sent("a note", 42);
  const std::string octets = marshalled(sent.object);
  const std::set<size_t> free = unprotected(octets, 128);
  const size_t signature_at = octets.size() - end_of_data.size() - 128;
  for (size_t at = 0; at < octets.size(); at++)
    expect_changes_refused(octets, at,
                           at < signature_at ? all_changes() : std::vector<int>{0x01, 0x80, 0xff},
                           !free.count(at));
  expect_truncations_refused(octets);
}

TEST_F(MarshalTamper, ChangesOfABigDigestEnvelope) {
  desc.struct_desc = &support::record_desc;
  support::record_owner sent;
  fill_shortly(sent.object);
  const std::string octets = marshalled(sent.object);
  const std::set<size_t> free = unprotected(octets, 20);
  for (size_t at = 0; at < octets.size(); at++)
    expect_changes_refused(octets, at, {0x01, 0x80}, !free.count(at));
  expect_truncations_refused(octets);
}

TEST_F(MarshalTamper, ChangesOfABigSignedEnvelope) {
  sign();
  desc.struct_desc = &support::record_desc;
  support::record_owner sent;
  fill_shortly(sent.object);
  const std::string octets = marshalled(sent.object);
  const std::set<size_t> free = unprotected(octets, 128);
  for (size_t at = 0; at < octets.size(); at++)
    expect_changes_refused(octets, at, {0x02, 0x80}, !free.count(at));
  expect_truncations_refused(octets);
}

TEST_F(MarshalTamper, AnOctetMoreOrLessWithinTheEnvelopeIsNoticed) {
  note_owner sent("a note", 42);
  const std::string octets = marshalled(sent.object);
  const size_t end = octets.size() - end_of_data.size();
  for (size_t at = 0; at < end; at++) {
    EXPECT_NE(read(std::string(octets).erase(at, 1)), 0) << at;
    EXPECT_NE(read(std::string(octets).insert(at, 1, '\0')), 0) << at;
  }
}

TEST_F(MarshalTamper, MagicIsNotProtectedByTheDigest) {
  note_owner sent("a note", 42);
  std::string octets = marshalled(sent.object);
  octets.replace(0, magic_length, "OTHER");
  void *target = nullptr;
  ASSERT_EQ(unmarshall(stream_of(octets).get(), &target, &item, "OTHER", 5), 0);
  support::free_note(target);
  // A reader that expects none takes a stream without one.
  target = nullptr;
  ASSERT_EQ(unmarshall(stream_of(octets.substr(5)).get(), &target, &item, nullptr, 0), 0);
  support::free_note(target);
}

TEST_F(MarshalTamper, StructureOfOneEnvelopeDoesNotFitTheCheckOfAnother) {
  for (bool with_signature : {false, true}) {
    if (with_signature)
      sign();
    note_owner first("a note", 42), second("a vote", 42);
    const std::string one = marshalled(first.object), two = marshalled(second.object);
    const size_t check_at = magic_length + 2 + note_octets("a note", 42).size();
    EXPECT_NE(read(one.substr(0, check_at) + two.substr(check_at)), 0);
    EXPECT_EQ(read(one.substr(0, check_at) + one.substr(check_at)), 0);
  }
}

}  // namespace
