// A base and its delta in one CRL.
#include "fakes/allocator.h"
#include "unit/verifier/codes.h"
#include "unit/verifier/crl_cache/decide_support.h"
#include "unit/verifier/own_log.h"
#include "verifier/crl_cache/delta.h"

using namespace decide_support;
using support::crl_number;
using support::delta_crl_indicator;

namespace {

constexpr int internal_error = 72;

class DeltaMerge : public support::store_test {
 protected:
  void SetUp() override {
    store_test::SetUp();
    base_fields.next_update = support::der_utc_time(start + 1000);
    delta_fields.this_update = support::der_utc_time(start - 60);
    delta_fields.next_update = support::der_utc_time(start + 2000);
  }
  int merge() {
    base = crl_objects::crl_object(base_fields);
    delta = crl_objects::crl_object(delta_fields);
    return merge_again();
  }
  int merge_again() { return pki::cv_merge_crl_dcrl(base.get(), delta.get(), &merged); }

  // The serial numbers of a CRL's entries in their order.
  static std::vector<long> serials(X509_CRL *crl) {
    std::vector<long> all;
    STACK_OF(X509_REVOKED) *entries = X509_CRL_get_REVOKED(crl);
    for (int i = 0; i < sk_X509_REVOKED_num(entries); i++)
      all.push_back(
          ASN1_INTEGER_get(X509_REVOKED_get0_serialNumber(sk_X509_REVOKED_value(entries, i))));
    return all;
  }
  static int reason_of(X509_CRL *crl, int i) {
    auto *reason = static_cast<ASN1_ENUMERATED *>(X509_REVOKED_get_ext_d2i(
        sk_X509_REVOKED_value(X509_CRL_get_REVOKED(crl), i), NID_crl_reason, nullptr, nullptr));
    int number = reason ? static_cast<int>(ASN1_ENUMERATED_get(reason)) : -1;
    ASN1_ENUMERATED_free(reason);
    return number;
  }
  // The CRL's number; `critical` is that of the extension.
  static long number_of(const X509_CRL *crl, int *critical = nullptr) {
    auto *number =
        static_cast<ASN1_INTEGER *>(X509_CRL_get_ext_d2i(crl, NID_crl_number, critical, nullptr));
    long value = number ? ASN1_INTEGER_get(number) : -1;
    ASN1_INTEGER_free(number);
    return value;
  }
  static bool updated(const X509_CRL *crl, time_t this_update, time_t next_update) {
    return ASN1_TIME_cmp_time_t(X509_CRL_get0_lastUpdate(crl), this_update) == 0 &&
           ASN1_TIME_cmp_time_t(X509_CRL_get0_nextUpdate(crl), next_update) == 0;
  }
  // As somebody sees it who gets its octets only.
  support::crl reread() const {
    support::crl borrowed(merged.get(), [](X509_CRL *) {});
    return crl_objects::decode_crl(support::der(borrowed));
  }

