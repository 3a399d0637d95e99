// The times of a CRL: one from the future is refused, and currency.
#include "fakes/allocator.h"
#include "unit/verifier/crl_cache/fetch_support.h"
#include "unit/verifier/printed_time.h"

using namespace crl_support;
using namespace support;

namespace {

class CrlTimes : public crl_fetch_test {
 protected:
  void SetUp() override {
    crl_fetch_test::SetUp();
    trust(signer_cert());
  }
  // What currency says about a CRL of these times; "" leaves nextUpdate out.
  int currency(const std::string &this_update, const std::string &next_update) {
    crl_fields fields;
    fields.this_update = this_update;
    fields.next_update = next_update;
    support::crl crl = openssl_decoded(crl_octets(fields));
    EXPECT_TRUE(crl);
    clear_log();
    return pki::cv_crl_check_update_dates(crl.get());
  }
  int age(time_t seconds) { return currency(der_utc_time(crl_der_now - seconds), ""); }
};

// ---- thisUpdate of a download ----

TEST_F(CrlTimes, ThisUpdateMayBeFiveMinutesAhead) {
  for (long ahead : {-100L * day, -1L, 0L, 1L, 299L, 300L})
    for (bool announced : {true, false})
      for (bool generalized : {true, false}) {
        crl_fields fields;
        time_t time = crl_der_now + ahead;
        fields.this_update = generalized ? der_generalized_time(time) : der_utc_time(time);
        EXPECT_EQ(0, get_body(crl_octets(fields), {}, announced).code) << ahead << log_dump();
      }
}

TEST_F(CrlTimes, ThisUpdateFurtherAheadIsRefused) {
  for (long ahead : {301L, 3600L, 1000L * day})
    for (bool announced : {true, false}) {
      crl_fields fields;
      fields.this_update = der_utc_time(crl_der_now + ahead);
      EXPECT_EQ(85, get_body(crl_octets(fields), {}, announced).code);
      EXPECT_EQ((announced ? full_line : truncated_line) +
                    ("3: The crl (/CN=issuer) was updated in the future (" +
                     printed(crl_der_now + ahead) + ")!\n") +
                    discarded_line(),
                own_log());
    }
}

TEST_F(CrlTimes, UnreadableThisUpdateIsRefused) {
  for (std::string text : {"soon", "2311142213Z", "231314221320Z", "2311142213200Z", ""})
    for (bool announced : {true, false}) {
      crl_fields fields;
      fields.this_update = der_tlv(0x17, text);
      EXPECT_EQ(85, get_body(crl_octets(fields), {}, announced).code) << text;
      EXPECT_EQ((announced ? full_line : truncated_line) +
                    ("3: Error parsing the lastUpdate time in CRL (/CN=issuer): " + text + "\n") +
                    discarded_line(),
                own_log());
    }
}

TEST_F(CrlTimes, NextUpdateInThePastIsNoneOfTheDownloadsBusiness) {
  crl_fields fields;
  fields.next_update = der_utc_time(crl_der_now - 100 * day);
  EXPECT_EQ(0, get_body(crl_octets(fields)).code);
}

TEST_F(CrlTimes, ThisUpdateByItself) {
  crl_fields fields;
  for (long ahead : {300L, 301L}) {
    fields.this_update = der_utc_time(crl_der_now + ahead);
    EXPECT_EQ(ahead == 300 ? 0 : 85,
              pki::check_this_update(openssl_decoded(crl_octets(fields)).get()));
  }
}

// ---- currency ----

TEST_F(CrlTimes, NextUpdateMayBeAlmostFiveMinutesPast) {
  for (long ahead : {-299L, 0L, 1L, 1000L * day}) {
    EXPECT_EQ(0, currency(der_utc_time(crl_der_now), der_utc_time(crl_der_now + ahead))) << ahead;
    EXPECT_EQ(0, currency(der_utc_time(crl_der_now), der_generalized_time(crl_der_now + ahead)));
    EXPECT_EQ("", own_log());
  }
}

TEST_F(CrlTimes, NextUpdateFurtherPastIsRefused) {
  for (long past : {300L, 301L, 1000L * day}) {
    EXPECT_EQ(85, currency(der_utc_time(crl_der_now), der_utc_time(crl_der_now - past)));
    EXPECT_EQ("3: The next-update in the crl (/CN=issuer) is in the past (" +
                  printed(crl_der_now - past) + ")\n",
              own_log());
  }
}

TEST_F(CrlTimes, UnreadableNextUpdateIsRefused) {
  EXPECT_EQ(85, currency(der_utc_time(crl_der_now), der_tlv(0x18, "whenever")));
  EXPECT_EQ("3: Error parsing the nextUpdate time in CRL (/CN=issuer): whenever\n", own_log());
}

TEST_F(CrlTimes, GoodNextUpdateMakesAgeMeaningless) {
  EXPECT_EQ(0, currency(der_utc_time(crl_der_now - 5000 * day), der_utc_time(crl_der_now + 1)));
  EXPECT_EQ(0, currency(der_tlv(0x17, "soon"), der_utc_time(crl_der_now + 1)));
}

TEST_F(CrlTimes, WithoutNextUpdateThisUpdateMayBe530DaysOld) {
  for (long old : {0L, 529 * day, 530 * day, 45792299L}) {
    EXPECT_EQ(0, age(old)) << old;
    EXPECT_EQ("", own_log());
  }
}

TEST_F(CrlTimes, WithoutNextUpdateOlderOnesAreRefused) {
  for (long old : {45792300L, 45792301L, 531 * day, 4000 * day}) {
    EXPECT_EQ(85, age(old)) << old;
    EXPECT_EQ(
        "3: The crl (/CN=issuer) was updated too long ago (" + printed(crl_der_now - old) + ")\n",
        own_log());
  }
}

TEST_F(CrlTimes, WithoutNextUpdateUnreadableThisUpdateIsRefused) {
  EXPECT_EQ(85, currency(der_tlv(0x17, "soon"), ""));
  EXPECT_EQ("3: Error parsing the lastUpdate time in CRL (/CN=issuer): soon\n", own_log());
}

TEST_F(CrlTimes, LongNameIsCutTo100Characters) {
  crl_fields fields;
  std::string cn(60, 'n');
  fields.issuer = der_name(make_name({{"CN", cn}, {"O", std::string(60, 'o')}}));
  fields.next_update = der_utc_time(crl_der_now - day);
  EXPECT_EQ(85, pki::cv_crl_check_update_dates(openssl_decoded(crl_octets(fields)).get()));
  // OpenSSL leaves out the attribute that does not fit.
  EXPECT_EQ("3: The next-update in the crl (/CN=" + cn + ") is in the past (" +
                printed(crl_der_now - day) + ")\n",
            own_log());
}

// ---- want of memory ----

class CrlTimesMemory : public CrlTimes {
 protected:
  void SetUp() override {
    CrlTimes::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "this build's allocator cannot be replaced";
  }
  // What is late stays late, with `whole` in the log; and where memory does not suffice for the
  // time's text, with `no_text` instead. Or the code says that memory was short.
  template <class Check>
  static void expect_line(const crl_fields &fields, const Check &check, const std::string &whole,
                          const std::string &no_text) {
    support::crl crl = openssl_decoded(crl_octets(fields));
    for (bool stay_failed : {false, true}) {
      size_t without_text = 0;
      int code = -1;
      clear_log();
      size_t failures = fake_allocator::sweep(
          [&] { code = check(crl.get()); },
          [&](size_t n) {
            const std::string log = own_log();
            // The name needs memory of its own, which it may go without.
            if (code == 85)
              EXPECT_TRUE(log == whole || log == no_text || log.find("(/CN=") == log.npos) << log;
            else
              EXPECT_EQ(2, code) << n;
            EXPECT_EQ(code == 2, log.empty()) << n << log;
            without_text += log == no_text;
            EXPECT_EQ(0u, ERR_peek_error()) << n;
            clear_openssl_errors();
            clear_log();
          },
          stay_failed);
      EXPECT_GT(failures, 0u);
      EXPECT_GT(without_text, 0u);
      EXPECT_EQ(85, code);
      EXPECT_EQ(whole, own_log());
    }
  }
};

TEST_F(CrlTimesMemory, LateNextUpdateIsSaidAlsoWithoutItsText) {
  crl_fields fields;
  fields.next_update = der_utc_time(crl_der_now - day);
  const std::string line = "3: The next-update in the crl (/CN=issuer) is in the past (";
  expect_line(fields, pki::cv_crl_check_update_dates, line + printed(crl_der_now - day) + ")\n",
              line + "<no-mem>)\n");
}

TEST_F(CrlTimesMemory, OldThisUpdateIsSaidAlsoWithoutItsText) {
  crl_fields fields;
  fields.next_update = "";
  fields.this_update = der_utc_time(crl_der_now - 1000 * day);
  const std::string line = "3: The crl (/CN=issuer) was updated too long ago (";
  expect_line(fields, pki::cv_crl_check_update_dates,
              line + printed(crl_der_now - 1000 * day) + ")\n", line + "<no-mem>)\n");
}

TEST_F(CrlTimesMemory, ThisUpdateOfTheFutureIsSaidAlsoWithoutItsText) {
  crl_fields fields;
  fields.this_update = der_utc_time(crl_der_now + day);
  const std::string line = "3: The crl (/CN=issuer) was updated in the future (";
  expect_line(fields, pki::check_this_update, line + printed(crl_der_now + day) + ")!\n",
              line + "<no-mem>)!\n");
}

}  // namespace
