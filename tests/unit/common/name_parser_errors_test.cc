#include <gtest/gtest.h>
#include <libpki/names.h>
#include <openssl/err.h>
#include <openssl/objects.h>

#include <string>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/certs.h"

namespace {

class NameParserErrors : public testing::Test {
 protected:
  void SetUp() override {
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override { support::clear_openssl_errors(); }

  // The code; also expects that no name is given out.
  int code_of(const std::string &text) {
    support::name before = support::common_name("before");
    X509_NAME *name = before.get();
    int code = parse_rfc1779_str(text.c_str(), &name);
    EXPECT_EQ(name, nullptr) << text;
    return code;
  }

  void expect_log(std::vector<log_entry> expected) {
    EXPECT_EQ(captured_log(), expected) << log_dump();
    clear_log();
  }
};

TEST_F(NameParserErrors, UnknownKeyIs53) {
  EXPECT_EQ(code_of("XYZ=1"), 53);
  expect_log({{3, "Unknown key `XYZ' in name 'XYZ=1'"}});
}

TEST_F(NameParserErrors, UnknownKeyIsNamedWithTheWholeText) {
  EXPECT_EQ(code_of("  CN=a,  XYZ =1, C=US "), 53);
  expect_log({{3, "Unknown key `XYZ' in name '  CN=a,  XYZ =1, C=US '"}});
}

TEST_F(NameParserErrors, UnknownKeyIsNamedWithoutOidPrefix) {
  EXPECT_EQ(code_of("oid.XYZ=1"), 53);
  expect_log({{3, "Unknown key `XYZ' in name 'oid.XYZ=1'"}});
}

TEST_F(NameParserErrors, OidPrefixNeedsItsDot) {
  EXPECT_EQ(code_of("OIDXYZ=1"), 53);
  expect_log({{3, "Unknown key `OIDXYZ' in name 'OIDXYZ=1'"}});
}

TEST_F(NameParserErrors, EmptyKeyIsUnknown) {
  EXPECT_EQ(code_of("=1"), 53);
  expect_log({{3, "Unknown key `' in name '=1'"}});
  EXPECT_EQ(code_of("OID.=1"), 53);
  expect_log({{3, "Unknown key `' in name 'OID.=1'"}});
}

TEST_F(NameParserErrors, NamesAreCaseSensitive) {
  EXPECT_EQ(code_of("cn=1"), 53);
  expect_log({{3, "Unknown key `cn' in name 'cn=1'"}});
}

// OpenSSL names some algorithms that nobody gave an identifier: no name could be encoded with them.
TEST_F(NameParserErrors, KeyWithoutAnIdentifierIsUnknown) {
  for (const std::string key : {"RC4-40", "rc4-40", "MD5-SHA1", "DES-EDE3", "OID.RC4-40"}) {
    std::string bare = key.starts_with("OID.") ? key.substr(4) : key;
    ASSERT_EQ(OBJ_length(OBJ_nid2obj(OBJ_txt2nid(bare.c_str()))), 0u) << bare;
    EXPECT_EQ(code_of(key + "=x"), 53) << key;
    expect_log({{3, "Unknown key `" + bare + "' in name '" + key + "=x'"}});
  }
}

TEST_F(NameParserErrors, KeyWithoutAnIdentifierIsUnknownBehindOthersToo) {
  EXPECT_EQ(code_of("CN=a, RC4-40=x, C=US"), 53);
  expect_log({{3, "Unknown key `RC4-40' in name 'CN=a, RC4-40=x, C=US'"}});
  EXPECT_EQ(ERR_peek_error(), 0ul);
}

TEST_F(NameParserErrors, MalformedNumberIsUnknown) {
  for (const char *key : {"9.9.9", "2", "2.5.4.x", ".2.5"})
    EXPECT_EQ(code_of(std::string(key) + "=1"), 53) << key;
}

TEST_F(NameParserErrors, KeyRunsToTheEqualsSignWhateverLiesBetween) {
  EXPECT_EQ(code_of("CN, O=x"), 53);
  expect_log({{3, "Unknown key `CN, O' in name 'CN, O=x'"}});
  EXPECT_EQ(code_of("CN=a,,C=US"), 53);
  expect_log({{3, "Unknown key `,C' in name 'CN=a,,C=US'"}});
  EXPECT_EQ(code_of("+CN=a"), 53);
  expect_log({{3, "Unknown key `+CN' in name '+CN=a'"}});
}

TEST_F(NameParserErrors, UnknownKeyIsCutAt99Characters) {
  std::string text = std::string(150, 'x') + "=1";
  EXPECT_EQ(code_of(text), 53);
  expect_log({{3, "Unknown key `" + std::string(99, 'x') + "' in name '" + text + "'"}});
}

TEST_F(NameParserErrors, HighOctetsInAKeyAreUnknown) {
  EXPECT_EQ(code_of("CN\xA0=1"), 53);
  expect_log({{3, "Unknown key `CN\xA0' in name 'CN\xA0=1'"}});
}

TEST_F(NameParserErrors, MissingEqualsSignIs54) {
  EXPECT_EQ(code_of("CN"), 54);
  expect_log({{4, "no '=' found for key 'CN' in string 'CN'"}});
}

TEST_F(NameParserErrors, MissingEqualsSignIsLoggedWithTheRestAndTheWhole) {
  EXPECT_EQ(code_of(" CN=a, O=b,  C US "), 54);
  expect_log({{4, "no '=' found for key 'C US ' in string ' CN=a, O=b,  C US '"}});
}

TEST_F(NameParserErrors, MissingEqualsSignOfALongText) {
  std::string text(10000, 'x');
  EXPECT_EQ(code_of(text), 54);
  expect_log({{4, "no '=' found for key '" + text + "' in string '" + text + "'"}});
}

TEST_F(NameParserErrors, TextIsNoFormat) {
  EXPECT_EQ(code_of("%s%n%d"), 54);
  expect_log({{4, "no '=' found for key '%s%n%d' in string '%s%n%d'"}});
}

TEST_F(NameParserErrors, EscapedSeparatorStillSeparates) {
  EXPECT_EQ(code_of("CN=a\\,b"), 54);
  expect_log({{4, "no '=' found for key 'b' in string 'CN=a\\,b'"}});
}

TEST_F(NameParserErrors, QuotedValueThatNeverClosesIs55) {
  for (const char *text :
       {"CN=\"", "CN=\"a, b", "CN=  \"a, C=US", "C=US, CN=\"a", "CN=\"a\", O=\""})
    EXPECT_EQ(code_of(text), 55) << text;
  expect_log({});
}

TEST_F(NameParserErrors, OpenQuoteIsFoundBeforeTheUnknownKey) {
  EXPECT_EQ(code_of("XYZ=\"a"), 55);
  expect_log({});
}

TEST_F(NameParserErrors, NullOutputIs63) {
  EXPECT_EQ(parse_rfc1779_str("CN=a", nullptr), 63);
  EXPECT_EQ(parse_rfc1779_str(nullptr, nullptr), 63);
}

TEST_F(NameParserErrors, TextOf64KiBIsTheLongest) {
  std::string longest = "CN=" + std::string(64 * 1024 - 3, 'x');
  X509_NAME *name = nullptr;
  EXPECT_EQ(parse_rfc1779_str(longest.c_str(), &name), 0);
  EXPECT_EQ(X509_NAME_entry_count(name), 1);
  X509_NAME_free(name);
  EXPECT_EQ(code_of(longest + "x"), 63);
  expect_log({});
}

TEST_F(NameParserErrors, LengthIsThatOfTheWholeTextBlanksIncluded) {
  X509_NAME *name = nullptr;
  EXPECT_EQ(parse_rfc1779_str(std::string(64 * 1024, ' ').c_str(), &name), 0);
  EXPECT_EQ(X509_NAME_entry_count(name), 0);
  X509_NAME_free(name);
  EXPECT_EQ(code_of(std::string(64 * 1024 + 1, ' ')), 63);
}

TEST_F(NameParserErrors, TooLongTextIsRefusedWhateverItSays) {
  std::string rest(64 * 1024, 'x');
  for (const char *start : {"XYZ=", "CN", "CN=\""})
    EXPECT_EQ(code_of(start + rest), 63) << start;
  expect_log({});
}

// OpenSSL's queue may hold an allocation failure of an earlier call that was none of the parser's.
class NameParserStaleErrors : public NameParserErrors {
 protected:
  static constexpr int before = 101, behind = 102;

