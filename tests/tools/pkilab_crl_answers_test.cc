// What the CRLs of the lab's CRL room are made of.
#include <gtest/gtest.h>

#include "crl_client.h"
#include "lab_fixture.h"
#include "ocsp_client.h"
#include "raw_http.h"
#include "shared_crl.h"
#include "tools/common/cert_text.h"
#include "tools/common/keys.h"
#include "tools/pkilab/revocations.h"

namespace {

using tool_test::ask_crl;
using tool_test::crl_query;
using tool_test::keys;
using tool_test::strings;
using tool_test::the_lab;

constexpr int key_compromise = 1;
constexpr int superseded = 4;
constexpr int remove_from_crl = 8;
constexpr int aa_compromise = 10;

// A new certificate, revoked from now on; its serial number.
std::string revoke_one(const pkilab::ca::pair &issuer, int reason = -1) {
  tools::cert_ptr cert = tool_test::issue_cert(keys(), issuer);
  pkilab::revocations(keys().folder())
      .revoke(X509_get0_serialNumber(cert.get()), {1767322800, reason});
  return tools::serial_text(X509_get0_serialNumber(cert.get()));
}

int index_of(const crl_query &answer, const std::string &serial) {
  strings all = answer.serials();
  auto found = std::find(all.begin(), all.end(), serial);
  return found == all.end() ? -1 : static_cast<int>(found - all.begin());
}

// Seconds from now, give or take what the exchange took.
void expect_time(const ASN1_TIME *time, long long seconds) {
  int days = 0;
  int rest = 0;
  ASSERT_TRUE(time);
  ASSERT_EQ(ASN1_TIME_diff(&days, &rest, nullptr, time), 1);
  EXPECT_NEAR(static_cast<double>(days) * 86400 + rest, static_cast<double>(seconds), 60);
}

std::string issuer_of(const crl_query &answer) {
  return tools::name_text(X509_CRL_get_issuer(answer.crl()));
}

// ---- without words ----

TEST(CrlAnswer, IsTheCasAndLastsADayWithoutOptions) {
  crl_query answer = ask_crl();
  ASSERT_TRUE(answer.crl());
  EXPECT_EQ(X509_CRL_get_version(answer.crl()), X509_CRL_VERSION_2);
  EXPECT_TRUE(answer.is_signed_by(keys().issuing().key.get()));
  EXPECT_EQ(issuer_of(answer), "CN=pkilab issuing CA, O=pkilab");
  expect_time(X509_CRL_get0_lastUpdate(answer.crl()), 0);
  expect_time(X509_CRL_get0_nextUpdate(answer.crl()), 86400);
  EXPECT_NEAR(static_cast<double>(answer.number(NID_crl_number)),
              static_cast<double>(time(nullptr)), 60);
  EXPECT_FALSE(answer.is_critical(NID_crl_number));
  EXPECT_FALSE(answer.scope());
  EXPECT_NE(answer.http().find("\r\nContent-Type: application/pkix-crl\r\n"), std::string::npos);
}

TEST(CrlAnswer, EachCaPublishesItsOwn) {
  std::string serial = revoke_one(keys().root(), superseded);
  EXPECT_TRUE(ask_crl("", "root").is_signed_by(keys().root().key.get()));
  EXPECT_TRUE(ask_crl("", "additional").is_signed_by(keys().additional().key.get()));
  EXPECT_GE(index_of(ask_crl("", "root"), serial), 0);
  EXPECT_EQ(index_of(ask_crl("", "additional"), serial), -1);
  EXPECT_EQ(index_of(ask_crl(), serial), -1);
}

TEST(CrlAnswer, EntrySaysWhenAndWhy) {
  std::string with = revoke_one(keys().issuing(), key_compromise);
  std::string without = revoke_one(keys().issuing());
  crl_query answer = ask_crl();
  EXPECT_EQ(answer.reason_at(index_of(answer, with)), key_compromise);
  EXPECT_EQ(answer.reason_at(index_of(answer, without)), -1);
  X509_REVOKED *entry =
      sk_X509_REVOKED_value(X509_CRL_get_REVOKED(answer.crl()), index_of(answer, without));
  EXPECT_EQ(tools::time_text(X509_REVOKED_get0_revocationDate(entry)), "2026-01-02 03:00:00Z");
  EXPECT_FALSE(X509_REVOKED_get0_extensions(entry));
}

TEST(CrlAnswer, ListWithoutEntriesIsLeftOut) {
  revoke_one(keys().issuing());
  crl_query answer = ask_crl("?empty");
  ASSERT_TRUE(answer.crl());
  EXPECT_FALSE(X509_CRL_get_REVOKED(answer.crl()));
  EXPECT_TRUE(answer.is_signed_by(keys().issuing().key.get()));
}

// ---- numbers and deltas ----

TEST(CrlAnswer, NumbersAreAsTold) {
  EXPECT_EQ(ask_crl("?number=4711").number(NID_crl_number), 4711);
  EXPECT_EQ(ask_crl("?number=0").number(NID_crl_number), 0);
  EXPECT_EQ(ask_crl("?no-number").number(NID_crl_number), -1);
  std::string longest = ask_crl("?number=" + std::string(47, '9')).extension(NID_crl_number);
  EXPECT_EQ(longest.size(), 2 + 20u);
}

TEST(CrlAnswer, DeltaNamesItsBase) {
  crl_query answer = ask_crl("?delta=5&number=9");
  EXPECT_EQ(answer.number(NID_delta_crl), 5);
  EXPECT_TRUE(answer.is_critical(NID_delta_crl));
  EXPECT_EQ(answer.number(NID_crl_number), 9);
}

TEST(CrlAnswer, FreshestCrlIsAPathOfTheLabsOrAUrl) {
  crl_query answer =
      ask_crl("?freshest=/crl/issuing.crl?delta=5%26number=9&freshest=http://other.example/d.crl");
  std::string octets = answer.extension(NID_freshest_crl);
  EXPECT_FALSE(answer.is_critical(NID_freshest_crl));
  const auto *at = reinterpret_cast<const unsigned char *>(octets.data());
  std::unique_ptr<CRL_DIST_POINTS, tools::free_with<CRL_DIST_POINTS_free>> points(
      d2i_CRL_DIST_POINTS(nullptr, &at, static_cast<long>(octets.size())));
  ASSERT_EQ(sk_DIST_POINT_num(points.get()), 2);
  EXPECT_EQ(tool_test::uri_of(sk_DIST_POINT_value(points.get(), 0)->distpoint),
            the_lab().lab.url("/crl/issuing.crl?delta=5&number=9"));
  EXPECT_EQ(tool_test::uri_of(sk_DIST_POINT_value(points.get(), 1)->distpoint),
            "http://other.example/d.crl");
}

TEST(CrlAnswer, ListsWhatItIsTold) {
  crl_query answer = ask_crl("?empty&entry=10c4&entry=10C5:removeFromCRL");
  EXPECT_EQ(answer.serials(), (strings{"10C4", "10C5"}));
  EXPECT_EQ(answer.reason_at(0), -1);
  EXPECT_EQ(answer.reason_at(1), remove_from_crl);
}

// ---- scopes ----

TEST(CrlAnswer, IndirectListNamesAnIssuerOnceForItsEntries) {
  std::string own = revoke_one(keys().additional());
  std::string first = revoke_one(keys().root());
  std::string second = revoke_one(keys().root());
  crl_query answer = ask_crl("?indirect", "additional");
  EXPECT_TRUE(answer.is_critical(NID_issuing_distribution_point));
  EXPECT_TRUE(answer.scope()->indirectCRL);
  EXPECT_EQ(answer.issuer_at(index_of(answer, own)), "");
  int lower = std::min(index_of(answer, first), index_of(answer, second));
  int higher = std::max(index_of(answer, first), index_of(answer, second));
  ASSERT_GT(lower, index_of(answer, own));
  EXPECT_EQ(answer.issuer_at(higher), "");
  while (lower > 0 && answer.issuer_at(lower).empty())
    lower--;
  EXPECT_EQ(answer.issuer_at(lower), "CN=pkilab root CA, O=pkilab");
  // OpenSSL agrees whose entries these are.
  X509_REVOKED *found = nullptr;
  std::unique_ptr<X509, tools::free_with<X509_free>> wanted(
      X509_dup(tools::load_certificate(the_lab().file("issued/" + second + ".pem")).get()));
  EXPECT_EQ(X509_CRL_get0_by_cert(answer.crl(), &found, wanted.get()), 1);
}

TEST(CrlAnswer, IndirectListOfADelegatedSignerNamesTheCaToo) {
  std::string own = revoke_one(keys().issuing());
  crl_query answer = ask_crl("?indirect&signer=delegated");
  EXPECT_EQ(answer.issuer_at(0), "CN=pkilab issuing CA, O=pkilab");
  EXPECT_GE(index_of(answer, own), 0);
}

TEST(CrlAnswer, ListOfSomeReasonsHasOnlyThose) {
  std::string compromised = revoke_one(keys().issuing(), key_compromise);
  std::string replaced = revoke_one(keys().issuing(), superseded);
  std::string attribute = revoke_one(keys().issuing(), aa_compromise);
  std::string unsaid = revoke_one(keys().issuing());
  crl_query answer = ask_crl("?reasons=keyCompromise,AACompromise");
  EXPECT_GE(index_of(answer, compromised), 0);
  EXPECT_GE(index_of(answer, attribute), 0);
  EXPECT_EQ(index_of(answer, replaced), -1);
  EXPECT_EQ(index_of(answer, unsaid), -1);
  auto scope = answer.scope();
  ASSERT_TRUE(scope->onlysomereasons);
  for (int bit = 0; bit < 9; bit++)
    EXPECT_EQ(ASN1_BIT_STRING_get_bit(scope->onlysomereasons, bit), bit == 1 || bit == 8) << bit;
  EXPECT_GE(index_of(ask_crl("?reasons=unspecified"), unsaid), 0);
}

TEST(CrlAnswer, ReasonsAreANamedBitListWithoutZerosAtItsEnd) {
  auto last_octets = [](const std::string &reasons) {
    std::string octets = ask_crl("?reasons=" + reasons).extension(NID_issuing_distribution_point);
    return octets.substr(octets.find('\x83'));
  };
  EXPECT_EQ(last_octets("unspecified"), "\x83\x02\x07\x80");
  EXPECT_EQ(last_octets("privilegeWithdrawn"), std::string("\x83\x02\x00\x01", 4));
  EXPECT_EQ(last_octets("AACompromise"), std::string("\x83\x03\x07\x00\x80", 5));
}

TEST(CrlAnswer, ListOfOneKindHasOnlyThatKind) {
  std::string user = revoke_one(keys().root());
  const ASN1_INTEGER *ca_serial = X509_get0_serialNumber(keys().additional().cert.get());
  pkilab::revocations revoked(keys().folder());
  revoked.revoke(ca_serial, {1, -1});
  std::string ca = tools::serial_text(ca_serial);
  crl_query users = ask_crl("?only=user", "root");
  crl_query cas = ask_crl("?only=ca", "root");
  crl_query attributes = ask_crl("?only=attribute", "root");
  revoked.restore(ca_serial);
  EXPECT_TRUE(users.scope()->onlyuser);
  EXPECT_TRUE(cas.scope()->onlyCA);
  EXPECT_TRUE(attributes.scope()->onlyattr);
  EXPECT_GE(index_of(users, user), 0);
  EXPECT_EQ(index_of(users, ca), -1);
  EXPECT_EQ(cas.serials(), strings{ca});
  EXPECT_EQ(attributes.serials(), strings{});
}

TEST(CrlAnswer, DistributionPointHasFullOrRelativeName) {
  auto full = ask_crl("?idp-name=/crl/issuing.crl&idp-name=http://b.example/").scope();
  EXPECT_EQ(tool_test::uri_of(full->distpoint, 0), the_lab().lab.url("/crl/issuing.crl"));
  EXPECT_EQ(tool_test::uri_of(full->distpoint, 1), "http://b.example/");
  auto relative = ask_crl("?idp-relative").scope();
  ASSERT_TRUE(relative->distpoint);
  ASSERT_EQ(relative->distpoint->type, 1);
  EXPECT_EQ(sk_X509_NAME_ENTRY_num(relative->distpoint->name.relativename), 1);
}

// ---- times ----

TEST(CrlAnswer, TimesAreSecondsFromNow) {
  crl_query answer = ask_crl("?this-update=-7200&next-update=1000000");
  expect_time(X509_CRL_get0_lastUpdate(answer.crl()), -7200);
  expect_time(X509_CRL_get0_nextUpdate(answer.crl()), 1000000);
  EXPECT_FALSE(X509_CRL_get0_nextUpdate(ask_crl("?no-next-update").crl()));
  crl_query expired = ask_crl("?expired");
  expect_time(X509_CRL_get0_lastUpdate(expired.crl()), -2 * 86400);
  expect_time(X509_CRL_get0_nextUpdate(expired.crl()), -86400);
  crl_query future = ask_crl("?future");
  expect_time(X509_CRL_get0_lastUpdate(future.crl()), 86400);
}

TEST(CrlAnswer, TimesFrom2050OnAreGeneralized) {
  crl_query answer = ask_crl("?next-update=3000000000");
  const ASN1_TIME *time = X509_CRL_get0_nextUpdate(answer.crl());
  EXPECT_EQ(ASN1_STRING_type(time), V_ASN1_GENERALIZEDTIME);
  expect_time(time, 3000000000);
  EXPECT_EQ(ASN1_STRING_type(X509_CRL_get0_lastUpdate(answer.crl())), V_ASN1_UTCTIME);
}

TEST(CrlAnswer, TimesThatAreNoNumbersStandAsTheyAre) {
  crl_query answer = ask_crl("?this-update=301301000000Z&next-update=20310506070809.5Z");
  ASSERT_NE(answer.body(), "");
  EXPECT_NE(answer.body().find("\x17\x0D"
                               "301301000000Z"),
            std::string::npos);
  EXPECT_NE(answer.body().find("\x18\x11"
                               "20310506070809.5Z"),
            std::string::npos);
}

// ---- signers ----

TEST(CrlAnswer, DelegatedSignerHasACertificateOfTheCas) {
  crl_query answer = ask_crl("?signer=delegated");
  tools::cert_ptr signer = tools::load_certificate(the_lab().file("crl/issuing.pem"));
  EXPECT_EQ(X509_verify(signer.get(), keys().issuing().key.get()), 1);
  EXPECT_EQ(X509_get_key_usage(signer.get()), static_cast<uint32_t>(KU_CRL_SIGN));
  EXPECT_TRUE(answer.is_signed_by(X509_get0_pubkey(signer.get())));
  EXPECT_EQ(issuer_of(answer), tools::name_text(X509_get_subject_name(signer.get())));
  EXPECT_EQ(issuer_of(answer), "CN=pkilab CRL signer issuing, O=pkilab");
  EXPECT_TRUE(ask_crl("?signer=delegated").is_signed_by(X509_get0_pubkey(signer.get())));
}

TEST(CrlAnswer, DelegatedSignerCanHaveTheCasName) {
  crl_query answer = ask_crl("?signer=delegated&same-name");
  tools::cert_ptr signer = tools::load_certificate(the_lab().file("crl/issuing-same-name.pem"));
  EXPECT_TRUE(answer.is_signed_by(X509_get0_pubkey(signer.get())));
  EXPECT_FALSE(answer.is_signed_by(keys().issuing().key.get()));
  EXPECT_EQ(issuer_of(answer), "CN=pkilab issuing CA, O=pkilab");
}

TEST(CrlAnswer, DelegatedSignerCanLackTheRightToSign) {
  crl_query answer = ask_crl("?signer=delegated&no-crl-sign");
  tools::cert_ptr signer = tools::load_certificate(the_lab().file("crl/issuing-no-crl-sign.pem"));
  EXPECT_EQ(X509_get_key_usage(signer.get()) & KU_CRL_SIGN, 0u);
  EXPECT_TRUE(answer.is_signed_by(X509_get0_pubkey(signer.get())));
}

TEST(CrlAnswer, DelegatedSignerCanNameACrlOfItsOwn) {
  crl_query answer = ask_crl("?signer=delegated&signer-dp=empty%26number=1&pkcs7-certs");
  std::string body = answer.body();
  EXPECT_NE(body.find(the_lab().lab.url("/crl/issuing.crl?empty&number=1")), std::string::npos);
}

TEST(CrlAnswer, OthersSignInTheCasName) {
  crl_query other = ask_crl("?signer=other-ca");
  EXPECT_EQ(issuer_of(other), "CN=pkilab issuing CA, O=pkilab");
  EXPECT_TRUE(other.is_signed_by(keys().root().key.get()));
  EXPECT_TRUE(ask_crl("?signer=other-ca", "root").is_signed_by(keys().issuing().key.get()));
  crl_query stranger = ask_crl("?signer=stranger");
  EXPECT_EQ(issuer_of(stranger), "CN=pkilab issuing CA, O=pkilab");
  for (const pkilab::ca::pair *own : keys().pairs())
    EXPECT_FALSE(stranger.is_signed_by(own->key.get()));
}

TEST(CrlAnswer, DamagedSignatureVerifiesForNobody) {
  crl_query answer = ask_crl("?damaged-signature");
  ASSERT_TRUE(answer.crl());
  EXPECT_FALSE(answer.is_signed_by(keys().issuing().key.get()));
}

TEST(CrlAnswer, IsSignedWithTheDigestThatIsAskedFor) {
  for (const auto &[digest, nid] : std::map<std::string, int>{
           {"SHA1", NID_sha1WithRSAEncryption}, {"SHA512", NID_sha512WithRSAEncryption}}) {
    crl_query answer = ask_crl("?digest=" + digest);
    EXPECT_EQ(X509_CRL_get_signature_nid(answer.crl()), nid);
    EXPECT_TRUE(answer.is_signed_by(keys().issuing().key.get()));
  }
  crl_query refused = ask_crl("?digest=SHAKE256");
  EXPECT_TRUE(refused.http().starts_with("HTTP/1.0 400 ")) << refused.http();
  EXPECT_EQ(refused.body(),
            "CRL option 'digest': no signature is made with 'SHAKE256'; try SHA1\n");
}

TEST(CrlAnswer, NamesTheSignersKey) {
  X509 *ca = keys().issuing().cert.get();
  auto akid = [](const crl_query &answer) {
    return std::unique_ptr<AUTHORITY_KEYID, tools::free_with<AUTHORITY_KEYID_free>>(
        static_cast<AUTHORITY_KEYID *>(
            X509_CRL_get_ext_d2i(answer.crl(), NID_authority_key_identifier, nullptr, nullptr)));
  };
  auto plain = akid(ask_crl());
  EXPECT_EQ(X509_check_akid(ca, plain.get()), X509_V_OK);
  EXPECT_FALSE(plain->serial);
  auto whole = akid(ask_crl("?akid"));
  EXPECT_EQ(X509_check_akid(ca, whole.get()), X509_V_OK);
  EXPECT_TRUE(whole->serial && whole->issuer);
  EXPECT_EQ(X509_check_akid(ca, akid(ask_crl("?wrong-akid")).get()), X509_V_ERR_AKID_SKID_MISMATCH);
  EXPECT_FALSE(akid(ask_crl("?no-akid")));
}

// ---- extensions that nobody knows ----

TEST(CrlAnswer, UnknownCriticalExtensions) {
  ASN1_OBJECT *oid = OBJ_txt2obj("1.2.3.4.5", 1);
  crl_query list = ask_crl("?critical=1.2.3.4.5");
  int at = X509_CRL_get_ext_by_OBJ(list.crl(), oid, -1);
  ASSERT_GE(at, 0);
  EXPECT_EQ(X509_EXTENSION_get_critical(X509_CRL_get_ext(list.crl(), at)), 1);
  crl_query entries = ask_crl("?empty&entries=1&entry=1&entry-critical=1.2.3.4.5");
  STACK_OF(X509_REVOKED) *revoked = X509_CRL_get_REVOKED(entries.crl());
  EXPECT_LT(X509_REVOKED_get_ext_by_OBJ(sk_X509_REVOKED_value(revoked, 0), oid, -1), 0);
  EXPECT_EQ(X509_REVOKED_get_ext_by_OBJ(sk_X509_REVOKED_value(revoked, 1), oid, -1), 0);
  ASN1_OBJECT_free(oid);
}

// ---- bodies ----

TEST(CrlAnswer, StandsInAPkcs7WithCertificatesOrWithout) {
  for (const auto &[query, certs] : std::map<std::string, int>{
           {"?pkcs7", 0}, {"?pkcs7-certs", 1}, {"?pkcs7-certs&signer=delegated", 2}}) {
    crl_query answer = ask_crl(query + "&entries=1000");
    EXPECT_NE(answer.http().find("\r\nContent-Type: application/x-pkcs7-crl\r\n"),
              std::string::npos);
    std::string body = answer.body();
    const auto *at = reinterpret_cast<const unsigned char *>(body.data());
    tools::pkcs7_ptr made(d2i_PKCS7(nullptr, &at, static_cast<long>(body.size())));
    ASSERT_TRUE(made) << query;
    EXPECT_EQ(reinterpret_cast<const char *>(at), body.data() + body.size());
    ASSERT_EQ(sk_X509_CRL_num(made->d.sign->crl), 1);
    EXPECT_EQ(std::max(sk_X509_num(made->d.sign->cert), 0), certs);
    EXPECT_EQ(sk_PKCS7_SIGNER_INFO_num(made->d.sign->signer_info), 0);
    EXPECT_GE(sk_X509_REVOKED_num(X509_CRL_get_REVOKED(sk_X509_CRL_value(made->d.sign->crl, 0))),
              1000);
  }
}

TEST(CrlAnswer, CanBeNoCrl) {
  EXPECT_EQ(ask_crl("?no-crl").body(), "these octets are no CRL");
}

TEST(CrlAnswer, HeadIsAsTold) {
  std::string length = "Content-Length: " + std::to_string(ask_crl().body().size()) + "\r\n";
  EXPECT_NE(ask_crl().http().find(length), std::string::npos);
  crl_query silent = ask_crl("?no-length");
  EXPECT_EQ(silent.http().find("Content-Length"), std::string::npos);
  EXPECT_TRUE(silent.is_signed_by(keys().issuing().key.get()));
  EXPECT_TRUE(ask_crl("?http-status=404").http().starts_with("HTTP/1.0 404 "));
  EXPECT_NE(ask_crl("?content-type=a/b").http().find("\r\nContent-Type: a/b\r\n"),
            std::string::npos);
  EXPECT_EQ(ask_crl("?content-type=").http().find("Content-Type"), std::string::npos);
}

TEST(CrlAnswer, WrongWordsAreRefusedInALine) {
  for (const auto &[query, line] : std::map<std::string, std::string>{
           {"?nothing", "there is no CRL option 'nothing'; pkilab serve --help lists them"},
           {"?delta", "CRL option 'delta' needs a value: delta=N"},
           {"?delta=x", "CRL option 'delta': 'x' is not a number of at most 60 digits"},
           {"?indirect=1", "CRL option 'indirect' takes no value"},
           {"?entries=100000001",
            "CRL option 'entries': '100000001' is not a number from 0 to 100000000"},
           {"?reasons=removeFromCRL",
            "CRL option 'reasons': 'removeFromCRL' is not a list of "
            "reasons to revoke; removeFromCRL is none"},
           {"?entry=xyz",
            "CRL option 'entry': 'xyz' is not a serial number; write it as in 10C4 "
            "or 10C4:keyCompromise"},
           {"?freshest=a",
            "CRL option 'freshest': 'a' is not a URL, or a path of the lab's such "
            "as /crl/issuing.crl"}}) {
    crl_query answer = ask_crl(query);
    EXPECT_TRUE(answer.http().starts_with("HTTP/1.0 400 ")) << answer.http();
    EXPECT_EQ(answer.body(), line + "\n");
  }
}

TEST(CrlAnswer, OnlyTheLabsCasPublish) {
  EXPECT_TRUE(ask_crl("", "other").http().starts_with("HTTP/1.0 404 "));
  EXPECT_TRUE(tool_test::exchange(the_lab().lab.port(), "POST /crl/root.crl HTTP/1.0\r\n\r\n")
                  .starts_with("HTTP/1.0 405 "));
}

TEST(CrlAnswer, MisbehavioursWorkHereToo) {
  int port = the_lab().lab.port();
  auto misbehave = [port](const std::string &path) {
    return tool_test::exchange(port, "GET /misbehave/" + path + " HTTP/1.0\r\n\r\n");
  };
  std::string corrupt =
      tool_test::body_of(misbehave("corrupt-signature/crl/issuing.crl?entries=10"));
  tool_test::crl_ptr decoded = tool_test::decode_crl(corrupt);
  ASSERT_TRUE(decoded);
  EXPECT_NE(X509_CRL_verify(decoded.get(), keys().issuing().key.get()), 1);
  tool_test::crl_ptr strange =
      tool_test::decode_crl(tool_test::body_of(misbehave("wrong-key/crl/issuing.crl")));
  ASSERT_TRUE(strange);
  EXPECT_NE(X509_CRL_verify(strange.get(), keys().issuing().key.get()), 1);
  EXPECT_EQ(tool_test::body_of(misbehave("status/400/crl/issuing.crl?entries=2000000")),
            "only answers of up to 64 MiB can be spoiled\n");
}

}  // namespace
