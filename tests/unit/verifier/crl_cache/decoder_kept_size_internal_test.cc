// What is kept of a long list stays small, however large its entries are.
#include "unit/verifier/crl_cache/decoder_support.h"

using namespace crl_support;
using namespace support;

namespace {

constexpr size_t limit = 65536;

// One of the target's with so many octets, the header included.
std::string entry_of_size(size_t size, const std::string &first_extensions = "") {
  auto with_padding = [&](size_t padding) {
    return crl_entry(target_serial,
                     first_extensions + crl_extension(unknown_extension_oid,
                                                      der_tlv(0x04, std::string(padding, 'p'))));
  };
  const size_t around = with_padding(1000).size() - 1000;
  std::string entry = with_padding(size - around);
  EXPECT_EQ(size, entry.size());
  return entry;
}

// Seven that have so many octets together: the first six alone stay below the limit.
std::string entries_of_size(size_t size) {
  std::string entries;
  for (int i = 0; i < 6; i++)
    entries += entry_of_size(10000);
  return entries + entry_of_size(size - entries.size());
}

class KeptSize : public crl_decoder_test {
 protected:
  static std::string crl_with(const std::string &entries) {
    crl_fields fields;
    fields.entries = entries;
    return crl_octets(fields);
  }
  void expect_kept(size_t count, const std::string &entries) {
    std::string octets = crl_with(entries);
    for (delivery how : {whole, delivery{1, 1999}}) {
      decoded got = decode_without_length(octets, {.how = how});
      ASSERT_EQ(0, got.code);
      EXPECT_EQ(count, entries_of(got.crl).size());
      EXPECT_TRUE(verifies(got, test_key(0)));
    }
  }
  void expect_refused(const std::string &entries) {
    std::string octets = crl_with(entries);
    for (uint32_t length : {static_cast<uint32_t>(octets.size()), unknown_length}) {
      decoded got;
      std::string out = output_of([&] { got = decode(octets, {.length = length}); });
      EXPECT_EQ(15, got.code);
      EXPECT_EQ("c\n", out);
    }
  }
};

TEST_F(KeptSize, UpTo64KibibytesAreKept) {
  expect_kept(7, entries_of_size(limit));
  expect_kept(7, crl_entry(4) + entries_of_size(limit) + crl_entry(6));
}

TEST_F(KeptSize, LastEntryMayNotPassTheLimit) {
  expect_refused(entries_of_size(limit + 1));
  expect_refused(entries_of_size(70000));
}

TEST_F(KeptSize, EntriesOfOthersBehindItDoNotHelp) {
  expect_refused(entries_of_size(limit + 1) + crl_entry(4));
}

TEST_F(KeptSize, EntryBehindThatPassesTheLimitIsRefused) {
  expect_refused(entries_of_size(limit) + crl_entry(target_serial));
}

TEST_F(KeptSize, EntriesOfOthersDoNotCount) {
  std::string others;
  for (long serial = 100; serial < 120; serial++)
    others += crl_entry(
        serial, crl_extension(unknown_extension_oid, der_tlv(0x04, std::string(9000, 'p'))));
  expect_kept(7, others + entries_of_size(limit) + others);
}

TEST_F(KeptSize, IssuerThatIsWrittenOutCounts) {
  const std::string issuer = certificate_issuer("issuer");
  const std::string first = crl_entry(4, issuer);
  expect_refused(first + entries_of_size(limit));
  // By entry: what the extension takes, and nothing that a header would grow by.
  expect_kept(7, first + entries_of_size(limit - 7 * issuer.size()));
  expect_refused(first + entries_of_size(limit - 7 * issuer.size() + 1));
}

}  // namespace