  static void queue_stale_errors() {
    support::raise_openssl_error(before);
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
    support::raise_openssl_error(behind);
  }
  static void expect_stale_errors() {
    for (int reason : {before, static_cast<int>(ERR_R_MALLOC_FAILURE), behind})
      EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), reason);
    EXPECT_EQ(ERR_get_error(), 0ul);
  }
};

TEST_F(NameParserStaleErrors, UnknownKeyIsStill53) {
  queue_stale_errors();
  EXPECT_EQ(code_of("XYZ=1"), 53);
  expect_log({{3, "Unknown key `XYZ' in name 'XYZ=1'"}});
  expect_stale_errors();
}

TEST_F(NameParserStaleErrors, ValueThatIsNoUtf8IsStillAccepted) {
  queue_stale_errors();
  X509_NAME *name = nullptr;
  EXPECT_EQ(parse_rfc1779_str("CN=\xE9", &name), 0);
  EXPECT_EQ(X509_NAME_entry_count(name), 1);
  X509_NAME_free(name);
  expect_log({});
  expect_stale_errors();
}

// The queue is a ring: stale entries may lie on either side of its seam.
TEST_F(NameParserStaleErrors, ChangeNothingWhereverInTheRingTheyLie) {
  for (int start = 0; start < 16; start++) {
    SCOPED_TRACE(start);
    support::raise_openssl_error(before);
    ERR_get_error();
    queue_stale_errors();
    EXPECT_EQ(code_of("XYZ=1"), 53);
    X509_NAME *name = nullptr;
    EXPECT_EQ(parse_rfc1779_str("CN=\xE9", &name), 0);
    X509_NAME_free(name);
    expect_stale_errors();
  }
}

