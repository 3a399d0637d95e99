// Every parser and the transaction check with allocations failing.
#include "memory_sweep.h"

namespace {

using namespace scep;

const std::vector<int> parse_codes = {
    PKI_OUT_OF_MEMORY,    PKI_BIO_CREAT_FAILED, PKI_BIO_BUF_GET_FAILED, PKI_P7_DECRYPT_FAILED,
    PKI_P7_VERIFY_FAILED, PKI_SIGNER_NOT_FOUND, PKI_INVALID_DER};
const std::vector<int> verify_codes = {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED,
                                       PKI_P7_VERIFY_FAILED, PKI_SIGNER_NOT_FOUND};

struct ParseMemory : memory_test {
  support::key key;  // of the round
  pkcs7 request = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("the id")}),
                                attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string("nonce")})});

  // A key object that has decrypted already, with each provider's ciphers.
  static support::key used(const support::key &original, const support::cert &cert) {
    support::key made = fresh(original);
    for (const EVP_CIPHER *cipher : {EVP_aes_128_cbc(), EVP_des_cbc()})
      decrypt_once(made, cert, cipher);
    return made;
  }
  static void decrypt_once(const support::key &key, const support::cert &cert,
                           const EVP_CIPHER *cipher) {
    PKCS7 *envelope = nullptr;
    ASSERT_EQ(pkcs7_encrypt(cert.get(), "x", 1, cipher, &envelope), PKI_OK);
    unsigned char *data = nullptr;
    int length = 0;
    EXPECT_EQ(pkcs7_decrypt(envelope, key.get(), cert.get(), &data, &length), PKI_OK);
    free(data);
    PKCS7_free(envelope);
  }

  using parser = int(PKCS7 *, X509 **, EVP_PKEY *, X509 *, void **);
  template <class T>
  void sweep_parser(parser *parse, const pkcs7 &message, X509 *known_signer,
                    const support::key &own_key, const support::cert &own, void (*release)(T *),
                    const std::function<void(T *)> &look) {
    void *out = nullptr;
    X509 *signer = nullptr;
    sweep(
        [&] {
          out = untouched<void>();
          signer = known_signer;
          return parse(message.get(), &signer, key.get(), own.get(), &out);
        },
        [&](int code) {
          ASSERT_EQ(code == PKI_OK, out != nullptr) << code;
          if (known_signer) {
            EXPECT_EQ(signer, known_signer);
          } else if (code == PKI_OK) {
            EXPECT_EQ(signer, sk_X509_value(message->d.sign->cert, 0));
          }
          if (out)
            look(static_cast<T *>(out));
          release(static_cast<T *>(out));
        },
        parse_codes, PKI_OK, [&] { key = used(own_key, own); });
  }
  pkcs7 made_by(const std::function<int(PKCS7 **)> &make) {
    PKCS7 *out = nullptr;
    EXPECT_EQ(make(&out), PKI_OK);
    pkcs7 owner(out, PKCS7_free);
    return read_back(owner);
  }
};

TEST_P(ParseMemory, CertificateRequest) {
  pkcs7 message = made_by([&](PKCS7 **out) {
    return gen_scep_cert_req(device_key.get(), device_key.get(), nullptr, ca.get(), nullptr, 0,
                             nullptr, nullptr, out);
  });
  sweep_parser<X509_REQ>(parse_scep_cert_req, message, nullptr, ca_key, ca, X509_REQ_free,
                         [&](X509_REQ *read) {
                           EXPECT_EQ(X509_REQ_verify(read, device_key.get()), 1);
                           support::clear_openssl_errors();
                         });
}

TEST_P(ParseMemory, Poll) {
  ias names = make_ias();
  pkcs7 message = made_by([&](PKCS7 **out) {
    return gen_scep_get_cert_init(names.get(), device_key.get(), device.get(), ca.get(),
                                  request.get(), nullptr, nullptr, out);
  });
  sweep_parser<SCEP_ISSUER_AND_SUBJECT>(
      parse_scep_get_cert_init, message, nullptr, ca_key, ca, SCEP_ISSUER_AND_SUBJECT_free,
      [&](SCEP_ISSUER_AND_SUBJECT *read) {
        EXPECT_EQ(X509_NAME_cmp(read->issuer, names->issuer), 0);
        EXPECT_EQ(X509_NAME_cmp(read->subject, names->subject), 0);
      });
}

