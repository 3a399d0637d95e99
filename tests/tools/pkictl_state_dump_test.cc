#include <gtest/gtest.h>

#include <filesystem>

#include "state_fixture.h"
#include "tools/common/keys.h"
#include "tools/common/text.h"

namespace {

using tool_test::folder;
using tool_test::is_one_line;
using tool_test::result;
using tool_test::state_test;
using tool_test::strings;

bool contains(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

struct dump_test : state_test {
  dump_test() { EXPECT_EQ(make_key("device").exit_code, 0); }

  // The private key's own numbers, as a dump prints them.
  std::string key_hex() const {
    pkictl::saved_state state = tool_test::decoded(octets());
    unsigned char *der = nullptr;
    int length = i2d_PrivateKey(state.keys["device"].pair.get(), &der);
    std::string text(der, der + length);
    OPENSSL_free(der);
    return tools::hex(text);
  }
};

TEST(PkictlStateDump, ShowsTheStateWithoutItsKeys) {
  dump_test test;
  result done = test.pkictl({"state", "dump"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_TRUE(
      done.out.starts_with("magic: `PKS1'\n"
                           "<STATE_ENVELOPE val=\"\">\n"
                           "<STATE_START val=\"\">\n"
                           "  <CAS_START val=\"\">\n"
                           "  <CAS_END val=\"\">\n"
                           "  <KEYS_START val=\"\">\n"
                           "    <KEY_START val=\"\">\n"
                           "      <LABEL val=\"646576696365\">  \"device\"\n"
                           "      <PRIVATE_KEY_LENGTH val=\"01"))
      << done.out;
  EXPECT_TRUE(done.out.ends_with("<EOD val=\"\">\n")) << done.out;
  EXPECT_FALSE(contains(done.out, "<PRIVATE_KEY val="));
  EXPECT_FALSE(contains(done.out, test.key_hex().substr(16, 32)));
}

TEST(PkictlStateDump, ShowsTheKeysWhenAsked) {
  dump_test test;
  result done = test.pkictl({"state", "dump", "--secrets"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_TRUE(contains(done.out, "<PRIVATE_KEY val="));
  EXPECT_TRUE(contains(done.out, test.key_hex())) << done.out;
}

TEST(PkictlStateDump, NamesItsOwnTagsInAnyFile) {
  dump_test test;
  std::string copy = test.home.write("copy", test.octets());
  result done = tool_test::pkictl({"state", "dump", copy});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_TRUE(contains(done.out, "<PRIVATE_KEY_LENGTH val=")) << done.out;
}

TEST(PkictlStateDump, NamesOfOthersDoNotUncoverTheKeys) {
  dump_test test;
  std::string names = test.home.write("names", "21 LABEL\n");
  result done = test.pkictl({"state", "dump", "--names", names});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_TRUE(contains(done.out, "<17 val=\"646576696365\">")) << done.out;
  EXPECT_FALSE(contains(done.out, test.key_hex().substr(16, 32)));
}

TEST(PkictlStateDump, AnotherMagicDoesNotUncoverTheKeys) {
  dump_test test;
  std::string octets = test.octets();
  octets[0] = 'X';
  std::string copy = test.home.write("copy", octets);
  result done = tool_test::pkictl({"state", "dump", copy});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_TRUE(done.out.starts_with("magic: `XKS1'\n")) << done.out;
  EXPECT_FALSE(contains(done.out, test.key_hex().substr(16, 32)));
  done = tool_test::pkictl({"state", "dump", copy, "--magic", "0"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(done.err, "pkictl: the magic of a state has 4 octets; leave --magic out\n");
}

TEST(PkictlStateDump, DamagedStateIsShownOnlyWithItsSecrets) {
  dump_test test;
  std::string octets = test.octets();
  octets[octets.size() / 2] = static_cast<char>(octets[octets.size() / 2] ^ 1);
  test.write(octets);
  for (const strings &arguments : {strings{"state", "dump"}, strings{"state", "dump", test.file}}) {
    result done = test.pkictl(arguments);
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_EQ(done.out, "");
    EXPECT_EQ(done.err, "pkictl: " + test.file +
                            " is damaged, so that the private keys in it cannot be told from the"
                            " rest; --secrets shows all of it\n");
  }
  EXPECT_TRUE(contains(test.pkictl({"state", "dump", "--secrets"}).out, "<PRIVATE_KEY val="));
}

TEST(PkictlStateDump, StateHasToBeThere) {
  state_test test;
  std::filesystem::create_directory(test.dir);
  result done = test.pkictl({"state", "dump"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: there is no file " + test.file + "\n");
}

TEST(PkictlStateDump, PemIsToldInOneLine) {
  dump_test test;
  std::string pem = test.home / "device.pem";
  ASSERT_EQ(test.pkictl({"key", "export", "device", "-o", pem}).exit_code, 0);
  result done = tool_test::pkictl({"state", "dump", pem});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.out, "");
  EXPECT_EQ(done.err, "pkictl: " + pem + " is PEM, no marshal stream; openssl reads it\n");
}

// ---- other streams ----

struct record_test {
  folder home;
  std::string file = home / "tunnel";

  record_test() { EXPECT_EQ(tool_test::run("marshal_record", {"write", file}).exit_code, 0); }
};

TEST(PkictlStateDump, ShowsAnotherStreamByNumber) {
  record_test test;
  result done = tool_test::pkictl({"state", "dump", test.file});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_TRUE(
      done.out.starts_with("magic: `TUN1'\n<1 val=\"\">\n<3 val=\"\">\n<5 val=\"686561647175"))
      << done.out;
}

TEST(PkictlStateDump, ShowsAnotherStreamByName) {
  record_test test;
  std::string names =
      test.home.write("names", "3 TUNNEL_START\n\n 4\tTUNNEL_END \n5 NAME\n255 LAST\n");
  result done = tool_test::pkictl({"state", "dump", test.file, "--names", names});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_TRUE(contains(done.out, "\n<TUNNEL_START val=\"\">\n  <NAME val=\"68656164717561"))
      << done.out;
  EXPECT_TRUE(contains(done.out, "\n<TUNNEL_END val=\"\">\n<2 val=\"")) << done.out;
}

TEST(PkictlStateDump, MagicMayHaveAnyLengthUpTo100) {
  record_test test;
  std::string stream = tool_test::read_file(test.file).substr(4);
  for (size_t length : {0u, 1u, 100u}) {
    std::string file = test.home.write("other", std::string(length, 'm') + stream);
    result done = tool_test::pkictl({"state", "dump", file, "--magic", std::to_string(length)});
    EXPECT_EQ(done.exit_code, 0) << done.err;
    EXPECT_TRUE(done.out.starts_with("magic: `" + std::string(length, 'm') + "'\n<1 val="))
        << done.out;
  }
  for (const char *length : {"-1", "101", "x"})
    EXPECT_EQ(tool_test::pkictl({"state", "dump", test.file, "--magic", length}).exit_code, 2);
}

TEST(PkictlStateDump, MagicDoesNotDriveTheTerminal) {
  record_test test;
  std::string stream = tool_test::read_file(test.file).substr(4);
  std::string file = test.home.write("other", "\x1b[2J" + stream);
  EXPECT_TRUE(tool_test::pkictl({"state", "dump", file}).out.starts_with("magic: `.[2J'\n"));
}

TEST(PkictlStateDump, StreamThatBreaksOffIsTold) {
  record_test test;
  std::string whole = tool_test::read_file(test.file);
  for (size_t length : {size_t{0}, size_t{3}, size_t{20}, whole.size() - 1}) {
    std::string file = test.home.write("cut", whole.substr(0, length));
    result done = tool_test::pkictl({"state", "dump", file});
    EXPECT_EQ(done.exit_code, 1) << length;
    EXPECT_EQ(done.err,
              "pkictl: " + file + " is no whole stream: BIO EOD (42); is --magic right?\n");
  }
}

TEST(PkictlStateDump, FileThatIsNoStreamIsOnlyTold) {
  folder home;
  for (const std::string &octets :
       {std::string("some text, as there is in many files that are no stream\n"),
        std::string("a first line\nand a second\n"), std::string("\x30\x82\x03\x01\x30\x82", 6),
        std::string("\x7f"
                    "ELF\x02\x01\x01\x02\x05",
                    9),
        std::string(), std::string("abc")}) {
    std::string file = home.write("other", octets);
    for (const strings &more : {strings{}, strings{"--magic", "0"}}) {
      strings arguments = {"state", "dump", file};
      arguments.insert(arguments.end(), more.begin(), more.end());
      result done = tool_test::pkictl(arguments);
      EXPECT_EQ(done.exit_code, 1) << octets;
      EXPECT_EQ(done.out, "") << octets;
      EXPECT_TRUE(done.err.starts_with("pkictl: " + file + " is no whole stream: ")) << done.err;
      EXPECT_TRUE(is_one_line(done.err)) << done.err;
    }
  }
}

TEST(PkictlStateDump, StreamThatBreaksOffIsShownAsFarAsItGoes) {
  record_test test;
  std::string file = test.home.write("cut", tool_test::read_file(test.file).substr(0, 25));
  EXPECT_TRUE(tool_test::pkictl({"state", "dump", file})
                  .out.starts_with("magic: `TUN1'\n<1 val=\"\">\n<3 val=\"\">\n<5 val="));
}

TEST(PkictlStateDump, StreamOfOneFieldNeedsNoStructure) {
  folder home;
  std::string file = home.write("field", std::string("MAGC\x05\x02hi\0\0", 10));
  result done = tool_test::pkictl({"state", "dump", file});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.out, "magic: `MAGC'\n<5 val=\"6869\">  \"hi\"\n<0 val=\"\">\n");
}

TEST(PkictlStateDump, BadNamesAreTold) {
  record_test test;
  for (const char *line : {"NAME 3", "3", "3 ", "256 NAME", "-1 NAME", "3NAME", "3 A\x1b[2J"}) {
    std::string names = test.home.write("names", std::string("1 ONE\n") + line + "\n");
    result done = tool_test::pkictl({"state", "dump", test.file, "--names", names});
    EXPECT_EQ(done.exit_code, 1) << line;
    EXPECT_EQ(done.err, "pkictl: " + names +
                            ", line 2: write a tag's number (0 to 255), a blank and its name\n");
  }
}

TEST(PkictlStateDump, PrintsNoJson) {
  record_test test;
  result done = tool_test::pkictl({"state", "dump", test.file, "--json"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(done.err, "pkictl: state dump prints text only; leave --json out\n");
  EXPECT_TRUE(contains(done.out, "\"message\": \"state dump prints text only; leave --json out\""));
}

TEST(PkictlStateDump, OutputThatIsFullIsTold) {
  record_test test;
  result done = tool_test::run(
      "/bin/sh", {"-c", "exec '" TOOL_DIR "/pkictl' state dump '" + test.file + "' >/dev/full"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(is_one_line(done.err)) << done.err;
  EXPECT_TRUE(contains(done.err, "cannot write to standard output")) << done.err;
}

}  // namespace
