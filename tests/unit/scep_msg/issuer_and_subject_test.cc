#include <cstring>

#include "fakes/allocator.h"
#include "messages.h"

namespace {

using scep::ias;
using scep::make_ias;
using scep::tlv;

std::string der(const support::name &name) {
  return scep::encode<X509_NAME>(name.get(), i2d_X509_NAME);
}
std::string der(const ias &pair) {
  const int length = i2d_SCEP_ISSUER_AND_SUBJECT(pair.get(), nullptr);
  std::string octets(length > 0 ? static_cast<size_t>(length) : 0, '?');
  auto *out = reinterpret_cast<unsigned char *>(octets.data());
  EXPECT_EQ(i2d_SCEP_ISSUER_AND_SUBJECT(pair.get(), &out), length);
  return octets;
}

struct IssuerAndSubject : scep::scep_test {
  support::name issuer = support::make_name({{"C", "US"}, {"O", "Example"}, {"CN", "the CA"}});
  support::name subject = support::make_name({{"C", "DE"}, {"CN", "the device"}});
  std::string whole = tlv(0x30, der(issuer) + der(subject));

  // What the octets decode to; null when they do not, and then `in` may not have moved.
  ias decode(const std::string &octets, long length) {
    const auto *start = reinterpret_cast<const unsigned char *>(octets.data());
    const unsigned char *in = start;
    ias made(d2i_SCEP_ISSUER_AND_SUBJECT(nullptr, &in, length), SCEP_ISSUER_AND_SUBJECT_free);
    if (made)
      consumed = in - start;
    return made;
  }
  ias decode(const std::string &octets) { return decode(octets, static_cast<long>(octets.size())); }
  ptrdiff_t consumed = -1;
};

TEST_F(IssuerAndSubject, NewHasNoNames) {
  ias made(SCEP_ISSUER_AND_SUBJECT_new(), SCEP_ISSUER_AND_SUBJECT_free);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->issuer, nullptr);
  EXPECT_EQ(made->subject, nullptr);
}

TEST_F(IssuerAndSubject, FreeTakesNullAndHalfFilledRecords) {
  SCEP_ISSUER_AND_SUBJECT_free(nullptr);
  SCEP_ISSUER_AND_SUBJECT *half = SCEP_ISSUER_AND_SUBJECT_new();
  half->subject = X509_NAME_dup(subject.get());
  SCEP_ISSUER_AND_SUBJECT_free(half);
}

TEST_F(IssuerAndSubject, FieldsAreInTheDocumentedOrder) {
  EXPECT_EQ(offsetof(SCEP_ISSUER_AND_SUBJECT, issuer), 0u);
  EXPECT_EQ(offsetof(SCEP_ISSUER_AND_SUBJECT, subject), sizeof(void *));
}

// ---- encoding ----

TEST_F(IssuerAndSubject, EncodesASequenceWithBothNames) {
  EXPECT_EQ(der(make_ias(issuer, subject)), whole);
}

TEST_F(IssuerAndSubject, LengthAloneIsWhatIsWritten) {
  ias pair = make_ias(issuer, subject);
  const int length = i2d_SCEP_ISSUER_AND_SUBJECT(pair.get(), nullptr);
  ASSERT_EQ(length, static_cast<int>(whole.size()));
  std::string buffer(whole.size() + 1, '?');
  auto *start = reinterpret_cast<unsigned char *>(buffer.data());
  unsigned char *out = start;
  EXPECT_EQ(i2d_SCEP_ISSUER_AND_SUBJECT(pair.get(), &out), length);
  EXPECT_EQ(out, start + length);
  EXPECT_EQ(buffer, whole + "?");
}

TEST_F(IssuerAndSubject, NothingIsOfLengthZero) {
  unsigned char octet = 'x';
  unsigned char *out = &octet;
  EXPECT_EQ(i2d_SCEP_ISSUER_AND_SUBJECT(nullptr, nullptr), 0);
  EXPECT_EQ(i2d_SCEP_ISSUER_AND_SUBJECT(nullptr, &out), 0);
  EXPECT_EQ(out, &octet);
  EXPECT_EQ(octet, 'x');
}

TEST_F(IssuerAndSubject, LongNamesGetLongHeaders) {
  for (size_t size : {30, 60, 100, 200}) {
    std::vector<std::pair<std::string, std::string>> entries;
    for (int i = 0; i < 10; i++)
      entries.emplace_back("description", std::string(size, 'x'));
    support::name big = support::make_name(entries);
    ias pair = make_ias(big, subject);
    EXPECT_EQ(der(pair), tlv(0x30, der(big) + der(subject)));
    EXPECT_NE(decode(der(pair)), nullptr);
  }
}