TEST_P(ParseMemory, Query) {
  issuer_and_serial asked = make_issuer_and_serial();
  pkcs7 message = made_by([&](PKCS7 **out) {
    return gen_scep_get_cert(asked.get(), device_key.get(), device.get(), nullptr, ca.get(),
                             nullptr, nullptr, out);
  });
  sweep_parser<PKCS7_ISSUER_AND_SERIAL>(
      parse_scep_get_cert, message, nullptr, ca_key, ca, PKCS7_ISSUER_AND_SERIAL_free,
      [](PKCS7_ISSUER_AND_SERIAL *read) { EXPECT_EQ(ASN1_INTEGER_get(read->serial), 4711); });
}

TEST_P(ParseMemory, ReplyWithCertificates) {
  pkcs7 message = made_by([&](PKCS7 **out) {
    return gen_scep_cert_rep(device.get(), ca_key.get(), ca.get(), device.get(), request.get(),
                             out);
  });
  sweep_parser<PKCS7>(parse_scep_cert_rep, message, ca.get(), device_key, device, PKCS7_free,
                      [](PKCS7 *read) {
                        ASSERT_TRUE(PKCS7_type_is_signed(read));
                        EXPECT_EQ(sk_X509_num(read->d.sign->cert), 2);
                      });
}

TEST_P(ParseMemory, StatusReply) {
  pkcs7 message = made_by([&](PKCS7 **out) {
    return gen_scep_sts_rep(3, -1, ca_key.get(), ca.get(), request.get(), out);
  });
  X509 *signer = nullptr;
  sweep(
      [&] {
        signer = ca.get();
        return parse_scep_sts_rep(message.get(), &signer);
      },
      [&](int) { EXPECT_EQ(signer, ca.get()); }, verify_codes);
}

TEST_P(ParseMemory, StrangersReplyIsNeverTaken) {
  support::key stranger = support::test_key(2);
  support::cert impostor = certificate("ca", stranger, 5);
  pkcs7 message = made_by([&](PKCS7 **out) {
    return gen_scep_sts_rep(0, -1, stranger.get(), impostor.get(), request.get(), out);
  });
  X509 *signer = nullptr;
  sweep(
      [&] {
        signer = ca.get();
        return parse_scep_sts_rep(message.get(), &signer);
      },
      [&](int code) { EXPECT_NE(code, PKI_OK); }, verify_codes, PKI_P7_VERIFY_FAILED);
}

TEST_P(ParseMemory, CheckPassesOrFailsWhole) {
  pkcs7 answer = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {tlv(2, "the id")}),
                               attribute(PKI_OID_SCEP_RECIPIENT_NONCE, {octet_string("nonce")})});
  pkcs7 response;
  sweep([&] { return check_tx_attrs(request.get(), response.get(), 1); }, [](int) {},
        {PKI_TX_CHECK_FAILED}, PKI_OK, [&] { response = read_back(answer); });
}

TEST_P(ParseMemory, CheckNeverPassesAnotherTransaction) {
  pkcs7 ids = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {tlv(2, "other")}),
                            attribute(PKI_OID_SCEP_RECIPIENT_NONCE, {octet_string("nonce")})});
  pkcs7 nonces = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("the id")}),
                               attribute(PKI_OID_SCEP_RECIPIENT_NONCE, {octet_string("other")})});
  for (const pkcs7 &wrong : {ids, nonces}) {
    for (size_t n = 0; n < 20; n++) {
      pkcs7 response = read_back(wrong);
      fake_allocator::fail_at(n, GetParam());
      int code = check_tx_attrs(request.get(), response.get(), 0);
      fake_allocator::stop_failing();
      EXPECT_EQ(code, PKI_TX_CHECK_FAILED) << n;
      EXPECT_EQ(ERR_peek_error(), 0u);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Failing, ParseMemory, testing::Bool(), failing);

}  // namespace
