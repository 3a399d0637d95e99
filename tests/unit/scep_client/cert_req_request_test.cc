// scep_cert_req: what the request says, and what is refused before there is one.
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <string>

#include "fakes/failures.h"
#include "unit/scep_client/scep_fixture.h"

namespace {

using support::log_lines;
using support::own_lines;
using support::scep_ca;
using support::scep_info;
using support::scep_request;

// Stands in for the board's folder for one scope.
class other_board {
 public:
  other_board() {
    char path[] = "/tmp/libpki-other-board-XXXXXX";
    folder_ = mkdtemp(path);
    setenv("BOARD_INFO_DIR", folder_.c_str(), 1);
  }
  other_board(const other_board &) = delete;
  other_board &operator=(const other_board &) = delete;
  ~other_board() {
    setenv("BOARD_INFO_DIR", old_.c_str(), 1);
    std::filesystem::remove_all(folder_);
  }
  other_board &with(const std::string &file, const std::string &octets) {
    std::ofstream(folder_ + "/" + file, std::ios::binary) << octets;
    return *this;
  }

 private:
  std::string old_ = getenv("BOARD_INFO_DIR");
  std::string folder_;
};

class ScepCertReq : public support::scep_client_test {
 protected:
  // The one request of an enrollment that succeeds.
  scep_request request_of(const scep_info &info, const scep_ca &ca) {
    EXPECT_EQ(enroll(info), PKI_OK) << log_dump();
    EXPECT_EQ(ca.requests().size(), 1u);
    return ca.requests().at(0);
  }
  scep_request request() {
    scep_ca ca;
    return request_of(endpoint(ca), ca);
  }
  using pkcs10 = std::shared_ptr<X509_REQ>;
  static pkcs10 payload(const scep_request &request) {
    const auto *in = reinterpret_cast<const unsigned char *>(request.payload.data());
    return pkcs10(d2i_X509_REQ(nullptr, &in, static_cast<long>(request.payload.size())),
                  X509_REQ_free);
  }
  static X509 *sender(const scep_request &request) {
    return sk_X509_value(request.message->d.sign->cert, 0);
  }
  static std::string octets(const ASN1_STRING *text) {
    return std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(text)),
                       static_cast<size_t>(ASN1_STRING_length(text)));
  }
  static std::string attribute(const pkcs10 &request, int index, int type) {
    auto *value = static_cast<ASN1_STRING *>(
        X509_ATTRIBUTE_get0_data(X509_REQ_get_attr(request.get(), index), 0, type, nullptr));
    return value ? octets(value) : "(absent)";
  }
  std::string expected_tx_id() const {
    unsigned char *spki = nullptr, digest[16];
    int length = i2d_PUBKEY(own_key.get(), &spki);
    EVP_Digest(spki, static_cast<size_t>(length), digest, nullptr, EVP_md5(), nullptr);
    OPENSSL_free(spki);
    return support::upper_hex(std::string(reinterpret_cast<char *>(digest), 16));
  }
  // 78, the line with this number, no request.
  void expect_board_failure(int number) {
    scep_ca ca;
    EXPECT_EQ(enroll(ca), PKI_FLASH_ERROR);
    EXPECT_EQ(own_lines(),
              (log_lines{{3, "failed to get qrn serial-number from : " + std::to_string(number)}}));
    EXPECT_TRUE(ca.requests().empty());
    EXPECT_EQ(issued, nullptr);
  }
};

TEST_F(ScepCertReq, IsAPkcsReqOfANewTransaction) {
  scep_request sent = request();
  EXPECT_EQ(sent.type, SCEP_PKCS_REQ);
  EXPECT_EQ(sent.tx_id, expected_tx_id());
  EXPECT_EQ(sent.sender_nonce.size(), 16u);
  EXPECT_EQ(sent.recipient_nonce, "");
}

TEST_F(ScepCertReq, GoesToTheUrlsPath) {
  scep_request sent = request();
  EXPECT_EQ(sent.target, "/scep?operation=PKIOperation&message=" + support::base64_lines(sent.der));
}

TEST_F(ScepCertReq, AsksForTheKeyUnderTheSubject) {
  pkcs10 asked = payload(request());
  ASSERT_NE(asked, nullptr);
  EXPECT_EQ(X509_NAME_cmp(X509_REQ_get_subject_name(asked.get()), subject.get()), 0);
  EXPECT_EQ(EVP_PKEY_eq(X509_REQ_get0_pubkey(asked.get()), own_key.get()), 1);
  EXPECT_EQ(X509_REQ_get_version(asked.get()), 0);
}

