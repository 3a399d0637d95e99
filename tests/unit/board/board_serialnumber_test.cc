#include <board/board.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/descriptors.h"

namespace {

namespace fs = std::filesystem;

class BoardSerialnumber : public testing::Test {
 protected:
  void SetUp() override {
    char path[] = "/tmp/libpki-board-XXXXXX";
    folder = mkdtemp(path);
    setenv("BOARD_INFO_DIR", folder.c_str(), 1);
  }
  void TearDown() override {
    unsetenv("BOARD_INFO_DIR");
    fs::remove_all(folder);
  }

  std::string file() const { return folder + "/serialnumber"; }
  void write(const std::string &octets) { std::ofstream(file(), std::ios::binary) << octets; }

  // Reads into a buffer of just `size` octets and keeps what it got.
  int read(int size = 48) {
    std::vector<char> buffer(static_cast<size_t>(size), '#');
    int code = board_info_serialnumber(buffer.data(), size);
    text = std::string(buffer.data(), strnlen(buffer.data(), buffer.size()));
    return code;
  }

  std::string folder;
  std::string text;
};

TEST_F(BoardSerialnumber, IsTheFilesText) {
  write("SN-0001");
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(text, "SN-0001");
}

TEST_F(BoardSerialnumber, ComesWithoutTheLinesEnd) {
  write("SN-0001\n");
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(text, "SN-0001");
}

TEST_F(BoardSerialnumber, IsReadAnewEachTime) {
  write("SN-0001");
  EXPECT_EQ(read(), 0);
  write("SN-0002");
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(text, "SN-0002");
}

TEST_F(BoardSerialnumber, FolderIsThatOfTheEnvironment) {
  write("SN-0001");
  fs::path other = fs::path(folder) / "other";
  fs::create_directory(other);
  std::ofstream(other / "serialnumber") << "SN-0002";
  setenv("BOARD_INFO_DIR", other.c_str(), 1);
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(text, "SN-0002");
}

TEST_F(BoardSerialnumber, WithoutEnvironmentItIsTheBoardsOwn) {
  if (fs::exists("/etc/board"))
    GTEST_SKIP() << "this machine has board information of its own";
  write("SN-0001");
  unsetenv("BOARD_INFO_DIR");
  EXPECT_EQ(read(), ENOENT);
  EXPECT_EQ(text, "");
}

TEST_F(BoardSerialnumber, FillsABufferThatJustFits) {
  write("SN-0001\n");
  EXPECT_EQ(read(8), 0);
  EXPECT_EQ(text, "SN-0001");
}

TEST_F(BoardSerialnumber, ThatDoesNotFitIsRefusedNotCut) {
  write("SN-0001");
  for (int size : {7, 3, 1}) {
    EXPECT_GT(read(size), 0) << size;
    EXPECT_EQ(text, "") << size;
  }
}

TEST_F(BoardSerialnumber, OfAFileWithoutEndIsRefused) {
  write(std::string(10 * 1024 * 1024, 'x'));
  EXPECT_GT(read(), 0);
  EXPECT_EQ(text, "");
}

TEST_F(BoardSerialnumber, NoBufferIsRefusedAndUntouched) {
  write("SN-0001");
  for (int size : {0, -1, INT_MIN}) {
    char buffer[] = "####";
    EXPECT_GT(board_info_serialnumber(buffer, size), 0) << size;
    EXPECT_STREQ(buffer, "####") << size;
  }
}

TEST_F(BoardSerialnumber, MissingFileIsRefused) {
  EXPECT_EQ(read(), ENOENT);
  EXPECT_EQ(text, "");
}

TEST_F(BoardSerialnumber, MissingFolderIsRefused) {
  setenv("BOARD_INFO_DIR", (folder + "/nothing").c_str(), 1);
  EXPECT_EQ(read(), ENOENT);
  EXPECT_EQ(text, "");
}

TEST_F(BoardSerialnumber, FolderWithALongNameIsRefused) {
  write("SN-0001");
  for (size_t length : {255u, 4095u, 4096u, 100000u}) {
    setenv("BOARD_INFO_DIR", ("/" + std::string(length, 'x')).c_str(), 1);
    EXPECT_GT(read(), 0) << length;
    EXPECT_EQ(text, "") << length;
  }
}

TEST_F(BoardSerialnumber, FileThatCannotBeOpenedIsRefused) {
  fs::create_symlink("serialnumber", file());  // to itself: not even root can open it
  EXPECT_EQ(read(), ELOOP);
  EXPECT_EQ(text, "");
}

TEST_F(BoardSerialnumber, FileThatMayNotBeReadIsRefused) {
  write("SN-0001");
  fs::permissions(folder, fs::perms(0755));
  fs::permissions(file(), fs::perms::none);
  uid_t self = geteuid();
  if (self == 0 && seteuid(65534) != 0)
    GTEST_SKIP() << "root may read everything";
  int code = read();
  EXPECT_EQ(seteuid(self), 0);
  EXPECT_EQ(code, EACCES);
  EXPECT_EQ(text, "");
}

TEST_F(BoardSerialnumber, FolderInTheFilesPlaceIsRefused) {
  fs::create_directory(file());
  EXPECT_GT(read(), 0);
  EXPECT_EQ(text, "");
}

TEST_F(BoardSerialnumber, EmptyFileIsRefused) {
  for (const char *octets : {"", "\n"}) {
    write(octets);
    EXPECT_GT(read(), 0);
    EXPECT_EQ(text, "");
  }
}

TEST_F(BoardSerialnumber, FileWithANulIsNoText) {
  const std::string nul(1, '\0');
  for (const std::string &octets : {"SN" + nul + "0001", "SN-0001" + nul, nul, nul + "SN"}) {
    write(octets);
    EXPECT_GT(read(), 0);
    EXPECT_EQ(text, "");
  }
}

TEST_F(BoardSerialnumber, LeavesNoFileOpen) {
  long before = support::open_descriptors();
  write("SN-0001");
  for (int size : {48, 3, 1}) {
    read(size);
    EXPECT_EQ(support::open_descriptors(), before) << size;
  }
  write("");
  read();
  fs::remove(file());
  fs::create_directory(file());
  read();
  EXPECT_EQ(support::open_descriptors(), before);
}

// The descriptor of this process that reads the file, or -1.
int reader_of(const std::string &path) {
  for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
    int fd = std::stoi(entry.path().filename());
    std::error_code gone;
    if (fs::read_symlink(entry.path(), gone) == path &&
        (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDONLY)
      return fd;
  }
  return -1;
}

TEST_F(BoardSerialnumber, OpenFileDoesNotReachAProgramThatTheHostStarts) {
  ASSERT_EQ(mkfifo(file().c_str(), 0600), 0);
  int code = -1;
  std::thread reader([&] { code = read(); });
  int writer = open(file().c_str(), O_WRONLY | O_CLOEXEC);  // both opens wait for each other
  int fd = -1;
  while ((fd = reader_of(file())) < 0)
    std::this_thread::yield();
  int flags = fcntl(fd, F_GETFD);
  EXPECT_EQ(::write(writer, "SN-0001", 7), 7);
  close(writer);
  reader.join();
  EXPECT_EQ(flags & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(text, "SN-0001");
}

}  // namespace
