// The tokeniser's three callbacks, on a context that a test sets up.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <libpki/error.h>
#include <openssl/err.h>

#include <cstring>
#include <string>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "pki/ca_info_context.h"
#include "support/ca_info_doc.h"
#include "unit/pki/xml_text.h"

namespace {

struct CaInfoHandlers : support::ca_info_test {
  void SetUp() override {
    support::ca_info_test::SetUp();
    pki::init_ca_info_context(&context, pki_store, ca.get());
  }

  void start(const char *element, std::vector<const char *> attributes = {}) {
    std::vector<const xmlChar *> pairs;
    for (const char *text : attributes)
      pairs.push_back(xml(text));
    pairs.push_back(nullptr);
    pki::start_tag_handler(&context, xml(element), attributes.empty() ? nullptr : pairs.data());
  }
  void text(const std::string &characters) {
    pki::text_handler(&context, xml(characters.c_str()), static_cast<int>(characters.size()));
  }
  void end(const char *element) { pki::end_tag_handler(&context, xml(element)); }

  // Fills the stack so that `state` is on top of a full one.
  void fill_stack(int state) {
    for (int i = 1; i < 39; i++)
      context.states[i] = pki::state_ignored;
    context.states[39] = state;
    context.top = 39;
  }
  int state() const { return context.states[context.top]; }
  std::string collected() {
    char *data = nullptr;
    long length = context.text ? BIO_get_mem_data(context.text.get(), &data) : 0;
    return std::string(data ? data : "", static_cast<size_t>(length));
  }

