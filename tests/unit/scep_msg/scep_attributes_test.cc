// gen_tx_attrs: every combination of what is present, in the documented order.
#include <climits>
#include <cstdlib>

#include "messages.h"

namespace {

using scep::string_octets;

// "row:type:octets" of each attribute.
std::vector<std::string> describe(X509_ATTRIBUTE **attributes, int count) {
  std::map<int, int> rows;
  for (int row = 0; row < PKI_OID_COUNT; row++)
    rows[pki_nid_list[row]] = row;
  std::vector<std::string> all;
  for (int i = 0; i < count; i++) {
    EXPECT_EQ(X509_ATTRIBUTE_count(attributes[i]), 1);
    const ASN1_TYPE *value = X509_ATTRIBUTE_get0_type(attributes[i], 0);
    all.push_back(std::to_string(rows[OBJ_obj2nid(X509_ATTRIBUTE_get0_object(attributes[i]))]) +
                  ":" + std::to_string(value->type) + ":" +
                  string_octets(value->value.asn1_string));
  }
  return all;
}

void release(X509_ATTRIBUTE **attributes, int count) {
  for (int i = 0; attributes && i < count; i++)
    X509_ATTRIBUTE_free(attributes[i]);
  free(attributes);
}

struct GenTxAttrs : scep::scep_test {
  std::vector<std::string> make(int type, const char *id, const char *sender, int sender_length,
                                const char *recipient, int recipient_length, int status,
                                int failure) {
    int count = -77;
    X509_ATTRIBUTE **made = gen_tx_attrs(type, id, sender, sender_length, recipient,
                                         recipient_length, status, failure, &count);
    EXPECT_NE(made, nullptr);
    std::vector<std::string> all = describe(made, count);
    release(made, count);
    return all;
  }
};

struct GenTxAttrsCombination : GenTxAttrs, testing::WithParamInterface<int> {};

TEST_P(GenTxAttrsCombination, HasWhatIsPresentInOrder) {
  const int present = GetParam();
  const char *all[] = {"9:19:20",        "14:19:the id", "12:4:sender",
                       "13:4:recipient", "10:19:2",      "11:19:4"};
  std::vector<std::string> expected;
  for (int i = 0; i < 6; i++)
    if (present & (1 << i))
      expected.push_back(all[i]);
  EXPECT_EQ(make(present & 1 ? 20 : -1, present & 2 ? "the id" : nullptr,
                 present & 4 ? "sender" : nullptr, 6, present & 8 ? "recipient" : nullptr, 9,
                 present & 16 ? 2 : -1, present & 32 ? 4 : -1),
            expected);
}

INSTANTIATE_TEST_SUITE_P(Present, GenTxAttrsCombination, testing::Range(0, 64));

TEST_F(GenTxAttrs, ZeroIsPresent) {
  EXPECT_EQ(make(0, nullptr, nullptr, 0, nullptr, 0, 0, 0),
            (std::vector<std::string>{"9:19:0", "10:19:0", "11:19:0"}));
}

TEST_F(GenTxAttrs, EveryNegativeNumberIsAbsent) {
  EXPECT_EQ(make(INT_MIN, "id", nullptr, 0, nullptr, 0, -2, -100),
            (std::vector<std::string>{"14:19:id"}));
}

TEST_F(GenTxAttrs, LengthOfAnAbsentNonceDoesNotMatter) {
  EXPECT_EQ(make(3, nullptr, nullptr, 16, nullptr, -1, -1, -1),
            (std::vector<std::string>{"9:19:3"}));
}

TEST_F(GenTxAttrs, EmptyTextAndEmptyNonceArePresent) {
  EXPECT_EQ(make(-1, "", "x", 0, nullptr, 0, -1, -1),
            (std::vector<std::string>{"14:19:", "12:4:"}));
}

TEST_F(GenTxAttrs, NoncesMayHoldAnyOctets) {
  EXPECT_EQ(make(-1, nullptr, "\0\xff", 2, "a\0", 2, -1, -1),
            (std::vector<std::string>{std::string("12:4:\0\xff", 7), std::string("13:4:a\0", 7)}));
}

TEST_F(GenTxAttrs, BigNumbersAreDecimal) {
  EXPECT_EQ(make(INT_MAX, nullptr, nullptr, 0, nullptr, 0, -1, 10),
            (std::vector<std::string>{"9:19:2147483647", "11:19:10"}));
}

TEST_F(GenTxAttrs, NothingIsLoggedAndNoErrorIsQueued) {
  make(19, "id", "s", 1, "r", 1, 0, 0);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(GenTxAttrs, CountMustBeAskedFor) {
  EXPECT_EQ(gen_tx_attrs(19, "id", nullptr, 0, nullptr, 0, -1, -1, nullptr), nullptr);
}

}  // namespace