TEST_F(IssuerAndSubject, EmptyNamesAreNames) {
  support::name empty = support::make_name({});
  ias made = decode(der(make_ias(empty, empty)));
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(X509_NAME_entry_count(made->issuer), 0);
  EXPECT_EQ(X509_NAME_entry_count(made->subject), 0);
}

TEST_F(IssuerAndSubject, RecordWithoutANameIsNeverEncodedAsAnother) {
  ias half(SCEP_ISSUER_AND_SUBJECT_new(), SCEP_ISSUER_AND_SUBJECT_free);
  half->issuer = X509_NAME_dup(issuer.get());
  const int length = i2d_SCEP_ISSUER_AND_SUBJECT(half.get(), nullptr);
  if (length > 0) {
    EXPECT_EQ(decode(der(half)), nullptr);
  }
  support::clear_openssl_errors();
}

TEST_F(IssuerAndSubject, ChangedNamesAreEncodedAsTheyAre) {
  ias pair = decode(whole);
  ASSERT_NE(pair, nullptr);
  ASSERT_EQ(X509_NAME_set(&pair->subject, issuer.get()), 1);
  EXPECT_EQ(der(pair), tlv(0x30, der(issuer) + der(issuer)));
}

TEST_F(IssuerAndSubject, NullOutputReceivesNewMemory) {
  ias pair = make_ias(issuer, subject);
  unsigned char *out = nullptr;
  const int length = i2d_SCEP_ISSUER_AND_SUBJECT(pair.get(), &out);
  ASSERT_EQ(length, static_cast<int>(whole.size()));
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(out), whole.size()), whole)
      << "the front of the memory, not its end";
  OPENSSL_free(out);
}

TEST_F(IssuerAndSubject, NewMemoryThatIsNotToBeHadIsAnError) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  ias pair = make_ias(issuer, subject);
  ASSERT_EQ(der(pair), whole);
  unsigned char *out = nullptr;
  fake_allocator::fail_at(1);
  const int length = i2d_SCEP_ISSUER_AND_SUBJECT(pair.get(), &out);
  ASSERT_TRUE(fake_allocator::has_failed());
  fake_allocator::stop_failing();
  EXPECT_EQ(length, -1);
  EXPECT_EQ(out, nullptr);
  support::clear_openssl_errors();
}

// ---- decoding ----

TEST_F(IssuerAndSubject, DecodesToEqualNames) {
  ias made = decode(whole);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(X509_NAME_cmp(made->issuer, issuer.get()), 0);
  EXPECT_EQ(X509_NAME_cmp(made->subject, subject.get()), 0);
  EXPECT_EQ(consumed, static_cast<ptrdiff_t>(whole.size()));
  EXPECT_EQ(der(made), whole);
}

TEST_F(IssuerAndSubject, OctetsBehindTheSequenceAreLeftForTheCaller) {
  ASSERT_NE(decode(whole + "more"), nullptr);
  EXPECT_EQ(consumed, static_cast<ptrdiff_t>(whole.size()));
}

TEST_F(IssuerAndSubject, StoresANewRecordWhereThereIsNone) {
  SCEP_ISSUER_AND_SUBJECT *record = nullptr;
  const auto *in = reinterpret_cast<const unsigned char *>(whole.data());
  SCEP_ISSUER_AND_SUBJECT *made =
      d2i_SCEP_ISSUER_AND_SUBJECT(&record, &in, static_cast<long>(whole.size()));
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(record, made);
  SCEP_ISSUER_AND_SUBJECT_free(made);
}

TEST_F(IssuerAndSubject, ReusesTheCallersRecord) {
  ias record = make_ias(subject, issuer);
  SCEP_ISSUER_AND_SUBJECT *given = record.get();
  const auto *in = reinterpret_cast<const unsigned char *>(whole.data());
  EXPECT_EQ(d2i_SCEP_ISSUER_AND_SUBJECT(&given, &in, static_cast<long>(whole.size())),
            record.get());
  EXPECT_EQ(given, record.get());
  EXPECT_EQ(X509_NAME_cmp(record->issuer, issuer.get()), 0);
  EXPECT_EQ(X509_NAME_cmp(record->subject, subject.get()), 0);
  EXPECT_EQ(der(record), whole);
}

TEST_F(IssuerAndSubject, ReusesANewRecord) {
  ias record(SCEP_ISSUER_AND_SUBJECT_new(), SCEP_ISSUER_AND_SUBJECT_free);
  SCEP_ISSUER_AND_SUBJECT *given = record.get();
  const auto *in = reinterpret_cast<const unsigned char *>(whole.data());
  EXPECT_EQ(d2i_SCEP_ISSUER_AND_SUBJECT(&given, &in, static_cast<long>(whole.size())),
            record.get());
  EXPECT_EQ(der(record), whole);
}

