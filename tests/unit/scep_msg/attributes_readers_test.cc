// Which ASN.1 types each reader takes, what it hands out, and the order of its checks.
#include <climits>
#include <cstring>
#include <tuple>

#include "messages.h"

namespace {

using scep::attribute;
using scep::message_of_signers;
using scep::message_with;
using scep::octet_string;
using scep::pkcs7;
using scep::printable;
using scep::tlv;

const int row = PKI_OID_SCEP_TRANSACTION_ID;

struct AttributeReaders : scep::scep_test {
  int nid = pki_nid_list[row];
  const unsigned char *data = untouched<const unsigned char>();
  const char *text = untouched<const char>();
  int length = -77;
  long number = -77;
  ASN1_TYPE *value = untouched<ASN1_TYPE>();

  void expect_untouched() {
    EXPECT_EQ(data, untouched<const unsigned char>());
    EXPECT_EQ(text, untouched<const char>());
    EXPECT_EQ(length, -77);
    EXPECT_EQ(number, -77);
    EXPECT_EQ(value, untouched<ASN1_TYPE>());
  }
  // All five readers refuse the message with `code`.
  void expect_refused(PKCS7 *message, int code) {
    EXPECT_EQ(get_attr(message, nid, &value), code);
    EXPECT_EQ(get_os_attr_val(message, nid, &data), code);
    EXPECT_EQ(get_os_attr_len(message, nid, &length), code);
    EXPECT_EQ(get_string_attr(message, nid, &text), code);
    EXPECT_EQ(get_integer_attr(message, nid, &number), code);
    expect_untouched();
    EXPECT_EQ(captured_log(), std::vector<log_entry>());
  }
};

// Contents octets that are valid for the type.
std::string contents(int tag) {
  switch (tag) {
    case V_ASN1_BOOLEAN:
      return "\xff";
    case V_ASN1_INTEGER:
    case V_ASN1_ENUMERATED:
      return "AB";
    case V_ASN1_BIT_STRING:
      return std::string("\0AB", 3);
    case V_ASN1_NULL:
      return "";
    case V_ASN1_OBJECT:
      return "\x2a\x03";
    case V_ASN1_UTCTIME:
      return "300101000000Z";
    case V_ASN1_GENERALIZEDTIME:
      return "20300101000000Z";
    case V_ASN1_UNIVERSALSTRING:
      return std::string("\0\0\0A", 4);
    case V_ASN1_NUMERICSTRING:
      return "12";
    case V_ASN1_SEQUENCE:
    case V_ASN1_SET:
      return std::string("\x05\0", 2);
    default:
      return "AB";
  }
}

const std::set<int> string_types = {
    V_ASN1_INTEGER,        V_ASN1_NUMERICSTRING,   V_ASN1_PRINTABLESTRING, V_ASN1_T61STRING,
    V_ASN1_VIDEOTEXSTRING, V_ASN1_IA5STRING,       V_ASN1_GRAPHICSTRING,   V_ASN1_VISIBLESTRING,
    V_ASN1_GENERALSTRING,  V_ASN1_UNIVERSALSTRING, V_ASN1_BMPSTRING};

struct AttributeReadersOfType : AttributeReaders, testing::WithParamInterface<int> {
  int tag = GetParam();
  int header = tag == V_ASN1_SEQUENCE || tag == V_ASN1_SET ? tag | 0x20 : tag;
  pkcs7 message = message_with({attribute(row, {tlv(header, contents(tag))})});
};

TEST_P(AttributeReadersOfType, GetAttrTakesAll) {
  ASSERT_EQ(get_attr(message.get(), nid, &value), PKI_OK);
  EXPECT_EQ(value->type, tag);
  EXPECT_EQ(value, PKCS7_get_signed_attribute(scep::first_signer(message), nid))
      << "belongs to the message";
}

TEST_P(AttributeReadersOfType, StringReaderTakesTheStringsAndIntegers) {
  if (!string_types.count(tag)) {
    EXPECT_EQ(get_string_attr(message.get(), nid, &text), PKI_ATTR_NOT_STRING);
    expect_untouched();
    return;
  }
  ASSERT_EQ(get_string_attr(message.get(), nid, &text), PKI_OK);
  const std::string expected = contents(tag);
  EXPECT_EQ(memcmp(text, expected.data(), expected.size()), 0);
  EXPECT_EQ(text[expected.size()], '\0');
  EXPECT_EQ(get_attr(message.get(), nid, &value), PKI_OK);
  EXPECT_EQ(reinterpret_cast<const unsigned char *>(text),
            ASN1_STRING_get0_data(value->value.asn1_string))
      << "not a copy";
}

TEST_P(AttributeReadersOfType, OctetReadersTakeOctetAndBitStrings) {
  if (tag != V_ASN1_OCTET_STRING && tag != V_ASN1_BIT_STRING) {
    EXPECT_EQ(get_os_attr_val(message.get(), nid, &data), PKI_ATTR_NOT_OCTET_STRING);
    EXPECT_EQ(get_os_attr_len(message.get(), nid, &length), PKI_ATTR_NOT_OCTET_STRING);
    expect_untouched();
    return;
  }
  ASSERT_EQ(get_os_attr_val(message.get(), nid, &data), PKI_OK);
  ASSERT_EQ(get_os_attr_len(message.get(), nid, &length), PKI_OK);
  EXPECT_EQ(length, 2);
  EXPECT_EQ(memcmp(data, "AB", 2), 0);
  EXPECT_EQ(get_attr(message.get(), nid, &value), PKI_OK);
  EXPECT_EQ(data, ASN1_STRING_get0_data(value->value.asn1_string)) << "not a copy";
}

TEST_P(AttributeReadersOfType, IntegerReaderTakesIntegersOnly) {
  if (tag != V_ASN1_INTEGER) {
    EXPECT_EQ(get_integer_attr(message.get(), nid, &number), PKI_ATTR_NOT_INT);
    expect_untouched();
    return;
  }
  EXPECT_EQ(get_integer_attr(message.get(), nid, &number), PKI_OK);
  EXPECT_EQ(number, 0x4142);
}

TEST_P(AttributeReadersOfType, NothingIsLogged) {
  get_string_attr(message.get(), nid, &text);
  get_os_attr_val(message.get(), nid, &data);
  get_os_attr_len(message.get(), nid, &length);
  get_integer_attr(message.get(), nid, &number);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

INSTANTIATE_TEST_SUITE_P(Universal, AttributeReadersOfType,
                         testing::Values(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 12, 16, 17, 18, 19, 20, 21,
                                         22, 23, 24, 25, 26, 27, 28, 30),
                         [](const auto &tag) { return "Type" + std::to_string(tag.param); });

// ---- values ----

TEST_F(AttributeReaders, IntegerOfTheSizeOfATransactionIdIsATerminatedString) {
  const std::string id(32, 'A');
  pkcs7 message = message_with({attribute(row, {tlv(V_ASN1_INTEGER, id)})});
  ASSERT_EQ(get_string_attr(message.get(), nid, &text), PKI_OK);
  EXPECT_STREQ(text, id.c_str());
  EXPECT_STREQ(text, id.c_str()) << "a second time";
  ASSERT_EQ(get_string_attr(message.get(), nid, &text), PKI_OK);
  EXPECT_STREQ(text, id.c_str());
}

TEST_F(AttributeReaders, IntegersOfEveryLengthAreTerminatedStrings) {
  for (size_t size = 1; size < 80; size++) {
    const std::string id(size, 'x');
    pkcs7 message = message_with({attribute(row, {tlv(V_ASN1_INTEGER, id)})});
    ASSERT_EQ(get_string_attr(message.get(), nid, &text), PKI_OK);
    ASSERT_EQ(std::string(text), id);
  }
}

TEST_F(AttributeReaders, IntegerStaysTheSameNumberAfterItWasReadAsAString) {
  pkcs7 message = message_with({attribute(row, {tlv(V_ASN1_INTEGER, "AB")})});
  std::string before = support::der(message);
  ASSERT_EQ(get_string_attr(message.get(), nid, &text), PKI_OK);
  ASSERT_EQ(get_integer_attr(message.get(), nid, &number), PKI_OK);
  EXPECT_EQ(number, 0x4142);
  EXPECT_EQ(support::der(message), before);
}

TEST_F(AttributeReaders, IntegerBuiltInMemoryIsATerminatedString) {
  pkcs7 message = message_with({});
  ASN1_INTEGER *made = to_integer(0x414243);
  ASSERT_EQ(PKCS7_add_signed_attribute(scep::first_signer(message), nid, V_ASN1_INTEGER, made), 1);
  ASSERT_EQ(get_string_attr(message.get(), nid, &text), PKI_OK);
  EXPECT_STREQ(text, "ABC");
}

TEST_F(AttributeReaders, EmptyStringIsTerminatedToo) {
  for (const std::string &der :
       {printable(""), tlv(V_ASN1_IA5STRING, ""), tlv(V_ASN1_BMPSTRING, ""),
        tlv(V_ASN1_PRINTABLESTRING | 0x20, "")}) {
    pkcs7 message = message_with({attribute(row, {der})});
    ASSERT_EQ(get_string_attr(message.get(), nid, &text), PKI_OK);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "");
  }
}

TEST_F(AttributeReaders, StringWithoutAnyDataIsNoNullPointer) {
  pkcs7 message = message_with({});
  ASSERT_EQ(PKCS7_add_signed_attribute(scep::first_signer(message), nid, V_ASN1_PRINTABLESTRING,
                                       ASN1_PRINTABLESTRING_new()),
            1);
  if (get_string_attr(message.get(), nid, &text) == PKI_OK) {
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "");
  } else {
    expect_untouched();
  }
}

