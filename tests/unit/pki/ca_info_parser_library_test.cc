// libxml2 is not linked: it comes with the first document of a process.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <sys/mman.h>

#include <string>
#include <thread>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "unit/pki/lifecycle_process.h"

namespace {

bool xml_library_is_loaded() {
  return dlsym(RTLD_DEFAULT, "xmlParseChunk") || dlopen(PKI_XML_SONAME, RTLD_LAZY | RTLD_NOLOAD);
}

int parse(const std::string &document, ca_info *info) {
  return parse_ca_info_doc(reinterpret_cast<const unsigned char *>(document.data()),
                           static_cast<int>(document.size()), pki_store, info);
}

int parse_sample() {
  ca_info *info = alloc_ca_info();
  int error = parse(support::sample().document, info);
  if (error == PKI_OK) {
    EXPECT_EQ(support::sample_difference(info), "");
  }
  free_ca_info(info);
  return error;
}

void loaded_with_the_first_document() {
  ASSERT_EQ(libpki_init(), PKI_OK);
  EXPECT_FALSE(xml_library_is_loaded());
  EXPECT_EQ(parse_sample(), PKI_OK);
  EXPECT_TRUE(xml_library_is_loaded());
}

TEST(XmlLibrary, IsLoadedWithTheFirstDocument) {
  EXPECT_IN_FRESH_PROCESS(loaded_with_the_first_document);
}

void refused_documents_load_nothing() {
  ASSERT_EQ(libpki_init(), PKI_OK);
  EXPECT_EQ(parse_ca_info_doc(nullptr, 0, pki_store, nullptr), PKI_INVALID_ARGS);
  EXPECT_FALSE(xml_library_is_loaded());
}

TEST(XmlLibrary, IsNotLoadedForArgumentsThatAreRefused) {
  EXPECT_IN_FRESH_PROCESS(refused_documents_load_nothing);
}

// What is loaded in its place, and what the log says.
void expect_not_loaded(const char *instead, const char *reason) {
  ASSERT_EQ(libpki_init(), PKI_OK);
  support::sample();
  clear_log();
  fake_failures::load_instead(instead);
  EXPECT_EQ(parse_sample(), PKI_OUT_OF_MEMORY);
  EXPECT_TRUE(logged_containing(3, "failed to load " PKI_XML_SONAME ": "));
  EXPECT_TRUE(logged_containing(3, reason));
  EXPECT_EQ(parse_sample(), PKI_OK);
}

void a_missing_library() {
  expect_not_loaded("libnowhere.so.1", "libnowhere.so.1");
}

TEST(XmlLibrary, ThatIsMissingIsCode2AndALineAndTriedAgain) {
  EXPECT_IN_FRESH_PROCESS(a_missing_library);
}

// One that the process has not loaded yet: of those that it started with, glibc loses some octets.
void a_library_without_the_functions() {
  expect_not_loaded("libresolv.so.2", "undefined symbol");
}

TEST(XmlLibrary, WithoutItsFunctionsIsCode2AndALineAndTriedAgain) {
  EXPECT_IN_FRESH_PROCESS(a_library_without_the_functions);
}

void first_documents_on_eight_threads() {
  ASSERT_EQ(libpki_init(), PKI_OK);
  support::sample();
  std::vector<int> codes(8, -1);
  std::vector<ca_info *> infos;
  for (size_t i = 0; i < codes.size(); i++)
    infos.push_back(alloc_ca_info());
  std::vector<std::thread> threads;
  // An empty document brings nothing into the store, which is the management thread's.
  for (size_t i = 0; i < codes.size(); i++)
    threads.emplace_back([&, i] { codes[i] = parse("<QRNPkiConfig/>", infos[i]); });
  for (std::thread &thread : threads)
    thread.join();
  for (size_t i = 0; i < codes.size(); i++) {
    EXPECT_EQ(codes[i], PKI_OK) << i;
    free_ca_info(infos[i]);
  }
}

TEST(XmlLibrary, CanBeWantedByManyThreadsAtOnce) {
  EXPECT_IN_FRESH_PROCESS(first_documents_on_eight_threads);
}

// In a copy of a process that has read no document, allocation `n` of its first one fails; tells
// the original through `done` when there were fewer.
void first_document_without_memory(size_t n, bool *done) {
  ca_info *info = alloc_ca_info();
  fake_allocator::fail_at(n);
  int error = parse("<QRNPkiConfig/>", info);
  bool failed = fake_allocator::has_failed();
  fake_allocator::stop_failing();
  free_ca_info(info);
  EXPECT_TRUE(error == PKI_OK || (failed && error == PKI_OUT_OF_MEMORY)) << error;
  EXPECT_EQ(parse_sample(), PKI_OK) << "the document behind it";
  *done = !failed;
}

void first_documents_without_memory() {
  ASSERT_EQ(libpki_init(), PKI_OK);
  support::sample();
  // OpenSSL's own first uses are not what this is about.
  support::raise_openssl_error(1);
  log_openssl_errors(7);
  void *shared =
      mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto *done = static_cast<bool *>(shared);
  size_t n = 0;
  while (!*done) {
    n++;
    ASSERT_TRUE(support::holds_in_copy([=] { first_document_without_memory(n, done); })) << n;
  }
  EXPECT_GT(n, 50u);
}

TEST(XmlLibrary, ThatRunsOutOfMemoryWhileItIsLoadedFailsThatDocumentOnly) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  EXPECT_IN_FRESH_PROCESS(first_documents_without_memory);
}

