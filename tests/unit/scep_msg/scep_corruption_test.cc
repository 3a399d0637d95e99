// Damaged messages through every parser: cut short, and with one octet changed.
#include <functional>

#include "messages.h"

namespace {

using namespace scep;

// The codes that the parsers document, all of which a damaged message may give.
bool documented(int code) {
  switch (code) {
    case PKI_P7_DECRYPT_FAILED:
    case PKI_P7_VERIFY_FAILED:
    case PKI_SIGNER_NOT_FOUND:
    case PKI_NOT_SIGNED_DATA:
    case PKI_NO_SIGNERS:
    case PKI_UNKNOWN_P7_CONTENT_TYPE:
    case PKI_INVALID_DER:
      return true;
    default:
      return false;
  }
}

std::set<unsigned char> alterations(unsigned char was) {
  std::set<unsigned char> values = {0x00, 0xff, static_cast<unsigned char>(was + 1),
                                    static_cast<unsigned char>(was ^ 0x80)};
  values.erase(was);
  return values;
}

// One way to open a message: its code, and what came out as text.
using opens = std::function<int(PKCS7 *, std::string *)>;

struct ScepCorruption : scep_test {
  pkcs7 request = made_by([this](PKCS7 **out) {
    X509_ATTRIBUTE *secret =
        create_printablestring_attr(pki_nid_list[PKI_OID_SECRET], "the device's secret");
    int code = gen_scep_cert_req(device_key.get(), device_key.get(), nullptr, ca.get(), &secret, 1,
                                 nullptr, nullptr, out);
    X509_ATTRIBUTE_free(secret);
    return code;
  });
  support::cert issued = support::simple_cert("ca", "issued", 99);

  static pkcs7 made_by(const std::function<int(PKCS7 **)> &make) {
    PKCS7 *out = nullptr;
    EXPECT_EQ(make(&out), PKI_OK);
    pkcs7 owner(out, PKCS7_free);
    return read_back(owner);
  }

  using parser = int(PKCS7 *, X509 **, EVP_PKEY *, X509 *, void **);
  // With a known signer, so that nobody else's signature counts.
  template <class T>
  opens with(parser *parse, X509 *known, const support::key &key, const support::cert &cert,
             int (*i2d)(const T *, unsigned char **), void (*release)(T *)) {
    return [=](PKCS7 *message, std::string *payload) {
      X509 *signer = known;
      void *out = nullptr;
      int code = parse(message, &signer, key.get(), cert.get(), &out);
      EXPECT_EQ(code == PKI_OK, out != nullptr) << code;
      EXPECT_EQ(signer, known);
      if (out)
        *payload = encode<T>(static_cast<T *>(out), i2d);
      release(static_cast<T *>(out));
      return code;
    };
  }
  static int open(const opens &opener, const std::string &der, std::string *payload) {
    const auto *in = reinterpret_cast<const unsigned char *>(der.data());
    pkcs7 message(d2i_PKCS7(nullptr, &in, static_cast<long>(der.size())), PKCS7_free);
    support::clear_openssl_errors();
    if (!message)
      return -1;
    int code = opener(message.get(), payload);
    EXPECT_EQ(ERR_peek_error(), 0u);
    support::clear_openssl_errors();
    return code;
  }

  void expect_truncations_refused(const pkcs7 &message, const opens &opener) {
    const std::string whole = support::der(message);
    for (size_t length = 0; length < whole.size(); length++) {
      std::string payload;
      EXPECT_NE(open(opener, whole.substr(0, length), &payload), PKI_OK) << length;
      EXPECT_EQ(payload, "");
    }
  }
  // What is accepted in spite of a change says what the honest message says.
  void expect_changes_refused_or_harmless(const pkcs7 &message, const opens &opener) {
    const std::string whole = support::der(message);
    std::string honest;
    ASSERT_EQ(open(opener, whole, &honest), PKI_OK) << log_dump();
    const size_t step = whole.size() > 4096 ? whole.size() / 2048 : 1;
    size_t refused = 0;
    for (size_t at = 0; at < whole.size(); at += step) {
      for (unsigned char value : alterations(static_cast<unsigned char>(whole[at]))) {
        std::string changed = whole;
        changed[at] = static_cast<char>(value);
        std::string payload;
        int code = open(opener, changed, &payload);
        if (code == PKI_OK) {
          EXPECT_TRUE(payload == honest) << "octet " << at << " as " << int{value};
          continue;
        }
        refused++;
        EXPECT_TRUE(code == -1 || documented(code))
            << code << " for octet " << at << " as " << int{value};
        EXPECT_EQ(payload, "");
      }
      EXPECT_EQ(log_dump().find("secret"), std::string::npos);
      clear_log();
    }
    EXPECT_GT(refused, whole.size() / step * 2);
  }
  void expect_withstood(const pkcs7 &message, const opens &opener) {
    expect_truncations_refused(message, opener);
    expect_changes_refused_or_harmless(message, opener);
  }

