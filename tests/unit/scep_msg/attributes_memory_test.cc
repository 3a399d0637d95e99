// Readers, builders and the IssuerAndSubject type with every allocation failing once.
#include <cstdlib>

#include "memory_sweep.h"

namespace {

using namespace scep;

struct AttributesMemory : memory_test {
  int nid = pki_nid_list[PKI_OID_SCEP_TRANSACTION_ID];

  // A builder gives the right object or null.
  template <class T>
  void sweep_builder(const std::function<T *()> &build, int (*i2d)(const T *, unsigned char **),
                     void (*release)(T *), const std::string &expected) {
    T *made = nullptr;
    sweep(
        [&] {
          made = build();
          return made ? PKI_OK : PKI_OUT_OF_MEMORY;
        },
        [&](int code) {
          if (code == PKI_OK) {
            EXPECT_EQ(encode<T>(made, i2d), expected);
          }
          release(made);
          support::clear_openssl_errors();
        },
        {PKI_OUT_OF_MEMORY});
  }
};

TEST_P(AttributesMemory, IntegerReadAsAString) {
  const std::string id(32, 'A');
  pkcs7 original = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {tlv(2, id)})});
  pkcs7 message;
  const char *text = nullptr;
  sweep(
      [&] {
        text = untouched<const char>();
        return get_string_attr(message.get(), nid, &text);
      },
      [&](int code) {
        if (code != PKI_OK) {
          EXPECT_EQ(text, untouched<const char>());
          EXPECT_EQ(get_string_attr(message.get(), nid, &text), PKI_OK) << "with memory again";
        }
        EXPECT_STREQ(text, id.c_str());
      },
      {PKI_OUT_OF_MEMORY}, PKI_OK, [&] { message = read_back(original); });
}

TEST_P(AttributesMemory, ToInteger) {
  sweep_builder<ASN1_INTEGER>([] { return to_integer(0x414243); }, i2d_ASN1_INTEGER,
                              ASN1_INTEGER_free, tlv(2, "ABC"));
}

TEST_P(AttributesMemory, ToOctetstring) {
  sweep_builder<ASN1_OCTET_STRING>([] { return to_octetstring("ABC", 3); }, i2d_ASN1_OCTET_STRING,
                                   ASN1_OCTET_STRING_free, octet_string("ABC"));
  sweep_builder<ASN1_OCTET_STRING>([] { return to_octetstring("", 0); }, i2d_ASN1_OCTET_STRING,
                                   ASN1_OCTET_STRING_free, octet_string(""));
}

TEST_P(AttributesMemory, ToPrintablestring) {
  sweep_builder<ASN1_PRINTABLESTRING>([] { return to_printablestring("ABC"); },
                                      i2d_ASN1_PRINTABLESTRING, ASN1_PRINTABLESTRING_free,
                                      printable("ABC"));
}

TEST_P(AttributesMemory, OctetStringAttribute) {
  sweep_builder<X509_ATTRIBUTE>([&] { return create_octetstring_attr(nid, "ABC", 3); },
                                i2d_X509_ATTRIBUTE, X509_ATTRIBUTE_free,
                                attribute(PKI_OID_SCEP_TRANSACTION_ID, {octet_string("ABC")}));
}

TEST_P(AttributesMemory, PrintableStringAttribute) {
  sweep_builder<X509_ATTRIBUTE>([&] { return create_printablestring_attr(nid, "ABC"); },
                                i2d_X509_ATTRIBUTE, X509_ATTRIBUTE_free,
                                attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("ABC")}));
}

TEST_P(AttributesMemory, NumberAttribute) {
  sweep_builder<X509_ATTRIBUTE>([&] { return create_printablestring_attr_num(nid, -19); },
                                i2d_X509_ATTRIBUTE, X509_ATTRIBUTE_free,
                                attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("-19")}));
}

TEST_P(AttributesMemory, GenTxAttrs) {
  X509_ATTRIBUTE **made = nullptr;
  int count = 0;
  const std::vector<std::string> expected = {
      attribute(PKI_OID_SCEP_MESSAGE_TYPE, {printable("3")}),
      attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("id")}),
      attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string("s")}),
      attribute(PKI_OID_SCEP_RECIPIENT_NONCE, {octet_string("r")}),
      attribute(PKI_OID_SCEP_PKI_STATUS, {printable("2")}),
      attribute(PKI_OID_SCEP_FAIL_INFO, {printable("4")})};
  sweep(
      [&] {
        made = gen_tx_attrs(3, "id", "s", 1, "r", 1, 2, 4, &count);
        return made ? PKI_OK : PKI_OUT_OF_MEMORY;
      },
      [&](int code) {
        if (code == PKI_OK) {
          ASSERT_EQ(count, 6);
          for (size_t i = 0; i < 6; i++) {
            EXPECT_EQ(encode<X509_ATTRIBUTE>(made[i], i2d_X509_ATTRIBUTE), expected[i]);
            X509_ATTRIBUTE_free(made[i]);
          }
        }
        free(made);
        support::clear_openssl_errors();
      },
      {PKI_OUT_OF_MEMORY});
}