TEST_F(AttributeReaders, StringInPiecesIsPutTogetherAndTerminated) {
  const std::string pieces = tlv(V_ASN1_PRINTABLESTRING | 0x20, printable("12") + printable("345"));
  pkcs7 message = message_with({attribute(row, {pieces})});
  ASSERT_EQ(get_string_attr(message.get(), nid, &text), PKI_OK);
  EXPECT_STREQ(text, "12345");
}

TEST_F(AttributeReaders, NumbersAreReadWithTheirSign) {
  const std::vector<std::pair<std::string, long>> cases = {
      {std::string(1, '\0'), 0},
      {"\x13", 19},
      {"\xff", -1},
      {"\x80", -128},
      {std::string("\0\x80", 2), 128},
      {"\x7f" + std::string(sizeof(long) - 1, '\xff'), LONG_MAX},
      {"\x80" + std::string(sizeof(long) - 1, '\0'), LONG_MIN},
  };
  for (const auto &[octets, expected] : cases) {
    pkcs7 message = message_with({attribute(row, {tlv(V_ASN1_INTEGER, octets)})});
    ASSERT_EQ(get_integer_attr(message.get(), nid, &number), PKI_OK);
    EXPECT_EQ(number, expected);
  }
}

TEST_F(AttributeReaders, NumberThatDoesNotFitIsMinusOne) {
  for (const std::string &octets : {std::string(9, '\x7f'), std::string(32, 'A')}) {
    pkcs7 message = message_with({attribute(row, {tlv(V_ASN1_INTEGER, octets)})});
    EXPECT_EQ(get_integer_attr(message.get(), nid, &number), PKI_OK);
    EXPECT_EQ(number, -1);
  }
}