TEST_F(ScepCertReq, SignsTheInnerRequestWithMd5AlsoWhenAnotherDigestIsNamed) {
  pkcs10 asked = payload(request());
  ASSERT_NE(asked, nullptr);
  EXPECT_EQ(X509_REQ_get_signature_nid(asked.get()), NID_md5WithRSAEncryption);
  EXPECT_EQ(X509_REQ_verify(asked.get(), own_key.get()), 1);
}

TEST_F(ScepCertReq, NullSubjectIsAnEmptyName) {
  subject = nullptr;
  scep_request sent = request();
  pkcs10 asked = payload(sent);
  ASSERT_NE(asked, nullptr);
  EXPECT_EQ(X509_NAME_entry_count(X509_REQ_get_subject_name(asked.get())), 0);
  EXPECT_EQ(X509_NAME_entry_count(X509_get_subject_name(sender(sent))), 0);
}

TEST_F(ScepCertReq, CarriesSerialNumberAndSecretOfTheDevice) {
  pkcs10 asked = payload(request());
  ASSERT_NE(asked, nullptr);
  ASSERT_EQ(X509_REQ_get_attr_count(asked.get()), 2);
  auto nid = [&](int index) {
    return OBJ_obj2nid(X509_ATTRIBUTE_get0_object(X509_REQ_get_attr(asked.get(), index)));
  };
  int serial = nid(0) == pki_nid_list[PKI_OID_SERIAL_NUMBER] ? 0 : 1;
  EXPECT_EQ(nid(serial), pki_nid_list[PKI_OID_SERIAL_NUMBER]);
  EXPECT_EQ(nid(1 - serial), pki_nid_list[PKI_OID_SECRET]);
  EXPECT_EQ(attribute(asked, serial, V_ASN1_PRINTABLESTRING), "SN-0001");
  EXPECT_EQ(attribute(asked, 1 - serial, V_ASN1_OCTET_STRING), "secret-0001");
}

TEST_F(ScepCertReq, SecretMayHoldAnyOctets) {
  const std::string secret("\0\xff binary\n\0", 11);
  other_board board;
  board.with("serialnumber", "SN-2").with("secret", secret);
  scep_request sent = request();
  EXPECT_NE(sent.payload.find(secret), std::string::npos);
}

TEST_F(ScepCertReq, SerialNumberOf47CharactersGoesAlong) {
  const std::string serial(47, 'S');
  other_board board;
  board.with("serialnumber", serial).with("secret", "x");
  EXPECT_NE(request().payload.find(serial), std::string::npos);
}

TEST_F(ScepCertReq, SenderIsASelfSignedCertificateNumberedByTheTransaction) {
  scep_request sent = request();
  ASSERT_EQ(sk_X509_num(sent.message->d.sign->cert), 1);
  X509 *self = sender(sent);
  EXPECT_EQ(octets(X509_get0_serialNumber(self)), expected_tx_id());
  EXPECT_EQ(X509_NAME_cmp(X509_get_subject_name(self), subject.get()), 0);
  EXPECT_EQ(X509_NAME_cmp(X509_get_issuer_name(self), subject.get()), 0);
  EXPECT_EQ(X509_verify(self, own_key.get()), 1);
}

TEST_F(ScepCertReq, EachEnrollmentHasItsOwnNonce) {
  std::string first = request().sender_nonce;
  EXPECT_NE(request().sender_nonce, first);
}

TEST_F(ScepCertReq, InputsStayAsTheyWere) {
  scep_ca ca;
  scep_info info = endpoint(ca);
  std::string before = support::oneline(subject.get());
  ASSERT_EQ(enroll(info), PKI_OK);
  EXPECT_EQ(support::oneline(subject.get()), before);
  EXPECT_EQ(info->url, ca.url());
  EXPECT_STREQ(info->digest, "SHA256");
  EXPECT_STREQ(info->cipher, "AES-128-CBC");
  EXPECT_EQ(support::der(ca.certificate()),
            support::der(support::cert(X509_dup(info->ca_cert), X509_free)));
}

TEST_F(ScepCertReq, BoardWithoutASerialNumber) {
  fake_failures::fail_serialnumber(5);
  expect_board_failure(5);
}

TEST_F(ScepCertReq, BoardWithoutASecret) {
  other_board board;
  board.with("serialnumber", "SN-2");
  expect_board_failure(ENOENT);
}

TEST_F(ScepCertReq, BoardWithNeitherLogsBothResultsInOne) {
  other_board board;
  fake_failures::fail_serialnumber(4);
  expect_board_failure(4 | ENOENT);
}

TEST_F(ScepCertReq, SerialNumberOf48CharactersIsTooLong) {
  other_board board;
  board.with("serialnumber", std::string(48, 'S')).with("secret", "x");
  expect_board_failure(EMSGSIZE);
}

