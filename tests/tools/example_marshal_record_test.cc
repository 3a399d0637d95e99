// examples/marshal_record.c, and the listing of its file in docs/marshal-format.md.
#include <gtest/gtest.h>

#include <regex>

#include "run_tool.h"

namespace {

using tool_test::folder;
using tool_test::result;
using tool_test::run;

constexpr int done = 0;
constexpr int refused = 1;
constexpr int failed = 2;

result record(const std::string &command, const std::string &file) {
  return run("marshal_record", {command, file});
}

std::string written(const folder &dir) {
  EXPECT_EQ(record("write", dir / "tunnel").exit_code, done);
  return tool_test::read_file(dir / "tunnel");
}

// The octets that the document lists: the hexadecimal pairs in front of each line's comment.
std::string listed_octets() {
  std::string text = tool_test::read_file(SOURCE_DIR "/docs/marshal-format.md");
  size_t start = text.find("54 55 4E 31");
  text = text.substr(start, text.find("```", start) - start);
  std::string octets;
  std::regex line("(?:^|\n) *((?:[0-9A-F]{2} )*[0-9A-F]{2})(?= |\n|$)");
  for (std::sregex_iterator it(text.begin(), text.end(), line), end; it != end; ++it) {
    std::string pairs = (*it)[1];
    for (size_t at = 0; at + 1 < pairs.size(); at += 3)
      octets += static_cast<char>(std::stoi(pairs.substr(at, 2), nullptr, 16));
  }
  return octets;
}

bool is_little_endian() {
  const int one = 1;
  return *reinterpret_cast<const char *>(&one) == 1;
}

TEST(ExampleMarshalRecord, WritesTheOctetsOfTheDocument) {
  if (!is_little_endian())
    GTEST_SKIP() << "the document lists the file of a little-endian machine";
  folder dir;
  EXPECT_EQ(written(dir), listed_octets());
}

TEST(ExampleMarshalRecord, ReadsBackWhatItWrote) {
  folder dir;
  written(dir);
  result read = record("read", dir / "tunnel");
  EXPECT_EQ(read.exit_code, done);
  EXPECT_EQ(read.out,
            "headquarters: vpn.example port 4500, created 1700000000\n"
            "  peer number 1234\n"
            "  network 192.0.2.0/24\n");
  EXPECT_EQ(read.err, "");
}

TEST(ExampleMarshalRecord, RefusesACopyThatWasChanged) {
  folder dir;
  std::string bytes = written(dir);
  bytes[bytes.find("vpn")] = 'V';
  result read = record("read", dir.write("changed", bytes));
  EXPECT_EQ(read.exit_code, refused);
  EXPECT_EQ(read.out, "");
  EXPECT_NE(read.err.find("INVALID HASH"), std::string::npos) << read.err;
}

TEST(ExampleMarshalRecord, RefusesACopyThatWasCutShort) {
  folder dir;
  std::string bytes = written(dir);
  result read = record("read", dir.write("short", bytes.substr(0, bytes.size() / 2)));
  EXPECT_EQ(read.exit_code, refused);
  EXPECT_NE(read.err.find("BIO EOD"), std::string::npos) << read.err;
}

TEST(ExampleMarshalRecord, RefusesAnotherMagic) {
  folder dir;
  std::string bytes = written(dir);
  bytes[3] = '2';
  result read = record("read", dir.write("other", bytes));
  EXPECT_EQ(read.exit_code, refused);
  EXPECT_NE(read.err.find("WRONG MAGIC"), std::string::npos) << read.err;
}

TEST(ExampleMarshalRecord, ShowsAStreamByTheNamesOfItsTags) {
  folder dir;
  written(dir);
  result dump = record("dump", dir / "tunnel");
  EXPECT_EQ(dump.exit_code, done);
  EXPECT_NE(dump.out.find("magic: `TUN1'\n"), std::string::npos);
  EXPECT_NE(dump.out.find("\n  <NAME val=\"686561647175617274657273\">\n"), std::string::npos);
  EXPECT_NE(dump.out.find("\n    <HOST val=\"76706E2E6578616D706C65\">\n"), std::string::npos);
}

TEST(ExampleMarshalRecord, WantsACommandThatItKnows) {
  folder dir;
  result other = record("reed", dir / "tunnel");
  EXPECT_EQ(other.exit_code, failed);
  EXPECT_TRUE(tool_test::is_one_line(other.err)) << other.err;
}

TEST(ExampleMarshalRecord, SaysWhatItCannotOpen) {
  folder dir;
  result read = record("read", dir / "missing");
  EXPECT_EQ(read.exit_code, failed);
  EXPECT_TRUE(tool_test::is_one_line(read.err)) << read.err;
}

}  // namespace
