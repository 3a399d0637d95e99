// check_tx_attrs: each branch, with exactly its line.
#include "fakes/allocator.h"
#include "messages.h"

namespace {

using namespace scep;

std::string id(const std::string &text) {
  return attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable(text)});
}
std::string id_as(int tag, const std::string &text) {
  return attribute(PKI_OID_SCEP_TRANSACTION_ID, {tlv(tag, text)});
}
std::string sender(const std::string &value) {
  return attribute(PKI_OID_SCEP_SENDER_NONCE, {value});
}
std::string recipient(const std::string &value) {
  return attribute(PKI_OID_SCEP_RECIPIENT_NONCE, {value});
}

struct CheckTxAttrs : scep_test {
  pkcs7 request = message_with({id("the id"), sender(octet_string("nonce"))});
  pkcs7 response = message_with({id("the id"), recipient(octet_string("nonce"))});

  int check(int required = 1) { return check_tx_attrs(request.get(), response.get(), required); }
  void expect_passes(int required = 1) {
    EXPECT_EQ(check(required), 0);
    EXPECT_EQ(captured_log(), std::vector<log_entry>()) << log_dump();
  }
  // 77, and just this line at level 3; no line when it is empty.
  void expect_refused(const std::string &line, int required = 1) {
    clear_log();
    EXPECT_EQ(check(required), PKI_TX_CHECK_FAILED);
    std::vector<log_entry> expected;
    if (!line.empty())
      expected.push_back({3, line});
    EXPECT_EQ(captured_log(), expected) << log_dump();
  }
};

TEST_F(CheckTxAttrs, AnswerToTheRequestPasses) {
  expect_passes(1);
  expect_passes(0);
}

TEST_F(CheckTxAttrs, RealRequestAndRepliesPass) {
  PKCS7 *made = nullptr;
  ASSERT_EQ(gen_scep_cert_req(device_key.get(), device_key.get(), nullptr, ca.get(), nullptr, 0,
                              nullptr, nullptr, &made),
            PKI_OK);
  request = pkcs7(made, PKCS7_free);
  ASSERT_EQ(gen_scep_sts_rep(3, -1, ca_key.get(), ca.get(), request.get(), &made), PKI_OK);
  response = pkcs7(made, PKCS7_free);
  expect_passes();
}

TEST_F(CheckTxAttrs, TypeAndStatusAreNotLookedAt) {
  response = message_with({id("the id"), recipient(octet_string("nonce")),
                           attribute(PKI_OID_SCEP_MESSAGE_TYPE, {printable("99")}),
                           attribute(PKI_OID_SCEP_PKI_STATUS, {octet_string("?")})});
  expect_passes();
}

// ---- the request's transaction id ----

TEST_F(CheckTxAttrs, RequestThatIsNotSigned) {
  request = support::make_envelope("x", ca);
  expect_refused("CheckTxAttrs: request is not a signed-data!");
  request = support::make_data("x");
  expect_refused("CheckTxAttrs: request is not a signed-data!");
}

TEST_F(CheckTxAttrs, RequestWithoutSigners) {
  request = message_of_signers({});
  expect_refused("CheckTxAttrs: request is not a signed-data!");
}

TEST_F(CheckTxAttrs, RequestWithoutAnId) {
  request = message_with({sender(octet_string("nonce"))});
  expect_refused("CheckTxAttrs: no tx-id found in request");
}

TEST_F(CheckTxAttrs, RequestWhoseIdIsNoString) {
  for (const std::string &bad : {octet_string("the id"), bit_string("the id"),
                                 tlv(V_ASN1_UTF8STRING, "the id"), tlv(V_ASN1_NULL, "")}) {
    request = message_with(
        {attribute(PKI_OID_SCEP_TRANSACTION_ID, {bad}), sender(octet_string("nonce"))});
    expect_refused("CheckTxAttrs: tx-id in request is not a string!");
  }
}

TEST_F(CheckTxAttrs, RequestThatIsNullIsRefused) {
  request = nullptr;
  expect_refused("CheckTxAttrs: unexpected status returned by get_string_attr: 63");
}

// ---- the response's ----

TEST_F(CheckTxAttrs, ResponseThatIsNotSigned) {
  response = support::make_envelope("x", ca);
  expect_refused("CheckTxAttrs: response is not a signed-data!");
  response = support::make_data("x");
  expect_refused("CheckTxAttrs: response is not a signed-data!");
}

TEST_F(CheckTxAttrs, ResponseWithoutSigners) {
  response = message_of_signers({});
  expect_refused("CheckTxAttrs: response is not a signed-data!");
}

TEST_F(CheckTxAttrs, ResponseWithoutAnId) {
  response = message_with({recipient(octet_string("nonce"))});
  expect_refused("CheckTxAttrs: no tx-id found in response");
}

TEST_F(CheckTxAttrs, ResponseWhoseIdIsNoString) {
  for (const std::string &bad :
       {octet_string("the id"), bit_string("the id"), tlv(V_ASN1_UTF8STRING, "the id")}) {
    response = message_with(
        {attribute(PKI_OID_SCEP_TRANSACTION_ID, {bad}), recipient(octet_string("nonce"))});
    expect_refused("CheckTxAttrs: tx-id in response is not a string!");
  }
}

