// The file in which pkictl keeps its state.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <memory>

#include "state_fixture.h"

namespace {

using tool_test::background_pkictl;
using tool_test::exists;
using tool_test::mode_of;
using tool_test::result;
using tool_test::state_test;
using tool_test::strings;

namespace fs = std::filesystem;

TEST(PkictlState, IsOneFileForItsOwnerOnly) {
  state_test test;
  ASSERT_EQ(test.make_key("device").exit_code, 0);
  EXPECT_EQ(mode_of(test.dir), 0700u);
  EXPECT_EQ(mode_of(test.file), 0600u);
  EXPECT_EQ(mode_of(test.file + ".lock"), 0600u);
  EXPECT_EQ(std::distance(fs::directory_iterator(test.dir), fs::directory_iterator()), 2);
}

TEST(PkictlState, FileModeIsRestoredWhenItIsWritten) {
  state_test test;
  test.make_key("a");
  fs::permissions(test.file, fs::perms::all);
  test.make_key("b");
  EXPECT_EQ(mode_of(test.file), 0600u);
}

TEST(PkictlState, DefaultFolderIsInXdgStateHome) {
  tool_test::folder home;
  tool_test::pkictl({"key", "generate", "device"}, {"XDG_STATE_HOME=" + (home / "xdg")});
  EXPECT_TRUE(exists(home / "xdg/pkictl/state"));
}

TEST(PkictlState, ElseItIsInTheHomeFolder) {
  for (const char *xdg : {"XDG_STATE_HOME=", "XDG_STATE_HOME=relative/path"}) {
    tool_test::folder home;
    tool_test::pkictl({"key", "generate", "device"}, {xdg, "HOME=" + (home / "me")});
    EXPECT_TRUE(exists(home / "me/.local/state/pkictl/state"));
  }
}

TEST(PkictlState, WithoutAHomeFolderOneHasToBeGiven) {
  result done = tool_test::pkictl({"key", "list"}, {"XDG_STATE_HOME=", "HOME="});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: there is no home folder to keep the state in; give --state DIR\n");
}

TEST(PkictlState, RestOfACallThatWasKilledIsRemoved) {
  state_test test;
  test.make_key("a");
  test.home.write("state/state.new", "half a sta");
  EXPECT_EQ(test.pkictl({"key", "list"}).out, "a (RSA 512)\n");
  EXPECT_TRUE(exists(test.file + ".new"));  // reading changes nothing
  EXPECT_EQ(test.make_key("b").exit_code, 0);
  EXPECT_FALSE(exists(test.file + ".new"));
}

TEST(PkictlState, ReadingMakesNoFolder) {
  state_test test;
  EXPECT_EQ(test.pkictl({"key", "list"}).exit_code, 1);
  EXPECT_EQ(test.pkictl({"key", "export", "a"}).exit_code, 1);
  EXPECT_FALSE(exists(test.dir));
}

// ---- several calls at once ----

TEST(PkictlState, CallsAtOnceDoNotLoseWhatOthersSave) {
  constexpr int calls = 20;
  state_test test;
  std::vector<std::unique_ptr<background_pkictl>> running;
  for (int i = 0; i < calls; i++) {
    strings arguments = {"key",     "generate", "key-" + std::to_string(i), "--bits", "512",
                         "--state", test.dir};
    running.push_back(std::make_unique<background_pkictl>(arguments, strings()));
  }
  for (auto &call : running)
    EXPECT_EQ(call->wait().exit_code, 0);
  pkictl::saved_state state = tool_test::decoded(test.octets());
  EXPECT_EQ(state.keys.size(), size_t{calls});
}

TEST(PkictlState, OneOfTwoCallsForALabelMakesTheKey) {
  state_test test;
  strings arguments = {"key", "generate", "device", "--bits", "512", "--state", test.dir};
  background_pkictl one(arguments, {});
  background_pkictl other(arguments, {});
  EXPECT_EQ(one.wait().exit_code + other.wait().exit_code, 1);
  EXPECT_EQ(tool_test::decoded(test.octets()).keys.size(), 1u);
}

// ---- damaged files ----

std::vector<strings> commands_that_read(const std::string &device_file) {
  return {{"key", "list"},
          {"key", "list", "--json"},
          {"key", "generate", "other"},
          {"key", "remove", "device"},
          {"key", "export", "device"},
          {"cert", "export", "device", "cert"},
          {"cert", "find", "01", "--key", "device"},
          {"enroll", "--key", "device", "--subject", "CN=x"},
          {"provision", "http://127.0.0.1:1/", "--doc-key", device_file}};
}

TEST(PkictlStateDamage, IsToldInOneLineAndTheFileStays) {
  state_test test;
  test.make_key("device");
  std::string whole = test.octets();
  std::string key = test.home / "device.pem";
  ASSERT_EQ(test.pkictl({"key", "export", "device", "--public", "-o", key}).exit_code, 0);
  std::string changed = whole;
  changed[whole.size() / 2] = static_cast<char>(changed[whole.size() / 2] ^ 0x10);
  for (const std::string &octets : {std::string(), std::string("garbage"), changed,
                                    "XXXX" + whole.substr(4), whole.substr(0, whole.size() - 1)}) {
    test.write(octets);
    for (const strings &command : commands_that_read(key)) {
      result done = test.pkictl(command);
      EXPECT_EQ(done.exit_code, 1) << command[0] << " " << command[1];
      EXPECT_TRUE(
          done.err.starts_with("pkictl: " + test.file + " is damaged, or no state of this pkictl"))
          << done.err;
      EXPECT_TRUE(
          done.err.ends_with("; put a good copy in its place, or move it away to begin anew\n"))
          << done.err;
      EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
      EXPECT_EQ(done.err.find("INVALID ARGS"), std::string::npos) << done.err;
      EXPECT_EQ(test.octets(), octets);
    }
  }
}

TEST(PkictlStateDamage, CodeIsInTheJson) {
  state_test test;
  test.make_key("device");
  test.write("XXXX" + test.octets().substr(4));
  result done = test.pkictl({"key", "list", "--json"});
  EXPECT_EQ(nlohmann::json::parse(done.out)["error"]["name"], "PKI_WRONG_MAGIC");
}

TEST(PkictlStateDamage, FolderWhereTheFileBelongsIsTold) {
  state_test test;
  fs::create_directories(test.file);
  result done = test.make_key("device");
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: cannot read " + test.file + ": Is a directory\n");
}

// ---- places that take no file ----

TEST(PkictlStateWrite, FolderThatCannotBeMadeIsNamed) {
  state_test test;
  test.dir = test.home.write("file", "") + "/state";
  result done = test.make_key("device");
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: cannot make the folder " + test.dir + ": Not a directory\n");
}

// A limit of the process, which its children have too.
class file_size_limit {
 public:
  explicit file_size_limit(rlim_t octets) {
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit limit = {octets, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~file_size_limit() { setrlimit(RLIMIT_FSIZE, &before_); }
  file_size_limit(const file_size_limit &) = delete;
  file_size_limit &operator=(const file_size_limit &) = delete;

 private:
  rlimit before_ = {};
};

TEST(PkictlStateWrite, FileThatMayNotGrowStaysWithoutANewOneBesideIt) {
  state_test test;
  test.make_key("a");
  std::string before = test.octets();
  for (rlim_t octets : {0u, 1u, 100u}) {
    result done;
    {
      file_size_limit limit(octets);
      done = test.make_key("b");
    }
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_EQ(done.err, "pkictl: cannot write " + test.file + ": File too large\n");
    EXPECT_EQ(test.octets(), before);
    EXPECT_FALSE(exists(test.file + ".new"));
  }
}

TEST(PkictlStateWrite, LockThatIsALinkIsRefused) {
  state_test test;
  fs::create_directory(test.dir);
  fs::create_symlink(test.home / "elsewhere", test.file + ".lock");
  result done = test.make_key("device");
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_FALSE(exists(test.home / "elsewhere"));
}

}  // namespace
