// The parsers' characters are those of the POSIX locale, whatever locale the host has set.
#include <gtest/gtest.h>
#include <libpki/names.h>
#include <unistd.h>

#include <bit>
#include <cctype>
#include <clocale>
#include <cstdlib>
#include <ctime>
#include <string>

#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "support/certs.h"

namespace {

// Compiles a locale of the system's sources into a folder of its own and sets it.
class HostLocale : public testing::Test {
 protected:
  void SetUp() override {
    char path[] = "/tmp/libpki-locale-XXXXXX";
    folder = mkdtemp(path);
    clear_log();
  }
  void TearDown() override {
    setlocale(LC_ALL, "C");
    unsetenv("LOCPATH");
    fake_failures::reset();
    support::clear_openssl_errors();
    EXPECT_EQ(system(("rm -rf '" + folder + "'").c_str()), 0);
  }

  bool set(const std::string &source, const std::string &charset) {
    // It compiles for the machine that it runs on, which may emulate this one.
    std::string order =
        std::endian::native == std::endian::big ? "--big-endian" : "--little-endian";
    std::string compile = "localedef " + order + " -i " + source + " -f " + charset + " '" +
                          folder + "/host' " + ">/dev/null 2>&1";
    setenv("LOCPATH", folder.c_str(), 1);
    return system(compile.c_str()) == 0 && setlocale(LC_ALL, "host");
  }

  std::string folder;
};

TEST_F(HostLocale, OidPrefixIsFoundWhereTheSmallIHasAnotherCapital) {
  if (!set("tr_TR", "ISO-8859-9"))
    GTEST_SKIP() << "no Turkish locale here";
  ASSERT_NE(tolower('I'), 'i');
  X509_NAME *name = nullptr;
  EXPECT_EQ(parse_rfc1779_str("oid.2.5.4.3=x", &name), 0) << log_dump();
  X509_NAME_free(name);
}

TEST_F(HostLocale, HighLettersAreNoLettersOfAMonth) {
  if (!set("de_DE", "ISO-8859-1"))
    GTEST_SKIP() << "no Latin-1 locale here";
  ASSERT_NE(isalpha(0xE9), 0);
  struct tm time = {};
  EXPECT_EQ(parse_time_str("5 \xE9 Nov", &time), 38);
  EXPECT_EQ(time.tm_mon, 10);
}

TEST_F(HostLocale, HighLettersOfANameStayUtf8) {
  if (!set("de_DE", "ISO-8859-1"))
    GTEST_SKIP() << "no Latin-1 locale here";
  X509_NAME *name = nullptr;
  ASSERT_EQ(parse_rfc1779_str("CN=\xE9", &name), 0);
  const X509_NAME_ENTRY *entry = X509_NAME_get_entry(name, 0);
  EXPECT_EQ(ASN1_STRING_type(X509_NAME_ENTRY_get_data(entry)), V_ASN1_UTF8STRING);
  X509_NAME_free(name);
}

TEST_F(HostLocale, MonthsAreEnglish) {
  if (!set("de_DE", "ISO-8859-1"))
    GTEST_SKIP() << "no Latin-1 locale here";
  struct tm time = {};
  EXPECT_EQ(parse_time_str("5 Dec", &time), 38);
  EXPECT_EQ(parse_time_str("5 Dez", &time), 37);
}

}  // namespace
