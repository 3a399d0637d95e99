// OpenSSL refuses a BIO, what a BIO is asked, or the copy of a digest; some with a reason in its
// queue.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <libpki/error.h>
#include <libpki/marshal.h>
#include <openssl/err.h>

#include <functional>

#include "fakes/log_capture.h"
#include "support/certs.h"
#include "support/marshal.h"

namespace {

using support::block;
using support::decode;
using support::stream;

bool refuse_new = false;
bool refuse_copies = false;
int refused_command = 0;  // of BIO_ctrl; 0: none
int queued_reason = 0;    // 0: none

template <class Function>
Function *real(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

void refuse() {
  if (queued_reason)
    support::raise_openssl_error(queued_reason);
}

constexpr int own_reason = 101;

class MarshalRefusedBio : public testing::Test {
 protected:
  MarshalRefusedBio() {
    support::clear_openssl_errors();
    clear_log();
  }
  ~MarshalRefusedBio() override {
    refuse_new = refuse_copies = false;
    refused_command = queued_reason = 0;
    EXPECT_EQ(ERR_peek_error(), 0ul);
    support::clear_openssl_errors();
  }
  // `operation` gives `code` whether OpenSSL has a reason or not, and 2 when it says that memory
  // ran out; reasons go into the log at level 3.
  static void expect_code_or_2(int code, const std::function<int()> &operation) {
    EXPECT_EQ(operation(), code);
    EXPECT_TRUE(captured_log().empty()) << log_dump();
    queued_reason = own_reason;
    EXPECT_EQ(operation(), code);
    expect_a_reason();
    queued_reason = ERR_R_MALLOC_FAILURE;
    EXPECT_EQ(operation(), PKI_OUT_OF_MEMORY);
    EXPECT_TRUE(logged_containing(3, "malloc failure")) << log_dump();
    expect_a_reason();
  }
  static void expect_a_reason() {
    ASSERT_EQ(captured_log().size(), 1u) << log_dump();
    EXPECT_EQ(captured_log()[0].level, 3);
    EXPECT_EQ(captured_log()[0].text.rfind("OpenSSL error: error:", 0), 0u) << log_dump();
    clear_log();
  }
};

}  // namespace

// In front of OpenSSL's.
extern "C" BIO *BIO_new(const BIO_METHOD *method) {
  static auto *const next = real<BIO *(const BIO_METHOD *)>("BIO_new");
  if (!refuse_new)
    return next(method);
  refuse();
  return nullptr;
}

extern "C" long BIO_ctrl(BIO *bio, int command, long number, void *pointer) {
  static auto *const next = real<long(BIO *, int, long, void *)>("BIO_ctrl");
  if (command != refused_command)
    return next(bio, command, number, pointer);
  refuse();
  return 0;
}

extern "C" int EVP_MD_CTX_copy_ex(EVP_MD_CTX *out, const EVP_MD_CTX *in) {
  static auto *const next = real<int(EVP_MD_CTX *, const EVP_MD_CTX *)>("EVP_MD_CTX_copy_ex");
  if (!refuse_copies)
    return next(out, in);
  refuse();
  return 0;
}

namespace {

TEST_F(MarshalRefusedBio, WriteBufferWithoutABioIs11) {
  refuse_new = true;
  expect_code_or_2(PKI_BIO_CREAT_FAILED, [] {
    int untouched = 0;
    BIO *out = reinterpret_cast<BIO *>(&untouched);
    int code = new_write_buffer(&out, 0);
    EXPECT_EQ(out, nullptr);
    return code;
  });
}

TEST_F(MarshalRefusedBio, WriteBufferThatTakesNoMemoryIs12) {
  refused_command = BIO_C_SET_BUF_MEM;
  expect_code_or_2(PKI_BIO_BUF_SET_FAILED, [] {
    BIO *out = nullptr;
    int code = new_write_buffer(&out, 0);
    EXPECT_EQ(out, nullptr);
    return code;
  });
}

struct MarshalRefusedFilter : MarshalRefusedBio {
  ~MarshalRefusedFilter() override { BIO_free(before); }
  int push() {
    BIO *chain = before;
    int code = push_md_bio(&chain, EVP_sha1());
    EXPECT_EQ(chain, before);
    EXPECT_EQ(BIO_next(before), nullptr);
    return code;
  }
  BIO *before = BIO_new_mem_buf("octets", 6);
};

TEST_F(MarshalRefusedFilter, DigestFilterWithoutABioIs11) {
  refuse_new = true;
  expect_code_or_2(PKI_BIO_CREAT_FAILED, [this] { return push(); });
}

TEST_F(MarshalRefusedFilter, DigestFilterThatTakesNoDigestIs19) {
  refused_command = BIO_C_SET_MD;
  expect_code_or_2(PKI_FAILED_TO_SET_MD, [this] { return push(); });
}

// ---- envelopes ----

struct MarshalRefusedEnvelope : MarshalRefusedBio {
  int write(marshal_enc_fn *create) {
    stream out = support::empty_stream();
    int code = create(out.get(), &sent.object, 0, &desc);
    written = support::octets_in(out);
    return code;
  }
  int read(marshal_dec_fn *verify) {
    support::note *target = nullptr;
    int code = decode(written, verify, &target, &desc);
    EXPECT_EQ(target, nullptr);
    return code;
  }
  support::key pair = support::test_key(0);
  marshal_envelope_desc desc = {1, 3, 4, &support::note_desc, EVP_sha1(), pair.get(), pair.get()};
  support::note_owner sent{"a note", 42};
  std::string written;
};

TEST_F(MarshalRefusedEnvelope, DigestFilterWithoutItsContextIs43) {
  refused_command = BIO_C_GET_MD_CTX;
  for (marshal_enc_fn *create : {create_digest, create_sig}) {
    queued_reason = 0;
    expect_code_or_2(PKI_BIO_GET_MDCTX_FAILED, [&] { return write(create); });
  }
}

TEST_F(MarshalRefusedEnvelope, DigestThatIsNotCopiedIsOutOfMemoryWithOpensslsReason) {
  queued_reason = own_reason;
  for (marshal_enc_fn *create : {create_digest, create_sig}) {
    refuse_copies = true;
    EXPECT_EQ(write(create), PKI_OUT_OF_MEMORY);
    EXPECT_EQ(written, block(1) + support::note_octets("a note", 42, 4)) << "no check block";
    expect_a_reason();
    refuse_copies = false;
    ASSERT_EQ(write(create), PKI_OK);
    refuse_copies = true;
    EXPECT_EQ(read(create == create_digest ? verify_digest : verify_sig), PKI_OUT_OF_MEMORY);
    expect_a_reason();
  }
}

}  // namespace
