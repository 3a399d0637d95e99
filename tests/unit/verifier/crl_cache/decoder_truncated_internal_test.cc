// Lists that are too long to be kept: read and digested whole, and marked as lacking entries.
#include "fakes/allocator.h"
#include "unit/verifier/crl_cache/decoder_support.h"
#include "unit/verifier/own_log.h"

using namespace crl_support;
using namespace support;

namespace {

class TruncatedCrl : public crl_decoder_test {};

// Entries of mixed shapes, with serial numbers of up to 20 octets; the target's stands at
// `position`.
std::string many_entries(size_t count, size_t position) {
  std::string octets = pattern(count * 20 + 20), entries;
  for (size_t i = 0; i < count; i++) {
    std::string serial = octets.substr(i * 20, 1 + i % 20);
    serial[0] = static_cast<char>((serial[0] & 0x3F) | 0x40);
    std::string date = i % 5 ? der_utc_time(crl_der_now) : der_generalized_time(crl_der_now);
    if (i == position)
      entries += crl_entry(target_serial, reason_code(1));
    entries += crl_entry(serial, i % 3 ? "" : reason_code(static_cast<int>(i % 11)), date);
  }
  return entries;
}

TEST_F(TruncatedCrl, LongListIsReadWholeAndKeepsTheTargetsEntry) {
  crl_fields fields;
  fields.extensions = crl_number(1);
  for (size_t position : {0u, 1u, 9999u, 19999u, 99999u}) {
    fields.entries = many_entries(20000, position);
    std::string octets = crl_octets(fields);
    decoded got = decode(octets);
    ASSERT_EQ(0, got.code);
    EXPECT_TRUE(got.truncated);
    entry_list expected;
    if (position < 20000)
      expected = {{"5", "/CN=issuer"}};
    EXPECT_EQ(expected, entries_of(got.crl));
    EXPECT_EQ(digest_of(tbs_cert_list(fields)), got.digest);
    EXPECT_TRUE(verifies(got, test_key(0)));
    EXPECT_FALSE(verifies(got, test_key(1)));
  }
}

TEST_F(TruncatedCrl, EntriesMayLieAnywhereInTheReadBuffer) {
  crl_fields fields;
  fields.entries = many_entries(500, 400);
  for (size_t shift = 1; shift <= 60; shift++) {
    fields.issuer = der_name(make_name({{"CN", "issuer"}, {"O", std::string(shift, 'o')}}));
    decoded got = decode(crl_octets(fields), {.start_at_target = true});
    ASSERT_EQ(0, got.code) << shift;
    ASSERT_EQ(digest_of(tbs_cert_list(fields)), got.digest) << shift;
    ASSERT_EQ(1u, entries_of(got.crl).size()) << shift;
  }
}

TEST_F(TruncatedCrl, DeliveryDoesNotMatter) {
  crl_fields fields;
  fields.entries = many_entries(600, 300);
  fields.extensions = crl_number(1);
  std::string octets = crl_octets(fields), expected = digest_of(tbs_cert_list(fields));
  for (delivery how :
       {one_by_one, delivery{1, 2}, delivery{7, 41}, delivery{40, 37}, delivery{1999, 2000},
        delivery{2001, 1999}, delivery{500, 501}, delivery{10000, 5000}}) {
    decoded got = decode(octets, {.how = how});
    ASSERT_EQ(0, got.code) << how.first << " " << how.next;
    EXPECT_EQ(expected, got.digest) << how.first << " " << how.next;
    EXPECT_EQ((entry_list{{"5", "/CN=issuer"}}), entries_of(got.crl));
  }
}

TEST_F(TruncatedCrl, MalformedEntryAtTheEndOfALongListIsAnError) {
  crl_fields fields;
  for (const std::string &bad :
       {der_tlv(0x30, der_integer(9)), crl_entry(9, unknown_extension(true))}) {
    fields.entries = many_entries(2000, 3) + bad;
    decoded got;
    std::string out = output_of([&] { got = decode(crl_octets(fields)); });
    EXPECT_EQ(bad.size() < 10 ? 15 : 86, got.code);
    EXPECT_EQ("c\n", out);
  }
}

TEST_F(TruncatedCrl, LongListThatBreaksOffIsAReadError) {
  crl_fields fields;
  fields.entries = many_entries(1000, 3);
  std::string octets = crl_octets(fields);
  for (size_t size = 100; size < octets.size() - 200; size += 997) {
    decoded got;
    std::string out = output_of([&] {
      got = decode(octets.substr(0, size), {.length = static_cast<uint32_t>(octets.size())});
    });
    EXPECT_EQ(48, got.code) << size;
    EXPECT_EQ("c\n", out);
  }
}

TEST_F(TruncatedCrl, EntryThatLeavesTheListIsRefused) {
  // The octets behind the list's end would complete the entry.
  for (const std::string &last : {crl_entry(9), crl_entry(9, reason_code(1))})
    for (size_t cut = 1; cut < last.size(); cut++) {
      std::string entries = many_entries(10, 3) + last;
      crl_fields fields;
      fields.behind_tbs_fields = static_cast<char>(0x30) + der_length(entries.size() - cut, 4) +
                                 entries + std::string(50, 'x');
      decoded got;
      std::string out = output_of([&] { got = decode_without_length(crl_octets(fields)); });
      ASSERT_EQ(15, got.code) << cut;
      EXPECT_EQ("c\n", out);
    }
}

TEST_F(TruncatedCrl, IndirectListIsTheSameInEveryTwoWaySplit) {
  crl_fields fields;
  fields.entries = crl_entry(target_serial, certificate_issuer("other")) +
                   crl_entry(target_serial, reason_code(1)) +
                   crl_entry(9, certificate_issuer("issuer")) + crl_entry(target_serial);
  fields.extensions = issuing_dist_point({.indirect = true});
  std::string octets = crl_octets(fields);
  for (size_t at = 1; at < octets.size(); at++) {
    decoded full = decode(octets, {.how = split_at(at)});
    decoded part = decode(octets, {.length = unknown_length, .how = split_at(at)});
    ASSERT_EQ(0, full.code) << at;
    ASSERT_EQ(4u, entries_of(full.crl).size()) << at;
    ASSERT_EQ(0, part.code) << at;
    ASSERT_EQ((entry_list{{"5", "/CN=issuer"}}), entries_of(part.crl)) << at;
  }
}

// The target's entries of a list that was kept whole.
entry_list of_target(const entry_list &all) {
  entry_list found;
  for (const auto &entry : all)
    if (entry == std::pair<std::string, std::string>("5", "/CN=issuer"))
      found.push_back(entry);
  return found;
}

TEST_F(TruncatedCrl, KeepsWhatTheWholeListSaysAboutTheTarget) {
  const std::string five = crl_entry(target_serial), four = crl_entry(4);
  const std::string other_five = crl_entry(target_serial, certificate_issuer("other"));
  const std::string issuer_four = crl_entry(4, certificate_issuer("issuer"));
  for (const std::string &entries :
       {std::string(), five, four, five + four, five + five, other_five, other_five + five,
        other_five + issuer_four + five, four + other_five + four + issuer_four + five + four,
        crl_entry(target_serial, reason_code(8)) + crl_entry(target_serial, reason_code(1))}) {
    crl_fields fields;
    fields.entries = entries;
    std::string octets = crl_octets(fields);
    decoded full = decode(octets), part = decode_without_length(octets);
    ASSERT_EQ(0, full.code);
    ASSERT_EQ(0, part.code);
    EXPECT_EQ(of_target(entries_of(full.crl)), entries_of(part.crl));
    EXPECT_EQ(full.digest, part.digest);
    EXPECT_EQ(frame_of(full.crl), frame_of(part.crl));
  }
}

TEST_F(TruncatedCrl, EntriesThatAreDroppedCostNoMemory) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  size_t counts[2] = {};
  for (int i = 0; i < 2; i++) {
    crl_fields fields;
    fields.entries = many_entries(i ? 20000 : 1000, 500);
    std::string octets = crl_octets(fields);
    decode(octets);
    feeder source(octets);
    reader in(source.fd());
    pki::crl_request request = {};
    request.tbs_digest = EVP_MD_CTX_new();
    request.target_cert = target().get();
    fake_allocator::stop_failing();
    EXPECT_EQ(0, pki::cv_crl_decode_crl(&request, &in.stream, static_cast<uint32_t>(octets.size()),
                                        nullptr));
    counts[i] = fake_allocator::allocations();
    X509_CRL_free(request.crl);
    EVP_MD_CTX_free(request.tbs_digest);
  }
  EXPECT_EQ(counts[0], counts[1]);
}

