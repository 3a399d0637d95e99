// OpenSSL keeps registered objects until the process ends, so every case that needs a fresh
// registry runs in a process of its own (a "threadsafe" death test starts the program anew).
#include <gtest/gtest.h>
#include <libpki/oids.h>
#include <openssl/objects.h>

#include <cstdlib>
#include <string>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/certs.h"
#include "unit/common/oids_process.h"

#ifndef PKI_ENTERPRISE_NUMBER
#define PKI_ENTERPRISE_NUMBER "32473"
#endif
#define VENDOR "1.3.6.1.4.1." PKI_ENTERPRISE_NUMBER
#define VERISIGN "2.16.840.1.113733"

namespace {

struct row {
  const char *oid;
  const char *short_name;
};

const row registered[] = {
    {VENDOR, "zelvo"},
    {VENDOR ".1", "zelvo-pki"},
    {VENDOR ".1.1", "cert-req-attrs"},
    {VENDOR ".1.1.1", "qrn-serial-number"},
    {VENDOR ".1.1.2", "qrn-secret"},
    {VENDOR ".1.2", "truncated-crl"},
    {VERISIGN, "verisign"},
    {VERISIGN ".1", "verisign-pki"},
    {VERISIGN ".1.9", "verisign-attributes"},
    {VERISIGN ".1.9.2", "verisign-message-type"},
    {VERISIGN ".1.9.3", "verisign-pki-status"},
    {VERISIGN ".1.9.4", "verisign-failure-info"},
    {VERISIGN ".1.9.5", "verisign-sender-nonce"},
    {VERISIGN ".1.9.6", "verisign-recip-nonce"},
    {VERISIGN ".1.9.7", "verisign-trans-id"},
    {VERISIGN ".1.9.8", "verisign-extension-req"},
    {VERISIGN ".1.9.9", "verisign-version"},
    {VERISIGN ".1.9.10", "verisign-dualstatus"},
};
constexpr int row_count = sizeof registered / sizeof *registered;

std::string oid_of(int nid) {
  char text[100] = "";
  OBJ_obj2txt(text, sizeof text, OBJ_nid2obj(nid), 1);
  return text;
}

int nid_of(const char *oid) {
  ASN1_OBJECT *object = OBJ_txt2obj(oid, 1);
  int nid = OBJ_obj2nid(object);
  ASN1_OBJECT_free(object);
  return nid;
}

void expect_all_rows() {
  for (int i = 0; i < row_count; i++) {
    EXPECT_GE(pki_nid_list[i], 1) << i;
    EXPECT_EQ(oid_of(pki_nid_list[i]), registered[i].oid) << i;
    EXPECT_STREQ(OBJ_nid2sn(pki_nid_list[i]), registered[i].short_name) << i;
    EXPECT_EQ(OBJ_txt2nid(registered[i].short_name), pki_nid_list[i]) << i;
  }
}

class OidsRegister : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  void TearDown() override { GTEST_FLAG_SET(death_test_style, "fast"); }
};

TEST_F(OidsRegister, TableHas18Rows) {
  EXPECT_EQ(row_count, 18);
  EXPECT_EQ(PKI_OID_COUNT, 18);
  EXPECT_EQ(PKI_OID_SERIAL_NUMBER, 3);
  EXPECT_EQ(PKI_OID_SECRET, 4);
  EXPECT_EQ(PKI_OID_TRUNCATED_CRL, 5);
  EXPECT_EQ(PKI_OID_SCEP_MESSAGE_TYPE, 9);
  EXPECT_EQ(PKI_OID_SCEP_TRANSACTION_ID, 14);
  EXPECT_EQ(PKI_OID_SCEP_DUAL_STATUS, 17);
}

void nothing_is_known_before() {
  for (const row &expected : registered)
    EXPECT_EQ(nid_of(expected.oid), NID_undef) << expected.oid;
}
TEST_F(OidsRegister, NoObjectIsKnownBefore) {
  IN_A_FRESH_PROCESS(nothing_is_known_before);
}

void rows_have_their_oids() {
  EXPECT_EQ(pki_register_oids(), 1);
  expect_all_rows();
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}
TEST_F(OidsRegister, EveryRowHasItsOidAndShortName) {
  IN_A_FRESH_PROCESS(rows_have_their_oids);
}

void rows_differ() {
  EXPECT_EQ(pki_register_oids(), 1);
  for (int i = 0; i < row_count; i++)
    for (int k = 0; k < i; k++)
      EXPECT_NE(pki_nid_list[i], pki_nid_list[k]);
}
TEST_F(OidsRegister, EveryRowHasANumberOfItsOwn) {
  IN_A_FRESH_PROCESS(rows_differ);
}

