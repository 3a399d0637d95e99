// OpenSSL refuses a BIO, or memory for one, without saying that memory ran out.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <libpki/error.h>
#include <libpki/marshal.h>

namespace {

bool refuse_new = false;
int refused_command = 0;  // of BIO_ctrl; 0: none

template <class Function>
Function *real(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

class MarshalRefusedBio : public testing::Test {
 protected:
  ~MarshalRefusedBio() override {
    refuse_new = false;
    refused_command = 0;
  }
};

}  // namespace

// In front of OpenSSL's.
extern "C" BIO *BIO_new(const BIO_METHOD *method) {
  static auto *const next = real<BIO *(const BIO_METHOD *)>("BIO_new");
  return refuse_new ? nullptr : next(method);
}

extern "C" long BIO_ctrl(BIO *bio, int command, long number, void *pointer) {
  static auto *const next = real<long(BIO *, int, long, void *)>("BIO_ctrl");
  return command == refused_command ? 0 : next(bio, command, number, pointer);
}

namespace {

TEST_F(MarshalRefusedBio, WriteBufferWithoutABioIs11) {
  refuse_new = true;
  BIO *out = BIO_new_mem_buf("", 0);
  BIO *kept = out;
  EXPECT_EQ(new_write_buffer(&out, 0), PKI_BIO_CREAT_FAILED);
  EXPECT_EQ(out, nullptr);
  BIO_free(kept);
}

TEST_F(MarshalRefusedBio, WriteBufferThatTakesNoMemoryIs12) {
  refused_command = BIO_C_SET_BUF_MEM;
  BIO *out = nullptr;
  EXPECT_EQ(new_write_buffer(&out, 0), PKI_BIO_BUF_SET_FAILED);
  EXPECT_EQ(out, nullptr);
}

TEST_F(MarshalRefusedBio, DigestFilterWithoutABioIs11) {
  BIO *chain = BIO_new_mem_buf("octets", 6);
  BIO *before = chain;
  refuse_new = true;
  EXPECT_EQ(push_md_bio(&chain, EVP_sha1()), PKI_BIO_CREAT_FAILED);
  EXPECT_EQ(chain, before);
  BIO_free(before);
}

TEST_F(MarshalRefusedBio, DigestFilterThatTakesNoDigestIs19) {
  BIO *chain = BIO_new_mem_buf("octets", 6);
  BIO *before = chain;
  refused_command = BIO_C_SET_MD;
  EXPECT_EQ(push_md_bio(&chain, EVP_sha1()), PKI_FAILED_TO_SET_MD);
  EXPECT_EQ(chain, before);
  BIO_free(before);
}

TEST_F(MarshalRefusedBio, DigestFilterWithoutItsContextIs43) {
  // As create_digest asks for it, behind the structure.
  static const marshal_field no_fields[] = {{}};
  static const marshal_struct_desc nothing = {0, 2, [] { return malloc(1); }, free, 0, no_fields};
  marshal_envelope_desc desc = {1, 3, 4, &nothing, EVP_sha1(), nullptr, nullptr};
  BIO *out = nullptr;
  ASSERT_EQ(new_write_buffer(&out, 0), PKI_OK);
  void *object = malloc(1);
  refused_command = BIO_C_GET_MD_CTX;
  EXPECT_EQ(create_digest(out, &object, 1, &desc), PKI_BIO_GET_MDCTX_FAILED);
  free(object);
  BIO_free(out);
}

}  // namespace
