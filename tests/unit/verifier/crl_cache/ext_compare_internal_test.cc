// Comparisons of what OpenSSL does not compare itself.
#include "verifier/crl_cache/ext_compare.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/certs.h"

namespace {

using public_key = std::shared_ptr<X509_PUBKEY>;
using names = std::shared_ptr<GENERAL_NAMES>;
using idp = std::shared_ptr<ISSUING_DIST_POINT>;
using akid = std::shared_ptr<AUTHORITY_KEYID>;

constexpr int no_parameters = V_ASN1_UNDEF;

// A key of that algorithm, with a parameter of that type (an integer's value is `parameter`).
public_key make_public_key(int algorithm, int type, long parameter, const std::string &bits) {
  X509_PUBKEY *made = X509_PUBKEY_new();
  void *value = nullptr;
  if (type == V_ASN1_INTEGER) {
    ASN1_INTEGER *number = ASN1_INTEGER_new();
    ASN1_INTEGER_set(number, parameter);
    value = number;
  }
  auto *copy = static_cast<unsigned char *>(OPENSSL_memdup(bits.data(), bits.size()));
  X509_PUBKEY_set0_param(made, OBJ_nid2obj(algorithm), type, value, copy,
                         static_cast<int>(bits.size()));
  return public_key(made, X509_PUBKEY_free);
}

GENERAL_NAME *make_uri(const std::string &text) {
  GENERAL_NAME *made = GENERAL_NAME_new();
  ASN1_IA5STRING *string = ASN1_IA5STRING_new();
  ASN1_STRING_set(string, text.c_str(), -1);
  GENERAL_NAME_set0_value(made, GEN_URI, string);
  return made;
}

GENERAL_NAMES *new_names(const std::vector<std::string> &uris) {
  GENERAL_NAMES *made = GENERAL_NAMES_new();
  for (const std::string &uri : uris)
    sk_GENERAL_NAME_push(made, make_uri(uri));
  return made;
}

names make_names(const std::vector<std::string> &uris) {
  return names(new_names(uris), GENERAL_NAMES_free);
}

ASN1_BIT_STRING *make_bits(const std::string &octets) {
  ASN1_BIT_STRING *made = ASN1_BIT_STRING_new();
  ASN1_STRING_set(made, octets.data(), static_cast<int>(octets.size()));
  return made;
}

idp empty_idp() {
  return idp(ISSUING_DIST_POINT_new(), ISSUING_DIST_POINT_free);
}

idp with_full_name(const std::vector<std::string> &uris) {
  idp made = empty_idp();
  made->distpoint = DIST_POINT_NAME_new();
  made->distpoint->type = 0;
  made->distpoint->name.fullname = new_names(uris);
  return made;
}

struct entry {
  const char *attribute;
  const char *value;
};

// An issuingDistributionPoint with a relative name of these entries.
idp with_relative_name(const std::vector<entry> &entries) {
  idp made = empty_idp();
  made->distpoint = DIST_POINT_NAME_new();
  made->distpoint->type = 1;
  made->distpoint->name.relativename = sk_X509_NAME_ENTRY_new_null();
  for (const entry &each : entries)
    sk_X509_NAME_ENTRY_push(
        made->distpoint->name.relativename,
        X509_NAME_ENTRY_create_by_txt(nullptr, each.attribute, V_ASN1_UTF8STRING,
                                      reinterpret_cast<const unsigned char *>(each.value), -1));
  return made;
}

idp without_relative_name() {
  idp made = with_relative_name({});
  sk_X509_NAME_ENTRY_free(made->distpoint->name.relativename);
  made->distpoint->name.relativename = nullptr;
  return made;
}

akid make_akid(const std::string &key_id, const std::vector<std::string> &issuer = {},
               long serial = -1) {
  AUTHORITY_KEYID *made = AUTHORITY_KEYID_new();
  if (!key_id.empty()) {
    made->keyid = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(made->keyid, reinterpret_cast<const unsigned char *>(key_id.data()),
                          static_cast<int>(key_id.size()));
  }
  if (!issuer.empty())
    made->issuer = new_names(issuer);
  if (serial >= 0) {
    made->serial = ASN1_INTEGER_new();
    ASN1_INTEGER_set(made->serial, serial);
  }
  return akid(made, AUTHORITY_KEYID_free);
}

int compare(const public_key &a, const public_key &b) {
  return pki::X509_PUBKEY_cmp(a.get(), b.get());
}
int compare(const names &a, const names &b) {
  return pki::GENERAL_NAMES_cmp(a.get(), b.get());
}
int compare(const idp &a, const idp &b) {
  return pki::ISSUING_DIST_POINT_cmp(a.get(), b.get());
}
int compare(const akid &a, const akid &b) {
  return pki::AUTHORITY_KEYID_cmp(a.get(), b.get());
}

// `low` stands before `high`, both ways round.
template <class T>
void expect_order(const T &low, const T &high) {
  EXPECT_LT(compare(low, high), 0);
  EXPECT_GT(compare(high, low), 0);
}
template <class T>
void expect_equal(const T &a, const T &b) {
  EXPECT_EQ(0, compare(a, b));
  EXPECT_EQ(0, compare(b, a));
}

// ---- null ----

TEST(ExtCompare, TwoMissingValuesAreEqual) {
  EXPECT_EQ(0, pki::X509_PUBKEY_cmp(nullptr, nullptr));
  EXPECT_EQ(0, pki::GENERAL_NAMES_cmp(nullptr, nullptr));
  EXPECT_EQ(0, pki::ISSUING_DIST_POINT_cmp(nullptr, nullptr));
  EXPECT_EQ(0, pki::AUTHORITY_KEYID_cmp(nullptr, nullptr));
}

TEST(ExtCompare, MissingValueStandsBeforeAPresentOne) {
  public_key key = make_public_key(NID_rsaEncryption, V_ASN1_NULL, 0, "key");
  EXPECT_EQ(-1, pki::X509_PUBKEY_cmp(nullptr, key.get()));
  EXPECT_EQ(1, pki::X509_PUBKEY_cmp(key.get(), nullptr));
  EXPECT_EQ(-1, pki::GENERAL_NAMES_cmp(nullptr, make_names({}).get()));
  EXPECT_EQ(1, pki::GENERAL_NAMES_cmp(make_names({}).get(), nullptr));
  EXPECT_EQ(-1, pki::ISSUING_DIST_POINT_cmp(nullptr, empty_idp().get()));
  EXPECT_EQ(1, pki::ISSUING_DIST_POINT_cmp(empty_idp().get(), nullptr));
  EXPECT_EQ(-1, pki::AUTHORITY_KEYID_cmp(nullptr, make_akid("").get()));
  EXPECT_EQ(1, pki::AUTHORITY_KEYID_cmp(make_akid("").get(), nullptr));
}

TEST(ExtCompare, SameObjectIsEqual) {
  names list = make_names({"a", "b"});
  expect_equal(list, list);
  idp point = with_relative_name({{"CN", "a"}});
  expect_equal(point, point);
  akid id = make_akid("id", {"a"}, 1);
  expect_equal(id, id);
}

// ---- public keys ----

TEST(ExtComparePublicKey, SameAlgorithmParametersAndBitsAreEqual) {
  expect_equal(make_public_key(NID_rsaEncryption, V_ASN1_NULL, 0, "key"),
               make_public_key(NID_rsaEncryption, V_ASN1_NULL, 0, "key"));
  expect_equal(make_public_key(NID_rsaEncryption, V_ASN1_INTEGER, 5, "key"),
               make_public_key(NID_rsaEncryption, V_ASN1_INTEGER, 5, "key"));
}

TEST(ExtComparePublicKey, TwoKeysWithoutParametersAreEqual) {
  expect_equal(make_public_key(NID_ED25519, no_parameters, 0, "key"),
               make_public_key(NID_ED25519, no_parameters, 0, "key"));
}

TEST(ExtComparePublicKey, KeysOfCertificatesCompareByValue) {
  support::cert first = support::make_ca("first", 1), again = support::make_ca("second", 1, 2),
                other = support::make_ca("first", 2);
  EXPECT_EQ(0, pki::X509_PUBKEY_cmp(X509_get_X509_PUBKEY(first.get()),
                                    X509_get_X509_PUBKEY(again.get())));
  EXPECT_NE(0, pki::X509_PUBKEY_cmp(X509_get_X509_PUBKEY(first.get()),
                                    X509_get_X509_PUBKEY(other.get())));
}

TEST(ExtComparePublicKey, ShorterObjectIdentifierStandsFirstWhateverTheBits) {
  // 1.2.840.113549.1.1.1 has nine octets, 1.3.101.112 has three.
  expect_order(make_public_key(NID_ED25519, V_ASN1_NULL, 0, "longer key"),
               make_public_key(NID_rsaEncryption, V_ASN1_NULL, 0, "key"));
}

TEST(ExtComparePublicKey, MissingParametersStandFirst) {
  expect_order(make_public_key(NID_rsaEncryption, no_parameters, 0, "longer key"),
               make_public_key(NID_rsaEncryption, V_ASN1_NULL, 0, "key"));
}

TEST(ExtComparePublicKey, ParametersDecideBeforeTheBits) {
  expect_order(make_public_key(NID_rsaEncryption, V_ASN1_INTEGER, 5, "longer key"),
               make_public_key(NID_rsaEncryption, V_ASN1_INTEGER, 6, "key"));
}

TEST(ExtComparePublicKey, ParametersOfDifferentTypesAreDifferent) {
  public_key null = make_public_key(NID_rsaEncryption, V_ASN1_NULL, 0, "key");
  public_key number = make_public_key(NID_rsaEncryption, V_ASN1_INTEGER, 5, "key");
  EXPECT_NE(0, compare(null, number));
  EXPECT_NE(0, compare(number, null));
}

TEST(ExtComparePublicKey, BitsCompareByLengthThenOctets) {
  expect_order(make_public_key(NID_rsaEncryption, V_ASN1_NULL, 0, "z"),
               make_public_key(NID_rsaEncryption, V_ASN1_NULL, 0, "aa"));
  expect_order(make_public_key(NID_rsaEncryption, V_ASN1_NULL, 0, "aa"),
               make_public_key(NID_rsaEncryption, V_ASN1_NULL, 0, "ab"));
}

// ---- general names ----

TEST(ExtCompareNames, DifferentLengthsGiveTheirDifference) {
  EXPECT_EQ(-2, compare(make_names({"z"}), make_names({"a", "b", "c"})));
  EXPECT_EQ(3, compare(make_names({"a", "b", "c"}), make_names({})));
}

TEST(ExtCompareNames, SameNamesAreEqual) {
  expect_equal(make_names({}), make_names({}));
  expect_equal(make_names({"a", "b"}), make_names({"a", "b"}));
}

TEST(ExtCompareNames, OrderMatters) {
  EXPECT_NE(0, compare(make_names({"a", "b"}), make_names({"b", "a"})));
}

TEST(ExtCompareNames, FirstDifferentPairDecides) {
  expect_order(make_names({"a", "a", "z"}), make_names({"a", "b", "a"}));
}

// ---- issuing distribution points ----

TEST(ExtCompareIdp, EmptyOnesAreEqual) {
  expect_equal(empty_idp(), empty_idp());
}

TEST(ExtCompareIdp, SameFieldsAreEqual) {
  idp both[2];
  for (idp &each : both) {
    each = with_full_name({"a", "b"});
    each->onlyuser = each->onlyCA = each->indirectCRL = each->onlyattr = 0xFF;
    each->onlysomereasons = make_bits("\x60");
  }
  expect_equal(both[0], both[1]);
}

TEST(ExtCompareIdp, MissingNameStandsFirst) {
  EXPECT_EQ(-1, compare(empty_idp(), with_full_name({"a"})));
  EXPECT_EQ(1, compare(with_full_name({"a"}), empty_idp()));
}

TEST(ExtCompareIdp, FullNameStandsBeforeARelativeOne) {
  EXPECT_EQ(-1, compare(with_full_name({"a"}), with_relative_name({{"CN", "a"}})));
  EXPECT_EQ(1, compare(with_relative_name({{"CN", "a"}}), with_full_name({"a"})));
}

TEST(ExtCompareIdp, FullNamesCompareAsNames) {
  expect_order(with_full_name({"a"}), with_full_name({"b"}));
  EXPECT_EQ(-1, compare(with_full_name({"z"}), with_full_name({"a", "b"})));
  EXPECT_NE(0, compare(with_full_name({"a", "b"}), with_full_name({"b", "a"})));
}

TEST(ExtCompareIdp, MissingFullNameStandsFirst) {
  idp missing = with_full_name({});
  GENERAL_NAMES_free(missing->distpoint->name.fullname);
  missing->distpoint->name.fullname = nullptr;
  EXPECT_EQ(-1, compare(missing, with_full_name({"a"})));
  EXPECT_EQ(1, compare(with_full_name({"a"}), missing));
}

TEST(ExtCompareIdp, MissingRelativeNameStandsLast) {
  EXPECT_EQ(1, compare(without_relative_name(), with_relative_name({{"CN", "a"}})));
  EXPECT_EQ(-1, compare(with_relative_name({{"CN", "a"}}), without_relative_name()));
  expect_equal(without_relative_name(), without_relative_name());
}

TEST(ExtCompareIdp, RelativeNamesOfDifferentLengthsGiveTheirDifference) {
  EXPECT_EQ(-2, compare(with_relative_name({{"CN", "z"}}),
                        with_relative_name({{"CN", "a"}, {"O", "b"}, {"OU", "c"}})));
  EXPECT_EQ(
      1, compare(with_relative_name({{"CN", "a"}, {"O", "b"}}), with_relative_name({{"CN", "z"}})));
}

TEST(ExtCompareIdp, RelativeNamesCompareByAttributeThenValue) {
  expect_equal(with_relative_name({{"CN", "a"}, {"O", "b"}}),
               with_relative_name({{"CN", "a"}, {"O", "b"}}));
  expect_order(with_relative_name({{"CN", "z"}}), with_relative_name({{"O", "a"}}));
  expect_order(with_relative_name({{"CN", "a"}}), with_relative_name({{"CN", "b"}}));
  expect_order(with_relative_name({{"CN", "a"}, {"O", "a"}}),
               with_relative_name({{"CN", "a"}, {"O", "b"}}));
}

TEST(ExtCompareIdp, ThirdChoiceIsNeverEqual) {
  idp first = empty_idp(), second = empty_idp();
  for (const idp &each : {first, second}) {
    each->distpoint = DIST_POINT_NAME_new();
    each->distpoint->type = 7;
  }
  EXPECT_EQ(1, compare(first, second));
  EXPECT_EQ(1, compare(second, first));
}

struct field {
  const char *name;
  void (*set)(ISSUING_DIST_POINT *);
};

// In the order of their weight.
const std::vector<field> fields = {
    {"onlyContainsUserCerts", [](ISSUING_DIST_POINT *point) { point->onlyuser = 0xFF; }},
    {"onlyContainsCACerts", [](ISSUING_DIST_POINT *point) { point->onlyCA = 0xFF; }},
    {"onlySomeReasons",
     [](ISSUING_DIST_POINT *point) { point->onlysomereasons = make_bits("\x60"); }},
    {"indirectCRL", [](ISSUING_DIST_POINT *point) { point->indirectCRL = 0xFF; }},
    {"onlyContainsAttributeCerts", [](ISSUING_DIST_POINT *point) { point->onlyattr = 0xFF; }}};

TEST(ExtCompareIdp, EachFieldCounts) {
  for (const field &each : fields) {
    SCOPED_TRACE(each.name);
    idp with = empty_idp();
    each.set(with.get());
    expect_order(empty_idp(), with);
  }
}

TEST(ExtCompareIdp, EarlierFieldDecides) {
  for (size_t i = 0; i + 1 < fields.size(); i++) {
    SCOPED_TRACE(fields[i].name);
    idp first = empty_idp(), second = empty_idp();
    fields[i].set(first.get());
    fields[i + 1].set(second.get());
    expect_order(second, first);
  }
  idp named = with_full_name({"a"}), flagged = empty_idp();
  flagged->onlyuser = 0xFF;
  expect_order(flagged, named);
}

TEST(ExtCompareIdp, FlagsGiveTheirDifference) {
  idp set = empty_idp();
  set->onlyCA = 0xFF;
  EXPECT_EQ(0xFF, compare(set, empty_idp()));
  EXPECT_EQ(-0xFF, compare(empty_idp(), set));
}

TEST(ExtCompareIdp, ReasonsCompareByLengthThenOctets) {
  idp one = empty_idp(), two = empty_idp(), other = empty_idp();
  one->onlysomereasons = make_bits("\x70");
  two->onlysomereasons = make_bits("\x60\x80");
  other->onlysomereasons = make_bits("\x60");
  expect_order(one, two);
  expect_order(other, one);
}

// ---- authority key identifiers ----

TEST(ExtCompareAkid, SameFieldsAreEqual) {
  expect_equal(make_akid("id", {"a", "b"}, 7), make_akid("id", {"a", "b"}, 7));
  expect_equal(make_akid(""), make_akid(""));
}

TEST(ExtCompareAkid, IssuerAndSerialOnOneSideOnlyIsDifferent) {
  EXPECT_EQ(-1, compare(make_akid("id"), make_akid("id", {"a"}, 7)));
  EXPECT_EQ(1, compare(make_akid("id", {"a"}, 7), make_akid("id")));
}

TEST(ExtCompareAkid, MissingFieldStandsFirst) {
  EXPECT_EQ(-1, compare(make_akid("", {"a"}, 7), make_akid("id", {"a"}, 7)));
  EXPECT_EQ(-1, compare(make_akid("id", {}, 7), make_akid("id", {"a"}, 7)));
  EXPECT_EQ(-1, compare(make_akid("id", {"a"}), make_akid("id", {"a"}, 7)));
  EXPECT_EQ(1, compare(make_akid("id", {"a"}, 7), make_akid("id", {"a"})));
}

TEST(ExtCompareAkid, KeyIdThenIssuerThenSerialDecide) {
  expect_order(make_akid("ia", {"b"}, 8), make_akid("id", {"a"}, 7));
  expect_order(make_akid("id", {"a"}, 8), make_akid("id", {"b"}, 7));
  expect_order(make_akid("id", {"a"}, 7), make_akid("id", {"a"}, 8));
}

TEST(ExtCompareAkid, SerialsCompareByTheirOctetsNotTheirValue) {
  akid padded = make_akid("id", {"a"}, 8), plain = make_akid("id", {"a"}, 9);
  ASN1_STRING_set(padded->serial, "\0\x08", 2);
  EXPECT_GT(compare(padded, plain), 0);
}

}  // namespace