  pki::ca_info_context context = {};
};

TEST_F(CaInfoHandlers, FreshContextIsAtTheDocument) {
  EXPECT_EQ(context.top, 0);
  EXPECT_EQ(context.states[0], 2);
  EXPECT_EQ(context.store, pki_store);
  EXPECT_EQ(context.ca, ca.get());
  EXPECT_EQ(context.text, nullptr);
  EXPECT_EQ(context.error, PKI_OK);
}

TEST_F(CaInfoHandlers, StartPushesTheStateAndEndPopsIt) {
  start("QRNPkiConfig");
  EXPECT_EQ(context.top, 1);
  EXPECT_EQ(state(), 3);
  start("TrustedRoots");
  EXPECT_EQ(context.top, 2);
  EXPECT_EQ(state(), 9);
  end("TrustedRoots");
  EXPECT_EQ(state(), 3);
  end("QRNPkiConfig");
  EXPECT_EQ(context.top, 0);
  EXPECT_EQ(context.error, PKI_OK);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(CaInfoHandlers, EndWithoutStartUnderflows) {
  end("QRNPkiConfig");
  EXPECT_EQ(context.error, PKI_XML_STATE_STACK_UNDFL);
  EXPECT_EQ(context.top, 0);
}

TEST_F(CaInfoHandlers, FortiethStartOverflowsAndPushesNothing) {
  for (int i = 1; i <= 39; i++)
    start("x");
  EXPECT_EQ(context.top, 39);
  EXPECT_EQ(context.error, PKI_OK);
  start("y");
  EXPECT_EQ(context.top, 39);
  EXPECT_EQ(context.error, PKI_XML_STATE_STACK_OVFL);
  // The state on top acts as if it had been entered.
  EXPECT_TRUE(was_logged(4, "Parsing ca-info document: ignoring unexpected tag 'y'"));
}

TEST_F(CaInfoHandlers, ActionOfTheStateOnTopReplacesTheOverflow) {
  fill_stack(pki::state_scep);
  start("SCEP");
  EXPECT_EQ(context.error, PKI_XML_ATTR_NOT_FOUND);
  EXPECT_EQ(context.top, 39);
}

TEST_F(CaInfoHandlers, ActionThatSucceedsReplacesTheOverflowToo) {
  fill_stack(pki::state_scep);
  start("SCEP", {"url", "http://a/"});
  EXPECT_EQ(context.error, PKI_OK);
  EXPECT_EQ(context.top, 39);
  EXPECT_STREQ(scep_method()->url, "http://a/");
}

TEST_F(CaInfoHandlers, StateWithoutActionKeepsTheOverflow) {
  fill_stack(pki::state_trusted_roots);
  start("x");
  EXPECT_EQ(context.error, PKI_XML_STATE_STACK_OVFL);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(CaInfoHandlers, DocumentStateOnTopIsAnInternalError) {
  fill_stack(pki::state_document);
  start("x");
  EXPECT_EQ(context.error, PKI_XML_STATE_STACK_OVFL);
  EXPECT_TRUE(
      was_logged(3, "Internal error parsing ca-info document: unexpected state 2, tag 'x'"));
}

TEST_F(CaInfoHandlers, NothingHappensOnceAnErrorIsSet) {
  start("QRNPkiConfig");
  start("IssuerName");
  context.error = PKI_XML_CERT_DEC_FAILED;
  clear_log();
  text("CN=a");
  EXPECT_EQ(context.text, nullptr);
  end("IssuerName");
  EXPECT_EQ(context.top, 2);
  start("x");
  EXPECT_EQ(context.top, 2);
  EXPECT_EQ(context.error, PKI_XML_CERT_DEC_FAILED);
  EXPECT_EQ(ca->issuer_name, nullptr);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(CaInfoHandlers, TextIsCollectedOverSeveralCalls) {
  start("QRNPkiConfig");
  start("IssuerName");
  text("CN=");
  text("");
  text("some");
  text(" name");
  EXPECT_EQ(collected(), "CN=some name");
}

TEST_F(CaInfoHandlers, TextIsCollectedByItsLength) {
  context.states[0] = pki::state_issuer_name;
  pki::text_handler(&context, xml("CN=abc"), 4);
  EXPECT_EQ(collected(), "CN=a");
}

TEST_F(CaInfoHandlers, TextElsewhereIsDropped) {
  for (int state : {1, 2, 3, 6, 7, 8, 9, 10, 11, 13, 14, 15, 16, 17, 18, 19, 20, 21, 23, 24, 25}) {
    context.states[0] = state;
    text("text");
    EXPECT_EQ(context.text, nullptr) << state;
  }
}

TEST_F(CaInfoHandlers, TextIsGoneAfterTheElement) {
  start("QRNPkiConfig");
  start("IssuerName");
  text("CN=a");
  end("IssuerName");
  EXPECT_EQ(context.error, PKI_OK);
  EXPECT_EQ(collected(), "");
}

TEST_F(CaInfoHandlers, TextWithoutMemoryIsOutOfMemory) {
  if (!fake_allocator::available())
    GTEST_SKIP();
  context.states[0] = pki::state_issuer_name;
  fake_allocator::fail_at(1, true);
  pki::text_handler(&context, xml("CN=a"), 4);
  fake_allocator::stop_failing();
  EXPECT_EQ(context.error, PKI_OUT_OF_MEMORY);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
}

TEST_F(CaInfoHandlers, TextThatDoesNotFitIntoMemoryIsOutOfMemory) {
  if (!fake_allocator::available())
    GTEST_SKIP();
  context.states[0] = pki::state_issuer_name;
  text("CN=");
  std::string more(100000, 'a');
  fake_allocator::fail_at(1, true);
  pki::text_handler(&context, xml(more.c_str()), static_cast<int>(more.size()));
  fake_allocator::stop_failing();
  EXPECT_EQ(context.error, PKI_OUT_OF_MEMORY);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
}

// ---- a BIO that refuses ----

enum class bio_call { none, create, write, memory };

bio_call refused = bio_call::none;
int queued_reason = 0;  // in OpenSSL's queue when it is refused; 0: none

bool refuses(bio_call call) {
  if (refused != call)
    return false;
  if (queued_reason)
    support::raise_openssl_error(queued_reason);
  return true;
}

template <class Function>
Function *real(const char *name) {
  fake_allocator::pause no_failures;
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// In front of OpenSSL's.
extern "C" BIO *BIO_new(const BIO_METHOD *method) {
  static auto *const next = real<BIO *(const BIO_METHOD *)>("BIO_new");
  return refuses(bio_call::create) ? nullptr : next(method);
}

extern "C" int BIO_write(BIO *bio, const void *octets, int length) {
  static auto *const next = real<int(BIO *, const void *, int)>("BIO_write");
  return refuses(bio_call::write) ? -1 : next(bio, octets, length);
}

extern "C" long BIO_ctrl(BIO *bio, int command, long number, void *pointer) {
  static auto *const next = real<long(BIO *, int, long, void *)>("BIO_ctrl");
  if (command == BIO_CTRL_INFO && refuses(bio_call::memory))
    return 0;
  return next(bio, command, number, pointer);
}

namespace {

struct CaInfoRefusedBio : CaInfoHandlers {
  void TearDown() override {
    refused = bio_call::none;
    queued_reason = 0;
    EXPECT_EQ(ERR_peek_error(), 0u);
    CaInfoHandlers::TearDown();
  }
  // In a fresh context that has read `text`, `operation` finds `call` refused: `code`, or 2 when
  // OpenSSL says that memory ran out. What OpenSSL has to say goes into the log.
  template <class Operation>
  void expect_code_or_2(bio_call call, int state, const char *text, int code, Operation operation) {
    for (int reason : {0, 101, ERR_R_MALLOC_FAILURE}) {
      SCOPED_TRACE(reason);
      pki::init_ca_info_context(&context, pki_store, ca.get());
      context.states[context.top = 1] = state;
      if (*text)
        this->text(text);
      clear_log();
      refused = call;
      queued_reason = reason;
      operation();
      refused = bio_call::none;
      EXPECT_EQ(context.error, reason == ERR_R_MALLOC_FAILURE ? PKI_OUT_OF_MEMORY : code);
      ASSERT_EQ(captured_log().size(), reason ? 1u : 0u) << log_dump();
      if (reason) {
        EXPECT_TRUE(logged_containing(3, "OpenSSL error: error:")) << log_dump();
      }
    }
  }
};

TEST_F(CaInfoRefusedBio, TextWithoutABufferIs11) {
  expect_code_or_2(bio_call::create, pki::state_issuer_name, "", PKI_BIO_CREAT_FAILED,
                   [this] { text("CN=a"); });
  EXPECT_EQ(context.text, nullptr);
}

TEST_F(CaInfoRefusedBio, TextThatTheBufferDoesNotTakeIs9) {
  expect_code_or_2(bio_call::write, pki::state_issuer_name, "CN=", PKI_BIO_WRITE_ERROR,
                   [this] { text("a"); });
}

TEST_F(CaInfoRefusedBio, EndOfATextThatTheBufferDoesNotTakeIs9) {
  expect_code_or_2(bio_call::write, pki::state_issuer_name, "CN=a", PKI_BIO_WRITE_ERROR,
                   [this] { end("IssuerName"); });
  expect_code_or_2(bio_call::write, pki::state_expires, "1 Jan", PKI_BIO_WRITE_ERROR,
                   [this] { end("Expires"); });
  EXPECT_EQ(ca->issuer_name, nullptr);
  EXPECT_EQ(ca->expires.tm_mday, 0);
}

TEST_F(CaInfoRefusedBio, TextThatTheBufferDoesNotGiveIs13) {
  expect_code_or_2(bio_call::memory, pki::state_issuer_name, "CN=a", PKI_BIO_BUF_GET_FAILED,
                   [this] { end("IssuerName"); });
  expect_code_or_2(bio_call::memory, pki::state_expires, "1 Jan", PKI_BIO_BUF_GET_FAILED,
                   [this] { end("Expires"); });
  EXPECT_EQ(ca->issuer_name, nullptr);
  EXPECT_EQ(ca->expires.tm_mday, 0);
}

TEST_F(CaInfoRefusedBio, CertificateWithoutABase64FilterIs11) {
  expect_code_or_2(bio_call::create, pki::state_trusted_root_cert, "AAAA\n", PKI_BIO_CREAT_FAILED,
                   [this] { end("X509Certificate"); });
  EXPECT_EQ(OPENSSL_sk_num(ca->trusted_roots), 0);
  EXPECT_EQ(collected(), "") << "the text is dropped all the same";
}

}  // namespace
