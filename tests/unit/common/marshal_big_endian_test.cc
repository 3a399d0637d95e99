// A stream that a big-endian machine wrote: tests/data/README.md says how. Numbers are in the byte
// order of the machine, so a little-endian one reads and writes its numbers turned round, and
// everything else as it is.
#include <gtest/gtest.h>
#include <libpki/marshal.h>

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

#include "fakes/log_capture.h"
#include "support/marshal_record.h"
#include "unit/common/envelope_tags.h"

namespace {

using support::block;
using support::hex;
using support::make_note;
using support::record;
using support::record_choice;
using support::record_desc;
using support::stream;

using envelope_tags::check;
using envelope_tags::content;
using envelope_tags::start;
const std::string big_magic = "BIG\x01";
const std::string name = "r\xc3\xa9sum\xc3\xa9";
constexpr int lowest = std::numeric_limits<int>::min();
constexpr int32_t moment = 1700000000;  // 2023-11-14T22:13:20Z, a Tuesday, day 317 of its year

std::string octets_of(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}
std::string committed() {
  return octets_of(TEST_DATA_DIR "/marshal_big_endian.bin");
}
std::string cert_octets() {
  return octets_of(SOURCE_DIR "/roots/public/pca3_g3.der");
}
// RFC 8410 section 10.3's key.
std::string private_key_octets() {
  return support::from_hex("302e020100300506032b657004220420") +
         support::from_hex("d4ee72dbf913584ad5b6d8f1f769f8ad3afe7c28cbf1d4fbe097a88f44755842");
}

// The number that has the octets which `number` has on a big-endian machine.
int32_t here(int32_t number) {
  if constexpr (std::endian::native == std::endian::big)
    return number;
  return static_cast<int32_t>(__builtin_bswap32(static_cast<uint32_t>(number)));
}

tm broken_down_here() {
  tm of = {};
  of.tm_sec = here(20);
  of.tm_min = here(13);
  of.tm_hour = here(22);
  of.tm_mday = here(14);
  of.tm_mon = here(10);
  of.tm_year = here(123);
  of.tm_wday = here(2);
  of.tm_yday = here(317);
  of.tm_isdst = here(-1);
  of.tm_gmtoff = here(-3600);
  return of;
}

void fill_here(record *of) {
  const std::string cert = cert_octets();
  const std::string key = private_key_octets();
  const unsigned char *at = reinterpret_cast<const unsigned char *>(cert.data());
  of->version = here(3);
  of->name = strdup(name.c_str());
  of->made = here(moment);
  of->broken_down = broken_down_here();
  of->within = {strdup(""), here(-1)};
  of->aside = make_note("aside", here(lowest));
  of->choice.kind = support::record_number;
  of->choice.value.number = here(0x01020304);
  of->choice_aside = static_cast<record_choice *>(support::new_choice());
  of->choice_aside->kind = support::record_note;
  of->choice_aside->value.aside = make_note(std::string(300, 'n').c_str(), here(65535));
  of->names = OPENSSL_sk_new_null();
  OPENSSL_sk_push(of->names, strdup("first"));
  OPENSSL_sk_push(of->names, strdup("second"));
  of->notes = OPENSSL_sk_new_null();
  OPENSSL_sk_push(of->notes, make_note("listed", here(256)));
  of->cert = d2i_X509(nullptr, &at, static_cast<long>(cert.size()));
  of->public_key = X509_get_pubkey(of->cert);
  at = reinterpret_cast<const unsigned char *>(key.data());
  of->private_key = d2i_AutoPrivateKey(nullptr, &at, static_cast<long>(key.size()));
}

const marshal_envelope_desc record_envelope = {start,      check,   content, &record_desc,
                                               EVP_sha1(), nullptr, nullptr};
const marshal_item item = {start, create_digest, &record_envelope, verify_digest, &record_envelope};

std::string written_here() {
  support::record_owner sent;
  fill_here(sent.object);
  stream out = support::empty_stream();
  EXPECT_EQ(
      marshall(out.get(), sent.object, &item, big_magic.data(), static_cast<int>(big_magic.size())),
      0);
  return support::octets_in(out);
}

int read_here(const std::string &octets, support::record_owner *into) {
  return unmarshall(support::stream_of(octets).get(), &into->object, &item, big_magic.data(),
                    static_cast<int>(big_magic.size()));
}

// ---- the stream as docs/marshal-format.md has it, put together by hand ----

std::string number(int32_t value) {
  std::string octets;
  for (int shift = 24; shift >= 0; shift -= 8)
    octets += static_cast<char>(static_cast<uint32_t>(value) >> shift);
  return octets;
}

std::string der_of(EVP_PKEY *key) {
  unsigned char *der = nullptr;
  int length = i2d_PUBKEY(key, &der);
  std::string octets(reinterpret_cast<char *>(der), length > 0 ? static_cast<size_t>(length) : 0);
  OPENSSL_free(der);
  return octets;
}

std::string note_block(int tag, const std::string &text, int32_t value) {
  return block(tag) + block(support::note_text, text) + block(support::note_number, number(value)) +
         block(support::note_end);
}

std::string structure_by_hand() {
  std::string time_parts;
  for (int part : {20, 13, 22, 14, 10, 123, 2, 317, -1, -3600, 0})
    time_parts += number(part);
  support::record_owner keys;
  fill_here(keys.object);
  return block(content) + block(0x91, number(3)) + block(0x92, name) + block(0x93, number(moment)) +
         block(0x94, time_parts) + note_block(0x95, "", -1) + note_block(0x96, "aside", lowest) +
         block(0x97) + block(0x82, number(0x01020304)) + block(0x84) + block(0x98) +
         note_block(0x83, std::string(300, 'n'), 65535) + block(0x84) + block(0x99) +
         block(0x86, "first") + block(0x86, "second") + block(0x85) + block(0x9a) +
         note_block(0x87, "listed", 256) + block(0x85) +
         block(0x9b, der_of(keys.object->public_key)) + block(0x9c, private_key_octets()) +
         block(0x9d, cert_octets()) + block(0x9f);
}

std::string item_by_hand() {
  const std::string structure = structure_by_hand();
  unsigned char digest[20];
  EVP_Digest(structure.data(), structure.size(), digest, nullptr, EVP_sha1(), nullptr);
  return big_magic + block(start) + structure +
         block(check, std::string(reinterpret_cast<char *>(digest), sizeof digest)) +
         support::end_of_data;
}

TEST(MarshalBigEndian, TheStreamHasTheOctetsOfTheFormat) {
  ASSERT_FALSE(committed().empty());
  EXPECT_EQ(hex(committed()), hex(item_by_hand()));
}

TEST(MarshalBigEndian, TheSameRecordIsWrittenAsTheSameOctets) {
  const std::string written = written_here();
  EXPECT_EQ(hex(written), hex(committed()));
  if (const char *path = std::getenv("KEEP_MARSHAL_STREAM"))
    std::ofstream(path, std::ios::binary) << written;
}

TEST(MarshalBigEndian, NumbersAreReadInTheOrderOfTheMachine) {
  support::record_owner got;
  ASSERT_EQ(read_here(committed(), &got), 0);
  const record *of = got.object;
  EXPECT_EQ(of->version, here(3));
  EXPECT_EQ(of->within.number, here(-1));
  EXPECT_EQ(of->aside->number, here(lowest));
  EXPECT_EQ(of->choice.kind, support::record_number);
  EXPECT_EQ(of->choice.value.number, here(0x01020304));
  EXPECT_EQ(of->choice_aside->kind, support::record_note);
  EXPECT_EQ(of->choice_aside->value.aside->number, here(65535));
  EXPECT_EQ(static_cast<support::note *>(OPENSSL_sk_value(of->notes, 0))->number, here(256));
}

TEST(MarshalBigEndian, TimesAreReadInTheOrderOfTheMachine) {
  support::record_owner got;
  ASSERT_EQ(read_here(committed(), &got), 0);
  const tm wanted = broken_down_here();
  const tm &read = got.object->broken_down;
  EXPECT_EQ(got.object->made, time_t{here(moment)});
  EXPECT_EQ(read.tm_sec, wanted.tm_sec);
  EXPECT_EQ(read.tm_min, wanted.tm_min);
  EXPECT_EQ(read.tm_hour, wanted.tm_hour);
  EXPECT_EQ(read.tm_mday, wanted.tm_mday);
  EXPECT_EQ(read.tm_mon, wanted.tm_mon);
  EXPECT_EQ(read.tm_year, wanted.tm_year);
  EXPECT_EQ(read.tm_wday, wanted.tm_wday);
  EXPECT_EQ(read.tm_yday, wanted.tm_yday);
  EXPECT_EQ(read.tm_isdst, wanted.tm_isdst);
  EXPECT_EQ(read.tm_gmtoff, wanted.tm_gmtoff);
  EXPECT_EQ(read.tm_zone, nullptr);
}

TEST(MarshalBigEndian, TextsKeysAndCertificatesHaveNoOrder) {
  support::record_owner got, filled;
  fill_here(filled.object);
  ASSERT_EQ(read_here(committed(), &got), 0);
  const record *of = got.object;
  EXPECT_STREQ(of->name, filled.object->name);
  EXPECT_STREQ(of->within.text, "");
  EXPECT_STREQ(of->aside->text, "aside");
  EXPECT_EQ(of->choice_aside->value.aside->text, std::string(300, 'n'));
  ASSERT_EQ(OPENSSL_sk_num(of->names), 2);
  EXPECT_STREQ(static_cast<char *>(OPENSSL_sk_value(of->names, 1)), "second");
  EXPECT_EQ(hex(der_of(of->public_key)), hex(der_of(filled.object->public_key)));
  EXPECT_EQ(EVP_PKEY_eq(of->private_key, filled.object->private_key), 1);
  EXPECT_EQ(X509_cmp(of->cert, filled.object->cert), 0);
}

TEST(MarshalBigEndian, AnOctetOfItsNumbersThatChangedIsNoticed) {
  std::string octets = committed();
  size_t version = octets.find("\x91\x04");
  ASSERT_NE(version, std::string::npos);
  octets[version + 2] = 1;
  support::record_owner got;
  EXPECT_EQ(read_here(octets, &got), 4);
  EXPECT_EQ(got.object, nullptr);
}

}  // namespace
