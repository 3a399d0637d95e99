// Which CRLs a decision asks for, and which reasons they cover.
#include "unit/verifier/crl_cache/decide_support.h"

using namespace decide_support;

namespace {

// ---- one CRL ----

class DecideOneCrl : public decide_both_ways {};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideOneCrl, testing::Bool(), way_name);

TEST_P(DecideOneCrl, CertificateThatIsNotListedIsGoodUntilNextUpdate) {
  record info = decide(crl_of(crl_entry(9) + crl_entry(11)));
  EXPECT_EQ(PKI_CERT_OK, status_of(info)) << log_dump();
  EXPECT_TRUE(valid_until(info, start + 7 * 86400));
  EXPECT_EQ(device.get(), info->cert);
  EXPECT_EQ(1u, info->ref_count);
  EXPECT_TRUE(was_logged(7, "using CRL's for status of cert (/CN=device)"));
  EXPECT_TRUE(was_logged(7, "interim-reason-mask=1FF => reason-mask=1FF"));
  EXPECT_TRUE(was_logged(7, "crl signer == cert issuer => crl ok"));
  EXPECT_TRUE(was_logged(7, good_line));
}

TEST_P(DecideOneCrl, EachStepIsLogged) {
  decide(crl_of());
  EXPECT_EQ(std::string("7: using CRL's for status of cert (/CN=device)\n7: CRL (/CN=issuer) ") +
                (in_full() ? "fully decoded" : "too large - truncated it") +
                "\n7: downloaded a valid CRL (" + server.url("/crl") +
                ")\n7: CRL '/CN=issuer' does not have crl-number => not looking for delta-crl's\n"
                "7: interim-reason-mask=1FF => reason-mask=1FF\n"
                "7: crl signer == cert issuer => crl ok\n"
                "7: cert (/CN=device) not in any CRL => cert ok\n",
            log_dump());
}

TEST_P(DecideOneCrl, EmptyCrlMakesTheCertificateGood) {
  EXPECT_EQ(PKI_CERT_OK, status_of(decide(crl_of()))) << log_dump();
}

TEST_P(DecideOneCrl, ListedCertificateIsRevokedUntilNextUpdate) {
  record info = decide(revoking_crl());
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(info)) << log_dump();
  EXPECT_TRUE(valid_until(info, start + 7 * 86400));
  EXPECT_EQ(device.get(), info->cert);
  EXPECT_TRUE(was_logged(7, revoked_line));
  EXPECT_FALSE(was_logged(7, good_line));
}

TEST_P(DecideOneCrl, EntryAmongManyIsFound) {
  std::string entries;
  for (long serial = 100; serial < 160; serial++)
    entries += crl_entry(serial);
  entries += crl_entry(device_serial);
  for (long serial = 200; serial < 260; serial++)
    entries += crl_entry(serial);
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(crl_of(entries)))) << log_dump();
}

TEST_P(DecideOneCrl, EntryOfRemoveFromCrlMakesTheCertificateGood) {
  record info = decide(crl_of(crl_entry(device_serial, support::reason_code(8))));
  EXPECT_EQ(PKI_CERT_OK, status_of(info)) << log_dump();
  EXPECT_TRUE(valid_until(info, start + 7 * 86400));
  EXPECT_TRUE(was_logged(7, removed_line));
  EXPECT_FALSE(was_logged(7, good_line));
}

TEST_P(DecideOneCrl, EveryOtherReasonCodeRevokes) {
  for (int reason : {0, 1, 2, 3, 4, 5, 6, 7, 9, 10, 100}) {
    zv_cv_clear_crl_cache();
    EXPECT_EQ(PKI_CERT_REVOKED,
              status_of(decide(crl_of(crl_entry(device_serial, support::reason_code(reason))))))
        << reason;
  }
}

TEST_P(DecideOneCrl, ReasonThatCannotBeReadRevokes) {
  const std::string broken = support::crl_extension("2.5.29.21", "x");
  const std::string twice = support::reason_code(8) + support::reason_code(8);
  for (const std::string &reason : {broken, twice}) {
    zv_cv_clear_crl_cache();
    EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(crl_of(crl_entry(device_serial, reason)))));
  }
}

TEST_P(DecideOneCrl, FirstEntryOfTheCertificateCounts) {
  const std::string removed = crl_entry(device_serial, support::reason_code(8)),
                    revoked = crl_entry(device_serial, support::reason_code(1));
  EXPECT_EQ(PKI_CERT_OK, status_of(decide(crl_of(removed + revoked))));
  zv_cv_clear_crl_cache();
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(crl_of(revoked + removed))));
}