TEST_F(AttributeReaders, EmptyOctetStringHasLengthZero) {
  pkcs7 message = message_with({attribute(row, {octet_string("")})});
  EXPECT_EQ(get_os_attr_val(message.get(), nid, &data), PKI_OK);
  ASSERT_EQ(get_os_attr_len(message.get(), nid, &length), PKI_OK);
  EXPECT_EQ(length, 0);
}

TEST_F(AttributeReaders, EmptyBitStringHasLengthZero) {
  pkcs7 message = message_with({attribute(row, {scep::bit_string("")})});
  EXPECT_EQ(get_os_attr_val(message.get(), nid, &data), PKI_OK);
  ASSERT_EQ(get_os_attr_len(message.get(), nid, &length), PKI_OK);
  EXPECT_EQ(length, 0);
}

TEST_F(AttributeReaders, BigValuesAreHandedOutWhole) {
  const std::string big(1 << 20, 'x');
  pkcs7 message = message_with({attribute(row, {octet_string(big)})});
  ASSERT_EQ(get_os_attr_len(message.get(), nid, &length), PKI_OK);
  ASSERT_EQ(get_os_attr_val(message.get(), nid, &data), PKI_OK);
  EXPECT_EQ(length, 1 << 20);
  EXPECT_EQ(memcmp(data, big.data(), big.size()), 0);
}

// ---- which attribute ----

TEST_F(AttributeReaders, FirstValueOfAnAttributeCounts) {
  // In the order of a DER SET, which is by octets.
  pkcs7 message = message_with({attribute(row, {octet_string("a"), printable("b")})});
  EXPECT_EQ(get_string_attr(message.get(), nid, &text), PKI_ATTR_NOT_STRING);
  ASSERT_EQ(get_os_attr_val(message.get(), nid, &data), PKI_OK);
  EXPECT_EQ(data[0], 'a');
}

TEST_F(AttributeReaders, FirstOfTwoAttributesCounts) {
  pkcs7 message =
      message_with({attribute(row, {printable("one")}), attribute(row, {printable("two")})});
  ASSERT_EQ(get_string_attr(message.get(), nid, &text), PKI_OK);
  EXPECT_STREQ(text, "one");
}

