// Where the CRLs of a certificate are: distribution points as records.
#include <openssl/err.h>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/store_fixture.h"
#include "unit/verifier/codes.h"
#include "unit/verifier/crl_cache/crl_objects.h"
#include "verifier/crl_cache/scope.h"

using namespace crl_objects;
using extension_der::full_name;
using extension_der::point;
using support::der_directory_name;
using support::der_uri;

namespace {

constexpr uint32_t all_borrowed = 0x30000;

const std::string http = "http://127.0.0.1/a.crl", ldap = "ldap://127.0.0.1/cn=a";

std::string point_at(const std::string &uri, const std::string &more = "") {
  return point(full_name(der_uri(uri)) + more);
}
std::string with_reasons(unsigned mask) {
  return support::der_reasons(mask, 0x81);
}

class DistPoints : public support::store_test {
 protected:
  int convert(const std::string &encodings, bool append = true) {
    held.push_back(make_points(encodings));
    return convert(held.back(), append);
  }
  int convert(const points &given, bool append = true) {
    return pki::cv_copy_dp_to_crli(given.get(), issuer.get(), reasons, list.get(), append, flag);
  }
  DIST_POINT *point_number(int i) const { return sk_DIST_POINT_value(held.back().get(), i); }

  std::vector<points> held;  // the records borrow from them
  source_list list;
  support::name issuer;
  uint32_t reasons = 0;
  unsigned char flag = 0;
};

// ---- the records ----

TEST_F(DistPoints, UriBecomesARecord) {
  EXPECT_EQ(0, convert(point_at(http)));
  ASSERT_EQ(1, list.size());
  crl_info *record = list[0];
  EXPECT_EQ(http, record->url);
  EXPECT_EQ(0, record->format);
  EXPECT_EQ(511u, record->reasons);
  EXPECT_EQ(all_borrowed, record->flags);
  EXPECT_EQ(nullptr, record->crl_issuer);
  EXPECT_EQ(nullptr, record->crl_signer);
  EXPECT_EQ(point_number(0), record->dist_point);
  EXPECT_EQ("", log_dump());
}

TEST_F(DistPoints, UrlAndIssuerAreThePointsOwn) {
  EXPECT_EQ(0, convert(point_at(http, issued_by("authority"))));
  ASSERT_EQ(1, list.size());
  GENERAL_NAME *uri = sk_GENERAL_NAME_value(point_number(0)->distpoint->name.fullname, 0);
  EXPECT_EQ(reinterpret_cast<char *>(uri->d.uniformResourceIdentifier->data), list[0]->url);
  EXPECT_EQ(sk_GENERAL_NAME_value(point_number(0)->CRLissuer, 0)->d.directoryName,
            list[0]->crl_issuer);
}

TEST_F(DistPoints, LdapAndHttpGiveTwoRecordsInThatOrder) {
  EXPECT_EQ(0, convert(point(full_name(der_uri(ldap) + der_uri(http)))));
  EXPECT_EQ((std::vector<std::string>{ldap, http}), list.urls());
  EXPECT_EQ(list[0]->dist_point, list[1]->dist_point);
}

TEST_F(DistPoints, OtherNamesAreSkipped) {
  EXPECT_EQ(0, convert(point(full_name(der_directory_name("x") + der_uri("a") +
                                       extension_der::general_name(2) + der_uri("b")))));
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), list.urls());
  EXPECT_EQ("", log_dump());
}

TEST_F(DistPoints, PointsAppendInOrderBehindWhatIsThere) {
  list.add("old");
  EXPECT_EQ(0, convert(point_at("a") + point_at("b")));
  EXPECT_EQ((std::vector<std::string>{"old", "a", "b"}), list.urls());
  EXPECT_EQ(point_number(1), list[2]->dist_point);
}