// ---- IssuerAndSubject ----

std::string der_of(const SCEP_ISSUER_AND_SUBJECT *pair) {
  std::string octets(static_cast<size_t>(i2d_SCEP_ISSUER_AND_SUBJECT(pair, nullptr)), '?');
  auto *out = reinterpret_cast<unsigned char *>(octets.data());
  i2d_SCEP_ISSUER_AND_SUBJECT(pair, &out);
  return octets;
}

TEST_P(AttributesMemory, IssuerAndSubjectNew) {
  SCEP_ISSUER_AND_SUBJECT *made = nullptr;
  sweep(
      [&] {
        made = SCEP_ISSUER_AND_SUBJECT_new();
        return made ? PKI_OK : PKI_OUT_OF_MEMORY;
      },
      [&](int) {
        SCEP_ISSUER_AND_SUBJECT_free(made);
        support::clear_openssl_errors();
      },
      {PKI_OUT_OF_MEMORY});
}

TEST_P(AttributesMemory, IssuerAndSubjectDecoded) {
  const std::string whole = der_of(make_ias().get());
  SCEP_ISSUER_AND_SUBJECT *made = nullptr;
  sweep(
      [&] {
        const auto *in = reinterpret_cast<const unsigned char *>(whole.data());
        made = d2i_SCEP_ISSUER_AND_SUBJECT(nullptr, &in, static_cast<long>(whole.size()));
        return made ? PKI_OK : PKI_OUT_OF_MEMORY;
      },
      [&](int code) {
        if (code == PKI_OK) {
          EXPECT_EQ(der_of(made), whole);
          EXPECT_EQ(ERR_peek_error(), 0u);
        } else {
          EXPECT_NE(ERR_peek_error(), 0u);
        }
        SCEP_ISSUER_AND_SUBJECT_free(made);
        support::clear_openssl_errors();
      },
      {PKI_OUT_OF_MEMORY});
}

TEST_P(AttributesMemory, IssuerAndSubjectDecodedIntoARecordOfTheCallers) {
  const std::string whole = der_of(make_ias().get());
  ias record;
  sweep(
      [&] {
        const auto *in = reinterpret_cast<const unsigned char *>(whole.data());
        SCEP_ISSUER_AND_SUBJECT *given = record.get();
        auto *made = d2i_SCEP_ISSUER_AND_SUBJECT(&given, &in, static_cast<long>(whole.size()));
        EXPECT_EQ(given, record.get());
        return made ? PKI_OK : PKI_OUT_OF_MEMORY;
      },
      [&](int code) {
        if (code == PKI_OK) {
          EXPECT_EQ(der_of(record.get()), whole);
        }
        support::clear_openssl_errors();
      },
      {PKI_OUT_OF_MEMORY}, PKI_OK,
      [&] { record = make_ias(support::common_name("a"), support::common_name("b")); });
}

TEST_P(AttributesMemory, IssuerAndSubjectEncoded) {
  const std::string whole = der_of(make_ias().get());
  ias pair;
  std::string octets;
  sweep(
      [&] {
        // Changed names are encoded anew, which takes memory.
        const int length = i2d_SCEP_ISSUER_AND_SUBJECT(pair.get(), nullptr);
        if (length <= 0)
          return PKI_OUT_OF_MEMORY;
        {
          fake_allocator::pause no_failures;
          EXPECT_EQ(static_cast<size_t>(length), whole.size());
          octets.assign(static_cast<size_t>(length), '?');
        }
        auto *out = reinterpret_cast<unsigned char *>(octets.data());
        return i2d_SCEP_ISSUER_AND_SUBJECT(pair.get(), &out) == length ? PKI_OK : PKI_OUT_OF_MEMORY;
      },
      [&](int code) {
        if (code == PKI_OK) {
          EXPECT_EQ(octets, whole);
        }
        support::clear_openssl_errors();
      },
      {PKI_OUT_OF_MEMORY}, PKI_OK,
      [&] {
        pair = make_ias();
        for (X509_NAME *each : {pair->issuer, pair->subject}) {
          // Marks the name as changed.
          X509_NAME_ENTRY *last = X509_NAME_delete_entry(each, X509_NAME_entry_count(each) - 1);
          X509_NAME_add_entry(each, last, -1, 0);
          X509_NAME_ENTRY_free(last);
        }
      });
}

INSTANTIATE_TEST_SUITE_P(Failing, AttributesMemory, testing::Bool(), failing);

}  // namespace
