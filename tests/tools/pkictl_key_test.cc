#include <gtest/gtest.h>

#include "device.h"
#include "tools/common/keys.h"

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
  std::string file(const std::string &label) const { return dir + "/keys/" + label + ".pem"; }
};

TEST(PkictlKey, GenerateMakesAKeyOf1024BitsUnlessToldOtherwise) {
  key_state test;
  result done = test.key({"generate", "device"});
  ASSERT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.out, "made device (RSA 1024)\nsaved " + test.file("device") + "\n");
  EXPECT_EQ(done.err, "");
  EXPECT_EQ(EVP_PKEY_get_bits(tools::load_private_key(test.file("device")).get()), 1024);
}

TEST(PkictlKey, GenerateTakesASize) {
  key_state test;
  result done = test.key({"generate", "device", "--bits", "2048", "--json"});
  ASSERT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(json::parse(done.out)["key"], (json{{"label", "device"},
                                                {"type", "RSA"},
                                                {"bits", 2048},
                                                {"file", test.file("device")},
                                                {"certs", json::array()}}));
}

TEST(PkictlKey, KeysAreForTheOwnerOnly) {
  key_state test;
  ASSERT_EQ(test.key({"generate", "device"}).exit_code, 0);
  EXPECT_EQ(tool_test::mode_of(test.dir), 0700u);
  EXPECT_EQ(tool_test::mode_of(test.dir + "/keys"), 0700u);
  EXPECT_EQ(tool_test::mode_of(test.file("device")), 0600u);
}

TEST(PkictlKey, GenerateLeavesAKeyThatIsThere) {
  key_state test;
  test.key({"generate", "device"});
  std::string before = tool_test::read_file(test.file("device"));
  result done = test.key({"generate", "device"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err,
            "pkictl: there is a key device already; take another label, or remove it with"
            " 'pkictl key remove device'\n");
  EXPECT_EQ(tool_test::read_file(test.file("device")), before);
}

TEST(PkictlKey, SizesThatNobodyMakesAreWrongUsage) {
  key_state test;
  EXPECT_EQ(test.key({"generate", "device", "--bits", "511"}).exit_code, 2);
  EXPECT_EQ(test.key({"generate", "device", "--bits", "100000"}).exit_code, 2);
  EXPECT_FALSE(tool_test::exists(test.dir));
}

TEST(PkictlKey, ListOfNoKeysSaysSo) {
  key_state test;
  EXPECT_EQ(test.key({"list"}).out, "no keys\n");
  EXPECT_EQ(json::parse(test.key({"list", "--json"}).out), (json{{"keys", json::array()}}));
}

TEST(PkictlKey, ListIsSortedAndLeavesForeignFilesOut) {
  key_state test;
  test.key({"generate", "b"});
  test.key({"generate", "a"});
  test.home.write("state/keys/a.pem.Xy12zW", "the rest of an interrupted write");
  EXPECT_EQ(test.key({"list"}).out, "a (RSA 1024)\nb (RSA 1024)\n");
}

TEST(PkictlKey, RemoveTakesTheKeyAway) {
  key_state test;
  test.key({"generate", "a"});
  test.key({"generate", "b"});
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
                          "; make it with 'pkictl key generate a'\n");
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
    EXPECT_TRUE(tool_test::exists(test.file(label)));
  }
}

TEST(PkictlKey, DamagedKeyIsNamedAndStays) {
  key_state test;
  test.key({"generate", "device"});
  test.home.write("state/keys/device.pem", "garbage");
  for (const strings &arguments :
       {strings{"list"}, strings{"remove", "device"}, strings{"list", "--json"}}) {
    result done = test.key(arguments);
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_EQ(done.err, "pkictl: " + test.file("device") + " holds no private key (PEM or DER)\n");
  }
  EXPECT_EQ(tool_test::read_file(test.file("device")), "garbage");
}

TEST(PkictlKey, FolderThatCannotBeMadeIsNamed) {
  key_state test;
  test.dir = test.home.write("file", "") + "/state";
  result done = test.key({"generate", "device"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: cannot make the folder " + test.dir + ": Not a directory\n");
}

TEST(PkictlState, DefaultFolderIsInXdgStateHome) {
  folder home;
  tool_test::pkictl({"key", "generate", "device"}, {"XDG_STATE_HOME=" + (home / "xdg")});
  EXPECT_TRUE(tool_test::exists(home / "xdg/pkictl/keys/device.pem"));
}

TEST(PkictlState, ElseItIsInTheHomeFolder) {
  folder home;
  for (const char *xdg : {"XDG_STATE_HOME=", "XDG_STATE_HOME=relative/path"})
    tool_test::pkictl({"key", "generate", std::string(xdg).size() > 15 ? "b" : "a"},
                      {xdg, "HOME=" + (home / "me")});
  EXPECT_TRUE(tool_test::exists(home / "me/.local/state/pkictl/keys/a.pem"));
  EXPECT_TRUE(tool_test::exists(home / "me/.local/state/pkictl/keys/b.pem"));
}

TEST(PkictlState, WithoutAHomeFolderOneHasToBeGiven) {
  result done = tool_test::pkictl({"key", "list"}, {"XDG_STATE_HOME=", "HOME="});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: there is no home folder to keep the state in; give --state DIR\n");
}

}  // namespace
