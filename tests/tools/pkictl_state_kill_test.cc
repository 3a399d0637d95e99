// A save of pkictl's state that is killed, or fails, at each of its system calls (strace does it).
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <map>
#include <sstream>

#include "state_fixture.h"

namespace {

using tool_test::result;
using tool_test::run;
using tool_test::state_test;
using tool_test::strings;

namespace fs = std::filesystem;

constexpr int killed = 128 + 9;

// The leak checker cannot work in a traced process.
result strace(const strings &options, const strings &command) {
  strings arguments = {"strace", "--quiet=path-resolution"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  arguments.push_back(TOOL_DIR "/pkictl");
  arguments.insert(arguments.end(), command.begin(), command.end());
  return run("/usr/bin/env", arguments, {"ASAN_OPTIONS=detect_leaks=0"});
}

struct system_call {
  std::string name;
  int number;  // among those of its name
};

class traced_state : public testing::Test {
 protected:
  void SetUp() override {
#ifdef PROCESSOR_IS_EMULATED
    GTEST_SKIP() << "the system calls would be the emulator's";
#endif
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the system calls are the same without the sanitizer";
#endif
    result tried = run("/usr/bin/env", {"strace", "-o", "/dev/null", "true"});
    if (tried.exit_code != 0)
      GTEST_SKIP() << "no process can be traced here: " << tried.err;
  }

  // Only the calls that have to do with the state: no other can change it.
  strings paths() const {
    strings options;
    for (const std::string &path : {test.dir, test.file, test.file + ".new", test.file + ".lock"}) {
      options.push_back("-P");
      options.push_back(path);
    }
    return options;
  }

  result traced(const strings &more, strings command) const {
    strings options = paths();
    options.insert(options.end(), more.begin(), more.end());
    command.insert(command.end(), {"--state", test.dir});
    return strace(options, command);
  }

  std::vector<system_call> calls_of(const strings &command) const {
    std::string log = test.home / "calls";
    EXPECT_EQ(traced({"-o", log}, command).exit_code, 0);
    std::istringstream lines(tool_test::read_file(log));
    std::vector<system_call> calls;
    std::map<std::string, int> counts;
    for (std::string line; std::getline(lines, line);) {
      std::string name = line.substr(0, line.find('('));
      // Not the lines about the end of the process, and about a 32-bit one.
      if (std::isalpha(static_cast<unsigned char>(name[0])))
        calls.push_back({name, ++counts[name]});
    }
    return calls;
  }

  result killed_at(const system_call &call, const strings &command) const {
    std::string injected =
        "inject=" + call.name + ":signal=KILL:when=" + std::to_string(call.number);
    return traced({"-o", "/dev/null", "-e", injected}, command);
  }

  result failing(const std::string &name, const std::string &path, const std::string &error) const {
    return strace({"-o", "/dev/null", "-P", path, "-e", "inject=" + name + ":error=" + error},
                  {"key", "remove", "b", "--state", test.dir});
  }

  state_test test;
};

TEST_F(traced_state, KilledSaveLeavesTheOldOrTheNewStateAndTheNextCallWorks) {
  const strings command = {"key", "remove", "b"};
  test.make_key("a");
  test.make_key("b");
  std::string before = test.octets();
  std::vector<system_call> calls = calls_of(command);
  std::string after = test.octets();
  ASSERT_NE(before, after);
  ASSERT_GE(calls.size(), 12u);
  int kept_old = 0;
  for (const system_call &call : calls) {
    SCOPED_TRACE(call.name + " " + std::to_string(call.number));
    test.write(before);
    ASSERT_EQ(killed_at(call, command).exit_code, killed);
    std::string octets = test.octets();
    EXPECT_TRUE(octets == before || octets == after);
    kept_old += octets == before;
    EXPECT_EQ(test.pkictl({"key", "list"}).exit_code, 0);
    EXPECT_EQ(test.pkictl({"key", "remove", "a"}).exit_code, 0);
    EXPECT_FALSE(fs::exists(test.file + ".new"));
  }
  EXPECT_GT(kept_old, 0);
  EXPECT_LT(kept_old, static_cast<int>(calls.size()));
}

TEST_F(traced_state, KilledFirstSaveLeavesNothingOrAWholeState) {
  const strings command = {"key", "generate", "a", "--bits", "512"};
  std::vector<system_call> calls = calls_of(command);
  ASSERT_GE(calls.size(), 10u);
  for (const system_call &call : calls) {
    SCOPED_TRACE(call.name + " " + std::to_string(call.number));
    fs::remove_all(test.dir);
    ASSERT_EQ(killed_at(call, command).exit_code, killed);
    bool has_folder = fs::exists(test.dir);
    std::string listed =
        has_folder ? test.pkictl({"key", "list"}).out : "no keys in " + test.dir + "\n";
    EXPECT_TRUE(listed == "no keys in " + test.dir + "\n" || listed == "a (RSA 512)\n") << listed;
    EXPECT_EQ(test.make_key("b").exit_code, 0);
  }
}

TEST_F(traced_state, SaveThatFailsLeavesTheOldStateAndNoNewFile) {
  test.make_key("a");
  test.make_key("b");
  std::string before = test.octets();
  const std::string fresh = test.file + ".new";
  struct failure {
    const char *call;
    std::string path;
    const char *error;
    std::string text;
  };
  for (const failure &wanted :
       {failure{"openat", test.file + ".lock", "EROFS",
                "cannot write " + test.file + ".lock: Read-only file system"},
        failure{"openat", test.file + ".lock", "EACCES",
                "cannot write " + test.file + ".lock: Permission denied"},
        failure{"flock", test.file + ".lock", "ENOLCK",
                "cannot lock " + test.file + ".lock: No locks available"},
        failure{"openat", test.file, "EIO", "cannot read " + test.file + ": Input/output error"},
        failure{"read", test.file, "EIO", "cannot read " + test.file + ": Input/output error"},
        failure{"openat", fresh, "EROFS", "cannot write " + test.file + ": Read-only file system"},
        failure{"write", fresh, "ENOSPC",
                "cannot write " + test.file + ": No space left on device"},
        failure{"fsync", fresh, "EIO", "cannot write " + test.file + ": Input/output error"},
        failure{"close", fresh, "EIO", "cannot write " + test.file + ": Input/output error"},
        failure{"rename", fresh, "EACCES", "cannot write " + test.file + ": Permission denied"}}) {
    SCOPED_TRACE(std::string(wanted.call) + " " + wanted.path + " " + wanted.error);
    result done = failing(wanted.call, wanted.path, wanted.error);
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_EQ(done.err, "pkictl: " + wanted.text + "\n");
    EXPECT_EQ(test.octets(), before);
    EXPECT_FALSE(fs::exists(fresh));
  }
}

TEST_F(traced_state, StateThatMayNotLastIsTold) {
  test.make_key("b");
  result done = failing("fsync", test.dir, "EIO");
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: cannot bring to the disk what was written to " + test.file +
                          ": Input/output error\n");
  EXPECT_TRUE(tool_test::decoded(test.octets()).keys.empty());
}

TEST_F(traced_state, FileSystemsWithoutFsyncOfFoldersWillDo) {
  test.make_key("b");
  EXPECT_EQ(failing("fsync", test.dir, "EINVAL").exit_code, 0);
}

TEST_F(traced_state, InterruptedCallsAreRepeated) {
  test.make_key("b");
  std::string once = ":error=EINTR:when=1";
  result done = traced({"-o", "/dev/null", "-e", "inject=read" + once, "-e", "inject=write" + once,
                        "-e", "inject=flock" + once},
                       {"key", "remove", "b"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_TRUE(tool_test::decoded(test.octets()).keys.empty());
}

}  // namespace
