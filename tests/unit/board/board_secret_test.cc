#include <board/board.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/descriptors.h"

namespace {

namespace fs = std::filesystem;

class BoardSecret : public testing::Test {
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

  std::string file() const { return folder + "/secret"; }
  void write(const std::string &octets) { std::ofstream(file(), std::ios::binary) << octets; }

  // Reads into a buffer of just `capacity` octets and keeps what it got.
  int read(int capacity = 64) {
    std::vector<unsigned char> buffer(static_cast<size_t>(capacity), '#');
    length = capacity;
    int code = board_key_secret(buffer.data(), &length);
    secret = length > 0 && length <= capacity ? std::string(buffer.begin(), buffer.begin() + length)
                                              : "";
    return code;
  }

  std::string folder;
  std::string secret;
  int length = 0;
};

TEST_F(BoardSecret, IsTheFilesOctets) {
  write("secret-0001");
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(length, 11);
  EXPECT_EQ(secret, "secret-0001");
}

TEST_F(BoardSecret, MayHoldAnyOctet) {
  std::string octets;
  for (int i = 0; i < 256; i++)
    octets += static_cast<char>(i);
  octets += 'x';
  write(octets);
  EXPECT_EQ(read(300), 0);
  EXPECT_EQ(length, 257);
  EXPECT_EQ(secret, octets);
}

TEST_F(BoardSecret, MayBeOneNul) {
  write(std::string("\0", 1));
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(length, 1);
  EXPECT_EQ(secret, std::string("\0", 1));
}

TEST_F(BoardSecret, FillsABufferThatJustFits) {
  write("secret-0001");
  EXPECT_EQ(read(11), 0);
  EXPECT_EQ(secret, "secret-0001");
}

TEST_F(BoardSecret, ThatDoesNotFitIsRefusedNotCut) {
  write("secret-0001");
  for (int capacity : {10, 1, 0}) {
    EXPECT_GT(read(capacity), 0) << capacity;
    EXPECT_EQ(length, 0) << capacity;
  }
}

TEST_F(BoardSecret, NegativeCapacityIsRefused) {
  write("secret-0001");
  for (int capacity : {-1, INT_MIN}) {
    unsigned char buffer[] = "####";
    length = capacity;
    EXPECT_GT(board_key_secret(buffer, &length), 0) << capacity;
    EXPECT_EQ(length, 0) << capacity;
    EXPECT_EQ(buffer[0], '#') << capacity;
  }
}

TEST_F(BoardSecret, OfAFileWithoutEndIsRefused) {
  write(std::string(10 * 1024 * 1024, 'x'));
  EXPECT_GT(read(), 0);
  EXPECT_EQ(length, 0);
}

TEST_F(BoardSecret, MissingFileIsRefused) {
  EXPECT_EQ(read(), ENOENT);
  EXPECT_EQ(length, 0);
}

TEST_F(BoardSecret, SerialNumberIsNoSecret) {
  std::ofstream(folder + "/serialnumber") << "SN-0001";
  EXPECT_EQ(read(), ENOENT);
  EXPECT_EQ(length, 0);
}

TEST_F(BoardSecret, WithoutEnvironmentItIsTheBoardsOwn) {
  if (fs::exists("/etc/board"))
    GTEST_SKIP() << "this machine has board information of its own";
  write("secret-0001");
  unsetenv("BOARD_INFO_DIR");
  EXPECT_EQ(read(), ENOENT);
  EXPECT_EQ(length, 0);
}

TEST_F(BoardSecret, FileThatCannotBeOpenedIsRefused) {
  fs::create_symlink("secret", file());  // to itself: not even root can open it
  EXPECT_EQ(read(), ELOOP);
  EXPECT_EQ(length, 0);
}

TEST_F(BoardSecret, FileThatMayNotBeReadIsRefused) {
  write("secret-0001");
  fs::permissions(folder, fs::perms(0755));
  fs::permissions(file(), fs::perms::none);
  uid_t self = geteuid();
  if (self == 0 && seteuid(65534) != 0)
    GTEST_SKIP() << "root may read everything";
  int code = read();
  EXPECT_EQ(seteuid(self), 0);
  EXPECT_EQ(code, EACCES);
  EXPECT_EQ(length, 0);
}

TEST_F(BoardSecret, FolderInTheFilesPlaceIsRefused) {
  fs::create_directory(file());
  EXPECT_GT(read(), 0);
  EXPECT_EQ(length, 0);
}

TEST_F(BoardSecret, EmptyFileIsRefused) {
  write("");
  EXPECT_GT(read(), 0);
  EXPECT_EQ(length, 0);
}

TEST_F(BoardSecret, LeavesNoFileOpen) {
  long before = support::open_descriptors();
  write("secret-0001");
  for (int capacity : {64, 3, 0})
    read(capacity);
  fs::remove(file());
  fs::create_directory(file());
  read();
  EXPECT_EQ(support::open_descriptors(), before);
}

}  // namespace
