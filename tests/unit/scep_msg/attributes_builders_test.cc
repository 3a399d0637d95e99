#include <climits>

#include "messages.h"

namespace {

using scep::string_octets;

struct AttributeBuilders : scep::scep_test {
  int nid = pki_nid_list[PKI_OID_SCEP_PKI_STATUS];

  // "TYPE:octets" of the attribute's only value.
  std::string describe(X509_ATTRIBUTE *made) {
    if (!made)
      return "(null)";
    EXPECT_EQ(OBJ_obj2nid(X509_ATTRIBUTE_get0_object(made)), nid);
    EXPECT_EQ(X509_ATTRIBUTE_count(made), 1);
    const ASN1_TYPE *value = X509_ATTRIBUTE_get0_type(made, 0);
    std::string text = std::to_string(value->type) + ":" + string_octets(value->value.asn1_string);
    EXPECT_EQ(ASN1_STRING_type(value->value.asn1_string), value->type);
    X509_ATTRIBUTE_free(made);
    return text;
  }
};

TEST_F(AttributeBuilders, IntegersOfEverySign) {
  for (long value : {0L, 1L, -1L, 19L, 127L, 128L, -128L, -129L, LONG_MAX, LONG_MIN}) {
    ASN1_INTEGER *made = to_integer(value);
    ASSERT_NE(made, nullptr);
    int64_t read = 0;
    EXPECT_EQ(ASN1_INTEGER_get_int64(&read, made), 1);
    EXPECT_EQ(read, value);
    ASN1_INTEGER_free(made);
  }
}

TEST_F(AttributeBuilders, OctetStringIsACopy) {
  char octets[] = {'a', '\0', 'b'};
  ASN1_OCTET_STRING *made = to_octetstring(octets, 3);
  ASSERT_NE(made, nullptr);
  octets[0] = 'x';
  EXPECT_EQ(ASN1_STRING_type(made), V_ASN1_OCTET_STRING);
  EXPECT_EQ(string_octets(made), std::string("a\0b", 3));
  ASN1_OCTET_STRING_free(made);
}

TEST_F(AttributeBuilders, OctetStringOfNoLengthIsEmpty) {
  ASN1_OCTET_STRING *made = to_octetstring("x", 0);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(ASN1_STRING_length(made), 0);
  ASN1_OCTET_STRING_free(made);
}

TEST_F(AttributeBuilders, OctetStringOfNegativeLengthOrNothingIsNull) {
  EXPECT_EQ(to_octetstring("x", -1), nullptr);
  EXPECT_EQ(to_octetstring("x", INT_MIN), nullptr);
  EXPECT_EQ(to_octetstring(nullptr, 0), nullptr);
  EXPECT_EQ(to_octetstring(nullptr, 3), nullptr);
}

TEST_F(AttributeBuilders, PrintableStringHoldsTheTextUnchecked) {
  for (const char *text : {"", "19", "A quick fox", "not*printable@\n\xe4"}) {
    ASN1_PRINTABLESTRING *made = to_printablestring(text);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(ASN1_STRING_type(made), V_ASN1_PRINTABLESTRING);
    EXPECT_EQ(string_octets(made), text);
    ASN1_PRINTABLESTRING_free(made);
  }
}

TEST_F(AttributeBuilders, PrintableStringOfNothingIsNull) {
  EXPECT_EQ(to_printablestring(nullptr), nullptr);
}

TEST_F(AttributeBuilders, OctetStringAttribute) {
  EXPECT_EQ(describe(create_octetstring_attr(nid, "a\0b", 3)), std::string("4:a\0b", 5));
  EXPECT_EQ(describe(create_octetstring_attr(nid, "a", 0)), "4:");
  EXPECT_EQ(create_octetstring_attr(nid, "a", -1), nullptr);
  EXPECT_EQ(create_octetstring_attr(nid, nullptr, 1), nullptr);
}

TEST_F(AttributeBuilders, PrintableStringAttribute) {
  EXPECT_EQ(describe(create_printablestring_attr(nid, "text")), "19:text");
  EXPECT_EQ(describe(create_printablestring_attr(nid, "")), "19:");
  EXPECT_EQ(create_printablestring_attr(nid, nullptr), nullptr);
}

TEST_F(AttributeBuilders, NumbersAreDecimalTextWithASign) {
  EXPECT_EQ(describe(create_printablestring_attr_num(nid, 0)), "19:0");
  EXPECT_EQ(describe(create_printablestring_attr_num(nid, 3)), "19:3");
  EXPECT_EQ(describe(create_printablestring_attr_num(nid, 19)), "19:19");
  EXPECT_EQ(describe(create_printablestring_attr_num(nid, -1)), "19:-1");
  EXPECT_EQ(describe(create_printablestring_attr_num(nid, INT_MAX)), "19:2147483647");
  EXPECT_EQ(describe(create_printablestring_attr_num(nid, INT_MIN)), "19:-2147483648");
}

TEST_F(AttributeBuilders, AttributeSurvivesItsEncoding) {
  X509_ATTRIBUTE *made = create_printablestring_attr(nid, "text");
  ASSERT_NE(made, nullptr);
  std::string der = scep::encode<X509_ATTRIBUTE>(made, i2d_X509_ATTRIBUTE);
  X509_ATTRIBUTE_free(made);
  EXPECT_EQ(der, scep::attribute(PKI_OID_SCEP_PKI_STATUS, {scep::printable("text")}));
}

TEST_F(AttributeBuilders, UnknownNumberGivesNull) {
  for (int unknown : {-1, INT_MAX}) {
    EXPECT_EQ(create_octetstring_attr(unknown, "a", 1), nullptr);
    EXPECT_EQ(create_printablestring_attr(unknown, "a"), nullptr);
    EXPECT_EQ(create_printablestring_attr_num(unknown, 1), nullptr);
  }
  support::clear_openssl_errors();
}

}  // namespace
