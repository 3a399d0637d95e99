// Entries that are passed over where they lie, held against OpenSSL's decoder: what is recognised
// is exactly an entry that OpenSSL decodes and that concerns nobody.
#include <cstdlib>
#include <random>

#include "unit/verifier/crl_cache/decoder_support.h"
#include "verifier/crl_cache/common_entry.h"

using namespace crl_support;
using namespace support;

namespace {

using random_source = std::mt19937;

size_t below(random_source &random, size_t limit) {
  return random() % limit;
}

std::string random_octets(random_source &random, size_t size) {
  std::string octets(size, '\0');
  for (char &octet : octets)
    octet = static_cast<char>(random());
  return octets;
}

// Mostly sound, mostly short; now and then padded or negative.
std::string random_serial(random_source &random) {
  switch (below(random, 8)) {
    case 0:
      return std::string(1, static_cast<char>(below(random, 10)));
    case 1:
      return "\x05";
    case 2:
      return std::string("\x00", 1) + random_octets(random, 1 + below(random, 20));
    case 3:
      return random_octets(random, below(random, 25));
    case 4:
      return std::string("\xFF", 1) + random_octets(random, 1 + below(random, 3));
    case 5:
      return random_octets(random, 100 + below(random, 100));
    default: {
      std::string octets = random_octets(random, 1 + below(random, 20));
      octets[0] = static_cast<char>((octets[0] & 0x7F) | 0x01);
      return octets;
    }
  }
}

std::string random_date(random_source &random) {
  time_t time = static_cast<time_t>(random() % 2'000'000'000u);
  switch (below(random, 12)) {
    case 0:
      return der_tlv(0x17, "2311142213Z");
    case 1:
      return der_tlv(0x17, random_octets(random, 13));
    case 2:
      return der_tlv(0x18, random_octets(random, 15));
    case 3:
      return der_tlv(0x17, "");
    case 4:
    case 5:
    case 6:
      return der_generalized_time(time);
    default:
      return der_utc_time(time);
  }
}

std::string random_extensions(random_source &random) {
  std::string made;
  for (size_t count = below(random, 8) ? 1 : 2; count > 0; count--)
    switch (below(random, 12)) {
      case 0:
        made += reason_code(static_cast<int>(below(random, 256)), true);
        break;
      case 1:
        made += unknown_extension(below(random, 2));
        break;
      case 2:
        made += certificate_issuer(below(random, 2) ? "other" : "issuer", below(random, 8) == 0);
        break;
      case 3:
        made += crl_extension("2.5.29.21", random_octets(random, 3));
        break;
      case 4:
        made += crl_extension("2.5.29.24", der_generalized_time(crl_der_now), below(random, 2));
        break;
      case 5:
        made += der_tlv(0x30, der_oid("2.5.29.21") + der_tlv(0x01, std::string(1, '\0')) +
                                  der_tlv(0x04, "\x0A\x01\x01"));
        break;
      default:
        made += reason_code(static_cast<int>(below(random, 11)));
    }
  return made;
}

std::string random_entry(random_source &random) {
  return crl_entry(random_serial(random), below(random, 2) ? random_extensions(random) : "",
                   random_date(random));
}

void mutate(random_source &random, std::string *octets) {
  for (size_t count = 1 + below(random, 2); count > 0 && !octets->empty(); count--) {
    size_t at = below(random, octets->size());
    switch (below(random, 6)) {
      case 0:
        (*octets)[at] = static_cast<char>(random());
        break;
      case 1:
        (*octets)[at] = static_cast<char>((*octets)[at] ^ (1 << below(random, 8)));
        break;
      case 2:
        (*octets)[at] = static_cast<char>((*octets)[at] + (below(random, 2) ? 1 : -1));
        break;
      case 3:
        octets->insert(at, 1, static_cast<char>(random()));
        break;
      case 4:
        octets->erase(at, 1);
        break;
      default:
        octets->resize(at);
    }
  }
}

// What OpenSSL says about the entry at the start of `octets`.
struct opinion {
  bool decoded = false;
  size_t size = 0;
  std::string serial;  // the content octets that it was made of
  bool critical = false;
  bool names_issuer = false;
};

opinion ask_openssl(const std::string &octets) {
  opinion said;
  const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
  const unsigned char *begin = in;
  X509_REVOKED *entry = d2i_X509_REVOKED(nullptr, &in, static_cast<long>(octets.size()));
  ERR_clear_error();
  if (!entry)
    return said;
  said.decoded = true;
  said.size = static_cast<size_t>(in - begin);
  unsigned char *out = nullptr;
  int size = i2d_ASN1_INTEGER(X509_REVOKED_get0_serialNumber(entry), &out);
  size_t header = size > 129 ? (size > 258 ? 4 : 3) : 2;
  said.serial.assign(reinterpret_cast<char *>(out), static_cast<size_t>(size)).erase(0, header);
  OPENSSL_free(out);
  for (int i = 0; i < X509_REVOKED_get_ext_count(entry); i++) {
    X509_EXTENSION *extension = X509_REVOKED_get_ext(entry, i);
    said.critical |= X509_EXTENSION_get_critical(extension) != 0;
    said.names_issuer |=
        OBJ_obj2nid(X509_EXTENSION_get_object(extension)) == NID_certificate_issuer;
  }
  X509_REVOKED_free(entry);
  return said;
}

// The size passed over. The octets lie at the end of a block, so that a look behind them shows.
uint32_t passed_over(const std::string &octets, const std::string &wanted) {
  std::vector<unsigned char> block(octets.begin(), octets.end());
  block.shrink_to_fit();
  pki::wanted_serial serial = {reinterpret_cast<const unsigned char *>(wanted.data()),
                               static_cast<uint32_t>(wanted.size())};
  return pki::common_foreign_entry(block.data(), static_cast<uint32_t>(block.size()), serial);
}

// Why it was wrong to pass that entry over, or "".
std::string objection(const std::string &octets, const std::string &wanted, uint32_t size) {
  opinion said = ask_openssl(octets);
  if (!said.decoded)
    return "cannot be decoded";
  if (said.size != size)
    return "has another size";
  if (said.serial == wanted)
    return "is wanted";
  if (said.critical)
    return "has a critical extension";
  return said.names_issuer ? "names an issuer" : "";
}

unsigned long setting(const char *name, unsigned long usual) {
  const char *asked = std::getenv(name);
  return asked ? std::strtoul(asked, nullptr, 10) : usual;
}

// For millions of entries: DIFFERENTIAL_ENTRIES and DIFFERENTIAL_SEED in the environment.
TEST(CommonEntry, WhatIsPassedOverIsSoundAndForeign) {
  const size_t entries = setting("DIFFERENTIAL_ENTRIES", 300000);
  random_source random(static_cast<uint32_t>(setting("DIFFERENTIAL_SEED", 20231114)));
  size_t passed = 0;
  for (size_t i = 0; i < entries; i++) {
    std::string octets = random_entry(random);
    if (below(random, 2))
      mutate(random, &octets);
    if (below(random, 2))
      octets += random_octets(random, below(random, 40));
    std::string wanted = below(random, 2) ? "\x05" : random_serial(random);
    uint32_t size = passed_over(octets, wanted);
    if (!size)
      continue;
    passed++;
    std::string why = objection(octets, wanted, size);
    ASSERT_EQ("", why) << i << testing::PrintToString(octets);
  }
  EXPECT_GT(passed, entries / 10);
}

TEST(CommonEntry, EverySingleOctetOfTheCommonShapesMayChange) {
  for (const std::string &entry :
       {crl_entry(77), crl_entry(77, reason_code(1)),
        crl_entry(std::string("\x4D\x02\x03\x04", 4), reason_code(4), der_generalized_time(1000)),
        crl_entry(std::string(20, '\x4D'), "", der_utc_time(crl_der_now))})
    for (size_t at = 0; at < entry.size(); at++)
      for (int value = 0; value < 256; value++) {
        std::string changed = entry;
        changed[at] = static_cast<char>(value);
        changed += "0123456789";
        uint32_t size = passed_over(changed, "\x05");
        if (size) {
          std::string why = objection(changed, "\x05", size);
          ASSERT_EQ("", why) << at << "=" << value;
        }
      }
}

TEST(CommonEntry, CommonShapesArePassedOver) {
  for (const std::string &extensions : {std::string(), reason_code(1)})
    for (size_t size : {1u, 8u, 16u, 20u})
      for (const std::string &date : {der_utc_time(crl_der_now), der_generalized_time(1000)}) {
        std::string entry = crl_entry(std::string(size, '\x4D'), extensions, date);
        EXPECT_EQ(entry.size(), passed_over(entry, "\x05"));
        EXPECT_EQ(entry.size(), passed_over(entry + "more", "\x05"));
        EXPECT_EQ(0u, passed_over(entry, std::string(size, '\x4D'))) << "the wanted one";
      }
}

TEST(CommonEntry, EntryThatIsNotThereWholeIsNotPassedOver) {
  for (const std::string &entry : {crl_entry(77), crl_entry(77, reason_code(1))})
    for (size_t size = 0; size < entry.size(); size++)
      EXPECT_EQ(0u, passed_over(entry.substr(0, size), "\x05")) << size;
}

// ---- whole lists ----

// How many entries are the target's, or the error that the list must end with.
struct verdict {
  int code = 0;
  size_t listed = 0;
};

// The error that the entry's extensions end the list with, or 0.
int code_of_extensions(const X509_REVOKED *entry) {
  for (int i = 0; i < X509_REVOKED_get_ext_count(entry); i++) {
    X509_EXTENSION *extension = X509_REVOKED_get_ext(entry, i);
    int nid = OBJ_obj2nid(X509_EXTENSION_get_object(extension));
    if (nid == NID_certificate_issuer) {
      auto *names = static_cast<GENERAL_NAMES *>(X509V3_EXT_d2i(extension));
      if (!names)
        return 15;
      GENERAL_NAMES_free(names);
    }
    if (X509_EXTENSION_get_critical(extension) && nid != NID_crl_reason &&
        nid != NID_invalidity_date && nid != NID_hold_instruction_code)
      return 86;
  }
  return 0;
}

// Walks the list by OpenSSL's own decoder, in the order it stands in.
verdict walk(const std::string &entries) {
  verdict said;
  const auto *in = reinterpret_cast<const unsigned char *>(entries.data());
  const unsigned char *end = in + entries.size();
  std::string issuer = "/CN=issuer";
  while (in < end && !said.code) {
    X509_REVOKED *entry = d2i_X509_REVOKED(nullptr, &in, end - in);
    if (!entry) {
      said.code = 15;
      break;
    }
    if (std::string named = issuer_in_entry(entry); !named.empty())
      issuer = named;
    said.code = code_of_extensions(entry);
    if (issuer == "/CN=issuer" && serial_text(entry) == "5")
      said.listed++;
    X509_REVOKED_free(entry);
  }
  ERR_clear_error();
  if (!said.code && said.listed > 64)
    said.code = 15;
  return said;
}

class CrlDifferential : public crl_decoder_test {};

// What is wrong with the decoded list, or "".
std::string objection(const verdict &expected, const decoded &got, const crl_fields &fields) {
  if (expected.code != got.code)
    return "code " + std::to_string(got.code) + " instead of " + std::to_string(expected.code);
  if (got.code)
    return "";
  if (entries_of(got.crl) != entry_list(expected.listed, {"5", "/CN=issuer"}))
    return "other entries";
  if (digest_of(tbs_cert_list(fields)) != got.digest)
    return "another digest";
  // OpenSSL's decoder of whole CRLs agrees that it is one.
  return openssl_decoded(crl_octets(fields)) ? "" : "OpenSSL refuses it";
}

TEST_F(CrlDifferential, TruncatedListsKeepWhatOpenSslWouldList) {
  random_source random(42);
  crl_fields fields;
  fields.signature = der_tlv(0x03, std::string(1, '\0'));
  size_t sound = 0, with_target = 0;
  std::string problem;
  output_of([&] {
    for (int i = 0; i < 6000 && problem.empty(); i++) {
      std::string entries;
      bool damaged = i % 3 == 0;
      for (size_t count = below(random, 30); count > 0; count--) {
        std::string entry = random_entry(random);
        // Most lists are sound, or there would be little to keep.
        if (!damaged && walk(entry).code)
          continue;
        if (damaged && below(random, 20) == 0)
          mutate(random, &entry);
        entries += entry;
      }
      verdict expected = walk(entries);
      fields.entries = entries;
      delivery how = i % 10 ? whole : delivery{1 + below(random, 400), 1 + below(random, 90)};
      decoded got = decode(crl_octets(fields), {.length = unknown_length, .how = how});
      problem = objection(expected, got, fields);
      if (!problem.empty())
        problem += " in list " + std::to_string(i) + " " + testing::PrintToString(entries);
      sound += !expected.code;
      with_target += !expected.code && expected.listed > 0;
    }
  });
  EXPECT_EQ("", problem);
  EXPECT_GT(sound, 3000u);
  EXPECT_GT(with_target, 1000u);
}

TEST_F(CrlDifferential, FullListsKeepEveryEntryUnderItsIssuer) {
  random_source random(43);
  crl_fields fields;
  fields.signature = der_tlv(0x03, std::string(1, '\0'));
  for (int i = 0; i < 2000; i++) {
    std::string entries;
    for (size_t count = below(random, 20); count > 0; count--) {
      std::string entry = random_entry(random);
      if (!walk(entry).code)
        entries += entry;
    }
    fields.entries = entries;
    std::string octets = crl_octets(fields);
    decoded got = decode(octets);
    ASSERT_EQ(0, got.code) << i;
    entry_list expected = entries_of(openssl_decoded(octets)), kept = entries_of(got.crl);
    std::sort(expected.begin(), expected.end());
    std::sort(kept.begin(), kept.end());
    ASSERT_EQ(expected, kept) << i;
  }
}

}  // namespace
