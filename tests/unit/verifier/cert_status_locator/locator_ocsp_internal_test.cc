// Locators from a certificate's authorityInfoAccess.
#include "locator_support.h"

using namespace locator_support;
using namespace extension_der;

namespace {

class LocatorOcsp : public locator_test {};

TEST_F(LocatorOcsp, EachUriIsOneInTheOrderOfTheExtension) {
  list_ptr list = find_locators(make_cert({aia({"http://c/", "http://a/", "http://b/"})}));
  EXPECT_EQ((lines{"ocsp http://c/", "ocsp http://a/", "ocsp http://b/"}), describe(list));
  EXPECT_FALSE(list->incomplete);
  EXPECT_TRUE(was_logged(7, "found 3 acceptable ocsp AIA entries (out of 3)"));
  EXPECT_TRUE(was_logged(7, "created 3 ocsp locators"));
}

TEST_F(LocatorOcsp, HasNoSignerNoFlagAndIsNotFinal) {
  list_ptr list = find_locators(make_cert({aia({"http://a/"})}));
  ASSERT_EQ(1, list->count);
  const pki::cert_sts_locator *locator = list->locators[0];
  EXPECT_EQ(0, locator->final);
  EXPECT_EQ(1, locator->ref_count);
  EXPECT_NE(nullptr, locator->get_sts);
  const auto *data = data_of<pki::ocsp_locator>(list, 0);
  EXPECT_EQ(1, data->type);
  EXPECT_EQ(nullptr, data->signer);
  EXPECT_EQ(0, data->ocsp_flag);
}

TEST_F(LocatorOcsp, AsksTheResponder) {
  support::cert cert = make_cert({aia({"ldap://nobody/"})});
  list_ptr list = find_locators(cert);
  ASSERT_EQ(1, list->count);
  pki::cert_sts_locator *locator = list->locators[0];
  EXPECT_EQ(nullptr, locator->get_sts(locator->data, cert.get(), cert.get(), nullptr, 1, 0));
  EXPECT_TRUE(was_logged(7, "look up status of cert '/CN=device' using OCSP (ldap://nobody/)"))
      << log_dump();
}

TEST_F(LocatorOcsp, UrlOutlivesTheCertificate) {
  support::cert cert = make_cert({aia({"http://a/path?query"})});
  list_ptr list = find_locators(cert);
  cert.reset();
  EXPECT_EQ(lines{"ocsp http://a/path?query"}, describe(list));
}

TEST_F(LocatorOcsp, UrlIsTakenAsItIs) {
  for (const char *url : {" ", "http://a b/", "\x01\x02", "no-scheme"}) {
    list_ptr list = find_locators(make_cert({aia({url})}));
    EXPECT_EQ(lines{std::string("ocsp ") + url}, describe(list));
  }
}

TEST_F(LocatorOcsp, CaIssuersEntryIsCountedAndSkipped) {
  list_ptr list = find_locators(
      make_cert({aia_of(ca_issuers_at(uri("http://ca/")) + ocsp_at(uri("http://ocsp/")))}));
  EXPECT_EQ(lines{"ocsp http://ocsp/"}, describe(list));
  EXPECT_TRUE(was_logged(7, "found 1 acceptable ocsp AIA entries (out of 2)"));
  EXPECT_TRUE(was_logged(7, "created 1 ocsp locators"));
}

TEST_F(LocatorOcsp, OtherMethodsAreSkippedSilentlyWhateverTheirName) {
  std::string descriptions = tlv(0x30, tlv(0x06, "\x2A\x03\x04") + general_name(7));
  for (int type = 0; type <= 8; type++)
    descriptions += ca_issuers_at(general_name(type));
  list_ptr list = find_locators(make_cert({aia_of(descriptions)}));
  EXPECT_EQ(0, list->count);
  EXPECT_FALSE(list->incomplete);
  EXPECT_EQ(lines{}, logged_about("ignoring"));
  EXPECT_TRUE(was_logged(7, "found 0 acceptable ocsp AIA entries (out of 10)"));
  EXPECT_TRUE(was_logged(7, "created 0 ocsp locators"));
}

class LocatorOcspNames : public locator_test, public testing::WithParamInterface<int> {};

TEST_P(LocatorOcspNames, OtherThanUriIsIgnoredWithALine) {
  list_ptr list = find_locators(make_cert({aia_of(ocsp_at(general_name(GetParam())))}));
  EXPECT_EQ(0, list->count);
  EXPECT_FALSE(list->incomplete);
  EXPECT_EQ(1U, count_logged(7, "ignoring ocsp AIA with a non-uri location name (type=" +
                                    std::to_string(GetParam()) + ")"))
      << log_dump();
  EXPECT_TRUE(was_logged(7, "found 0 acceptable ocsp AIA entries (out of 1)"));
}

INSTANTIATE_TEST_SUITE_P(Types, LocatorOcspNames, testing::Values(0, 1, 2, 3, 4, 5, 7, 8));

TEST_F(LocatorOcsp, OneUriAmongAllTypesIsFound) {
  std::string descriptions;
  for (int type = 0; type <= 8; type++)
    descriptions += ocsp_at(general_name(type));
  list_ptr list = find_locators(make_cert({aia_of(descriptions)}));
  EXPECT_EQ(lines{"ocsp http://127.0.0.1:1/"}, describe(list));
  EXPECT_EQ(8U, logged_about("ignoring ocsp AIA").size());
  EXPECT_TRUE(was_logged(7, "found 1 acceptable ocsp AIA entries (out of 9)"));
}

TEST_F(LocatorOcsp, UriWithAnInnerNulIsNoUri) {
  using namespace std::string_literals;
  for (const std::string &url : {"http://good/\0.evil/"s, "\0http://a/"s, "http://a/\0"s}) {
    clear_log();
    list_ptr list = find_locators(make_cert({aia({url, "http://b/"})}));
    EXPECT_EQ(lines{"ocsp http://b/"}, describe(list));
    EXPECT_TRUE(list->incomplete);
    EXPECT_TRUE(was_logged(7, "found 1 acceptable ocsp AIA entries (out of 2)")) << log_dump();
    EXPECT_EQ(lines{"ignoring ocsp AIA with a NUL in its uri"}, logged(4));
  }
}

TEST_F(LocatorOcsp, EmptyExtensionGivesNone) {
  list_ptr list = find_locators(make_cert({aia_of("")}));
  EXPECT_EQ(lines{}, describe(list));
  EXPECT_FALSE(list->incomplete);
  EXPECT_TRUE(was_logged(7, "found 0 acceptable ocsp AIA entries (out of 0)"));
}

TEST_F(LocatorOcsp, NoExtensionGivesNone) {
  list_ptr list = find_locators(make_cert());
  EXPECT_EQ(lines{}, describe(list));
  EXPECT_FALSE(list->incomplete);
  EXPECT_EQ(lines{}, logged(3));
  EXPECT_EQ(lines{}, logged(4));
}

TEST_F(LocatorOcsp, MalformedExtensionIsAFailureNotAnAbsence) {
  for (const std::string &octets : malformed_sequences()) {
    clear_log();
    list_ptr list = find_locators(make_cert({raw("authorityInfoAccess", octets)}));
    EXPECT_EQ(lines{}, describe(list));
    ASSERT_TRUE(list);
    EXPECT_TRUE(list->incomplete);
    lines said = logged(3);
    ASSERT_GT(said.size(), 1U) << log_dump();
    EXPECT_EQ("the authority-info-access extension cannot be read", said[0]);
    EXPECT_TRUE(said[1].starts_with("OpenSSL error: ")) << said[1];
  }
}

TEST_F(LocatorOcsp, ExtensionThatIsThereTwiceIsAFailure) {
  list_ptr list = find_locators(make_cert({aia({"http://a/"}), aia({"http://b/"})}));
  ASSERT_TRUE(list);
  EXPECT_EQ(0, list->count);
  EXPECT_TRUE(list->incomplete);
}

TEST_F(LocatorOcsp, MalformedExtensionLeavesConfiguredSources) {
  add_always_ok(nullptr, before);
  add_always_ok(nullptr, after);
  list_ptr list = find_locators(make_cert({raw("authorityInfoAccess", "x")}));
  EXPECT_EQ((lines{"always-ok final", "always-ok final"}), describe(list));
  EXPECT_TRUE(list->incomplete);
}

TEST_F(LocatorOcsp, EmptyUriIsAResponderThatNobodyCanAsk) {
  list_ptr list = find_locators(make_cert({aia({""})}));
  EXPECT_EQ(lines{"ocsp "}, describe(list));
}

TEST_F(LocatorOcsp, EightAreTaken) {
  std::vector<std::string> urls(8, "http://a/");
  EXPECT_EQ(8, find_locators(make_cert({aia(urls)}))->count);
  EXPECT_EQ(lines{}, logged(4));
}

TEST_F(LocatorOcsp, OfThousandsTheFirstEightAreTaken) {
  std::vector<std::string> urls;
  lines wanted;
  for (int i = 0; i < 5000; i++) {
    urls.push_back("http://responder/" + std::to_string(i));
    if (i < 8)
      wanted.push_back("ocsp " + urls.back());
  }
  list_ptr list = find_locators(make_cert({aia(urls)}));
  EXPECT_EQ(wanted, describe(list));
  EXPECT_EQ(lines{"ignoring ocsp AIA entries behind the first 8"}, logged(4));
  EXPECT_TRUE(was_logged(7, "found 8 acceptable ocsp AIA entries (out of 5000)")) << log_dump();
  EXPECT_TRUE(was_logged(7, "created 8 ocsp locators"));
}

TEST_F(LocatorOcsp, ThousandsOfIgnoredOnesLeaveTheLastUri) {
  std::string descriptions;
  for (int i = 0; i < 3000; i++)
    descriptions += ocsp_at(general_name(i % 6));
  list_ptr list = find_locators(make_cert({aia_of(descriptions + ocsp_at(uri("http://last/")))}));
  EXPECT_EQ(lines{"ocsp http://last/"}, describe(list));
  EXPECT_TRUE(was_logged(7, "found 1 acceptable ocsp AIA entries (out of 3001)"));
}

TEST_F(LocatorOcsp, EnormousUrlIsCopied) {
  std::string url = "http://a/" + std::string(1'000'000, 'p');
  list_ptr list = find_locators(make_cert({aia({url})}));
  EXPECT_EQ(lines{"ocsp " + url}, describe(list));
}

}  // namespace
