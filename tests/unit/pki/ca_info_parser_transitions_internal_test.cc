#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>

#include "pki/ca_info_context.h"

namespace {

using pki::next_state;

struct row {
  const char *element;
  int from, to;
};

const row rows[] = {
    {"QRNPkiConfig", 2, 3},
    {"Expires", 3, 4},
    {"IssuerName", 3, 5},
    {"CertReqMethod", 3, 6},
    {"CertLookupMethod", 3, 7},
    {"CertStatusQueryMethod", 3, 8},
    {"TrustedRoots", 3, 9},
    {"AdditionalCerts", 3, 10},
    {"SCEP", 6, 11},
    {"X509Certificate", 11, 12},
    {"Digest", 11, 13},
    {"Cipher", 11, 14},
    {"CRS", 6, 15},
    {"X509Certificate", 15, 16},
    {"Digest", 15, 17},
    {"Cipher", 15, 18},
    {"SCEPGetCert", 7, 19},
    {"X509Certificate", 19, 22},
    {"CRSGetCert", 7, 20},
    {"LDAPGetCert", 7, 21},
    {"OCSP", 8, 23},
    {"X509Certificate", 23, 24},
    {"X509Certificate", 9, 26},
    {"X509Certificate", 10, 27},
};

TEST(CaInfoTransitions, EachRowLeadsToItsState) {
  for (const row &it : rows)
    EXPECT_EQ(next_state(it.from, it.element), it.to) << it.element << " from " << it.from;
}

TEST(CaInfoTransitions, LetterCaseDoesNotMatter) {
  for (const row &it : rows) {
    std::string lower = it.element, upper = it.element;
    for (size_t i = 0; i < lower.size(); i++) {
      lower[i] = static_cast<char>(tolower(lower[i]));
      upper[i] = static_cast<char>(toupper(upper[i]));
    }
    EXPECT_EQ(next_state(it.from, lower.c_str()), it.to) << lower;
    EXPECT_EQ(next_state(it.from, upper.c_str()), it.to) << upper;
  }
}

TEST(CaInfoTransitions, EveryOtherPairIsIgnored) {
  std::set<std::pair<std::string, int>> known;
  std::set<std::string> elements;
  for (const row &it : rows) {
    known.insert({it.element, it.from});
    elements.insert(it.element);
  }
  for (int from = -1; from <= 30; from++)
    for (const std::string &element : elements)
      if (!known.contains({element, from})) {
        EXPECT_EQ(next_state(from, element.c_str()), 1) << element << " from " << from;
      }
}

TEST(CaInfoTransitions, NamesMustBeWhole) {
  EXPECT_EQ(next_state(2, "QRNPkiConfigs"), 1);
  EXPECT_EQ(next_state(2, "QRNPkiConfi"), 1);
  EXPECT_EQ(next_state(2, "p:QRNPkiConfig"), 1);
  EXPECT_EQ(next_state(2, ""), 1);
}

TEST(CaInfoTransitions, TextIsKeptInSixStates) {
  const std::set<int> keeping = {4, 5, 12, 22, 26, 27};
  for (int state = -1; state <= 30; state++)
    EXPECT_EQ(pki::keeps_text(state), keeping.contains(state)) << state;
}

}  // namespace