TEST_P(DecideOneCrl, CrlInsidePkcs7Counts) {
  server.publish("/p7", support::pkcs7_octets(support::crl_octets(revoking_crl())));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/p7"))) << log_dump();
}

TEST_P(DecideOneCrl, CrlThatCannotBeHadLeavesTheStatusUnknown) {
  EXPECT_EQ(no_answer, status_of(decide("/nothing")));
  EXPECT_TRUE(was_logged(7, unknown_line("0")));
}

TEST_P(DecideOneCrl, DamagedSignatureLeavesTheStatusUnknown) {
  for (crl_fields fields : {crl_of(), revoking_crl()}) {
    fields.signature = support::der_tlv(0x03, std::string(129, '\0'));
    EXPECT_EQ(no_answer, status_of(decide(fields)));
    EXPECT_FALSE(is_cached());
  }
}

TEST_P(DecideOneCrl, CrlOutOfScopeIsIgnored) {
  EXPECT_EQ(no_answer,
            status_of(decide(revoking_crl(support::issuing_dist_point({.ca_certs = true})))));
  EXPECT_TRUE(was_logged(4, "CRL is for ca-certs only, but cert is user-cert"));
  EXPECT_TRUE(was_logged(7, unknown_line("0")));
  EXPECT_FALSE(is_cached());
}

// ---- reasons ----

class DecideReasons : public decide_both_ways {
 protected:
  // Two points whose CRLs, one for these reasons each, are good.
  record decide_two(unsigned first, unsigned second) {
    server.publish("/a", crl_of("", some_reasons(first)));
    server.publish("/b", crl_of("", some_reasons(second)));
    return decide_at({{"/a", first}, {"/b", second}});
  }
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideReasons, testing::Bool(), way_name);

TEST_P(DecideReasons, TwoCrlsThatCoverAllTogetherMakeTheCertificateGood) {
  record info = decide_two(0x1F, 0x1E0);
  EXPECT_EQ(PKI_CERT_OK, status_of(info)) << log_dump();
  EXPECT_EQ("/a /b ", server.asked());
  EXPECT_TRUE(was_logged(7, "interim-reason-mask=1F => reason-mask=1F"));
  EXPECT_TRUE(was_logged(7, "interim-reason-mask=1E0 => reason-mask=1FF"));
}

TEST_P(DecideReasons, AnswerHoldsUntilTheLastCrlsNextUpdate) {
  crl_fields first = crl_of("", some_reasons(0x1F)), second = crl_of("", some_reasons(0x1E0));
  first.next_update = support::der_utc_time(start + 1000);
  second.next_update = support::der_utc_time(start + 2000);
  server.publish("/a", first);
  server.publish("/b", second);
  EXPECT_TRUE(valid_until(decide_at({{"/a", 0x1F}, {"/b", 0x1E0}}), start + 2000));
}

TEST_P(DecideReasons, OneOfTwoIsNotEnough) {
  server.publish("/a", crl_of("", some_reasons(0x1F)));
  EXPECT_EQ(no_answer, status_of(decide_at({{"/a", 0x1F}, {"/b", 0x1E0}})));
  EXPECT_TRUE(was_logged(7, unknown_line("1f")));
  EXPECT_FALSE(was_logged(7, good_line));
}

TEST_P(DecideReasons, UnusedReasonBelongsToAll) {
  EXPECT_EQ(no_answer, status_of(decide_two(0x1E, 0x1E0)));
  EXPECT_TRUE(was_logged(7, unknown_line("1fe")));
}

TEST_P(DecideReasons, RevokedIsFoundInAnyOfThem) {
  server.publish("/a", crl_of("", some_reasons(0x1F)));
  server.publish("/b", revoking_crl(some_reasons(0x20)));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_at({{"/a", 0x1F}, {"/b", 0x20}, {"/c", 0x40}})));
  EXPECT_EQ("/a /b ", server.asked());
}

TEST_P(DecideReasons, FirstCrlThatListsTheCertificateEndsTheSearch) {
  server.publish("/a", revoking_crl(some_reasons(0x1F)));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_at({{"/a", 0x1F}, {"/b", 0x1E0}})));
  EXPECT_EQ("/a ", server.asked());
}

TEST_P(DecideReasons, ReasonsOfThePointLimitACrlWithoutAny) {
  server.publish("/a", crl_of());
  EXPECT_EQ(no_answer, status_of(decide_at({{"/a", 0x1E}})));
  EXPECT_TRUE(was_logged(7, "interim-reason-mask=1E => reason-mask=1E"));
  EXPECT_TRUE(was_logged(7, unknown_line("1e")));
}

