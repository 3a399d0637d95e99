// Locator records and lists: making, adding, releasing.
#include "../cache_support.h"
#include "locator_support.h"

using namespace locator_support;
using namespace extension_der;

namespace {

class LocatorRecords : public locator_test {
 protected:
  void SetUp() override {
    locator_test::SetUp();
    list_ = find_locators(make_cert());
    ASSERT_EQ(0, list_->count);
    clear_log();
  }
  // The list's own array, too, is made to fail: whether the add succeeded decides.
  template <class Add>
  void sweep_add(const Add &add, const lines &success) {
    if (!fake_allocator::available())
      GTEST_SKIP() << "the allocator cannot be replaced in this build";
    int result = -1;
    size_t failures = fake_allocator::sweep([&] { result = add(); },
                                            [&](size_t n) {
                                              EXPECT_EQ(2, result) << n;
                                              EXPECT_EQ(lines{}, describe(list_)) << n;
                                            });
    EXPECT_EQ(0, result);
    EXPECT_GT(failures, 0U);
    EXPECT_EQ(success, describe(list_));
  }

  list_ptr list_{nullptr, pki::zv_cv_free_csl_list};
};

TEST_F(LocatorRecords, MadeOneHasOneReferenceAndZeroedData) {
  pki::cert_sts_locator *made =
      pki::make_locator(pki::zv_cv_cs_always_ok, true, sizeof(pki::ocsp_locator));
  ASSERT_NE(nullptr, made);
  EXPECT_EQ(pki::zv_cv_cs_always_ok, made->get_sts);
  EXPECT_EQ(1, made->final);
  EXPECT_EQ(1, made->ref_count);
  ASSERT_NE(nullptr, made->data);
  auto *data = static_cast<pki::ocsp_locator *>(made->data);
  EXPECT_EQ(0, data->type);
  EXPECT_EQ(nullptr, data->url);
  EXPECT_EQ(nullptr, data->signer);
  data->type = pki::locator_ocsp_url;
  pki::zv_cv_free_cert_status_locator(made);
}

TEST_F(LocatorRecords, AddedOnesKeepTheirOrder) {
  std::vector<pki::cert_sts_locator *> made;
  for (int i = 0; i < 50; i++) {
    made.push_back(pki::make_locator(pki::zv_cv_cs_always_ok, false, 0));
    ASSERT_EQ(0, pki::cv_csl_add(list_.get(), made.back()));
    ASSERT_EQ(i + 1, list_->count);
  }
  for (int i = 0; i < 50; i++)
    EXPECT_EQ(made[static_cast<size_t>(i)], list_->locators[i]);
  EXPECT_EQ(1, made[0]->ref_count);
}

TEST_F(LocatorRecords, ListThatCannotGrowIsUnchanged) {
  pki::cert_sts_locator *made = pki::make_locator(pki::zv_cv_cs_always_ok, false, 0);
  sweep_add([&] { return pki::cv_csl_add(list_.get(), made); }, {"always-ok"});
  if (list_->count == 0)
    pki::zv_cv_free_cert_status_locator(made);
}

TEST_F(LocatorRecords, OcspUrlIsAddedWithItsSettings) {
  support::cert signer = support::make_ca("responder");
  ASSERT_EQ(0, pki::cv_csl_add_ocsp_url(list_.get(), "http://a/", signer.get(), 1, 1));
  ASSERT_EQ(lines{"ocsp http://a/ final"}, describe(list_));
  const auto *data = data_of<pki::ocsp_locator>(list_, 0);
  EXPECT_EQ(signer.get(), data->signer);
  EXPECT_EQ(1, data->ocsp_flag);
}

TEST_F(LocatorRecords, OcspUrlWithoutSignerReferenceIsNotAdded) {
  cache_support::watched_cert signer = cache_support::make_watched_cert("responder");
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(49, pki::cv_csl_add_ocsp_url(list_.get(), "http://a/", signer.cert.get(), 0, 0));
  EXPECT_EQ(0, list_->count);
  signer.cert.reset();
  EXPECT_TRUE(*signer.freed);
}

TEST_F(LocatorRecords, OcspUrlWithoutMemoryIsNotAddedAndKeepsNoSigner) {
  cache_support::watched_cert signer = cache_support::make_watched_cert("responder");
  sweep_add(
      [&] { return pki::cv_csl_add_ocsp_url(list_.get(), "http://a/", signer.cert.get(), 0, 0); },
      {"ocsp http://a/"});
  list_.reset();
  signer.cert.reset();
  EXPECT_TRUE(*signer.freed);
}

TEST_F(LocatorRecords, LastReferenceReleasesTheSigner) {
  cache_support::watched_cert signer = cache_support::make_watched_cert("responder");
  ASSERT_EQ(0, pki::cv_csl_add_ocsp_url(list_.get(), "http://a/", signer.cert.get(), 0, 0));
  signer.cert.reset();
  pki::cert_sts_locator *locator = list_->locators[0];
  locator->ref_count++;
  list_.reset();
  EXPECT_FALSE(*signer.freed);
  EXPECT_EQ(1, locator->ref_count);
  pki::zv_cv_free_cert_status_locator(locator);
  EXPECT_TRUE(*signer.freed);
}

TEST_F(LocatorRecords, NullListIsReleasedToo) {
  pki::zv_cv_free_csl_list(nullptr);
  EXPECT_EQ(0U, captured_log().size());
}

TEST_F(LocatorRecords, UnknownTypeIsReportedAndKept) {
  cache_support::watched_cert signer = cache_support::make_watched_cert("responder");
  ASSERT_EQ(0, pki::cv_csl_add_ocsp_url(list_.get(), "http://a/", signer.cert.get(), 0, 0));
  signer.cert.reset();
  pki::cert_sts_locator *locator = list_->locators[0];
  auto *data = static_cast<pki::ocsp_locator *>(locator->data);
  for (int type : {0, 4, -1}) {
    data->type = type;
    locator->ref_count = 1;
    clear_log();
    pki::zv_cv_free_cert_status_locator(locator);
    char line[200];
    snprintf(line, sizeof line,
             "unexpected type %d encountered in locator %p during free - not freeing it", type,
             static_cast<void *>(locator));
    EXPECT_EQ(1U, count_logged(3, line)) << log_dump();
    EXPECT_FALSE(*signer.freed);
    EXPECT_STREQ("http://a/", data->url);
  }
  data->type = pki::locator_ocsp_url;
  locator->ref_count = 1;
  list_.reset();
  EXPECT_TRUE(*signer.freed);
}

TEST_F(LocatorRecords, PointCopyIsDeepAndEqual) {
  std::string octets = point(full_name(uri("http://a/") + general_name(4)) + two_reasons +
                             crl_issuer(general_name(4)));
  const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
  DIST_POINT *original = d2i_DIST_POINT(nullptr, &in, static_cast<long>(octets.size()));
  ASSERT_NE(nullptr, original);
  DIST_POINT *copy = pki::cv_dup_dp(original);
  ASSERT_NE(nullptr, copy);
  EXPECT_NE(original->distpoint, copy->distpoint);
  DIST_POINT_free(original);
  unsigned char *out = nullptr;
  int length = i2d_DIST_POINT(copy, &out);
  EXPECT_EQ(octets, std::string(reinterpret_cast<char *>(out), static_cast<size_t>(length)));
  OPENSSL_free(out);
  DIST_POINT_free(copy);
}

class LocatorAlwaysOk : public cache_support::cache_test {};

TEST_F(LocatorAlwaysOk, AnswersOkForOneDay) {
  support::cert cert = make_cert();
  record_ptr info(pki::zv_cv_cs_always_ok(nullptr, cert.get(), nullptr, nullptr, 1, 0),
                  cv_free_cert_sts_info);
  ASSERT_TRUE(info);
  EXPECT_EQ(PKI_CERT_OK, info->status);
  EXPECT_EQ(cert.get(), info->cert);
  EXPECT_EQ(1U, info->ref_count);
  EXPECT_EQ(0, ASN1_TIME_cmp_time_t(info->valid_until, cache_support::start + 86400));
  EXPECT_FALSE(cache_support::hold(zv_cv_find_cert_sts_info_cache(cert.get())));
}

TEST_F(LocatorAlwaysOk, HasNoAnswerWithoutMemory) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be replaced in this build";
  support::cert cert = make_cert();
  cert_sts_info *info = nullptr;
  size_t failures = fake_allocator::sweep(
      [&] { info = pki::zv_cv_cs_always_ok(nullptr, cert.get(), nullptr, nullptr, 1, 0); },
      [&](size_t n) { EXPECT_EQ(nullptr, info) << n; });
  EXPECT_GT(failures, 0U);
  EXPECT_NE(nullptr, info);
  cv_free_cert_sts_info(info);
}

TEST_F(LocatorAlwaysOk, HasNoAnswerWithoutAReference) {
  support::cert cert = make_cert();
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(nullptr, pki::zv_cv_cs_always_ok(nullptr, cert.get(), nullptr, nullptr, 1, 0));
}

}  // namespace
