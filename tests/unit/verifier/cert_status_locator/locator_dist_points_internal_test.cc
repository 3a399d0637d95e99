// The locator of a certificate's cRLDistributionPoints and freshestCRL.
#include "locator_support.h"

using namespace locator_support;
using namespace extension_der;

namespace {

class LocatorPoints : public locator_test {};

std::vector<std::string> ders(const STACK_OF(DIST_POINT) * points) {
  std::vector<std::string> all;
  for (int i = 0; i < sk_DIST_POINT_num(points); i++) {
    unsigned char *out = nullptr;
    int length = i2d_DIST_POINT(sk_DIST_POINT_value(points, i), &out);
    all.emplace_back(reinterpret_cast<char *>(out), static_cast<size_t>(length));
    OPENSSL_free(out);
  }
  return all;
}

const auto *points_of(const list_ptr &list) {
  return data_of<pki::dist_points_locator>(list, 0);
}

TEST_F(LocatorPoints, AllPointsMakeOneLocator) {
  std::string first = point_at("http://a/"), second = point_at("http://b/");
  list_ptr list = find_locators(make_cert({crl_dp_of(first + second)}));
  ASSERT_EQ(lines{"points 2 delta 0"}, describe(list));
  EXPECT_FALSE(list->incomplete);
  EXPECT_EQ(0, list->locators[0]->final);
  EXPECT_EQ(1, list->locators[0]->ref_count);
  EXPECT_EQ(2, points_of(list)->type);
  EXPECT_NE(nullptr, points_of(list)->delta_dps);
  EXPECT_EQ((lines{first, second}), ders(points_of(list)->dps));
  EXPECT_TRUE(was_logged(7, "found 2 acceptable crl-dp entries (out of 2)"));
  EXPECT_TRUE(was_logged(7, "created 1 crl locator"));
}

TEST_F(LocatorPoints, NoExtensionMakesNone) {
  list_ptr list = find_locators(make_cert({aia({"http://a/"})}));
  EXPECT_EQ(lines{"ocsp http://a/"}, describe(list));
  EXPECT_EQ(lines{}, logged_about("crl-dp"));
  EXPECT_EQ(lines{}, logged_about("created 1 crl locator"));
}

TEST_F(LocatorPoints, CopiesAreDeepAndOutliveTheCertificate) {
  std::string whole = point(full_name(general_name(4) + uri("http://a/")) + two_reasons +
                            crl_issuer(general_name(4)));
  support::cert cert = make_cert({crl_dp_of(whole), freshest_of(whole)});
  list_ptr list = find_locators(cert);
  cert.reset();
  ASSERT_EQ(lines{"points 1 delta 1"}, describe(list));
  EXPECT_EQ(lines{whole}, ders(points_of(list)->dps));
  EXPECT_EQ(lines{whole}, ders(points_of(list)->delta_dps));
}

TEST_F(LocatorPoints, PointWithoutNameIsDropped) {
  for (const std::string &nameless :
       {point(""), point(two_reasons), point(crl_issuer(general_name(4)))}) {
    clear_log();
    list_ptr list = find_locators(make_cert({crl_dp_of(nameless)}));
    EXPECT_EQ(lines{"points 0 delta 0"}, describe(list));
    EXPECT_EQ(1U, count_logged(7, "ignoring crl-dp with no distpoint")) << log_dump();
    EXPECT_TRUE(was_logged(7, "found 0 acceptable crl-dp entries (out of 1)"));
    EXPECT_TRUE(was_logged(7, "created 1 crl locator"));
  }
}

TEST_F(LocatorPoints, RelativeNameLeavesALocatorWithoutPoints) {
  list_ptr list = find_locators(make_cert({crl_dp_of(point(relative_name))}));
  ASSERT_EQ(lines{"points 0 delta 0"}, describe(list));
  EXPECT_NE(nullptr, points_of(list)->dps);
  EXPECT_FALSE(list->incomplete);
  EXPECT_EQ(1U, count_logged(7, "ignoring crl-dp with no (full) name")) << log_dump();
  EXPECT_TRUE(was_logged(7, "found 0 acceptable crl-dp entries (out of 1)"));
}

TEST_F(LocatorPoints, FullNameWithoutNamesIsDropped) {
  list_ptr list = find_locators(make_cert({crl_dp_of(point(full_name("")))}));
  EXPECT_EQ(lines{"points 0 delta 0"}, describe(list));
  EXPECT_EQ(1U, count_logged(7, "ignoring crl-dp with no (full) name")) << log_dump();
}

class LocatorPointsNames : public locator_test, public testing::WithParamInterface<int> {};

TEST_P(LocatorPointsNames, OtherThanUriIsDropped) {
  list_ptr list = find_locators(make_cert({crl_dp_of(point(full_name(general_name(GetParam()))))}));
  EXPECT_EQ(lines{"points 0 delta 0"}, describe(list));
  EXPECT_EQ(1U, count_logged(7, "ignoring crl-dp without uri in name")) << log_dump();
  EXPECT_TRUE(was_logged(7, "found 0 acceptable crl-dp entries (out of 1)"));
}

TEST_P(LocatorPointsNames, OtherNamesAroundAUriAreKept) {
  std::string other = general_name(GetParam());
  std::string mixed = point(full_name(other + uri("http://a/") + other));
  list_ptr list = find_locators(make_cert({crl_dp_of(mixed)}));
  ASSERT_EQ(lines{"points 1 delta 0"}, describe(list));
  EXPECT_EQ(lines{mixed}, ders(points_of(list)->dps));
  EXPECT_EQ(lines{}, logged_about("ignoring"));
}

INSTANTIATE_TEST_SUITE_P(Types, LocatorPointsNames, testing::Values(0, 1, 2, 3, 4, 5, 7, 8));

TEST_F(LocatorPoints, UriWithAnInnerNulIsNoUri) {
  using namespace std::string_literals;
  list_ptr list = find_locators(make_cert({crl_dp_of(point_at("http://good/\0.evil/"s))}));
  EXPECT_EQ(lines{"points 0 delta 0"}, describe(list));
  EXPECT_TRUE(was_logged(7, "ignoring crl-dp without uri in name")) << log_dump();
}

TEST_F(LocatorPoints, UriBesideOneWithAnInnerNulKeepsThePoint) {
  using namespace std::string_literals;
  list_ptr list = find_locators(
      make_cert({crl_dp_of(point(full_name(uri("http://a/\0"s) + uri("http://b/"))))}));
  EXPECT_EQ(lines{"points 1 delta 0"}, describe(list));
}

TEST_F(LocatorPoints, AcceptableOnesKeepTheirOrderAmongDroppedOnes) {
  std::string first = point_at("http://a/"), second = point(full_name(uri("ldap://b/")));
  list_ptr list = find_locators(make_cert(
      {crl_dp_of(point("") + first + point(relative_name) + point(full_name(general_name(2))) +
                 second + point(full_name(general_name(4))))}));
  ASSERT_EQ(lines{"points 2 delta 0"}, describe(list));
  EXPECT_EQ((lines{first, second}), ders(points_of(list)->dps));
  EXPECT_EQ((lines{"ignoring crl-dp with no distpoint", "ignoring crl-dp with no (full) name",
                   "ignoring crl-dp without uri in name", "ignoring crl-dp without uri in name",
                   "found 2 acceptable crl-dp entries (out of 6)"}),
            logged_about("crl-dp"));
}

TEST_F(LocatorPoints, FreshestPointsAreCopiedWithoutChoosing) {
  std::string nameless = point(crl_issuer(general_name(4))), relative = point(relative_name);
  list_ptr list =
      find_locators(make_cert({crl_dp_of(point_at("http://a/")),
                               freshest_of(nameless + point_at("http://delta/") + relative)}));
  ASSERT_EQ(lines{"points 1 delta 3"}, describe(list));
  EXPECT_EQ((lines{nameless, point_at("http://delta/"), relative}),
            ders(points_of(list)->delta_dps));
  EXPECT_EQ(lines{}, logged_about("ignoring"));
}

TEST_F(LocatorPoints, FreshestAloneMakesNone) {
  list_ptr list = find_locators(make_cert({freshest_of(point_at("http://delta/"))}));
  EXPECT_EQ(lines{}, describe(list));
}

TEST_F(LocatorPoints, MalformedFreshestIsNotTakenForAnAbsentOne) {
  list_ptr list =
      find_locators(make_cert({crl_dp_of(point_at("http://a/")), raw("freshestCRL", "x")}));
  EXPECT_EQ(lines{"points 0 delta 0"}, describe(list));
  EXPECT_TRUE(list->incomplete);
  EXPECT_TRUE(was_logged(3, "the freshest-crl extension cannot be read")) << log_dump();
}

TEST_F(LocatorPoints, EmptyExtensionLeavesALocatorWithoutPoints) {
  list_ptr list = find_locators(make_cert({crl_dp_of("")}));
  EXPECT_EQ(lines{"points 0 delta 0"}, describe(list));
  EXPECT_TRUE(was_logged(7, "found 0 acceptable crl-dp entries (out of 0)"));
  EXPECT_TRUE(was_logged(7, "created 1 crl locator"));
}

TEST_F(LocatorPoints, MalformedExtensionLeavesALocatorWithoutPoints) {
  for (const std::string &octets : malformed_sequences()) {
    clear_log();
    list_ptr list = find_locators(make_cert({raw("crlDistributionPoints", octets)}));
    EXPECT_EQ(lines{"points 0 delta 0"}, describe(list));
    EXPECT_NE(lines{}, logged(3));
  }
}

TEST_F(LocatorPoints, ExtensionThatIsThereTwiceLeavesALocatorWithoutPoints) {
  extension once = crl_dp_of(point_at("http://a/"));
  EXPECT_EQ(lines{"points 0 delta 0"}, describe(find_locators(make_cert({once, once}))));
  EXPECT_TRUE(was_logged(3, "the crl-distribution-points extension cannot be read")) << log_dump();
}

TEST_F(LocatorPoints, ThousandsAreCopied) {
  std::string points, delta;
  for (int i = 0; i < 3000; i++) {
    points += point_at("http://crl/" + std::to_string(i));
    delta += point_at("http://delta/" + std::to_string(i));
  }
  list_ptr list = find_locators(make_cert({crl_dp_of(points), freshest_of(delta)}));
  EXPECT_EQ(lines{"points 3000 delta 3000"}, describe(list));
  EXPECT_TRUE(was_logged(7, "found 3000 acceptable crl-dp entries (out of 3000)"));
}

TEST_F(LocatorPoints, ThousandsOfDroppedOnesLeaveTheLast) {
  std::string points;
  for (int i = 0; i < 3000; i++)
    points += i % 2 ? point("") : point(full_name(general_name(i % 6)));
  list_ptr list = find_locators(make_cert({crl_dp_of(points + point_at("http://last/"))}));
  ASSERT_EQ(lines{"points 1 delta 0"}, describe(list));
  EXPECT_EQ(lines{point_at("http://last/")}, ders(points_of(list)->dps));
  EXPECT_TRUE(was_logged(7, "found 1 acceptable crl-dp entries (out of 3001)"));
}

TEST_F(LocatorPoints, ThousandsOfNamesInOnePointAreSearched) {
  std::string names;
  for (int i = 0; i < 5000; i++)
    names += general_name(i % 6);
  list_ptr list =
      find_locators(make_cert({crl_dp_of(point(full_name(names + uri("http://last/"))))}));
  EXPECT_EQ(lines{"points 1 delta 0"}, describe(list));
}

}  // namespace
