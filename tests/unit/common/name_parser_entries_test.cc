#include <gtest/gtest.h>
#include <libpki/names.h>
#include <libpki/oids.h>
#include <openssl/asn1.h>
#include <openssl/objects.h>

#include <string>

#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "support/certs.h"

namespace {

std::string type_of(const ASN1_STRING *value) {
  switch (ASN1_STRING_type(value)) {
    case V_ASN1_PRINTABLESTRING:
      return "printable";
    case V_ASN1_UTF8STRING:
      return "utf8";
    case V_ASN1_IA5STRING:
      return "ia5";
    default:
      return "type " + std::to_string(ASN1_STRING_type(value));
  }
}

std::string key_of(const X509_NAME_ENTRY *entry) {
  const ASN1_OBJECT *object = X509_NAME_ENTRY_get_object(entry);
  if (OBJ_obj2nid(object) != NID_undef)
    return OBJ_nid2sn(OBJ_obj2nid(object));
  char text[300];
  OBJ_obj2txt(text, sizeof text, object, 1);
  return text;
}

// "C:printable=US, CN:utf8=x": the entries in the name's order. Those of one RDN are joined by
// " + ", as a change of set number between neighbours is what parts RDNs.
std::string describe(const X509_NAME *name) {
  std::string text;
  for (int i = 0; i < X509_NAME_entry_count(name); i++) {
    const X509_NAME_ENTRY *entry = X509_NAME_get_entry(name, i);
    if (i > 0)
      text += X509_NAME_ENTRY_set(entry) == X509_NAME_ENTRY_set(X509_NAME_get_entry(name, i - 1))
                  ? " + "
                  : ", ";
    const ASN1_STRING *value = X509_NAME_ENTRY_get_data(entry);
    text += key_of(entry) + ":" + type_of(value) + "=" +
            std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(value)),
                        static_cast<size_t>(ASN1_STRING_length(value)));
  }
  return text;
}

// What the parser makes of `text`.
std::string parsed(const char *text) {
  X509_NAME *name = nullptr;
  int code = parse_rfc1779_str(text, &name);
  std::string result = code ? "error " + std::to_string(code) : describe(name);
  X509_NAME_free(name);
  return result;
}
std::string parsed(const std::string &text) {
  return parsed(text.c_str());
}

// The same after a journey through DER.
std::string parsed_and_encoded(const char *text) {
  X509_NAME *name = nullptr;
  if (int code = parse_rfc1779_str(text, &name))
    return "error " + std::to_string(code);
  unsigned char *der = nullptr;
  int length = i2d_X509_NAME(name, &der);
  X509_NAME_free(name);
  const unsigned char *in = der;
  name = d2i_X509_NAME(nullptr, &in, length);
  OPENSSL_free(der);
  std::string result = name ? describe(name) : "no DER";
  X509_NAME_free(name);
  return result;
}

TEST(NameParserOrder, MostGeneralPartComesFirst) {
  EXPECT_EQ(parsed("CN=device, O=Example, C=US"),
            "C:printable=US, O:printable=Example, CN:printable=device");
}

TEST(NameParserOrder, EqualsTheNameBuiltFromItsGeneralEnd) {
  X509_NAME *name = nullptr;
  ASSERT_EQ(parse_rfc1779_str("CN=device, O=Example, C=US", &name), 0);
  support::name expected = support::make_name({{"C", "US"}, {"O", "Example"}, {"CN", "device"}});
  EXPECT_EQ(X509_NAME_cmp(name, expected.get()), 0);
  X509_NAME_free(name);
}

TEST(NameParserOrder, NoTextIsAnEmptyName) {
  for (const char *text : {static_cast<const char *>(nullptr), "", "  ", "\t\r\n\v\f "}) {
    X509_NAME *name = nullptr;
    EXPECT_EQ(parse_rfc1779_str(text, &name), 0);
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(X509_NAME_entry_count(name), 0);
    X509_NAME_free(name);
  }
}