TEST_F(ScepCertReq, SecretOfALengthThatCannotBeIsABoardFailureWithoutANumber) {
  for (int length : {-1, 257, INT_MAX, INT_MIN}) {
    SCOPED_TRACE(length);
    clear_log();
    fake_failures::change_secret_length(length);
    expect_board_failure(0);
  }
}

TEST_F(ScepCertReq, SecretOfNoOctetsAndOf256IsTaken) {
  for (int length : {0, 1, 255, 256}) {
    SCOPED_TRACE(length);
    fake_failures::change_secret_length(length);
    pkcs10 asked = payload(request());
    ASSERT_NE(asked, nullptr);
    int secret = X509_REQ_get_attr_by_NID(asked.get(), pki_nid_list[PKI_OID_SECRET], -1);
    ASSERT_GE(secret, 0);
    EXPECT_EQ(attribute(asked, secret, V_ASN1_OCTET_STRING),
              std::string(static_cast<size_t>(length), 'x'));
  }
}

TEST_F(ScepCertReq, SerialNumberWithoutANulEndsWithItsBuffer) {
  fake_failures::fill_serialnumber('S');
  pkcs10 asked = payload(request());
  ASSERT_NE(asked, nullptr);
  int serial = X509_REQ_get_attr_by_NID(asked.get(), pki_nid_list[PKI_OID_SERIAL_NUMBER], -1);
  ASSERT_GE(serial, 0);
  EXPECT_EQ(attribute(asked, serial, V_ASN1_PRINTABLESTRING), std::string(47, 'S'));
}

TEST_F(ScepCertReq, MissingArgumentsAreRefusedBeforeTheBoardIsRead) {
  scep_ca ca;
  scep_info whole = endpoint(ca);
  X509 *made = nullptr;
  // Reading the board would give 78 now.
  other_board board;
  EXPECT_EQ(scep_cert_req(nullptr, nullptr, whole.get(), &made), PKI_INVALID_ARGS);
  EXPECT_EQ(scep_cert_req(own_key.get(), nullptr, nullptr, &made), PKI_INVALID_ARGS);
  EXPECT_EQ(scep_cert_req(own_key.get(), nullptr, whole.get(), nullptr), PKI_INVALID_ARGS);
  EXPECT_TRUE(ca.requests().empty());
}

TEST_F(ScepCertReq, EndpointWithoutUrlOrCaCertificateIsRefusedBeforeTheBoardIsRead) {
  scep_ca ca;
  scep_info no_url = endpoint(ca), no_cert = endpoint(ca);
  free(no_url->url);
  no_url->url = nullptr;
  X509_free(no_cert->ca_cert);
  no_cert->ca_cert = nullptr;
  other_board board;
  EXPECT_EQ(enroll(no_url), PKI_INVALID_ARGS);
  EXPECT_EQ(issued, nullptr);
  EXPECT_EQ(enroll(no_cert), PKI_INVALID_ARGS);
  EXPECT_EQ(issued, nullptr);
  EXPECT_TRUE(ca.requests().empty());
}

TEST_F(ScepCertReq, CaKeyThatCannotEncryptIsLogged) {
  scep_ca ca;
  support::cert_options options;
  options.public_key = support::make_ec_key();
  scep_info info =
      support::make_scep_info(ca.url(), support::make_cert(options), "SHA256", "AES-128-CBC");
  int code = enroll(info);
  EXPECT_EQ(code, PKI_P7_ENCRYPT_FAILED);
  EXPECT_EQ(own_lines(),
            (log_lines{{3, "failed to generate scep CertReq request: P7 ENCRYPT FAILED"}}));
  EXPECT_TRUE(ca.requests().empty());
}

TEST_F(ScepCertReq, KeyWithoutItsPrivatePartIsLogged) {
  scep_ca ca;
  own_key = support::public_part(own_key);
  int code = enroll(ca);
  EXPECT_EQ(code, PKI_SIGN_FAILED);
  EXPECT_EQ(own_lines(), (log_lines{{3, "failed to generate scep CertReq request: SIGN FAILED"}}));
  EXPECT_EQ(ERR_peek_error(), 0u);
  EXPECT_TRUE(ca.requests().empty());
}

TEST_F(ScepCertReq, NoRandomNumbersIsLogged) {
  scep_ca ca;
  fake_failures::fail_rand_bytes();
  EXPECT_EQ(enroll(ca), PKI_OUT_OF_MEMORY);
  EXPECT_EQ(own_lines(),
            (log_lines{{3, "failed to generate scep CertReq request: OUT OF MEMORY"}}));
  EXPECT_TRUE(ca.requests().empty());
}

}  // namespace
