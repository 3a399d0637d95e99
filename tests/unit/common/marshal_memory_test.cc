// Every allocation of every operation on streams fails once, alone and with all that follow: the
// operation ends in success with a right result, or in a documented code with nothing left over.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpki/error.h>
#include <libpki/marshal.h>
#include <openssl/err.h>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/certs.h"
#include "support/marshal_record.h"
#include "unit/common/failing.h"

namespace {

using support::block;
using support::decode;
using support::empty_stream;
using support::note;
using support::note_octets;
using support::note_owner;
using support::octets_in;
using support::record;
using support::stream;
using support::stream_of;
using testing::Contains;

// The parameter says whether failing goes on after the first failure.
struct MarshalMemory : testing::TestWithParam<bool> {
  void SetUp() override {
    if (!fake_allocator::available())
      GTEST_SKIP() << "this build's allocator cannot be replaced";
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override {
    fake_allocator::stop_failing();
    support::clear_openssl_errors();
    EXPECT_EQ(support::records_alive, 0);
    EXPECT_EQ(support::choices_alive, 0);
  }

  static void fill_without_keys(record *of) {
    support::fill(of);
    X509_free(of->cert);
    EVP_PKEY_free(of->public_key);
    EVP_PKEY_free(of->private_key);
    of->cert = nullptr;
    of->public_key = of->private_key = nullptr;
  }

  // Sweeps `operation`, which returns its code. After a failure the code must be one of `codes`,
  // or 0 where one did without the memory; `check(code)` looks at what is left and frees it. Only
  // every `step`-th allocation is made to fail.
  void sweep(const std::function<int()> &operation, const std::function<void(int)> &check,
             const std::vector<int> &codes, size_t least_failures = 1, size_t step = 1) {
    // OpenSSL fills its caches of algorithms and texts, also the ones for logging errors.
    EXPECT_EQ(operation(), 0) << log_dump();
    check(0);
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
    log_openssl_errors(3);
    int code = -1;
    size_t refused = 0, failures = 0;
    for (size_t n = 1;; n += step, failures++) {
      SCOPED_TRACE("allocation " + std::to_string(n));
      fake_allocator::fail_at(n, GetParam());
      code = operation();
      fake_allocator::stop_failing();
      if (!fake_allocator::has_failed())
        break;
      if (code != 0) {
        EXPECT_THAT(codes, Contains(code)) << log_dump();
        refused++;
      }
      // OpenSSL may queue something when it does without the memory, or when it frees a key.
      EXPECT_TRUE(code == 0 || step > 1 || !ERR_peek_error());
      check(code);
      support::clear_openssl_errors();
      clear_log();
    }
    EXPECT_GE(failures, least_failures);
    EXPECT_GT(refused, 0u);
    EXPECT_EQ(code, 0) << "with memory again\n" << log_dump();
    check(code);
  }

  // A new stream in memory, made while memory is there.
  static stream fresh_stream() {
    fake_allocator::pause no_failures;
    return empty_stream();
  }
  static stream fresh_stream(const std::string &octets) {
    fake_allocator::pause no_failures;
    return stream_of(octets);
  }

  // Writing must end in one of `codes`, or in the octets that it writes with memory.
  void sweep_writing(const std::function<int(BIO *)> &write, const std::vector<int> &codes) {
    stream out;
    stream first = empty_stream();
    ASSERT_EQ(write(first.get()), 0);
    const std::string expected = octets_in(first);
    sweep(
        [&] {
          out = fresh_stream();
          return write(out.get());
        },
        [&](int code) {
          EXPECT_EQ(BIO_find_type(out.get(), BIO_TYPE_MD), nullptr);
          if (code == 0) {
            EXPECT_TRUE(octets_in(out) == expected);
          }
        },
        codes);
  }

  // Reading must end in one of `codes` and no object, or in a whole one.
  template <class Object>
  void sweep_reading(const std::string &octets, marshal_dec_fn *dec, const void *desc,
                     const std::function<void(Object *)> &check_and_free,
                     const std::vector<int> &codes) {
    Object *target = nullptr;
    stream in;
    sweep(
        [&] {
          target = nullptr;
          in = fresh_stream(octets);
          return decode(in.get(), dec, &target, desc);
        },
        [&](int code) {
          ASSERT_EQ(code == 0, target != nullptr) << code;
          EXPECT_EQ(BIO_find_type(in.get(), BIO_TYPE_MD), nullptr);
          if (target)
            check_and_free(target);
        },
        codes);
  }
  static void check_note(note *of) {
    EXPECT_STREQ(of->text, "a note");
    EXPECT_EQ(of->number, 42);
    support::free_note(of);
    EXPECT_EQ(support::notes_alive, 0);
  }
};

// ---- writing ----

TEST_P(MarshalMemory, WriteBlock) {
  const std::string data(3000, 'x');
  sweep_writing([&](BIO *out) { return write_block(out, 1, data.data(), 3000); },
                {PKI_OUT_OF_MEMORY});
}

TEST_P(MarshalMemory, WritingARecord) {
  support::record_owner sent;
  fill_without_keys(sent.object);
  sweep_writing(
      [&](BIO *out) { return marshall(out, sent.object, &support::record_item, "MAGIC", 5); },
      {PKI_OUT_OF_MEMORY});
}

TEST_P(MarshalMemory, EncodersOfKeys) {
  support::key pair = support::test_key(0);
  for (marshal_enc_fn *enc : {enc_pub_key, enc_prv_key}) {
    EVP_PKEY *copy = nullptr;
    stream out = empty_stream();
    sweep(
        [&] {
          {
            fake_allocator::pause no_failures;
            copy = EVP_PKEY_dup(pair.get());
          }
          return enc(out.get(), &copy, 1, nullptr);
        },
        [&](int) { EVP_PKEY_free(copy); }, {PKI_OUT_OF_MEMORY, PKI_KEY_CONV_ERROR}, 3,
        fake_allocator::sweep_step(7));
  }
}

TEST_P(MarshalMemory, NewWriteBuffer) {
  BIO *made = nullptr;
  int untouched = 0;
  sweep(
      [&] {
        made = reinterpret_cast<BIO *>(&untouched);
        return new_write_buffer(&made, 100);
      },
      [&](int code) {
        ASSERT_EQ(code == 0, made != nullptr);
        BIO_free(made);
      },
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_BIO_BUF_SET_FAILED}, 3);
}

TEST_P(MarshalMemory, PushMdBio) {
  BIO *bottom = BIO_new(BIO_s_mem());
  BIO *chain = nullptr;
  sweep(
      [&] {
        chain = bottom;
        return push_md_bio(&chain, EVP_sha1());
      },
      [&](int code) {
        EXPECT_EQ(code == 0, chain != bottom);
        if (chain != bottom)
          pop_md_bio(&chain);
        EXPECT_EQ(BIO_next(bottom), nullptr);
      },
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_FAILED_TO_SET_MD}, 2);
  BIO_free(bottom);
}

