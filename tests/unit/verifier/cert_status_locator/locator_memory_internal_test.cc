// Finding locators while memory runs out: what is missing is never taken for absent.
#include <algorithm>

#include "../cache_support.h"
#include "locator_support.h"

using namespace locator_support;
using namespace extension_der;

namespace {

class LocatorMemory : public locator_test {
 protected:
  void SetUp() override {
    locator_test::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "the allocator cannot be replaced in this build";
  }

  // A locator without points stands for distribution points that cannot be read.
  static bool same_but_for_points(const lines &got, const lines &wanted) {
    return std::equal(got.begin(), got.end(), wanted.begin(), wanted.end(),
                      [](const std::string &one, const std::string &other) {
                        return one == other ||
                               (one.starts_with("points 0") && other.starts_with("points"));
                      });
  }

  // Finds the locators of `cert` with each allocation failing; `check(found)` looks at each list.
  template <class Check>
  void sweep(const support::cert &cert, bool stay_failed, const Check &check) {
    list_ptr whole = find_locators(cert);
    lines wanted = describe(whole);
    ASSERT_FALSE(whole->incomplete);
    clear_log();
    pki::cert_sts_locator_list *found = nullptr;
    size_t failures = fake_allocator::sweep(
        [&] { found = pki::zv_find_cert_sts_locators(cert.get()); },
        [&](size_t n) {
          SCOPED_TRACE(n);
          if (found) {
            lines got = describe(found);
            EXPECT_TRUE(found->incomplete || same_but_for_points(got, wanted)) << log_dump();
            check(got, wanted);
          }
          pki::zv_cv_free_csl_list(found);
          support::clear_openssl_errors();
          clear_log();
        },
        stay_failed);
    EXPECT_GT(failures, 0U);
    EXPECT_EQ(wanted, describe(found));
    EXPECT_FALSE(found->incomplete);
    pki::zv_cv_free_csl_list(found);
  }
  void sweep(const support::cert &cert, bool stay_failed = false) {
    sweep(cert, stay_failed, [](const lines &, const lines &) {});
  }
};

TEST_F(LocatorMemory, NoSourceIsFoundOrTheListIsIncomplete) {
  sweep(make_cert());
}

TEST_F(LocatorMemory, OwnRespondersAreFoundOrTheListIsIncomplete) {
  sweep(make_cert({aia({"http://a/", "http://b/"})}));
}

TEST_F(LocatorMemory, OwnPointsAreFoundOrTheListIsIncomplete) {
  sweep(make_cert({crl_dp_of(point_at("http://a/") + point_at("http://b/") + point("")),
                   freshest_of(point_at("http://c/"))}));
}

TEST_F(LocatorMemory, ConfiguredSourcesAreFoundOrTheListIsIncomplete) {
  auto ca = add_ca("ca");
  cache_support::watched_cert signer = cache_support::make_watched_cert("responder");
  add_ocsp(ca.get(), "http://a/", before, goes_on, signer.cert.get());
  add_crls(ca.get(), {"http://b/", "http://c/"}, before);
  add_always_ok(nullptr, after);
  sweep(make_cert());
  ca.reset();
  support::empty_store();
  signer.cert.reset();
  EXPECT_TRUE(*signer.freed);
}

TEST_F(LocatorMemory, AllSourcesAreFoundInOrderOrTheListIsIncomplete) {
  auto ca = add_ca("ca");
  add_ocsp(ca.get(), "http://a/", before);
  add_crls(nullptr, {"http://b/"}, before);
  add_always_ok(nullptr, after);
  support::cert cert = make_cert({aia({"http://c/", "http://d/"}), crl_dp_of(point_at("http://e/")),
                                  freshest_of(point_at("http://f/"))});
  for (bool stay_failed : {false, true})
    sweep(cert, stay_failed, [](const lines &got, const lines &wanted) {
      // What is there stands in the order of the whole.
      auto at = wanted.begin();
      for (const std::string &each : got) {
        if (each.starts_with("points 0"))
          continue;
        at = std::find(at, wanted.end(), each);
        ASSERT_NE(at, wanted.end()) << each;
        ++at;
      }
    });
}

TEST_F(LocatorMemory, ResponderThatCannotBeAddedSkipsThePointsButNotTheRulesForAfter) {
  add_always_ok(nullptr, after);
  support::cert cert = make_cert({aia({"http://a/"}), crl_dp_of(point_at("http://b/"))});
  int seen = 0;
  sweep(cert, false, [&](const lines &got, const lines &) {
    if (!was_logged(3, "failed to add ocsp locator to list: OUT OF MEMORY"))
      return;
    seen++;
    EXPECT_EQ(lines{"always-ok final"}, got) << log_dump();
  });
  EXPECT_GT(seen, 0);
}

TEST_F(LocatorMemory, EachKindOfConfiguredSourceHasItsLine) {
  add_crls(nullptr, {"http://a/"}, before);
  add_ocsp(nullptr, "http://b/", before);
  add_always_ok(nullptr, before);
  int crl = 0, ocsp = 0, always_ok = 0;
  sweep(make_cert(), false, [&](const lines &got, const lines &) {
    if (was_logged(3, "failed to add CRL locator to list: OUT OF MEMORY")) {
      crl++;
      EXPECT_EQ(lines{}, got);
    }
    if (was_logged(3, "failed to add ocsp locator to list: OUT OF MEMORY")) {
      ocsp++;
      EXPECT_EQ(lines{"crls http://a/"}, got);
    }
    if (was_logged(3, "failed to add always-ok locator to list: OUT OF MEMORY")) {
      always_ok++;
      EXPECT_EQ((lines{"crls http://a/", "ocsp http://b/"}), got);
    }
  });
  EXPECT_GT(crl, 0);
  EXPECT_GT(ocsp, 0);
  EXPECT_GT(always_ok, 0);
}

TEST_F(LocatorMemory, CopiesThatFailLeaveNoPoints) {
  support::cert cert = make_cert({crl_dp_of(point_at("http://a/") + point_at("http://b/"))});
  sweep(cert, false, [&](const lines &got, const lines &wanted) {
    // Nothing, all of it, or the locator that an unreadable extension leaves.
    EXPECT_TRUE(got.empty() || got == wanted || got == lines{"points 0 delta 0"}) << log_dump();
  });
}

// OpenSSL's reasons first, where it has any.
TEST_F(LocatorMemory, CopiesThatFailAreLogged) {
  add_always_ok(nullptr, after);
  support::cert cert =
      make_cert({crl_dp_of(point_at("http://a/")), freshest_of(point_at("http://b/"))});
  int failed = 0, with_reasons = 0;
  sweep(cert, false, [&](const lines &got, const lines &) {
    lines said = logged(3);
    if (said.empty() || said.back() != "failed to add CRL locator to list: OUT OF MEMORY")
      return;
    failed++;
    EXPECT_EQ(lines{"always-ok final"}, got) << log_dump();
    EXPECT_EQ(lines{}, logged_about("created 1 crl locator"));
    said.pop_back();
    with_reasons += !said.empty();
    for (const std::string &line : said)
      EXPECT_TRUE(line.starts_with("OpenSSL error: ")) << line;
  });
  EXPECT_GT(with_reasons, 0);
  EXPECT_GT(failed, with_reasons);
}

TEST_F(LocatorMemory, RulesThatCannotBeCollectedHaveTheirLine) {
  add_ca("ca");
  add_ocsp(nullptr, "http://before/", before);
  add_ocsp(nullptr, "http://after/", after);
  support::cert cert = make_cert({aia({"http://own/"})});
  int first = 0, second = 0;
  sweep(cert, false, [&](const lines &got, const lines &) {
    if (!was_logged(3, "failed to collect local-config entries: OUT OF MEMORY"))
      return;
    // One of the rules may have been final: nothing stands behind them.
    if (got.empty()) {
      first++;
    } else {
      second++;
      EXPECT_EQ((lines{"ocsp http://before/", "ocsp http://own/"}), got);
    }
  });
  EXPECT_GT(first, 0);
  EXPECT_GT(second, 0);
}

TEST_F(LocatorMemory, PointsThatCannotBeReadMakeTheListIncomplete) {
  support::cert cert = make_cert({crl_dp_of(point_at("http://a/"))});
  bool incomplete = true;
  pki::cert_sts_locator_list *found = nullptr;
  fake_allocator::sweep([&] { found = pki::zv_find_cert_sts_locators(cert.get()); },
                        [&](size_t) {
                          if (found && describe(found) == lines{"points 0 delta 0"})
                            incomplete = incomplete && found->incomplete;
                          pki::zv_cv_free_csl_list(found);
                        });
  EXPECT_TRUE(incomplete);
  pki::zv_cv_free_csl_list(found);
}

}  // namespace
