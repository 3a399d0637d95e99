// Every generator with allocations failing: a whole message, or a documented code and no message.
#include "memory_sweep.h"

namespace {

using namespace scep;

const std::vector<int> message_codes = {PKI_OUT_OF_MEMORY,       PKI_BIO_CREAT_FAILED,
                                        PKI_P7_ENCRYPT_FAILED,   PKI_P7_DATAINIT_FAILED,
                                        PKI_P7_DATAFINAL_FAILED, PKI_INTERNAL_ERROR};

std::vector<int> and_sign_failed(std::vector<int> codes) {
  codes.push_back(PKI_SIGN_FAILED);
  return codes;
}

struct GenerateMemory : memory_test {
  support::key key;  // of the round
  pkcs7 request = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("the id")}),
                                attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string("nonce")})});

  void sweep_message(const support::key &signing_key, const std::function<int(PKCS7 **)> &make,
                     const std::function<void(const pkcs7 &)> &look,
                     const std::vector<int> &codes) {
    PKCS7 *out = nullptr;
    sweep(
        [&] {
          out = untouched<PKCS7>();
          return make(&out);
        },
        [&](int code) {
          ASSERT_EQ(code == PKI_OK, out != nullptr) << code;
          if (!out)
            return;
          pkcs7 owner(out, PKCS7_free);
          ASSERT_GT(i2d_PKCS7(out, nullptr), 0) << "cannot be sent";
          pkcs7 message = read_back(owner);
          EXPECT_TRUE(openssl_verifies(message));
          look(message);
        },
        codes, PKI_OK, [&] { key = fresh(signing_key); });
  }
};

TEST_P(GenerateMemory, StandIn) {
  X509 *out = nullptr;
  support::name name = support::common_name("device");
  support::integer serial = support::make_serial(4711);
  sweep(
      [&] {
        out = untouched<X509>();
        return gen_ss_cert(key.get(), key.get(), name.get(), serial.get(), nullptr, &out);
      },
      [&](int code) {
        ASSERT_EQ(code == PKI_OK, out != nullptr);
        if (!out)
          return;
        support::cert made =
            decode<X509>(support::der(support::cert(out, X509_free)), d2i_X509, X509_free);
        ASSERT_NE(made, nullptr);
        EXPECT_EQ(X509_verify(made.get(), device_key.get()), 1);
        EXPECT_EQ(X509_NAME_cmp(X509_get_subject_name(made.get()), name.get()), 0);
        EXPECT_EQ(X509_NAME_cmp(X509_get_issuer_name(made.get()), name.get()), 0);
        EXPECT_EQ(ASN1_INTEGER_get(X509_get0_serialNumber(made.get())), 4711);
        EXPECT_EQ(ASN1_STRING_length(X509_get0_notAfter(made.get())), 13);
      },
      {PKI_OUT_OF_MEMORY, PKI_SIGN_FAILED}, PKI_OK, [&] { key = fresh(device_key); });
}

TEST_P(GenerateMemory, MessageWithEachCipher) {
  ias payload = make_ias();
  for (const EVP_CIPHER *cipher : {static_cast<const EVP_CIPHER *>(nullptr), EVP_aes_128_cbc()}) {
    sweep_message(
        device_key,
        [&](PKCS7 **out) {
          return gen_scep_msg(20, payload.get(), ias_encoder(), key.get(), device.get(), ca.get(),
                              3, nullptr, "recipient", 9, nullptr, cipher, out);
        },
        [&](const pkcs7 &message) {
          EXPECT_EQ(attribute_nids(message).size(), 8u);
          EXPECT_TRUE(is_upper_hex(text_of(message, PKI_OID_SCEP_TRANSACTION_ID), 32));
          EXPECT_EQ(octets_of(message, PKI_OID_SCEP_SENDER_NONCE).size(), 16u);
          EXPECT_EQ(octets_of(message, PKI_OID_SCEP_RECIPIENT_NONCE), "recipient");
          EXPECT_EQ(text_of(message, PKI_OID_SCEP_PKI_STATUS), "3");
          EXPECT_EQ(payload_of(message, ca_key, ca).size(),
                    static_cast<size_t>(i2d_SCEP_ISSUER_AND_SUBJECT(payload.get(), nullptr)));
        },
        message_codes);
  }
}