TEST_F(CheckTxAttrs, ResponseThatIsNullIsRefused) {
  response = nullptr;
  expect_refused("CheckTxAttrs: unexpected status returned by get_string_attr: 63");
}

// ---- the ids ----

TEST_F(CheckTxAttrs, IdsThatDifferAreToldWithTheResponsesFirst) {
  response = message_with({id("other"), recipient(octet_string("nonce"))});
  expect_refused("CheckTxAttrs: tx-id mismatch: 'other' != 'the id'");
}

TEST_F(CheckTxAttrs, IdsAreComparedExactly) {
  for (const std::string near : {"THE ID", "the id ", "the i", "", "the  id"}) {
    response = message_with({id(near), recipient(octet_string("nonce"))});
    expect_refused("CheckTxAttrs: tx-id mismatch: '" + near + "' != 'the id'");
  }
}

TEST_F(CheckTxAttrs, IdsOfDifferentStringTypesAreCompared) {
  for (int tag : {V_ASN1_IA5STRING, V_ASN1_T61STRING, V_ASN1_VISIBLESTRING, V_ASN1_BMPSTRING,
                  V_ASN1_INTEGER}) {
    response = message_with({id_as(tag, "the id"), recipient(octet_string("nonce"))});
    expect_passes();
  }
}

TEST_F(CheckTxAttrs, IntegersAsIdsEndWhereTheyEnd) {
  const std::string long_id(32, 'A');
  request = message_with({id_as(V_ASN1_INTEGER, long_id), sender(octet_string("nonce"))});
  response = message_with({id(long_id), recipient(octet_string("nonce"))});
  expect_passes();
  response = message_with({id(long_id + "A"), recipient(octet_string("nonce"))});
  expect_refused("CheckTxAttrs: tx-id mismatch: '" + long_id + "A' != '" + long_id + "'");
}

TEST_F(CheckTxAttrs, IdsEndAtTheirFirstNul) {
  response = message_with({id(std::string("the id\0more", 11)), recipient(octet_string("nonce"))});
  expect_passes();
}

TEST_F(CheckTxAttrs, FormatCharactersInAnIdAreJustCharacters) {
  response = message_with({id("%s%n%d"), recipient(octet_string("nonce"))});
  expect_refused("CheckTxAttrs: tx-id mismatch: '%s%n%d' != 'the id'");
}

TEST_F(CheckTxAttrs, HugeIdsAreRefusedAsAnyOther) {
  response = message_with({id(std::string(1 << 20, 'x')), recipient(octet_string("nonce"))});
  EXPECT_EQ(check(), PKI_TX_CHECK_FAILED);
  ASSERT_EQ(captured_log().size(), 1u);
  EXPECT_EQ(captured_log()[0].level, 3);
  EXPECT_EQ(captured_log()[0].text.rfind("CheckTxAttrs: tx-id mismatch: 'xxx", 0), 0u);
}

TEST_F(CheckTxAttrs, HugeNoncesAreRefusedAsAnyOther) {
  const std::string huge(1 << 18, 'x');
  response = message_with({id("the id"), recipient(octet_string(huge))});
  EXPECT_EQ(check(), PKI_TX_CHECK_FAILED);
  ASSERT_EQ(captured_log().size(), 1u);
  EXPECT_EQ(captured_log()[0].level, 3);
}

TEST_F(CheckTxAttrs, FirstOfDoubledAttributesCounts) {
  response = message_with({id("the id"), id("zzz other"), recipient(octet_string("nonce")),
                           recipient(octet_string("zzz other"))});
  expect_passes();
  response = message_with({id("zzz other"), id("the id"), recipient(octet_string("nonce"))});
  expect_refused("CheckTxAttrs: tx-id mismatch: 'zzz other' != 'the id'");
}

TEST_F(CheckTxAttrs, MemoryThatRunsOutForAnIdIsToldByItsCode) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  const std::string number(32, 'A');
  request = message_with({id_as(V_ASN1_INTEGER, number), sender(octet_string("nonce"))});
  response = message_with({id(number), recipient(octet_string("nonce"))});
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  log_openssl_errors(3);
  clear_log();
  fake_allocator::fail_at(1, true);
  int code = check();
  fake_allocator::stop_failing();
  EXPECT_EQ(code, PKI_TX_CHECK_FAILED);
  EXPECT_TRUE(was_logged(3, "CheckTxAttrs: unexpected status returned by get_string_attr: 2"))
      << log_dump();
  support::clear_openssl_errors();
}

// ---- the nonces ----

TEST_F(CheckTxAttrs, RequestWithoutANonce) {
  request = message_with({id("the id")});
  expect_refused("CheckTxAttrs: no sender-nonce found in request");
  expect_refused("CheckTxAttrs: no sender-nonce found in request", 0);
}