// ---- the mark ----

TEST_F(TruncatedCrl, MarkIsTheLastExtensionUncriticalAndEmpty) {
  crl_fields fields;
  fields.entries = crl_entry(target_serial);
  for (const std::string &extensions : {std::string(), crl_number(1) + unknown_extension(false)}) {
    fields.extensions = extensions;
    decoded got = decode_without_length(crl_octets(fields));
    ASSERT_EQ(0, got.code);
    int before = X509_CRL_get_ext_count(got.crl.get());
    EXPECT_FALSE(pki::is_marked_truncated(got.crl.get()));
    EXPECT_EQ(0, pki::cv_crl_mark_truncated(got.crl.get()));
    EXPECT_TRUE(pki::is_marked_truncated(got.crl.get()));
    ASSERT_EQ(before + 1, X509_CRL_get_ext_count(got.crl.get()));
    X509_EXTENSION *mark = X509_CRL_get_ext(got.crl.get(), before);
    EXPECT_EQ(pki_nid_list[PKI_OID_TRUNCATED_CRL], OBJ_obj2nid(X509_EXTENSION_get_object(mark)));
    EXPECT_EQ(0, X509_EXTENSION_get_critical(mark));
    EXPECT_EQ("", octets_of(X509_EXTENSION_get_data(mark)));
  }
}

