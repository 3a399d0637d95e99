#include <gtest/gtest.h>
#include <libpki/error.h>

#include <climits>
#include <string>
#include <thread>

namespace {

// The interface itself, written out once more: callers compare numbers and log texts.
const char *const error_texts[] = {
    /* 0 */ "Ok",
    /* 1 */ "STORE ALL ZEROS",
    /* 2 */ "OUT OF MEMORY",
    /* 3 */ "INVALID HASH SIZE",
    /* 4 */ "INVALID HASH",
    /* 5 */ "P8 DECODE ERROR",
    /* 6 */ "KEY CONV ERROR",
    /* 7 */ "WRONG MAGIC",
    /* 8 */ "SPKI DECODE ERROR",
    /* 9 */ "BIO WRITE ERROR",
    /* 10 */ "BIO READ ERROR",
    /* 11 */ "BIO CREAT FAILED",
    /* 12 */ "BIO BUF SET FAILED",
    /* 13 */ "BIO BUF GET FAILED",
    /* 14 */ "ASN1 ENCODE ERROR",
    /* 15 */ "ASN1 DECODE ERROR",
    /* 16 */ "NO INFO FILE",
    /* 17 */ "COULDNT OPEN INFO FILE",
    /* 18 */ "COULDNT ACC INFO DIR",
    /* 19 */ "FAILED TO SET MD",
    /* 20 */ "P7 DECODE ERROR",
    /* 21 */ "P7 ENCRYPT FAILED",
    /* 22 */ "P7 DECRYPT FAILED",
    /* 23 */ "P7 DATAINIT FAILED",
    /* 24 */ "P7 DATAFINAL FAILED",
    /* 25 */ "P7 SIGN FAILED",
    /* 26 */ "P7 VERIFY FAILED",
    /* 27 */ "CERT CREATE FAILED",
    /* 28 */ "SIGNER NOT FOUND",
    /* 29 */ "SIG VERIFY FAILED",
    /* 30 */ "XML STATE STACK OVFL",
    /* 31 */ "XML STATE STACK UNDFL",
    /* 32 */ "XML ATTR NOT FOUND",
    /* 33 */ "XML CERT DEC FAILED",
    /* 34 */ "XML CA PTR PARSE ERROR",
    /* 35 */ "XML INTERNAL ERROR NO BUF",
    /* 36 */ "TIME DAY NOT FOUND",
    /* 37 */ "TIME INVALID MONTH",
    /* 38 */ "TIME YEAR NOT FOUND",
    /* 39 */ "TIME HOUR NOT FOUND",
    /* 40 */ "TIME MINUTES NOT FOUND",
    /* 41 */ "TIME SECONDS NOT FOUND",
    /* 42 */ "BIO EOD",
    /* 43 */ "BIO GET MDCTX FAILED",
    /* 44 */ "SIGN FAILED",
    /* 45 */ "INVALID URL",
    /* 46 */ "MKDIR FAILED",
    /* 47 */ "HTTP ERROR",
    /* 48 */ "HTTP READ RESP ERROR",
    /* 49 */ "CRYPTO LOCK FAILED",
    /* 50 */ "NO SUCH CA",
    /* 51 */ "NO SUCH KEY",
    /* 52 */ "NO SUCH CERT",
    /* 53 */ "DN UNKNOWN KEY",
    /* 54 */ "DN NO VALUE",
    /* 55 */ "DN OPEN QS",
    /* 56 */ "FAILED TO GEN CERT REQ",
    /* 57 */ "FAILED TO GEN CERT INIT",
    /* 58 */ "SCEP REQ REJ",
    /* 59 */ "INVALID SCEP RSP",
    /* 60 */ "NO SUPP CERT QRY METH",
    /* 61 */ "NO SUPP CERT REQ METH",
    /* 62 */ "FAILED TO GEN GET CERT",
    /* 63 */ "INVALID ARGS",
    /* 64 */ "UNKNOWN KEY ALG",
    /* 65 */ "KEY MISMATCH",
    /* 66 */ "NOT SIGNED-DATA",
    /* 67 */ "NO SIGNERS",
    /* 68 */ "ATTR NOT FOUND",
    /* 69 */ "ATTR NOT INT",
    /* 70 */ "ATTR NOT STRING",
    /* 71 */ "ATTR NOT OCTET STRING",
    /* 72 */ "INTERNAL ERROR",
    /* 73 */ "UNKNOWN P7 CONTENT-TYPE",
    /* 74 */ "INVALID DER",
    /* 75 */ "INVALID PUBLIC KEY",
    /* 76 */ "UNKNOWN KEY TYPE",
    /* 77 */ "TX CHECK FAILED",
    /* 78 */ "FLASH ERROR",
    /* 79 */ "UNLINK FAILED",
    /* 80 */ "LOCK FAILED",
    /* 81 */ "NO ENTRY",
    /* 82 */ "ENTRY TOO LARGE",
    /* 83 */ "BAD CRL SCOPE",
    /* 84 */ "UNKNOWN DIGEST ALG",
    /* 85 */ "TIME MISMATCH",
    /* 86 */ "UNKNOWN CRITICAL EXTENSION",
    /* 87 */ "OCSP ERROR",
};
constexpr unsigned code_count = sizeof error_texts / sizeof *error_texts;

TEST(ErrorTable, HasCodesZeroTo87) {
  EXPECT_EQ(code_count, 88u);
  EXPECT_EQ(PKI_ERROR_COUNT, 88);
}

TEST(ErrorTable, EveryCodeHasItsText) {
  for (unsigned code = 0; code < code_count; code++)
    EXPECT_STREQ(pki_strerror(code), error_texts[code]) << code;
}

TEST(ErrorTable, RowsAreInOrderWithoutGaps) {
  unsigned next = 0;
#define PKI_ERROR(code, name, text)         \
  EXPECT_EQ(unsigned{code}, next) << #name; \
  EXPECT_EQ(PKI_##name, code) << #name;     \
  next++;
#include <libpki/error_list.inc>
#undef PKI_ERROR
  EXPECT_EQ(next, code_count);
}

TEST(ErrorTable, KnownTextsStayWhereTheyAre) {
  const char *first = pki_strerror(50);
  pki_strerror(12345);
  EXPECT_EQ(pki_strerror(50), first);
  EXPECT_STREQ(first, "NO SUCH CA");
}

TEST(ErrorUnknownCode, LastKnownAndFirstUnknownCode) {
  EXPECT_STREQ(pki_strerror(87), "OCSP ERROR");
  EXPECT_STREQ(pki_strerror(88), "unknown status 88\n");
}

TEST(ErrorUnknownCode, IsPrintedSigned) {
  EXPECT_STREQ(pki_strerror(4294967295u), "unknown status -1\n");
  EXPECT_STREQ(pki_strerror(2147483647u), "unknown status 2147483647\n");
}

TEST(ErrorUnknownCode, LongestTextIsNotCut) {
  EXPECT_STREQ(pki_strerror(2147483648u), "unknown status -2147483648\n");
}

TEST(ErrorUnknownCode, NextUnknownCodeOverwritesTheText) {
  const char *first = pki_strerror(100);
  ASSERT_STREQ(first, "unknown status 100\n");
  pki_strerror(101);
  EXPECT_STREQ(first, "unknown status 101\n");
}

TEST(ErrorUnknownCode, KnownCodeLeavesTheTextAlone) {
  const char *text = pki_strerror(100);
  pki_strerror(87);
  EXPECT_STREQ(text, "unknown status 100\n");
}

TEST(ErrorUnknownCode, OtherThreadsHaveTheirOwnText) {
  const char *text = pki_strerror(100);
  std::string other;
  std::thread([&] { other = pki_strerror(200); }).join();
  EXPECT_EQ(other, "unknown status 200\n");
  EXPECT_STREQ(text, "unknown status 100\n");
}

}  // namespace