TEST_F(DistPoints, EachGoesToTheFrontInItsTurn) {
  list.add("old");
  EXPECT_EQ(0, convert(point_at("a") + point(full_name(der_uri("b") + der_uri("c"))), false));
  EXPECT_EQ((std::vector<std::string>{"c", "b", "a", "old"}), list.urls());
}

TEST_F(DistPoints, FlagIsTheLowByte) {
  flag = 1;
  EXPECT_EQ(0, convert(point_at("a")));
  flag = 0xFF;
  EXPECT_EQ(0, convert(point_at("b")));
  ASSERT_EQ(2, list.size());
  EXPECT_EQ(all_borrowed | 1, list[0]->flags);
  EXPECT_EQ(all_borrowed | 0xFF, list[1]->flags);
}

TEST_F(DistPoints, NoPointsGiveNoRecords) {
  EXPECT_EQ(0, convert(points(sk_DIST_POINT_new_null(), CRL_DIST_POINTS_free)));
  EXPECT_EQ(0, pki::cv_copy_dp_to_crli(nullptr, nullptr, 0, list.get(), true, 0));
  EXPECT_EQ(0, list.size());
}

// ---- reasons ----

TEST_F(DistPoints, GivenReasonsHoldForAll) {
  reasons = 6;
  EXPECT_EQ(0, convert(point_at("a", with_reasons(0x18)) + point_at("b")));
  ASSERT_EQ(2, list.size());
  EXPECT_EQ(6u, list[0]->reasons);
  EXPECT_EQ(6u, list[1]->reasons);
}

TEST_F(DistPoints, ReasonsAreThePointsOrAll) {
  EXPECT_EQ(0, convert(point_at("a", with_reasons(0x118)) + point_at("b") +
                       point_at("c", with_reasons(2))));
  ASSERT_EQ(3, list.size());
  EXPECT_EQ(0x118u, list[0]->reasons);
  EXPECT_EQ(511u, list[1]->reasons);
  EXPECT_EQ(2u, list[2]->reasons);
}

// ---- points that give nothing ----

constexpr char no_full_name[] = "7: ignoring crl-dp with no (full) name\n";
constexpr char no_dn_line[] = "4: CRL-Issuer name does not contain a DN - ignoring DP\n";
constexpr char no_url_line[] = "6: no url found in DP - skipping\n";

TEST_F(DistPoints, PointWithoutFullNameIsIgnored) {
  EXPECT_EQ(0, convert(point(extension_der::relative_name) + point(issued_by("authority")) +
                       point("") + point_at(http)));
  EXPECT_EQ((std::vector<std::string>{http}), list.urls());
  EXPECT_EQ(std::string(no_full_name) + no_full_name + no_full_name, log_dump());
}

TEST_F(DistPoints, IssuerWithoutDirectoryNameIsIgnored) {
  EXPECT_EQ(0, convert(point_at("a", extension_der::crl_issuer(der_uri(http))) + point_at("b")));
  EXPECT_EQ((std::vector<std::string>{"b"}), list.urls());
  EXPECT_EQ(no_dn_line, log_dump());
}

TEST_F(DistPoints, FirstDirectoryNameIsTheIssuer) {
  EXPECT_EQ(0, convert(point_at(
                   "a", extension_der::crl_issuer(der_uri(http) + der_directory_name("first") +
                                                  der_directory_name("second")))));
  ASSERT_EQ(1, list.size());
  EXPECT_EQ("/CN=first", one_line(list[0]->crl_issuer));
}

TEST_F(DistPoints, IssuerOfOnePointIsNotThatOfTheNext) {
  EXPECT_EQ(0, convert(point_at("a", issued_by("authority")) + point_at("b")));
  ASSERT_EQ(2, list.size());
  EXPECT_EQ("/CN=authority", one_line(list[0]->crl_issuer));
  EXPECT_EQ(nullptr, list[1]->crl_issuer);
}