TEST_P(GenerateMemory, CertificateRequest) {
  support::name subject = support::common_name("gateway");
  X509_ATTRIBUTE *attributes[] = {
      create_printablestring_attr(pki_nid_list[PKI_OID_SERIAL_NUMBER], "serial"),
      create_printablestring_attr(pki_nid_list[PKI_OID_SECRET], "secret")};
  sweep_message(
      device_key,
      [&](PKCS7 **out) {
        return gen_scep_cert_req(key.get(), key.get(), subject.get(), ca.get(), attributes, 2,
                                 nullptr, nullptr, out);
      },
      [&](const pkcs7 &message) {
        auto read = decode<X509_REQ>(payload_of(message, ca_key, ca), d2i_X509_REQ, X509_REQ_free);
        ASSERT_NE(read, nullptr);
        EXPECT_EQ(X509_REQ_verify(read.get(), device_key.get()), 1);
        EXPECT_EQ(X509_REQ_get_attr_count(read.get()), 2);
        EXPECT_EQ(X509_NAME_cmp(X509_REQ_get_subject_name(read.get()), subject.get()), 0);
        EXPECT_EQ(text_of(message, PKI_OID_SCEP_MESSAGE_TYPE), "19");
        X509 *stand_in = sk_X509_value(message->d.sign->cert, 0);
        EXPECT_EQ(string_octets(X509_get0_serialNumber(stand_in)),
                  text_of(message, PKI_OID_SCEP_TRANSACTION_ID));
        EXPECT_EQ(X509_verify(stand_in, device_key.get()), 1);
      },
      and_sign_failed(message_codes));
  for (X509_ATTRIBUTE *each : attributes)
    X509_ATTRIBUTE_free(each);
}

TEST_P(GenerateMemory, RequestWithoutASubject) {
  sweep_message(
      device_key,
      [&](PKCS7 **out) {
        return gen_scep_cert_req(key.get(), key.get(), nullptr, ca.get(), nullptr, 0, EVP_sha256(),
                                 EVP_aes_128_cbc(), out);
      },
      [&](const pkcs7 &message) { EXPECT_EQ(digest_of(message), "SHA256"); },
      and_sign_failed(message_codes));
}

TEST_P(GenerateMemory, Poll) {
  ias payload = make_ias();
  pkcs7 original = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {tlv(2, "the id")}),
                                 attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string("nonce")})});
  sweep_message(
      device_key,
      [&](PKCS7 **out) {
        {
          fake_allocator::pause no_failures;
          request = read_back(original);
        }
        return gen_scep_get_cert_init(payload.get(), key.get(), device.get(), ca.get(),
                                      request.get(), nullptr, nullptr, out);
      },
      [&](const pkcs7 &message) {
        EXPECT_EQ(text_of(message, PKI_OID_SCEP_TRANSACTION_ID), "the id");
        EXPECT_EQ(octets_of(message, PKI_OID_SCEP_RECIPIENT_NONCE), "nonce");
      },
      message_codes);
}

TEST_P(GenerateMemory, QueryWithAStandIn) {
  issuer_and_serial payload = make_issuer_and_serial();
  sweep_message(
      device_key,
      [&](PKCS7 **out) {
        return gen_scep_get_cert(payload.get(), key.get(), nullptr, key.get(), ca.get(), nullptr,
                                 nullptr, out);
      },
      [&](const pkcs7 &message) {
        EXPECT_EQ(text_of(message, PKI_OID_SCEP_MESSAGE_TYPE), "21");
        EXPECT_EQ(ASN1_INTEGER_get(X509_get0_serialNumber(sk_X509_value(message->d.sign->cert, 0))),
                  4711);
      },
      and_sign_failed(message_codes));
}

TEST_P(GenerateMemory, ReplyWithCertificates) {
  support::cert issued = support::simple_cert("ca", "issued", 99);
  pkcs7 aes = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("the id")}),
                            attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string("nonce")})});
  const std::string envelope = support::der(support::make_envelope("x", ca));
  ASN1_OCTET_STRING_set(aes->d.sign->contents->d.data,
                        reinterpret_cast<const unsigned char *>(envelope.data()),
                        static_cast<int>(envelope.size()));
  sweep_message(
      ca_key,
      [&](PKCS7 **out) {
        return gen_scep_cert_rep(issued.get(), key.get(), ca.get(), device.get(), aes.get(), out);
      },
      [&](const pkcs7 &message) {
        EXPECT_EQ(text_of(message, PKI_OID_SCEP_PKI_STATUS), "0");
        EXPECT_EQ(digest_of(message), "SHA1");
        EXPECT_EQ(cipher_of(message), "AES-128-CBC") << "not a weaker one for want of memory";
        auto bag = decode<PKCS7>(payload_of(message, device_key, device), d2i_PKCS7, PKCS7_free);
        ASSERT_NE(bag, nullptr);
        EXPECT_EQ(sk_X509_num(bag->d.sign->cert), 2);
      },
      message_codes);
}

TEST_P(GenerateMemory, StatusReply) {
  sweep_message(
      ca_key,
      [&](PKCS7 **out) { return gen_scep_sts_rep(2, 4, key.get(), ca.get(), request.get(), out); },
      [&](const pkcs7 &message) {
        EXPECT_EQ(attribute_nids(message).size(), 9u);
        EXPECT_EQ(text_of(message, PKI_OID_SCEP_PKI_STATUS), "2");
        EXPECT_EQ(text_of(message, PKI_OID_SCEP_FAIL_INFO), "4");
        EXPECT_EQ(digest_of(message), "SHA1");
      },
      message_codes);
}

INSTANTIATE_TEST_SUITE_P(Failing, GenerateMemory, testing::Bool(), failing);

}  // namespace