TEST_F(CheckTxAttrs, RequestWhoseNonceIsNoOctetString) {
  request = message_with({id("the id"), sender(printable("nonce"))});
  expect_refused("CheckTxAttrs: sender-nonce in request is not an OCTET STRING");
}

TEST_F(CheckTxAttrs, RecipientNonceInTheRequestDoesNotCount) {
  request = message_with({id("the id"), recipient(octet_string("nonce"))});
  expect_refused("CheckTxAttrs: no sender-nonce found in request");
}

TEST_F(CheckTxAttrs, ResponseWithoutANoncePassesUnlessOneIsRequired) {
  response = message_with({id("the id"), sender(octet_string("nonce"))});
  expect_passes(0);
  expect_refused("CheckTxAttrs: no recipient-nonce found in response", 1);
  expect_refused("CheckTxAttrs: no recipient-nonce found in response", -1);
}

TEST_F(CheckTxAttrs, ResponseWhoseNonceIsNoOctetStringNeverPasses) {
  response = message_with({id("the id"), recipient(printable("nonce"))});
  expect_refused("CheckTxAttrs: recipient-nonce in response is not an OCTET STRING", 1);
  expect_refused("CheckTxAttrs: recipient-nonce in response is not an OCTET STRING", 0);
}

TEST_F(CheckTxAttrs, NoncesThatDifferAreToldAsHexWithTheRequestsFirst) {
  response = message_with({id("the id"), recipient(octet_string(std::string("\0\xab", 2)))});
  const std::string line =
      "The sender-nonce in the request doesn't match the recipient-nonce in the response: "
      "'6E6F6E6365' != '00AB'";
  expect_refused(line, 1);
  expect_refused(line, 0);
}

TEST_F(CheckTxAttrs, NoncesOfOneLengthThatDifferInTheLastOctet) {
  response = message_with({id("the id"), recipient(octet_string("noncf"))});
  expect_refused(
      "The sender-nonce in the request doesn't match the recipient-nonce in the response: "
      "'6E6F6E6365' != '6E6F6E6366'");
}

TEST_F(CheckTxAttrs, NoncesOfEqualOctetsButOtherLengths) {
  response = message_with({id("the id"), recipient(octet_string("nonc"))});
  expect_refused(
      "The sender-nonce in the request doesn't match the recipient-nonce in the response: "
      "'6E6F6E6365' != '6E6F6E63'");
  response = message_with({id("the id"), recipient(octet_string(std::string("nonce\0", 6)))});
  expect_refused(
      "The sender-nonce in the request doesn't match the recipient-nonce in the response: "
      "'6E6F6E6365' != '6E6F6E636500'");
}

TEST_F(CheckTxAttrs, EmptyNonceIsNoPrefixOfAnother) {
  response = message_with({id("the id"), recipient(octet_string(""))});
  expect_refused(
      "The sender-nonce in the request doesn't match the recipient-nonce in the response: "
      "'6E6F6E6365' != ''",
      0);
}

TEST_F(CheckTxAttrs, BitStringsCountAsNonces) {
  response = message_with({id("the id"), recipient(bit_string("nonce"))});
  expect_passes();
  request = message_with({id("the id"), sender(bit_string("nonce"))});
  expect_passes();
}

TEST_F(CheckTxAttrs, EmptyBitStringsCountAsAbsent) {
  response = message_with({id("the id"), recipient(bit_string(""))});
  expect_passes(0);
  expect_refused("CheckTxAttrs: no recipient-nonce found in response", 1);
  request = message_with({id("the id"), sender(bit_string(""))});
  expect_refused("CheckTxAttrs: no sender-nonce found in request");
}

TEST_F(CheckTxAttrs, NoncesOnlyInTheSecondSignerDoNotCount) {
  // The longer one is the second of the SET.
  response = message_of_signers({{id("the id")}, {id("the id"), recipient(octet_string("nonce"))}});
  expect_refused("CheckTxAttrs: no recipient-nonce found in response");
}

TEST_F(CheckTxAttrs, NoncesAreNotToldWhenThereIsNoMemoryForTheirTexts) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  response = message_with({id("the id"), recipient(octet_string("other"))});
  for (size_t n : {1, 2}) {
    clear_log();
    fake_allocator::fail_at(n);
    int code = check();
    fake_allocator::stop_failing();
    EXPECT_TRUE(fake_allocator::has_failed());
    EXPECT_EQ(code, PKI_TX_CHECK_FAILED);
    EXPECT_EQ(captured_log(), std::vector<log_entry>()) << log_dump();
  }
  support::clear_openssl_errors();
}

TEST_F(CheckTxAttrs, FirstOfSeveralFaultsIsTold) {
  request = message_with({});
  response = support::make_data("x");
  expect_refused("CheckTxAttrs: no tx-id found in request");
  request = message_with({id("the id")});
  expect_refused("CheckTxAttrs: response is not a signed-data!");
  response = message_with({id("other")});
  expect_refused("CheckTxAttrs: tx-id mismatch: 'other' != 'the id'");
  response = message_with({id("the id")});
  expect_refused("CheckTxAttrs: no sender-nonce found in request");
}

}  // namespace