TEST_F(TruncatedCrl, MarkIsInTheEncodingAndInCopies) {
  crl_fields fields;
  fields.entries = crl_entry(target_serial);
  decoded got = decode_without_length(crl_octets(fields));
  ASSERT_EQ(0, got.code);
  ASSERT_EQ(0, pki::cv_crl_mark_truncated(got.crl.get()));
  support::crl copy = hold(X509_CRL_dup(got.crl.get()));
  ASSERT_TRUE(copy);
  EXPECT_TRUE(pki::is_marked_truncated(copy.get()));
  support::crl read_again = openssl_decoded(encoding_of(got.crl));
  ASSERT_TRUE(read_again);
  EXPECT_TRUE(pki::is_marked_truncated(read_again.get()));
  EXPECT_EQ(frame_of(got.crl), frame_of(read_again));
  EXPECT_EQ(entries_of(got.crl), entries_of(read_again));
}

TEST_F(TruncatedCrl, DecoderItselfMarksNothing) {
  decoded got = decode_without_length(crl_octets({}));
  ASSERT_EQ(0, got.code);
  EXPECT_EQ(0, X509_CRL_get_ext_count(got.crl.get()));
}

TEST_F(TruncatedCrl, MarkingWithoutMemoryIsReported) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  crl_fields fields;
  fields.entries = crl_entry(target_serial);
  decoded got;
  int code = -1;
  size_t failures = fake_allocator::sweep(
      [&] {
        {
          fake_allocator::pause prepared;
          got = decode_without_length(crl_octets(fields));
        }
        code = pki::cv_crl_mark_truncated(got.crl.get());
      },
      [&](size_t n) {
        EXPECT_TRUE(code == 2 || code == 0) << n;
        EXPECT_EQ(code == 0, pki::is_marked_truncated(got.crl.get())) << n;
        clear_openssl_errors();
      });
  EXPECT_GT(failures, 3u);
  EXPECT_EQ(0, code);
}

TEST_F(TruncatedCrl, WhyItCouldNotBeMarkedIsLogged) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  crl_fields fields;
  fields.entries = crl_entry(target_serial);
  decoded got = decode_without_length(crl_octets(fields));
  ASSERT_EQ(0, got.code);
  raise_openssl_error(ERR_R_INTERNAL_ERROR);
  clear_log();
  fake_allocator::fail_at(1);
  int code = pki::cv_crl_mark_truncated(got.crl.get());
  fake_allocator::stop_failing();
  EXPECT_EQ(2, code);
  EXPECT_GE(openssl_lines(), 2u) << log_dump();
  EXPECT_EQ("", own_log());
  EXPECT_EQ(0u, ERR_peek_error());
  EXPECT_FALSE(pki::is_marked_truncated(got.crl.get()));
}

}  // namespace