TEST_P(DecideReasons, ReasonsOfTheCrlCountWithoutAnyOfThePoint) {
  server.publish("/a", crl_of("", some_reasons(0x1E)));
  EXPECT_EQ(no_answer, status_of(decide_at({{"/a"}})));
  EXPECT_TRUE(was_logged(7, unknown_line("1e")));
}

TEST_P(DecideReasons, CommonReasonsOfPointAndCrlCount) {
  server.publish("/a", crl_of("", some_reasons(0x3C)));
  EXPECT_EQ(no_answer, status_of(decide_at({{"/a", 0x0F}})));
  EXPECT_TRUE(was_logged(7, "interim-reason-mask=C => reason-mask=C"));
}

TEST_P(DecideReasons, CrlThatAddsNothingIsNotLookedAt) {
  server.publish("/a", crl_of("", some_reasons(0x1E)));
  server.publish("/b", revoking_crl(some_reasons(0x06)));
  EXPECT_EQ(no_answer, status_of(decide_at({{"/a", 0x1E}, {"/b", 0x06}})));
  EXPECT_EQ(0u, count_logged(7, revoked_line));
  EXPECT_TRUE(was_logged(7, unknown_line("1e")));
}

TEST_P(DecideReasons, PointAndCrlWithoutCommonReasonAddNothing) {
  server.publish("/a", revoking_crl(some_reasons(0x1E)));
  EXPECT_EQ(no_answer, status_of(decide_at({{"/a", 0x1E0}})));
  EXPECT_TRUE(was_logged(7, unknown_line("0")));
}

TEST_P(DecideReasons, ReasonsOfAConfiguredRecordOnlyChooseFromTheCache) {
  server.publish("/a", crl_of());
  crl_objects::source_list sources;
  sources.add(server.url("/a"), 0, 0x06);
  EXPECT_EQ(PKI_CERT_OK, status_of(decide(sources))) << log_dump();
  EXPECT_TRUE(was_logged(7, "interim-reason-mask=1FF => reason-mask=1FF"));
}

// ---- locators ----

class DecideLocator : public decide_test {};

TEST_F(DecideLocator, OfAnotherTypeIsRefused) {
  for (int type : {0, 1, 4, -1}) {
    clear_log();
    pki::dist_points_locator locator = {type, nullptr, nullptr};
    EXPECT_EQ(no_answer, status_of(ask(&locator)));
    EXPECT_EQ("2: wrong locator-data type " + std::to_string(type) +
                  " encountered in zv_cv_crl_get_sts_info\n",
              log_dump());
  }
}

TEST_F(DecideLocator, WithoutPlacesGivesNoAnswer) {
  EXPECT_EQ(no_answer, status_of(decide_at({})));
  EXPECT_EQ("7: using CRL's for status of cert (/CN=device)\n7: " + unknown_line("0") + "\n",
            log_dump());
  clear_log();
  EXPECT_EQ(no_answer, status_of(decide(crl_objects::source_list())));
  EXPECT_TRUE(was_logged(7, unknown_line("0")));
}

TEST_F(DecideLocator, ConfiguredListIsWalkedAndKept) {
  server.publish("/b", revoking_crl());
  crl_objects::source_list sources;
  sources.add(server.url("/a"));
  sources.add(server.url("/b"));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(sources))) << log_dump();
  EXPECT_EQ("/a /b ", server.asked());
  EXPECT_EQ(2, sources.size());
  EXPECT_EQ(1, sources[0]->ref_count);
}

TEST_F(DecideLocator, DeltaPlacesAreNoCrlsOfTheirOwn) {
  server.publish("/delta", revoking_crl());
  EXPECT_EQ(no_answer, status_of(decide_at({}, {{"/delta"}})));
  EXPECT_EQ("", server.asked());
  crl_objects::source_list sources;
  sources.add(server.url("/delta"), 1);
  EXPECT_EQ(no_answer, status_of(decide(sources)));
  EXPECT_EQ("", server.asked());
}

TEST_F(DecideLocator, NextPlaceInOnePointIsAsked) {
  server.publish("/b", crl_of());
  points dps = crl_objects::make_points(extension_der::point(extension_der::full_name(
      support::der_uri("ldap://127.0.0.1/") + support::der_uri(server.url("/a")) +
      support::der_uri(server.url("/b")))));
  points none = crl_objects::make_points("");
  pki::dist_points_locator locator = {pki::locator_dist_points, dps.get(), none.get()};
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(&locator))) << log_dump();
  EXPECT_EQ("/a /b ", server.asked());
}

}  // namespace