  crl_fields base_fields = crl_of(crl_entry(3) + crl_entry(1) + crl_entry(2), crl_number(5));
  crl_fields delta_fields =
      crl_of(crl_entry(9) + crl_entry(7), crl_number(6) + delta_crl_indicator(5));
  support::crl base, delta;
  pki::x509_crl_ptr merged;
};

TEST_F(DeltaMerge, TimesAndNumberAreTheDeltas) {
  ASSERT_EQ(0, merge()) << log_dump();
  EXPECT_TRUE(updated(merged.get(), start - 60, start + 2000));
  int critical = -1;
  EXPECT_EQ(6, number_of(merged.get(), &critical));
  EXPECT_EQ(0, critical);
  EXPECT_EQ("", log_dump());
}

TEST_F(DeltaMerge, EntriesAreTheDeltasAndBehindThemTheBases) {
  ASSERT_EQ(0, merge());
  EXPECT_EQ((std::vector<long>{9, 7, 3, 1, 2}), serials(merged.get()));
}

TEST_F(DeltaMerge, OctetsSayTheSame) {
  ASSERT_EQ(0, merge());
  support::crl again = reread();
  ASSERT_TRUE(again);
  EXPECT_TRUE(updated(again.get(), start - 60, start + 2000));
  EXPECT_EQ(6, number_of(again.get()));
  EXPECT_EQ((std::vector<long>{9, 7, 3, 1, 2}), serials(again.get()));
  X509_CRL *copy = X509_CRL_dup(merged.get());
  EXPECT_EQ(6, number_of(copy));
  X509_CRL_free(copy);
}

TEST_F(DeltaMerge, BothStayAsTheyWere) {
  ASSERT_EQ(0, merge());
  EXPECT_EQ(support::crl_octets(base_fields), support::der(base));
  EXPECT_EQ(support::crl_octets(delta_fields), support::der(delta));
  EXPECT_EQ(5, number_of(base.get()));
  EXPECT_EQ(3u, serials(base.get()).size());
}

TEST_F(DeltaMerge, EntriesStayAsTheyAre) {
  base_fields.entries = crl_entry(3, support::reason_code(6));
  delta_fields.entries = crl_entry(3, support::reason_code(8)) + crl_entry(4);
  ASSERT_EQ(0, merge());
  EXPECT_EQ((std::vector<long>{3, 4, 3}), serials(merged.get()));
  EXPECT_EQ(8, reason_of(merged.get(), 0));
  EXPECT_EQ(-1, reason_of(merged.get(), 1));
  EXPECT_EQ(6, reason_of(merged.get(), 2));
}

TEST_F(DeltaMerge, EitherMayHaveNoEntries) {
  base_fields.entries.reset();
  ASSERT_EQ(0, merge());
  EXPECT_EQ((std::vector<long>{9, 7}), serials(merged.get()));
  delta_fields.entries.reset();
  ASSERT_EQ(0, merge());
  EXPECT_EQ(std::vector<long>{}, serials(merged.get()));
  EXPECT_EQ(6, number_of(merged.get()));
  base_fields.entries = crl_entry(1);
  ASSERT_EQ(0, merge());
  EXPECT_EQ(std::vector<long>{1}, serials(merged.get()));
}

TEST_F(DeltaMerge, CriticalNumberLosesThat) {
  base_fields.extensions = crl_number(5, true);
  ASSERT_EQ(0, merge());
  int critical = -1;
  EXPECT_EQ(6, number_of(merged.get(), &critical));
  EXPECT_EQ(0, critical);
  EXPECT_EQ(6, number_of(reread().get(), &critical));
  EXPECT_EQ(0, critical);
}

TEST_F(DeltaMerge, OtherExtensionsOfTheBaseStay) {
  base_fields.extensions = support::issuing_dist_point({.user_certs = true}) + crl_number(5) +
                           support::freshest_crl({"http://127.0.0.1/delta"});
  delta_fields.extensions += support::issuing_dist_point({.user_certs = true});
  ASSERT_EQ(0, merge());
  support::crl again = reread();
  for (X509_CRL *each : {merged.get(), again.get()}) {
    EXPECT_EQ(3, X509_CRL_get_ext_count(each));
    EXPECT_GE(X509_CRL_get_ext_by_NID(each, NID_issuing_distribution_point, -1), 0);
    EXPECT_GE(X509_CRL_get_ext_by_NID(each, NID_freshest_crl, -1), 0);
    EXPECT_EQ(-1, X509_CRL_get_ext_by_NID(each, NID_delta_crl, -1));
  }
}

TEST_F(DeltaMerge, BaseWithoutNextUpdateGetsTheDeltas) {
  base_fields.next_update = "";
  ASSERT_EQ(0, merge());
  EXPECT_TRUE(updated(merged.get(), start - 60, start + 2000));
  EXPECT_TRUE(updated(reread().get(), start - 60, start + 2000));
}

TEST_F(DeltaMerge, DeltaWithoutNextUpdateLeavesNone) {
  delta_fields.next_update = "";
  ASSERT_EQ(0, merge());
  EXPECT_EQ(nullptr, X509_CRL_get0_nextUpdate(merged.get()));
  EXPECT_EQ(nullptr, X509_CRL_get0_nextUpdate(reread().get()));
}

TEST_F(DeltaMerge, NumberIsMissing) {
  base_fields.extensions = "";
  EXPECT_EQ(internal_error, merge());
  EXPECT_EQ(nullptr, merged);
  base_fields.extensions = crl_number(5);
  delta_fields.extensions = delta_crl_indicator(5);
  EXPECT_EQ(internal_error, merge());
  EXPECT_EQ(nullptr, merged);
}

TEST_F(DeltaMerge, MissingNumberLogsWhatOpenSslSaid) {
  delta_fields.extensions = delta_crl_indicator(5);
  base = crl_objects::crl_object(base_fields);
  delta = crl_objects::crl_object(delta_fields);
  const std::string line = cache_support::queue_error();
  clear_log();
  EXPECT_EQ(internal_error, merge_again());
  EXPECT_EQ("3: " + line + "\n", log_dump());
  EXPECT_EQ(0u, ERR_peek_error());
}

TEST_F(DeltaMerge, MarkOfATruncatedDeltaComesAlong) {
  ASSERT_EQ(0, merge());
  EXPECT_FALSE(pki::is_marked_truncated(merged.get()));
  ASSERT_EQ(0, pki::cv_crl_mark_truncated(delta.get()));
  merged.reset();
  ASSERT_EQ(0, merge_again());
  EXPECT_TRUE(pki::is_marked_truncated(merged.get()));
  EXPECT_TRUE(pki::is_marked_truncated(reread().get()));
}

TEST_F(DeltaMerge, MarkOfATruncatedBaseStaysSingle) {
  ASSERT_EQ(0, merge());
  const int extensions = X509_CRL_get_ext_count(merged.get());
  ASSERT_EQ(0, pki::cv_crl_mark_truncated(base.get()));
  ASSERT_EQ(0, pki::cv_crl_mark_truncated(delta.get()));
  merged.reset();
  ASSERT_EQ(0, merge_again());
  EXPECT_TRUE(pki::is_marked_truncated(merged.get()));
  EXPECT_EQ(extensions + 1, X509_CRL_get_ext_count(merged.get()));
}

TEST_F(DeltaMerge, WantOfMemoryGivesNothing) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  ASSERT_EQ(0, merge());
  int result = -1;
  size_t with_reasons = 0;
  size_t failures = fake_allocator::sweep(
      [&] {
        merged.reset();
        result = merge_again();
      },
      [&](size_t n) {
        EXPECT_TRUE(result == 0 || result == out_of_memory) << n << ": " << result;
        EXPECT_EQ(result == 0, merged != nullptr) << n;
        EXPECT_TRUE(!merged || serials(merged.get()).size() == 5) << n;
        // What OpenSSL says of it is moved into the log, as errors.
        EXPECT_EQ(0u, openssl_lines(4)) << n;
        EXPECT_TRUE(!result || ERR_peek_error() == 0) << n;
        with_reasons += result != 0 && openssl_lines(3) > 0;
        clear_log();
        support::clear_openssl_errors();
      });
  EXPECT_GT(failures, 5u);
  EXPECT_GT(with_reasons, 5u);
  EXPECT_EQ(0, result);
  EXPECT_EQ((std::vector<long>{9, 7, 3, 1, 2}), serials(merged.get()));
}

}  // namespace