  X509 *requester() { return sk_X509_value(request->d.sign->cert, 0); }
  opens request_opener() {
    return with<X509_REQ>(parse_scep_cert_req, requester(), ca_key, ca, i2d_X509_REQ,
                          X509_REQ_free);
  }
  opens reply_opener() {
    return with<PKCS7>(parse_scep_cert_rep, ca.get(), device_key, device, i2d_PKCS7, PKCS7_free);
  }
};

TEST_F(ScepCorruption, CertificateRequest) {
  expect_withstood(request, request_opener());
}

TEST_F(ScepCorruption, Poll) {
  ias names = make_ias();
  pkcs7 message = made_by([&](PKCS7 **out) {
    return gen_scep_get_cert_init(names.get(), device_key.get(), device.get(), ca.get(),
                                  request.get(), nullptr, nullptr, out);
  });
  opens opener = [this](PKCS7 *damaged, std::string *payload) {
    X509 *signer = device.get();
    void *out = nullptr;
    int code = parse_scep_get_cert_init(damaged, &signer, ca_key.get(), ca.get(), &out);
    auto *read = static_cast<SCEP_ISSUER_AND_SUBJECT *>(out);
    EXPECT_EQ(code == PKI_OK, read != nullptr);
    if (read)
      *payload = encode<X509_NAME>(read->issuer, i2d_X509_NAME) +
                 encode<X509_NAME>(read->subject, i2d_X509_NAME);
    SCEP_ISSUER_AND_SUBJECT_free(read);
    return code;
  };
  expect_withstood(message, opener);
}

TEST_F(ScepCorruption, Query) {
  issuer_and_serial asked = make_issuer_and_serial();
  pkcs7 message = made_by([&](PKCS7 **out) {
    return gen_scep_get_cert(asked.get(), device_key.get(), device.get(), nullptr, ca.get(),
                             nullptr, nullptr, out);
  });
  expect_withstood(message, with<PKCS7_ISSUER_AND_SERIAL>(parse_scep_get_cert, device.get(), ca_key,
                                                          ca, i2d_PKCS7_ISSUER_AND_SERIAL,
                                                          PKCS7_ISSUER_AND_SERIAL_free));
}

TEST_F(ScepCorruption, ReplyWithCertificates) {
  pkcs7 message = made_by([&](PKCS7 **out) {
    return gen_scep_cert_rep(issued.get(), ca_key.get(), ca.get(), device.get(), request.get(),
                             out);
  });
  expect_withstood(message, reply_opener());
}

TEST_F(ScepCorruption, StatusReplyAndItsTransaction) {
  pkcs7 message = made_by([&](PKCS7 **out) {
    return gen_scep_sts_rep(2, 4, ca_key.get(), ca.get(), request.get(), out);
  });
  // What a client reads of it: the signature, then transaction and status.
  opens opener = [this](PKCS7 *damaged, std::string *payload) {
    int checked = check_tx_attrs(request.get(), damaged, 1);
    EXPECT_TRUE(checked == 0 || checked == PKI_TX_CHECK_FAILED) << checked;
    X509 *signer = ca.get();
    int code = parse_scep_sts_rep(damaged, &signer);
    EXPECT_EQ(signer, ca.get());
    if (code != PKI_OK)
      return code;
    EXPECT_EQ(checked, 0) << "signed, but of another transaction";
    const char *status = nullptr;
    const char *failure = nullptr;
    EXPECT_EQ(get_string_attr(damaged, pki_nid_list[PKI_OID_SCEP_PKI_STATUS], &status), PKI_OK);
    EXPECT_EQ(get_string_attr(damaged, pki_nid_list[PKI_OID_SCEP_FAIL_INFO], &failure), PKI_OK);
    *payload = std::string(status) + failure;
    return code;
  };
  expect_withstood(message, opener);
}

// The signature hides everything inside it from a stranger; a requester may sign what he likes.
TEST_F(ScepCorruption, EnvelopeThatItsSenderDamaged) {
  const std::string whole = inner_data(request);
  for (size_t at = 0; at < whole.size(); at++) {
    std::string changed = whole;
    changed[at] = static_cast<char>(changed[at] ^ 0xff);
    PKCS7 *out = nullptr;
    ASSERT_EQ(pkcs7_sign(device.get(), device_key.get(), EVP_sha1(),
                         PKCS7_dup(support::make_data(changed).get()), nullptr, 0, &out),
              PKI_OK);
    pkcs7 message(out, PKCS7_free);
    X509 *signer = device.get();
    auto *made = untouched<void>();
    int code = parse_scep_cert_req(message.get(), &signer, ca_key.get(), ca.get(), &made);
    if (code == PKI_OK) {
      X509_REQ_free(static_cast<X509_REQ *>(made));
    } else {
      EXPECT_TRUE(documented(code)) << code << " at " << at;
      EXPECT_EQ(made, nullptr);
    }
    EXPECT_EQ(log_dump().find("secret"), std::string::npos);
    EXPECT_EQ(ERR_peek_error(), 0u);
    clear_log();
  }
}

TEST_F(ScepCorruption, EnvelopeThatItsSenderCutShort) {
  const std::string whole = inner_data(request);
  for (size_t length = 0; length < whole.size(); length++) {
    PKCS7 *out = nullptr;
    ASSERT_EQ(
        pkcs7_sign(device.get(), device_key.get(), EVP_sha1(),
                   PKCS7_dup(support::make_data(whole.substr(0, length)).get()), nullptr, 0, &out),
        PKI_OK);
    pkcs7 message(out, PKCS7_free);
    X509 *signer = device.get();
    auto *made = untouched<void>();
    EXPECT_EQ(parse_scep_cert_req(message.get(), &signer, ca_key.get(), ca.get(), &made),
              PKI_INVALID_DER)
        << length;
    EXPECT_EQ(made, nullptr);
    clear_log();
  }
}

TEST_F(ScepCorruption, DamagedRequestIsAnsweredOrRefusedByTheResponder) {
  const std::string whole = support::der(request);
  for (size_t at = 0; at < whole.size(); at++) {
    std::string changed = whole;
    changed[at] = static_cast<char>(changed[at] ^ 0x55);
    const auto *in = reinterpret_cast<const unsigned char *>(changed.data());
    pkcs7 damaged(d2i_PKCS7(nullptr, &in, static_cast<long>(changed.size())), PKCS7_free);
    support::clear_openssl_errors();
    if (!damaged)
      continue;
    auto *out = untouched<PKCS7>();
    int code = gen_scep_sts_rep(2, 4, ca_key.get(), ca.get(), damaged.get(), &out);
    EXPECT_EQ(code == PKI_OK, out != nullptr) << code << " at " << at;
    PKCS7_free(out);
    out = untouched<PKCS7>();
    code =
        gen_scep_cert_rep(issued.get(), ca_key.get(), ca.get(), device.get(), damaged.get(), &out);
    EXPECT_EQ(code == PKI_OK, out != nullptr) << code << " at " << at;
    PKCS7_free(out);
    EXPECT_EQ(ERR_peek_error(), 0u);
    support::clear_openssl_errors();
    clear_log();
  }
}

TEST_F(ScepCorruption, DeeplyNestedContentIsRefused) {
  std::string nested = "\x30\x80\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x07\x03\xa0\x80";
  for (int i = 0; i < 100000; i++)
    nested += std::string("\x24\x80", 2);
  PKCS7 *out = nullptr;
  ASSERT_EQ(pkcs7_sign(device.get(), device_key.get(), EVP_sha1(),
                       PKCS7_dup(support::make_data(nested).get()), nullptr, 0, &out),
            PKI_OK);
  pkcs7 message(out, PKCS7_free);
  std::string payload;
  X509 *signer = device.get();
  auto *made = untouched<void>();
  EXPECT_EQ(parse_scep_cert_req(message.get(), &signer, ca_key.get(), ca.get(), &made),
            PKI_INVALID_DER);
  EXPECT_EQ(made, nullptr);
}

}  // namespace
