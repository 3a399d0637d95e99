#include <gtest/gtest.h>

#include <filesystem>

#include "device.h"
#include "state_fixture.h"

namespace {

using nlohmann::json;
using tool_test::folder;
using tool_test::result;
using tool_test::strings;

struct key_state {
  folder home;
  std::string dir = home / "state";

  result key(strings arguments) const {
    arguments.insert(arguments.begin(), "key");
    arguments.insert(arguments.end(), {"--state", dir});
    return tool_test::pkictl(arguments);
  }
  std::string file() const { return dir + "/state"; }
  // Of the kept key; 0 for none.
  int bits(const std::string &label) const {
    pkictl::saved_state state = tool_test::decoded(tool_test::read_file(file()));
    return state.keys.count(label) ? EVP_PKEY_get_bits(state.keys[label].pair.get()) : 0;
  }
};

TEST(PkictlKey, GenerateMakesAKeyThatTlsTakesUnlessToldOtherwise) {
  key_state test;
  result done = test.key({"generate", "device"});
  ASSERT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.out, "made device (RSA 2048)\nsaved " + test.file() + "\n");
  EXPECT_EQ(done.err, "");
  EXPECT_EQ(test.bits("device"), 2048);
}

TEST(PkictlKey, GenerateWarnsOfAKeyThatTlsDoesNotTake) {
  key_state test;
  result done = test.key({"generate", "device", "--bits", "1024"});
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_EQ(done.err, "pkictl: warning: TLS on current systems takes no RSA key below 2048 bits\n");
  EXPECT_EQ(test.bits("device"), 1024);
}

TEST(PkictlKey, GenerateTakesASize) {
  key_state test;
  result done = test.key({"generate", "device", "--bits", "2048", "--json"});
  ASSERT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(
      json::parse(done.out),
      (json{
          {"key", {{"label", "device"}, {"type", "RSA"}, {"bits", 2048}, {"certs", json::array()}}},
          {"file", test.file()}}));
  EXPECT_EQ(test.bits("device"), 2048);
}

TEST(PkictlKey, GenerateLeavesAKeyThatIsThere) {
  key_state test;
  test.key({"generate", "device"});
  std::string before = tool_test::read_file(test.file());
  result done = test.key({"generate", "device"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err,
            "pkictl: there is a key device already; take another label, or remove it with"
            " 'pkictl key remove device --state " +
                test.dir + "'\n");
  EXPECT_EQ(tool_test::read_file(test.file()), before);
}

TEST(PkictlKey, SizesThatNobodyMakesAreWrongUsage) {
  key_state test;
  EXPECT_EQ(test.key({"generate", "device", "--bits", "511"}).exit_code, 2);
  EXPECT_EQ(test.key({"generate", "device", "--bits", "100000"}).exit_code, 2);
  EXPECT_FALSE(tool_test::exists(test.dir));
}

TEST(PkictlKey, ListOfNoKeysSaysSo) {
  key_state test;
  std::filesystem::create_directories(test.dir);
  EXPECT_EQ(test.key({"list"}).out, "no keys in " + test.dir + "\n");
  EXPECT_EQ(json::parse(test.key({"list", "--json"}).out), (json{{"keys", json::array()}}));
}

TEST(PkictlKey, ListOfNoDefaultFolderIsEmpty) {
  EXPECT_EQ(tool_test::pkictl({"key", "list"}, {"XDG_STATE_HOME=/nonexistent"}).out,
            "no keys in /nonexistent/pkictl\n");
}

TEST(PkictlKey, ListOfAFolderThatIsNotThereFails) {
  key_state test;
  result done = test.key({"list"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.out, "");
  EXPECT_EQ(done.err, "pkictl: there is no folder " + test.dir +
                          "; name the one that 'pkictl key generate' was given\n");
}

TEST(PkictlKey, HintsNameTheFolderAsAShellTakesIt) {
  key_state test;
  test.dir = test.home / "o'clock & 1";
  EXPECT_EQ(test.key({"remove", "a"}).err, "pkictl: there is no key a in " + test.dir +
                                               "; see 'pkictl key list --state " +
                                               (test.home / "o\\'clock\\ \\&\\ 1") + "'\n");
}

TEST(PkictlKey, HintsLeaveTheDefaultFolderOut) {
  folder home;
  result done = tool_test::pkictl({"key", "remove", "a"}, {"XDG_STATE_HOME=" + (home / "")});
  EXPECT_TRUE(done.err.ends_with("; see 'pkictl key list'\n")) << done.err;
}

TEST(PkictlKey, ListIsSorted) {
  key_state test;
  test.key({"generate", "b", "--bits", "1024"});
  test.key({"generate", "a", "--bits", "1024"});
  EXPECT_EQ(test.key({"list"}).out, "a (RSA 1024)\nb (RSA 1024)\n");
}

TEST(PkictlKey, RemoveTakesTheKeyAway) {
  key_state test;
  test.key({"generate", "a", "--bits", "1024"});
  test.key({"generate", "b", "--bits", "1024"});
  result done = test.key({"remove", "a"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.out, "removed a and 0 certificates\n");
  EXPECT_EQ(test.key({"list"}).out, "b (RSA 1024)\n");
}

TEST(PkictlKey, RemoveOfAKeyThatIsNotThereFails) {
  key_state test;
  result done = test.key({"remove", "a"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: there is no key a in " + test.dir +
                          "; see 'pkictl key list --state " + test.dir + "'\n");
}

TEST(PkictlKey, LabelsCannotLeaveTheFolder) {
  key_state test;
  for (const std::string &label :
       {std::string("../escape"), std::string("a/b"), std::string(".."), std::string(".hidden"),
        std::string(""), std::string("a\nb"), std::string("a b"), std::string(101, 'a')}) {
    for (const char *what : {"generate", "remove"}) {
      result done = test.key({what, label});
      EXPECT_EQ(done.exit_code, 2) << label;
      EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
    }
  }
  EXPECT_FALSE(tool_test::exists(test.dir));
}

TEST(PkictlKey, LongestLabelAndEveryCharacterOfALabelWork) {
  key_state test;
  for (const std::string &label : {std::string(100, 'a'), std::string("0._-@+Z")}) {
    EXPECT_EQ(test.key({"generate", label}).exit_code, 0) << label;
    EXPECT_EQ(test.bits(label), 2048) << label;
  }
}

}  // namespace