void no_long_names() {
  EXPECT_EQ(pki_register_oids(), 1);
  for (int i = 0; i < row_count; i++)
    EXPECT_EQ(OBJ_nid2ln(pki_nid_list[i]), nullptr) << i;
}
TEST_F(OidsRegister, ObjectsHaveNoLongName) {
  IN_A_FRESH_PROCESS(no_long_names);
}

void serial_number_is_row_3() {
  EXPECT_EQ(pki_register_oids(), 1);
  EXPECT_EQ(OBJ_txt2nid("qrn-serial-number"), pki_nid_list[3]);
}
TEST_F(OidsRegister, SerialNumberAttributeIsRow3) {
  IN_A_FRESH_PROCESS(serial_number_is_row_3);
}

void second_call_does_nothing() {
  EXPECT_EQ(pki_register_oids(), 1);
  const int32_t *list = pki_nid_list;
  fake_allocator::fail_at(1, true);
  int again = pki_register_oids();
  size_t allocations = fake_allocator::allocations();
  fake_allocator::stop_failing();
  EXPECT_EQ(again, 1);
  if (fake_allocator::available()) {
    EXPECT_EQ(allocations, 0u);
  }
  EXPECT_EQ(pki_nid_list, list);
  expect_all_rows();
}
TEST_F(OidsRegister, SecondCallReturnsAtOnce) {
  IN_A_FRESH_PROCESS(second_call_does_nothing);
}

void creates_each_object_once() {
  int before = OBJ_new_nid(0);
  EXPECT_EQ(pki_register_oids(), 1);
  int after = OBJ_new_nid(0);
  EXPECT_EQ(after, before + row_count);
  EXPECT_EQ(pki_register_oids(), 1);
  EXPECT_EQ(OBJ_new_nid(0), after);
  pki_cleanup_oids();
  EXPECT_EQ(pki_register_oids(), 1);
  EXPECT_EQ(OBJ_new_nid(0), after);
}
TEST_F(OidsRegister, LaterCallsCreateNoObject) {
  IN_A_FRESH_PROCESS(creates_each_object_once);
}

void registers_again_after_cleanup() {
  for (int round = 0; round < 3; round++) {
    EXPECT_EQ(pki_register_oids(), 1);
    expect_all_rows();
    pki_cleanup_oids();
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}
TEST_F(OidsRegister, RegistersAgainAfterCleanup) {
  IN_A_FRESH_PROCESS(registers_again_after_cleanup);
}

void cleanup_without_registration() {
  pki_cleanup_oids();
  EXPECT_EQ(pki_register_oids(), 1);
  pki_cleanup_oids();
  pki_cleanup_oids();
  EXPECT_EQ(pki_register_oids(), 1);
  expect_all_rows();
}
TEST_F(OidsRegister, CleanupOfNothingDoesNothing) {
  IN_A_FRESH_PROCESS(cleanup_without_registration);
}

void keeps_the_hosts_objects() {
  int secret = OBJ_create(VENDOR ".1.1.2", "host-secret", "host's secret");
  int status = OBJ_create(VERISIGN ".1.9.3", "verisign-pki-status", nullptr);
  EXPECT_GE(secret, 1);
  EXPECT_GE(status, 1);
  EXPECT_EQ(pki_register_oids(), 1);
  EXPECT_EQ(pki_nid_list[PKI_OID_SECRET], secret);
  EXPECT_EQ(pki_nid_list[PKI_OID_SCEP_PKI_STATUS], status);
  for (int i = 0; i < row_count; i++)
    EXPECT_EQ(oid_of(pki_nid_list[i]), registered[i].oid) << i;
}
TEST_F(OidsRegister, ObjectsThatTheHostRegisteredKeepTheirNumbers) {
  IN_A_FRESH_PROCESS(keeps_the_hosts_objects);
}

void keeps_the_hosts_long_name() {
  int secret = OBJ_create(VENDOR ".1.1.2", nullptr, "host's secret");
  ASSERT_GE(secret, 1);
  // OpenSSL frees no object that another one replaces in its table: the host may hold it, as here.
  static const ASN1_OBJECT *hosts;
  hosts = OBJ_nid2obj(secret);
  EXPECT_EQ(pki_register_oids(), 1);
  EXPECT_EQ(OBJ_obj2nid(hosts), secret);
  EXPECT_EQ(pki_nid_list[PKI_OID_SECRET], secret);
  EXPECT_STREQ(OBJ_nid2ln(secret), "host's secret");
  EXPECT_EQ(OBJ_ln2nid("host's secret"), secret);
  expect_all_rows();
}
TEST_F(OidsRegister, ObjectThatTheHostNamedAtLengthKeepsThatName) {
  IN_A_FRESH_PROCESS(keeps_the_hosts_long_name);
}

}  // namespace