TEST_F(IssuerAndSubject, SuccessLeavesTheErrorQueueEmpty) {
  decode(whole);
  EXPECT_EQ(ERR_peek_error(), 0u);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

// ---- decoding failures ----

struct queue_entry {
  int line = -1;
  std::string data;
};

// Exactly one entry in the queue of ours: returns it, and empties the queue.
queue_entry only_entry(const std::string &what) {
  int ours = 0;
  queue_entry found;
  const char *file = nullptr;
  const char *data = nullptr;
  int line = 0;
  int flags = 0;
  while (unsigned long error = ERR_get_error_all(&file, &line, nullptr, &data, &flags)) {
    if (strcmp(file, "common/issuer_and_subject") != 0)
      continue;
    ours++;
    found = {line, data ? data : ""};
    EXPECT_EQ(ERR_GET_LIB(error), ERR_LIB_ASN1) << what;
    EXPECT_EQ(ERR_GET_REASON(error), ERR_R_NESTED_ASN1_ERROR) << what;
    EXPECT_TRUE(flags & ERR_TXT_STRING) << what;
  }
  EXPECT_EQ(ours, 1) << what;
  return found;
}

struct IssuerAndSubjectFailures : IssuerAndSubject {
  // One octet string for each place where decoding can end.
  std::map<std::string, std::string> bad = {
      {"header", "\x04" + whole.substr(1)},
      {"issuer", tlv(0x30, tlv(0x04, "x") + der(subject))},
      {"subject", tlv(0x30, der(issuer) + tlv(0x04, "x"))},
      {"end", tlv(0x30, der(issuer) + der(subject) + der(subject))},
  };
};

TEST_F(IssuerAndSubjectFailures, EachPlaceQueuesOneEntryOfItsOwn) {
  std::set<int> lines;
  for (const auto &[place, octets] : bad) {
    EXPECT_EQ(decode(octets), nullptr) << place;
    lines.insert(only_entry(place).line);
  }
  EXPECT_EQ(lines.size(), bad.size());
}

TEST_F(IssuerAndSubjectFailures, RecordThatIsNotToBeHadQueuesAnEntryOfItsOwnToo) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  std::set<int> others;
  for (const auto &[place, octets] : bad) {
    decode(octets);
    others.insert(only_entry(place).line);
  }
  const auto *in = reinterpret_cast<const unsigned char *>(whole.data());
  fake_allocator::fail_at(1);
  SCEP_ISSUER_AND_SUBJECT *made =
      d2i_SCEP_ISSUER_AND_SUBJECT(nullptr, &in, static_cast<long>(whole.size()));
  ASSERT_TRUE(fake_allocator::has_failed());
  fake_allocator::stop_failing();
  EXPECT_EQ(made, nullptr);
  EXPECT_EQ(in, reinterpret_cast<const unsigned char *>(whole.data()));
  const queue_entry entry = only_entry("record");
  EXPECT_EQ(others.count(entry.line), 0u);
  EXPECT_EQ(entry.data, "address offset=0");
}

TEST_F(IssuerAndSubjectFailures, EntryNamesTheOffsetOfTheNameThatIsNone) {
  decode(bad["issuer"]);
  EXPECT_EQ(only_entry("issuer").data, "address offset=2");
  decode(bad["subject"]);
  EXPECT_EQ(only_entry("subject").data, "address offset=" + std::to_string(2 + der(issuer).size()));
}

TEST_F(IssuerAndSubjectFailures, EntryNamesTheOffsetOfWhatFollowsTheNames) {
  const std::string names = der(issuer) + der(subject);
  decode(tlv(0x30, names + std::string("\x05\0", 2)));
  EXPECT_EQ(only_entry("end").data, "address offset=" + std::to_string(2 + names.size()));
}

TEST_F(IssuerAndSubjectFailures, EntryNamesTheStartWhereThereIsNoHeader) {
  decode("");
  EXPECT_EQ(only_entry("nothing").data, "address offset=0");
  decode(whole.substr(0, 1));
  EXPECT_EQ(only_entry("half a header").data, "address offset=0");
  decode(tlv(0x31, whole.substr(2)));
  EXPECT_EQ(only_entry("another header").data, "address offset=0");
}