// ---- reading ----

TEST_P(MarshalMemory, ReadBlock) {
  unsigned char *data = nullptr;
  int tag = 0, length = 0;
  const std::string octets = block(5, "abc");
  stream in;
  sweep(
      [&] {
        in = fresh_stream(octets);
        return read_block(in.get(), &tag, &length, &data);
      },
      [&](int code) {
        EXPECT_EQ(code == 0, data != nullptr);
        EXPECT_EQ(length, code ? 0 : 3);
        free(data);
        data = nullptr;
      },
      {PKI_OUT_OF_MEMORY});
}

TEST_P(MarshalMemory, MagicOfAnItem) {
  note *target = nullptr;
  const std::string octets = "MAGIC" + note_octets("a note", 42);
  stream in;
  sweep(
      [&] {
        target = nullptr;
        in = fresh_stream(octets);
        return unmarshall(in.get(), &target, &support::note_item, "MAGIC", 5);
      },
      [&](int code) {
        ASSERT_EQ(code == 0, target != nullptr);
        if (target)
          check_note(target);
      },
      {PKI_OUT_OF_MEMORY}, 4);
}

TEST_P(MarshalMemory, AStructure) {
  sweep_reading<note>(note_octets("a note", 42), dec_struct, &support::note_desc, check_note,
                      {PKI_OUT_OF_MEMORY});
}