// What a host that reads XML itself sets for its thread, and what it hears. Its prototypes are
// written out: a test program has no need of libxml2's headers.
using xml_error_handler = void (*)(void *context, void *error);

int heard = 0;

void hear(void *, void *) {
  heard++;
}

template <class Function>
Function *xml_function(const char *name) {
  void *library = dlopen(PKI_XML_SONAME, RTLD_NOW);
  return library ? reinterpret_cast<Function *>(dlsym(library, name)) : nullptr;
}

class XmlErrorHandler : public support::ca_info_test {
 protected:
  void SetUp() override {
    support::ca_info_test::SetUp();
    ASSERT_TRUE(set && handler && context);
    heard = 0;
  }
  void TearDown() override {
    set(nullptr, nullptr);
    support::ca_info_test::TearDown();
  }
  // The host's handler and context are there again after a document that ends in `code`.
  void expect_kept(const std::string &document, int code) {
    SCOPED_TRACE(code);
    for (int *mine : {&host, static_cast<int *>(nullptr)})
      for (xml_error_handler own : {&hear, static_cast<xml_error_handler>(nullptr)}) {
        set(mine, own);
        EXPECT_EQ(parse(document), code);
        EXPECT_EQ(*handler(), own);
        EXPECT_EQ(*context(), mine);
      }
    EXPECT_EQ(heard, 0) << "the document's errors are not the host's";
  }

  int host = 0;
  void (*set)(void *, xml_error_handler) =
      xml_function<void(void *, xml_error_handler)>("xmlSetStructuredErrorFunc");
  xml_error_handler *(*handler)() = xml_function<xml_error_handler *()>("__xmlStructuredError");
  void **(*context)() = xml_function<void **()>("__xmlStructuredErrorContext");
};

TEST_F(XmlErrorHandler, OfTheHostIsPutBackAfterADocument) {
  expect_kept("<QRNPkiConfig/>", PKI_OK);
}

TEST_F(XmlErrorHandler, OfTheHostIsPutBackAfterAFailure) {
  expect_kept("<QRNPkiConfig>", PKI_XML_CA_PTR_PARSE_ERROR);
  expect_kept("<QRNPkiConfig>&unknown;</QRNPkiConfig>", PKI_XML_CA_PTR_PARSE_ERROR);
  expect_kept("<QRNPkiConfig><IssuerName/></QRNPkiConfig>", PKI_XML_INTERNAL_ERROR_NO_BUF);
}

TEST_F(XmlErrorHandler, OfTheHostIsPutBackWhereverMemoryRanOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  ASSERT_EQ(parse("<QRNPkiConfig/>"), PKI_OK);
  const std::string document = "<QRNPkiConfig/>";
  set(&host, hear);
  size_t failures = fake_allocator::sweep([&] { (void)parse(document); },
                                          [&](size_t n) {
                                            EXPECT_EQ(*handler(), &hear) << n;
                                            EXPECT_EQ(*context(), &host) << n;
                                          });
  EXPECT_GT(failures, 3u);
}

}  // namespace
