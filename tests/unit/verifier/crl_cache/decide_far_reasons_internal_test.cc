// Reasons behind those that RFC 5280 names: a CRL that is limited to them still lists certificates.
#include "unit/verifier/crl_cache/decide_support.h"

using namespace decide_support;

namespace {

// A BIT STRING with these bits.
std::string bits(const std::vector<unsigned> &set, unsigned char tag) {
  std::string octets;
  unsigned last = 0;
  for (unsigned bit : set) {
    last = std::max(last, bit);
    octets.resize(std::max<size_t>(octets.size(), bit / 8 + 1));
    octets[bit / 8] = static_cast<char>(octets[bit / 8] | 0x80 >> bit % 8);
  }
  return support::der_tlv(tag, static_cast<char>(7 - last % 8) + octets);
}

class DecideFarReasons : public decide_both_ways {
 protected:
  static constexpr unsigned char of_point = 0x81, of_crl = 0x83;

  static std::string only(const std::vector<unsigned> &set) {
    return support::crl_extension("2.5.29.28", support::der_tlv(0x30, bits(set, of_crl)), true);
  }
  // One point for these reasons.
  record decide_point(const std::vector<unsigned> &set, const crl_fields &fields) {
    server.publish("/crl", fields);
    return decide_encoded(point("/crl", set));
  }
  std::string point(const std::string &path, const std::vector<unsigned> &set) const {
    return extension_der::point(extension_der::full_name(support::der_uri(server.url(path))) +
                                (set.empty() ? "" : bits(set, of_point)));
  }
  record decide_encoded(const std::string &encodings) {
    points dps = crl_objects::make_points(encodings), none = crl_objects::make_points("");
    pki::dist_points_locator locator = {pki::locator_dist_points, dps.get(), none.get()};
    return ask(&locator);
  }
  static std::string mask_line(const std::string &interim, const std::string &mask) {
    return "interim-reason-mask=" + interim + " => reason-mask=" + mask;
  }
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideFarReasons, testing::Bool(), way_name);

TEST_P(DecideFarReasons, ListedCertificateIsRevokedWhereThePointIsLimited) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_point({9, 12}, revoking_crl()))) << log_dump();
  EXPECT_TRUE(was_logged(7, mask_line("1200", "1200")));
  EXPECT_TRUE(was_logged(7, revoked_line));
}

TEST_P(DecideFarReasons, ListedCertificateIsRevokedWhereTheCrlIsLimited) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(revoking_crl(only({9, 12}))))) << log_dump();
  EXPECT_TRUE(was_logged(7, mask_line("1200", "1200")));
}

TEST_P(DecideFarReasons, ListedCertificateIsRevokedWhereAConfiguredCrlIsLimited) {
  server.publish("/crl", revoking_crl(only({9})));
  crl_objects::source_list sources;
  sources.add(server.url("/crl"));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(sources))) << log_dump();
  EXPECT_TRUE(was_logged(7, mask_line("200", "200")));
}

TEST_P(DecideFarReasons, CommonReasonsOfPointAndCrlCount) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_point({9, 12}, revoking_crl(only({1, 12, 13})))))
      << log_dump();
  EXPECT_TRUE(was_logged(7, mask_line("1000", "1000")));
}

TEST_P(DecideFarReasons, PointAndCrlWithoutCommonReasonAddNothing) {
  EXPECT_EQ(no_answer, status_of(decide_point({9}, revoking_crl(only({12})))));
  EXPECT_TRUE(was_logged(7, unknown_line("0")));
}

TEST_P(DecideFarReasons, LastBitOfTheMaskCounts) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_point({31}, revoking_crl()))) << log_dump();
  EXPECT_TRUE(was_logged(7, mask_line("80000000", "80000000")));
}

TEST_P(DecideFarReasons, NextToNamedOnesTheyCountToo) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_point({1, 9}, revoking_crl()))) << log_dump();
  EXPECT_TRUE(was_logged(7, mask_line("202", "202")));
}

TEST_P(DecideFarReasons, CrlThatAddsOnlyFarReasonsIsLookedAt) {
  server.publish("/a", crl_of("", some_reasons(0x1E)));
  server.publish("/b", revoking_crl(only({2, 9})));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_at({{"/a"}, {"/b"}}))) << log_dump();
  EXPECT_TRUE(was_logged(7, mask_line("204", "21E")));
}

TEST_P(DecideFarReasons, AloneTheyMakeNoCertificateGood) {
  EXPECT_EQ(no_answer, status_of(decide_point({9, 12}, crl_of(crl_entry(9))))) << log_dump();
  EXPECT_TRUE(was_logged(7, mask_line("1200", "1200")));
  EXPECT_TRUE(was_logged(7, unknown_line("1200")));
  EXPECT_FALSE(was_logged(7, good_line));
}

TEST_P(DecideFarReasons, WithAllNamedOnesTheyMakeTheCertificateGood) {
  EXPECT_EQ(PKI_CERT_OK, status_of(decide_point({0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 12}, crl_of())))
      << log_dump();
  EXPECT_TRUE(was_logged(7, mask_line("13FF", "13FF")));
}

TEST_P(DecideFarReasons, LimitedCrlLeavesTheRestToAWholeOne) {
  server.publish("/a", crl_of("", only({9, 12})));
  server.publish("/b", crl_of());
  EXPECT_EQ(PKI_CERT_OK, status_of(decide_encoded(point("/a", {9, 12}) + point("/b", {}))))
      << log_dump();
  EXPECT_TRUE(was_logged(7, mask_line("1200", "1200")));
  EXPECT_TRUE(was_logged(7, mask_line("1FF", "13FF")));
}

TEST_P(DecideFarReasons, SecondDecisionGivesTheSame) {
  for (const crl_fields &fields : {revoking_crl(), revoking_crl(only({9, 12}))}) {
    zv_cv_clear_crl_cache();
    EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_point({9, 12}, fields)));
    EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_point({9, 12}, fields))) << log_dump();
  }
}

}  // namespace