TEST_P(MarshalMemory, AStack) {
  std::string octets = block(1);
  for (int i = 0; i < 20; i++)
    octets += note_octets("a note", 42, 0x87);
  sweep_reading<STACK>(octets + block(0x85), dec_stack, &support::notes_desc,
                       [](STACK *of) {
                         EXPECT_EQ(OPENSSL_sk_num(of), 20);
                         OPENSSL_sk_pop_free(of, support::free_note);
                       },
                       {PKI_OUT_OF_MEMORY});
  EXPECT_EQ(support::notes_alive, 0);
}

TEST_P(MarshalMemory, ADuplicateTextKeepsTheOldOne) {
  char *text = nullptr;
  const unsigned char data[] = {'n', 'e', 'w'};
  sweep(
      [&] {
        {
          fake_allocator::pause no_failures;
          text = strdup("old");
        }
        return dec_str(nullptr, 1, data, 3, &text, nullptr);
      },
      [&](int code) {
        EXPECT_STREQ(text, code ? "old" : "new");
        free(text);
      },
      {PKI_OUT_OF_MEMORY});
}

TEST_P(MarshalMemory, ARecord) {
  support::record_owner sent;
  fill_without_keys(sent.object);
  record *object = sent.object;
  const std::string octets = support::encoded(enc_struct, &object, 0x90, &support::record_desc);
  const int others = support::notes_alive;
  sweep_reading<record>(
      octets, dec_struct, &support::record_desc,
      [&](record *of) {
        record *address = of;
        fake_allocator::pause no_failures;
        EXPECT_EQ(support::encoded(enc_struct, &address, 0x90, &support::record_desc), octets);
        support::free_record(of);
        EXPECT_EQ(support::notes_alive, others);
      },
      {PKI_OUT_OF_MEMORY});
}

// ---- keys: OpenSSL allocates thousands of times for one ----

struct MarshalMemoryOfKeys : MarshalMemory {
  template <class Object>
  void sweep_field(marshal_enc_fn *write, Object *object, marshal_dec_fn *dec, const void *desc,
                   void (*release)(Object *), std::vector<int> codes) {
    const std::string octets = support::encoded(write, &object, 1);
    codes.push_back(PKI_OUT_OF_MEMORY);
    Object *target = nullptr;
    stream in;
    sweep(
        [&] {
          target = nullptr;
          in = fresh_stream(octets);
          return decode(in.get(), dec, &target, desc);
        },
        [&](int code) {
          EXPECT_EQ(code == 0, target != nullptr) << code;
          release(target);
        },
        codes, 3, fake_allocator::sweep_step(29));
  }
};

TEST_P(MarshalMemoryOfKeys, APublicKey) {
  sweep_field<EVP_PKEY>(support::enc_real_pub_key, support::test_key(0).get(), dec_pub_key, nullptr,
                        EVP_PKEY_free, {PKI_SPKI_DECODE_ERROR, PKI_KEY_CONV_ERROR});
}

TEST_P(MarshalMemoryOfKeys, APrivateKey) {
  sweep_field<EVP_PKEY>(support::enc_real_prv_key, support::test_key(0).get(), dec_prv_key, nullptr,
                        EVP_PKEY_free, {PKI_P8_DECODE_ERROR, PKI_KEY_CONV_ERROR});
}

TEST_P(MarshalMemoryOfKeys, ACertificate) {
  support::cert cert = support::make_cert();
  sweep_field<X509>(support::enc_real_cert, cert.get(), dec_asn1_struct, support::d2i(d2i_X509),
                    X509_free, {PKI_ASN1_DECODE_ERROR});
}

// A choice that stands twice: what the first left there must not leak when the second fails.
TEST_P(MarshalMemory, AnInlineChoiceThatStandsTwice) {
  const std::string text = block(0x97) + block(0x81, "text") + block(0x84);
  const std::string number = block(0x97) + support::int_block(0x82, 7) + block(0x84);
  const std::string aside = block(0x97) + note_octets("a note", 42, 0x83) + block(0x84);
  for (const std::string &first : {text, number, aside})
    for (const std::string &second : {text, number, aside})
      sweep_reading<record>(block(0x90) + first + second + block(0x9f), dec_struct,
                            &support::record_desc, support::free_record, {PKI_OUT_OF_MEMORY});
  EXPECT_EQ(support::notes_alive, 0);
}

// ---- envelopes ----