TEST(NameParserOrder, ManyAttributes) {
  std::string text;
  std::string expected;
  for (int i = 0; i < 200; i++) {
    std::string number = std::to_string(i);
    text += (i ? ", OU=" : "OU=") + number;
    expected.insert(0, "OU:printable=" + number + (i ? ", " : ""));
  }
  EXPECT_EQ(parsed(text), expected);
}

TEST(NameParserOrder, SuccessLogsNothing) {
  clear_log();
  parsed("CN=a+OU=b, C=US");
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST(NameParserRdns, PlusJoinsTheAttributeBefore) {
  EXPECT_EQ(parsed("CN=a+OU=b, C=US"), "C:printable=US, OU:printable=b + CN:printable=a");
}

TEST(NameParserRdns, JoinAtTheGeneralEnd) {
  EXPECT_EQ(parsed("CN=a, O=b+C=US"), "C:printable=US + O:printable=b, CN:printable=a");
}

TEST(NameParserRdns, JoinInTheMiddle) {
  EXPECT_EQ(parsed("CN=a, OU=b+O=c, C=US"),
            "C:printable=US, O:printable=c + OU:printable=b, CN:printable=a");
}

TEST(NameParserRdns, ThreeInOne) {
  EXPECT_EQ(parsed("CN=a+OU=b+O=c, C=US"),
            "C:printable=US, O:printable=c + OU:printable=b + CN:printable=a");
}

TEST(NameParserRdns, SeveralGroups) {
  EXPECT_EQ(parsed("CN=a+OU=b, L=c+ST=d; O=e+C=US"),
            "C:printable=US + O:printable=e, ST:printable=d + L:printable=c, "
            "OU:printable=b + CN:printable=a");
}

TEST(NameParserRdns, BlanksAroundThePlus) {
  EXPECT_EQ(parsed("CN=a  +  OU=b, C=US"), "C:printable=US, OU:printable=b + CN:printable=a");
}

TEST(NameParserRdns, GroupsSurviveTheEncoding) {
  // DER puts the members of a set in the order of their octets.
  EXPECT_EQ(parsed_and_encoded("CN=a+OU=b, O=c, C=US"),
            "C:printable=US, O:printable=c, CN:printable=a + OU:printable=b");
  EXPECT_EQ(parsed_and_encoded("CN=a, OU=b, O=c+C=US"),
            "O:printable=c + C:printable=US, OU:printable=b, CN:printable=a");
}

TEST(NameParserSeparators, CommaAndSemicolonAreAlike) {
  EXPECT_EQ(parsed("CN=a;O=b,C=US"), "C:printable=US, O:printable=b, CN:printable=a");
}

TEST(NameParserSeparators, OneAtTheEndAddsNothing) {
  EXPECT_EQ(parsed("CN=a,"), "CN:printable=a");
  EXPECT_EQ(parsed("CN=a;  "), "CN:printable=a");
  EXPECT_EQ(parsed("CN=a+"), "CN:printable=a");
}

TEST(NameParserBlanks, AreDroppedAroundKeysAndValues) {
  EXPECT_EQ(parsed(" \t CN \n = \v a b \f ,\r\n C\t=\tUS \n"), "C:printable=US, CN:printable=a b");
}

TEST(NameParserKeys, ShortLongAndDottedNames) {
  EXPECT_EQ(parsed("CN=x"), "CN:printable=x");
  EXPECT_EQ(parsed("commonName=x"), "CN:printable=x");
  EXPECT_EQ(parsed("2.5.4.3=x"), "CN:printable=x");
}

TEST(NameParserKeys, OidPrefixInAnyLetterCaseIsDropped) {
  for (const char *text : {"OID.2.5.4.3=x", "oid.2.5.4.3=x", "Oid.2.5.4.3=x", "oID.2.5.4.3 =x"})
    EXPECT_EQ(parsed(text), "CN:printable=x") << text;
}

TEST(NameParserKeys, OidPrefixMayStandBeforeAName) {
  EXPECT_EQ(parsed("OID.CN=x"), "CN:printable=x");
}

TEST(NameParserKeys, NumberThatNobodyNamed) {
  EXPECT_EQ(parsed("1.2.3.4.5=x"), "1.2.3.4.5:printable=x");
}

TEST(NameParserKeys, RegisteredObjectsAreKnown) {
  ASSERT_EQ(pki_register_oids(), 1);
  EXPECT_EQ(parsed("qrn-serial-number=12"), "qrn-serial-number:printable=12");
}

TEST(NameParserKeys, Keeps99Characters) {
  std::string oid = "1.2";
  while (oid.size() < 99)
    oid += ".1";
  ASSERT_EQ(oid.size(), 99u);
  EXPECT_EQ(parsed(oid + "=x"), oid + ":printable=x");
  EXPECT_EQ(parsed(oid + "1=x"), oid + ":printable=x");
  EXPECT_EQ(parsed(oid + ".1.1.1=x"), oid + ":printable=x");
}

TEST(NameParserKeys, Keeps99CharactersBehindTheOidPrefix) {
  std::string oid = "1.2";
  while (oid.size() < 99)
    oid += ".1";
  for (const char *prefix : {"OID.", "oid."}) {
    EXPECT_EQ(parsed(prefix + oid + "=x"), oid + ":printable=x");
    EXPECT_EQ(parsed(prefix + oid + "1=x"), oid + ":printable=x");
    EXPECT_EQ(parsed(prefix + oid + ".1.1.1 =x"), oid + ":printable=x");
  }
}

TEST(NameParserKeys, VeryLongKeyIsCut) {
  std::string oid = "1.2";
  while (oid.size() < 99)
    oid += ".1";
  std::string tail;
  for (int i = 0; i < 30000; i++)
    tail += ".1";
  EXPECT_EQ(parsed(oid + tail + "=x"), oid + ":printable=x");
}

TEST(NameParserValues, MayBeEmpty) {
  EXPECT_EQ(parsed("CN="), "CN:printable=");
  EXPECT_EQ(parsed("CN=  "), "CN:printable=");
  EXPECT_EQ(parsed("CN=, C=US"), "C:printable=US, CN:printable=");
  EXPECT_EQ(parsed("CN=\"\""), "CN:printable=");
}

TEST(NameParserValues, MayHoldAnEqualsSign) {
  EXPECT_EQ(parsed("CN=a=b"), "CN:printable=a=b");
}

TEST(NameParserValues, MayBeLong) {
  std::string value(60000, 'x');
  EXPECT_EQ(parsed("CN=" + value + ",C=US"), "C:printable=US, CN:printable=" + value);
}

TEST(NameParserValues, BackslashDoesNotEscape) {
  EXPECT_EQ(parsed("CN=a\\,C=US"), "C:printable=US, CN:utf8=a\\");
  EXPECT_EQ(parsed("CN=a\\\\b"), "CN:utf8=a\\\\b");
}

TEST(NameParserQuotes, KeepSeparators) {
  EXPECT_EQ(parsed("CN=\"a, b\""), "CN:printable=a, b");
  EXPECT_EQ(parsed("CN=\"a;b+c=d\", C=US"), "C:printable=US, CN:utf8=a;b+c=d");
}

TEST(NameParserQuotes, KeepBlanks) {
  EXPECT_EQ(parsed("CN=  \"  a  \"  , C=US"), "C:printable=US, CN:printable=  a  ");
}

TEST(NameParserQuotes, KnowNoEscapes) {
  EXPECT_EQ(parsed("CN=\"a\\\", C=US"), "C:printable=US, CN:utf8=a\\");
}

TEST(NameParserQuotes, PlusBehindThemJoins) {
  EXPECT_EQ(parsed("CN=\"a\" + OU=b"), "OU:printable=b + CN:printable=a");
}

TEST(NameParserQuotes, AnyCharacterBehindThemSeparates) {
  EXPECT_EQ(parsed("CN=\"a\"/C=US"), "C:printable=US, CN:printable=a");
  EXPECT_EQ(parsed("CN=\"a\" xC=US"), "C:printable=US, CN:printable=a");
}

TEST(NameParserQuotes, InsideAValueAreOrdinary) {
  EXPECT_EQ(parsed("CN=a\"b, C=US"), "C:printable=US, CN:utf8=a\"b");
}

TEST(NameParserTypes, MailAddressAndDomainAreIa5) {
  EXPECT_EQ(parsed("emailAddress=a@b.c"), "emailAddress:ia5=a@b.c");
  EXPECT_EQ(parsed("1.2.840.113549.1.9.1=a"), "emailAddress:ia5=a");
  EXPECT_EQ(parsed("DC=example"), "DC:ia5=example");
  EXPECT_EQ(parsed("domainComponent=example"), "DC:ia5=example");
}

TEST(NameParserTypes, MailAddressAndDomainAreIa5WhateverTheyHold) {
  EXPECT_EQ(parsed("emailAddress=\xC3\xA9"), "emailAddress:ia5=\xC3\xA9");
  EXPECT_EQ(parsed("DC="), "DC:ia5=");
}

TEST(NameParserTypes, CountryAndSerialNumberArePrintableWhateverTheyHold) {
  EXPECT_EQ(parsed("C=a@b"), "C:printable=a@b");
  EXPECT_EQ(parsed("countryName=\xC3\xA9"), "C:printable=\xC3\xA9");
  EXPECT_EQ(parsed("serialNumber=a_b"), "serialNumber:printable=a_b");
}

TEST(NameParserTypes, OtherValuesWithoutPrintableCharactersAreUtf8) {
  EXPECT_EQ(parsed("CN=a@b"), "CN:utf8=a@b");
  EXPECT_EQ(parsed("O=Caf\xC3\xA9"), "O:utf8=Caf\xC3\xA9");
  EXPECT_EQ(parsed("O=Caf\xE9"), "O:utf8=Caf\xE9");
}

TEST(NameParserTypes, OneCharacterDecides) {
  EXPECT_EQ(parsed("CN=\"_" + std::string(100, 'a') + "\""), "CN:utf8=_" + std::string(100, 'a'));
  EXPECT_EQ(parsed("CN=" + std::string(100, 'a') + "_"), "CN:utf8=" + std::string(100, 'a') + "_");
}

TEST(NameParserTypes, PrintableSetIsExact) {
  const std::string printable =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 '()+,-./:=?";
  for (int octet = 1; octet < 256; octet++) {
    if (octet == '"')
      continue;  // would close the quotes
    std::string value = "x" + std::string(1, static_cast<char>(octet)) + "y";
    bool is_printable = printable.find(static_cast<char>(octet)) != std::string::npos;
    EXPECT_EQ(parsed("CN=\"" + value + "\""), (is_printable ? "CN:printable=" : "CN:utf8=") + value)
        << octet;
  }
}

// Only octets below 128 are white space: 0xA0 is a blank in Latin-1, 0x85 a line break.
TEST(NameParserBlanks, HighOctetsAreNoBlanks) {
  for (const char *octet : {"\xA0", "\x85", "\xFF", "\x80"})
    EXPECT_EQ(parsed("CN=" + std::string(octet) + "a" + octet),
              "CN:utf8=" + std::string(octet) + "a" + octet);
}

TEST(NameParserBlanks, OtherControlCharactersAreNoBlanks) {
  EXPECT_EQ(parsed("CN=\x08"
                   "a\x1F"),
            "CN:utf8=\x08"
            "a\x1F");
}

TEST(NameParserHost, LocaleIsLeftAlone) {
  fake_failures::reset();
  parsed("OID.2.5.4.3=a, O=b+C=US");
  EXPECT_EQ(fake_failures::host_setting_calls(), 0);
}

}  // namespace