TEST_F(AttributeReaders, OthersInTheListAreNotMistakenForIt) {
  pkcs7 message = message_with({attribute(PKI_OID_SCEP_MESSAGE_TYPE, {printable("3")}),
                                attribute(row, {printable("id")}),
                                attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string("n")})});
  ASSERT_EQ(get_string_attr(message.get(), nid, &text), PKI_OK);
  EXPECT_STREQ(text, "id");
}

TEST_F(AttributeReaders, SecondSignerIsNeverAsked) {
  pkcs7 message = message_of_signers({{attribute(PKI_OID_SCEP_MESSAGE_TYPE, {printable("3")})},
                                      {attribute(row, {printable("id")})}});
  expect_refused(message.get(), PKI_ATTR_NOT_FOUND);
}

TEST_F(AttributeReaders, UnsignedAttributesAreNeverAsked) {
  pkcs7 message = message_with({});
  ASSERT_EQ(PKCS7_add_attribute(scep::first_signer(message), nid, V_ASN1_PRINTABLESTRING,
                                to_printablestring("id")),
            1);
  expect_refused(message.get(), PKI_ATTR_NOT_FOUND);
}

TEST_F(AttributeReaders, AttributeWithoutValuesIsNotFound) {
  expect_refused(message_with({attribute(row, {})}).get(), PKI_ATTR_NOT_FOUND);
}

TEST_F(AttributeReaders, SignerWithoutAttributesHasNone) {
  pkcs7 message = message_of_signers({{}});
  sk_X509_ATTRIBUTE_pop_free(scep::first_signer(message)->auth_attr, X509_ATTRIBUTE_free);
  scep::first_signer(message)->auth_attr = nullptr;
  expect_refused(message.get(), PKI_ATTR_NOT_FOUND);
}

// ---- messages without what is needed ----

TEST_F(AttributeReaders, EveryOtherContentTypeIsNoSignedData) {
  expect_refused(support::make_envelope("x", ca).get(), PKI_NOT_SIGNED_DATA);
  expect_refused(support::make_data("x").get(), PKI_NOT_SIGNED_DATA);
  expect_refused(support::make_signed_and_enveloped("x", device_key, ca).get(),
                 PKI_NOT_SIGNED_DATA);
  pkcs7 nothing(PKCS7_new(), PKCS7_free);
  expect_refused(nothing.get(), PKI_NOT_SIGNED_DATA);
}

TEST_F(AttributeReaders, SignedDataWithoutSignersHasNoSigners) {
  expect_refused(message_of_signers({}).get(), PKI_NO_SIGNERS);
}

TEST_F(AttributeReaders, SignedDataWithoutAListOfSignersHasNoSigners) {
  pkcs7 message = message_of_signers({});
  sk_PKCS7_SIGNER_INFO_free(message->d.sign->signer_info);
  message->d.sign->signer_info = nullptr;
  expect_refused(message.get(), PKI_NO_SIGNERS);
}

TEST_F(AttributeReaders, FirstSignerThatIsNullIsNoSigner) {
  pkcs7 message = message_of_signers({});
  sk_PKCS7_SIGNER_INFO_push(message->d.sign->signer_info, nullptr);
  expect_refused(message.get(), PKI_NO_SIGNERS);
}

TEST_F(AttributeReaders, ContentInfoThatSaysSignedAndHoldsNothingIsRefused) {
  pkcs7 message = support::make_bare_message(NID_pkcs7_signed);
  EXPECT_EQ(get_attr(message.get(), nid, &value), PKI_NOT_SIGNED_DATA);
  expect_refused(message.get(), PKI_NOT_SIGNED_DATA);
}

TEST_F(AttributeReaders, NullArgumentsAreRefused) {
  pkcs7 message = message_with({attribute(row, {printable("id")})});
  expect_refused(nullptr, PKI_INVALID_ARGS);
  EXPECT_EQ(get_attr(message.get(), nid, nullptr), PKI_INVALID_ARGS);
  EXPECT_EQ(get_os_attr_val(message.get(), nid, nullptr), PKI_INVALID_ARGS);
  EXPECT_EQ(get_os_attr_len(message.get(), nid, nullptr), PKI_INVALID_ARGS);
  EXPECT_EQ(get_string_attr(message.get(), nid, nullptr), PKI_INVALID_ARGS);
  EXPECT_EQ(get_integer_attr(message.get(), nid, nullptr), PKI_INVALID_ARGS);
}

TEST_F(AttributeReaders, UnknownNumberIsNotFound) {
  pkcs7 message = message_with({attribute(row, {printable("id")})});
  for (int unknown : {0, -1, INT_MAX}) {
    EXPECT_EQ(get_attr(message.get(), unknown, &value), PKI_ATTR_NOT_FOUND) << unknown;
    expect_untouched();
  }
  support::clear_openssl_errors();
}

}  // namespace