TEST_F(DistPoints, GivenIssuerReplacesThePoints) {
  issuer = support::common_name("given");
  EXPECT_EQ(0, convert(point_at("a", issued_by("authority")) +
                       point_at("b", extension_der::crl_issuer(der_uri(http))) + point_at("c")));
  ASSERT_EQ((std::vector<std::string>{"a", "b", "c"}), list.urls());
  for (int i = 0; i < 3; i++)
    EXPECT_EQ(issuer.get(), list[i]->crl_issuer) << i;
  EXPECT_EQ("", log_dump());
}

TEST_F(DistPoints, PointWithoutUriIsSkipped) {
  EXPECT_EQ(0, convert(point(full_name(der_directory_name("x"))) + point(full_name("")) +
                       point_at(http)));
  EXPECT_EQ((std::vector<std::string>{http}), list.urls());
  EXPECT_EQ(std::string(no_url_line) + no_url_line, log_dump());
}

TEST_F(DistPoints, UriWithoutCharactersEndsItsPoint) {
  held.push_back(
      make_points(point(full_name(der_uri("a") + der_uri("b") + der_uri("c"))) + point_at("d")));
  GENERAL_NAME *second = sk_GENERAL_NAME_value(point_number(0)->distpoint->name.fullname, 1);
  ASN1_IA5STRING_free(second->d.uniformResourceIdentifier);
  GENERAL_NAME_set0_value(second, GEN_URI, ASN1_IA5STRING_new());
  EXPECT_EQ(0, convert(held.back()));
  EXPECT_EQ((std::vector<std::string>{"a", "d"}), list.urls());
}

// One that stops at the NUL would ask another place than one that does not.
TEST_F(DistPoints, UriWithANulInsideIsSkipped) {
  const std::string with_nul = http + std::string(1, '\0') + "x";
  EXPECT_EQ(0, convert(point(full_name(der_uri("a") + der_uri(with_nul) + der_uri("c")))));
  EXPECT_EQ((std::vector<std::string>{"a", "c"}), list.urls());
  EXPECT_EQ("", log_dump());
}

TEST_F(DistPoints, UriOfANulOnlyIsNone) {
  for (const std::string &uri : {std::string(1, '\0'), http + std::string(1, '\0')}) {
    clear_log();
    EXPECT_EQ(0, convert(point(full_name(der_uri(uri)))));
    EXPECT_EQ(0, list.size());
    EXPECT_EQ(no_url_line, log_dump());
  }
}

// ---- want of memory ----

class DistPointsMemory : public DistPoints, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(BothEnds, DistPointsMemory, testing::Bool());

TEST_P(DistPointsMemory, FailureIsReportedAndLeavesWholeRecords) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  held.push_back(make_points(point_at("a", issued_by("authority")) + point_at("b")));
  std::unique_ptr<source_list> records;
  int result = -1;
  size_t failures = fake_allocator::sweep(
      [&] {
        {
          fake_allocator::pause no_failures;
          records = std::make_unique<source_list>();
        }
        result =
            pki::cv_copy_dp_to_crli(held.back().get(), nullptr, 0, records->get(), GetParam(), 0);
      },
      [&](size_t n) {
        EXPECT_EQ(out_of_memory, result) << n;
        EXPECT_LT(records->size(), 2) << n;
        for (const std::string &url : records->urls())
          EXPECT_EQ("a", url);
        support::clear_openssl_errors();
      });
  EXPECT_GE(failures, 3u);  // two records and the list
  EXPECT_EQ(0, result);
  EXPECT_EQ(2, records->size());
}

TEST_P(DistPointsMemory, FailureDrainsTheErrorQueueIntoTheLog) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  held.push_back(make_points(point_at("a")));
  support::raise_openssl_error(ERR_R_INTERNAL_ERROR);
  fake_allocator::fail_at(1);
  int result = convert(held.back(), GetParam());
  fake_allocator::stop_failing();
  EXPECT_EQ(out_of_memory, result);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
}

}  // namespace
