// Files that get their places together, or not at all.
#include "tools/common/named_file.h"

#include <gtest/gtest.h>

#include "device.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"

namespace {

using tool_test::strings;
using tools::named_file;

class named_file_test : public testing::Test {
 protected:
  void put(named_file *file) {
    file->write("new", 0640);
    file->put();
    EXPECT_EQ(tool_test::read_file(path()), "new");
    EXPECT_EQ(tool_test::mode_of(path()), 0640u);
  }
  std::string path() const { return home_ / "file"; }
  strings names() const { return tools::list_folder(home_ / ""); }

  tool_test::folder home_;
};

TEST_F(named_file_test, NothingIsAtItsPlaceBeforeItIsPut) {
  named_file file(path(), false);
  file.write("new", 0644);
  EXPECT_FALSE(tool_test::exists(path()));
}

TEST_F(named_file_test, NewOneThatIsNotKeptIsRemoved) {
  for (bool force : {false, true}) {
    {
      named_file file(path(), force);
      put(&file);
    }
    EXPECT_EQ(names(), strings{});
  }
}

TEST_F(named_file_test, OldOneComesBackWhereTheNewOneIsNotKept) {
  home_.write("file", "old");
  {
    named_file file(path(), true);
    put(&file);
  }
  EXPECT_EQ(tool_test::read_file(path()), "old");
  EXPECT_EQ(names(), strings{"file"});
}

TEST_F(named_file_test, KeptOneStaysAlone) {
  for (bool force : {false, true}) {
    {
      named_file file(path(), force);
      put(&file);
      file.keep();
    }
    EXPECT_EQ(tool_test::read_file(path()), "new");
    EXPECT_EQ(names(), strings{"file"});
  }
}

TEST_F(named_file_test, OneThatAppearsMeanwhileIsNotReplacedWithoutForce) {
  {
    named_file file(path(), false);
    file.write("new", 0644);
    home_.write("file", "other");
    EXPECT_THROW(file.put(), tools::failure);
  }
  EXPECT_EQ(tool_test::read_file(path()), "other");
  EXPECT_EQ(names(), strings{"file"});
}

TEST_F(named_file_test, FolderIsRefused) {
  EXPECT_THROW(named_file(home_ / "", true), tools::failure);
  EXPECT_EQ(names(), strings{});
}

}  // namespace