TEST_F(IssuerAndSubjectFailures, InputIsNotAdvanced) {
  for (const auto &[place, octets] : bad) {
    const auto *start = reinterpret_cast<const unsigned char *>(octets.data());
    const unsigned char *in = start;
    EXPECT_EQ(d2i_SCEP_ISSUER_AND_SUBJECT(nullptr, &in, static_cast<long>(octets.size())), nullptr);
    EXPECT_EQ(in, start) << place;
  }
  support::clear_openssl_errors();
}

TEST_F(IssuerAndSubjectFailures, CallersRecordIsLeftToTheCaller) {
  for (const auto &[place, octets] : bad) {
    ias record = make_ias(issuer, subject);
    SCEP_ISSUER_AND_SUBJECT *given = record.get();
    const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
    EXPECT_EQ(d2i_SCEP_ISSUER_AND_SUBJECT(&given, &in, static_cast<long>(octets.size())), nullptr);
    EXPECT_EQ(given, record.get()) << place;
    // Still a record that can be used again.
    in = reinterpret_cast<const unsigned char *>(whole.data());
    EXPECT_EQ(d2i_SCEP_ISSUER_AND_SUBJECT(&given, &in, static_cast<long>(whole.size())),
              record.get());
    EXPECT_EQ(der(record), whole);
  }
  support::clear_openssl_errors();
}

TEST_F(IssuerAndSubjectFailures, NothingIsStoredForACallerWithoutARecord) {
  for (const auto &[place, octets] : bad) {
    SCEP_ISSUER_AND_SUBJECT *record = nullptr;
    const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
    EXPECT_EQ(d2i_SCEP_ISSUER_AND_SUBJECT(&record, &in, static_cast<long>(octets.size())), nullptr);
    EXPECT_EQ(record, nullptr) << place;
  }
  support::clear_openssl_errors();
}

TEST_F(IssuerAndSubjectFailures, EveryTruncationIsRefused) {
  for (size_t length = 0; length < whole.size(); length++) {
    EXPECT_EQ(decode(whole.substr(0, length)), nullptr) << length;
    EXPECT_EQ(decode(whole, static_cast<long>(length)), nullptr) << length;
    EXPECT_NE(ERR_peek_error(), 0u) << length;
    support::clear_openssl_errors();
  }
  EXPECT_EQ(decode(whole, -1), nullptr);
  support::clear_openssl_errors();
}

TEST_F(IssuerAndSubjectFailures, EveryChangedOctetIsRefusedOrMakesOtherNames) {
  for (size_t at = 0; at < whole.size(); at++) {
    for (int bit = 0; bit < 8; bit++) {
      std::string changed = whole;
      changed[at] = static_cast<char>(changed[at] ^ (1 << bit));
      ias made = decode(changed);
      if (made) {
        EXPECT_NE(made->issuer, nullptr);
        EXPECT_NE(made->subject, nullptr);
        EXPECT_LE(consumed, static_cast<ptrdiff_t>(changed.size()));
      } else {
        EXPECT_NE(ERR_peek_error(), 0u) << at;
      }
      support::clear_openssl_errors();
    }
  }
}

TEST_F(IssuerAndSubjectFailures, SequenceLongerThanItsNamesIsRefused) {
  // The last octets of the sequence are no element at all.
  for (const std::string &rest :
       {std::string("\0", 1), std::string("\0\0", 2), std::string("\x05")}) {
    EXPECT_EQ(decode(tlv(0x30, der(issuer) + der(subject) + rest)), nullptr);
    support::clear_openssl_errors();
  }
}

TEST_F(IssuerAndSubjectFailures, NamesThatReachBeyondTheSequenceAreRefused) {
  std::string shorter = whole;
  shorter[1] = static_cast<char>(shorter[1] - 1);
  EXPECT_EQ(decode(shorter), nullptr);
  support::clear_openssl_errors();
}

TEST_F(IssuerAndSubjectFailures, OtherHeadersAreRefused) {
  const std::string body = der(issuer) + der(subject);
  for (int tag : {0x10, 0x31, 0xa0, 0x24, 0x70})
    EXPECT_EQ(decode(tlv(tag, body)), nullptr) << tag;
  support::clear_openssl_errors();
}

TEST_F(IssuerAndSubjectFailures, EmptySequenceAndSingleNameAreRefused) {
  EXPECT_EQ(decode(tlv(0x30, "")), nullptr);
  EXPECT_EQ(decode(tlv(0x30, der(issuer))), nullptr);
  support::clear_openssl_errors();
}

TEST_F(IssuerAndSubjectFailures, NoOctetsAtAllAreRefused) {
  const unsigned char *in = nullptr;
  EXPECT_EQ(d2i_SCEP_ISSUER_AND_SUBJECT(nullptr, &in, 0), nullptr);
  support::clear_openssl_errors();
}

}  // namespace