TEST_F(NameParserStaleErrors, ChangeNothingWhenTheyFillTheRing) {
  for (int i = 0; i < 15; i++)
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(code_of("XYZ=1"), 53);
  X509_NAME *name = nullptr;
  EXPECT_EQ(parse_rfc1779_str("CN=\xE9", &name), 0);
  EXPECT_NE(name, nullptr);
  X509_NAME_free(name);
  EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), ERR_R_MALLOC_FAILURE);
}

std::string der_of(const X509_NAME *name) {
  unsigned char *der = nullptr;
  int length = i2d_X509_NAME(name, &der);
  std::string octets(reinterpret_cast<char *>(der), length > 0 ? static_cast<size_t>(length) : 0);
  OPENSSL_free(der);
  return octets;
}

class NameParserMemory : public NameParserErrors {
 protected:
  // Fails every allocation of parsing `text` in turn: 2 and no name, or, where OpenSSL can do
  // without the memory, the whole name.
  void expect_out_of_memory(const char *text, bool stay_failed) {
    X509_NAME *name = nullptr;
    ASSERT_EQ(parse_rfc1779_str(text, &name), 0);  // OpenSSL's own set-up happens here
    std::string expected = der_of(name);
    X509_NAME_free(name);
    int code = -1;
    size_t out_of_memory = 0;
    fake_allocator::sweep(
        [&] {
          name = nullptr;
          code = parse_rfc1779_str(text, &name);
          if (!fake_allocator::has_failed())
            X509_NAME_free(name);
        },
        [&](size_t n) {
          out_of_memory += code == 2;
          if (code == 0) {
            EXPECT_EQ(der_of(name), expected) << "allocation " << n << " of " << text;
            X509_NAME_free(name);
          } else {
            EXPECT_EQ(code, 2) << "allocation " << n;
            EXPECT_EQ(name, nullptr) << "allocation " << n;
          }
          support::clear_openssl_errors();
        },
        stay_failed);
    EXPECT_GE(out_of_memory, 1u);
  }
};

TEST_F(NameParserMemory, RunningOutIs2) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  for (bool stay_failed : {false, true}) {
    expect_out_of_memory(nullptr, stay_failed);
    expect_out_of_memory("CN=device, O=Example, C=US", stay_failed);
    expect_out_of_memory("CN=\"a, b\"+OU=b\xC3\xA9; DC=x, emailAddress=a@b, C=US", stay_failed);
    expect_out_of_memory("CN=1, CN=2, CN=3, CN=4, CN=5, CN=6, CN=7, CN=8, CN=9", stay_failed);
  }
}

TEST_F(NameParserMemory, RunningOutAtADottedKeyIs2) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  expect_out_of_memory("CN=a, OID.1.2.3.4.5=b", false);
  expect_out_of_memory("CN=a, OID.1.2.3.4.5=b", true);
}

}  // namespace