struct MarshalMemoryOfEnvelopes : MarshalMemory {
  // OpenSSL 3.0 spoils a key object when memory runs out while it is used, so each run has one of
  // its own, used once: OpenSSL leaks when memory runs out in the first use.
  void renew_key() {
    fake_allocator::pause no_failures;
    current.reset(EVP_PKEY_dup(pair.get()), EVP_PKEY_free);
    desc.sign_key = desc.verify_key = current.get();
    note *object = sent.object;
    stream out = empty_stream();
    EXPECT_EQ(create_sig(out.get(), &object, 1, &desc), 0);
    note *back = nullptr;
    EXPECT_EQ(decode(octets_in(out), verify_sig, &back, &desc), 0);
    support::free_note(back);
  }
  void TearDown() override {
    support::free_note(sent.object);
    sent.object = nullptr;
    EXPECT_EQ(support::notes_alive, 0);
    MarshalMemory::TearDown();
  }
  std::string written_by(marshal_enc_fn *create) {
    note *object = sent.object;
    return support::encoded(create, &object, 1, &desc);
  }
  void sweep_envelope_reading(marshal_enc_fn *create, marshal_dec_fn *verify,
                              const std::vector<int> &codes) {
    desc.sign_key = desc.verify_key = pair.get();
    const std::string octets = written_by(create);
    note *target = nullptr;
    stream in;
    sweep(
        [&] {
          if (verify == verify_sig)
            renew_key();
          target = nullptr;
          in = fresh_stream(octets);
          return decode(in.get(), verify, &target, &desc);
        },
        [&](int code) {
          ASSERT_EQ(code == 0, target != nullptr) << code;
          EXPECT_EQ(BIO_find_type(in.get(), BIO_TYPE_MD), nullptr);
          if (target) {
            EXPECT_STREQ(target->text, "a note");
          }
          support::free_note(target);
          EXPECT_EQ(support::notes_alive, 1);
        },
        codes, 4);
  }
  support::key pair = support::test_key(0);
  support::key current;
  note_owner sent{"a note", 42};
  marshal_envelope_desc desc = {0x20,       0x21,    0x22,   &support::note_desc,
                                EVP_sha1(), nullptr, nullptr};
};

TEST_P(MarshalMemoryOfEnvelopes, CreateDigest) {
  note *object = sent.object;
  sweep_writing([&](BIO *out) { return create_digest(out, &object, 1, &desc); },
                {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_FAILED_TO_SET_MD});
}

TEST_P(MarshalMemoryOfEnvelopes, CreateSignature) {
  note *object = sent.object;
  sweep_writing(
      [&](BIO *out) {
        renew_key();
        return create_sig(out, &object, 1, &desc);
      },
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_FAILED_TO_SET_MD, PKI_SIGN_FAILED});
}

TEST_P(MarshalMemoryOfEnvelopes, VerifyDigest) {
  sweep_envelope_reading(create_digest, verify_digest,
                         {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_FAILED_TO_SET_MD});
}

TEST_P(MarshalMemoryOfEnvelopes, VerifySignature) {
  sweep_envelope_reading(
      create_sig, verify_sig,
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_FAILED_TO_SET_MD, PKI_SIG_VERIFY_FAILED});
}

INSTANTIATE_TEST_SUITE_P(Failing, MarshalMemory, testing::Bool(), failing);
INSTANTIATE_TEST_SUITE_P(Failing, MarshalMemoryOfKeys, testing::Bool(), failing);
INSTANTIATE_TEST_SUITE_P(Failing, MarshalMemoryOfEnvelopes, testing::Bool(), failing);

// ---- how much is allocated ----

TEST(MarshalAllocations, DecodingAllocatesPayloadsAndObjectsOnly) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  std::string octets = block(0x10);
  for (int i = 0; i < 1000; i++)
    octets += support::int_block(support::note_number, i);
  octets += block(support::note_end);
  stream in = stream_of(octets);
  note *target = nullptr;
  fake_allocator::stop_failing();
  int code = decode(in.get(), dec_struct, &target, &support::note_desc);
  const size_t allocations = fake_allocator::allocations();
  EXPECT_EQ(code, 0);
  // The object, and at most one for each block with data.
  EXPECT_LE(allocations, 1001u);
  support::free_note(target);
}

}  // namespace
