// The device's own folder of roots, /etc/pki/roots: here, the calls that open it lead elsewhere.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <map>
#include <utility>

#include "roots_process.h"

using roots_support::texts;

namespace {

constexpr char device_folder[] = "/etc/pki/roots";

struct redirection {
  std::string folder;
  std::map<std::string, int> refused, broken;
  int broken_fd = -1, read_error = 0;
  size_t readable = 0;
  bool was_read = false;
  texts opened;
  std::function<void()> after_stat, after_fstat;
};
redirection &current() {
  static redirection instance;
  return instance;
}

// "" for a path that is not below the device's folder.
std::string redirected(const char *path) {
  size_t length = sizeof device_folder - 1;
  if (current().folder.empty() || strncmp(path, device_folder, length) != 0 ||
      (path[length] != '/' && path[length] != '\0'))
    return "";
  return current().folder + (path + length);
}

void happen_once(std::function<void()> *what) {
  if (std::function<void()> happens = std::exchange(*what, nullptr))
    happens();
}

template <class Function>
Function *real_call(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

bool is_refused(const char *path) {
  auto found = current().refused.find(path);
  if (found == current().refused.end())
    return false;
  errno = found->second;
  return true;
}

int open_elsewhere(decltype(&::open) real, const char *path, int flags, mode_t mode) {
  if (is_refused(path))
    return -1;
  std::string elsewhere = redirected(path);
  if (elsewhere.empty())
    return real(path, flags, mode);
  current().opened.emplace_back(path);
  int fd = real(elsewhere.c_str(), flags, mode);
  auto found = current().broken.find(path);
  if (found != current().broken.end()) {
    current().broken_fd = fd;
    current().read_error = found->second;
    current().was_read = false;
  }
  return fd;
}

template <class Info>
int stat_elsewhere(int (*real)(const char *, Info *), const char *path, Info *info) {
  std::string elsewhere = redirected(path);
  if (elsewhere.empty())
    return real(path, info);
  int result = real(elsewhere.c_str(), info);
  happen_once(&current().after_stat);
  return result;
}

mode_t mode_of(int flags, va_list arguments) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

extern "C" {

DIR *opendir(const char *path) {
  fake_allocator::pause no_failures;
  static auto *real = real_call<decltype(::opendir)>("opendir");
  if (is_refused(path))
    return nullptr;
  std::string elsewhere = redirected(path);
  return real(elsewhere.empty() ? path : elsewhere.c_str());
}

// The library's files are big ones, whose calls have names of their own.
int open(const char *path, int flags, ...) {
  fake_allocator::pause no_failures;
  static auto *real = real_call<decltype(::open)>("open");
  va_list arguments;
  va_start(arguments, flags);
  mode_t mode = mode_of(flags, arguments);
  va_end(arguments);
  return open_elsewhere(real, path, flags, mode);
}

int open64(const char *path, int flags, ...) {
  fake_allocator::pause no_failures;
  static auto *real = real_call<decltype(::open)>("open64");
  va_list arguments;
  va_start(arguments, flags);
  mode_t mode = mode_of(flags, arguments);
  va_end(arguments);
  return open_elsewhere(real, path, flags, mode);
}

ssize_t read(int fd, void *buffer, size_t length) {
  static auto *real = real_call<decltype(::read)>("read");
  if (current().broken_fd < 0 || fd != current().broken_fd)
    return real(fd, buffer, length);
  if (!std::exchange(current().was_read, true))
    return real(fd, buffer, std::min(length, current().readable));
  current().broken_fd = -1;
  errno = current().read_error;
  return -1;
}

int stat(const char *path, struct stat *info) noexcept {
  fake_allocator::pause no_failures;
  static auto *real = real_call<int(const char *, struct stat *)>("stat");
  return stat_elsewhere(real, path, info);
}

int stat64(const char *path, struct stat64 *info) noexcept {
  fake_allocator::pause no_failures;
  static auto *real = real_call<int(const char *, struct stat64 *)>("stat64");
  return stat_elsewhere(real, path, info);
}

int fstat(int fd, struct stat *info) noexcept {
  fake_allocator::pause no_failures;
  static auto *real = real_call<int(int, struct stat *)>("fstat");
  int result = real(fd, info);
  happen_once(&current().after_fstat);
  return result;
}

int fstat64(int fd, struct stat64 *info) noexcept {
  fake_allocator::pause no_failures;
  static auto *real = real_call<int(int, struct stat64 *)>("fstat64");
  int result = real(fd, info);
  happen_once(&current().after_fstat);
  return result;
}
}

namespace roots_support {

void redirect_device_folder(const std::string &folder) {
  current().folder = folder;
}
void refuse_to_open(const std::string &path, int error) {
  current().refused[path] = error;
}
void break_off_reading(const std::string &path, size_t octets, int error) {
  current().readable = octets;
  current().broken[path] = error;
}
texts opened_files() {
  return current().opened;
}
void after_next_stat(const std::function<void()> &happens) {
  current().after_stat = happens;
}
void after_next_fstat(const std::function<void()> &happens) {
  current().after_fstat = happens;
}

}  // namespace roots_support

using namespace roots_support;

namespace {

texts sorted_roots() {
  texts subjects = root_subjects("other");
  std::sort(subjects.begin(), subjects.end());
  return subjects;
}

int lowest_free_descriptor() {
  int fd = dup(0);
  close(fd);
  return fd;
}

std::string unread_line(const std::string &name, const std::string &reason) {
  return "failed to read cert /etc/pki/roots/" + name + ": " + reason;
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, ItsCertificatesBecomeTheOtherCa) {
  support::cert first = device_root("first", 1), second = device_root("second", 2);
  device.write("first.pem", first);
  device.write("second", second);
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ("6: inited ca label 'root'\n", log_dump());
  EXPECT_EQ((texts{"root", "other"}), ca_labels());
  EXPECT_EQ(2U, root_subjects("other").size());
  EXPECT_EQ(texts{}, describe(find_ca("other")->cert_status_methods));
  EXPECT_EQ(7, count_in(store));
  EXPECT_TRUE(holds(store, first.get()));
  EXPECT_TRUE(holds(store, second.get()));
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, NoFolderIsNoFailure) {
  redirect_device_folder(device.path() + "missing/");
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ("6: inited ca label 'root'\n", log_dump());
  EXPECT_EQ(texts{"root"}, ca_labels());
  EXPECT_EQ(5, count_in(store));
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, AFileInItsPlaceIsNoFailure) {
  device.write("file", "x");
  redirect_device_folder(device.path() + "file");
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ("6: inited ca label 'root'\n", log_dump());
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, AFolderThatCannotBeOpenedIsNoFailure) {
  device.write("good.pem", device_root("good"));
  refuse_to_open("/etc/pki/roots/", EACCES);
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 1));
  EXPECT_EQ("6: inited ca label 'root'\n6: inited ca label 'engineering'\n", log_dump());
  EXPECT_EQ((texts{"root", "engineering"}), ca_labels());
  EXPECT_EQ(6, count_in(store));
  EXPECT_EQ(texts{}, opened_files());
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, AnEmptyFolderMakesNoCa) {
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(texts{"root"}, ca_labels());
  EXPECT_EQ("6: inited ca label 'root'\n", log_dump());
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, ItIsReadAtEachCall) {
  x509_store first = make_store(), second = make_store(), third = make_store();
  device.write("one.pem", device_root("one", 1));
  EXPECT_EQ(1, pki_ver_setup_trust_roots(first.get(), 0));
  EXPECT_EQ(6, count_in(first));
  device.write("two.pem", device_root("two", 2));
  EXPECT_EQ(1, pki_ver_setup_trust_roots(second.get(), 0));
  EXPECT_EQ(7, count_in(second));
  EXPECT_EQ((texts{"/C=US/O=Example/CN=one", "/C=US/O=Example/CN=two"}), root_subjects("other"));
  // What was read once stays.
  std::filesystem::remove(device.path() + "one.pem");
  EXPECT_EQ(1, pki_ver_setup_trust_roots(third.get(), 0));
  EXPECT_EQ(7, count_in(third));
  EXPECT_EQ((texts{"root", "other"}), ca_labels());
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, AFileThatCannotBeUsedIsSkippedAndTheCallSucceeds) {
  device.write("a.pem", support::pem(support::simple_cert("issuer", "no organization", 1)));
  device.write("b.pem", "no PEM");
  device.write("c.pem", device_root("good", 3));
  std::filesystem::create_directory(device.path() + "d");
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(texts{"/C=US/O=Example/CN=good"}, root_subjects("other"));
  EXPECT_EQ(6, count_in(store));
  EXPECT_EQ(1U, count_logged(3, "failed to get org name"));
  EXPECT_TRUE(logged_containing(3, "failed to convert cert /etc/pki/roots/b.pem: "));
  EXPECT_TRUE(was_logged(3, "failed to read cert /etc/pki/roots/d: Is a directory"));
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, AnUnreadableFileIsSkippedWithItsReason) {
  device.write("secret.pem", device_root("secret"));
  refuse_to_open("/etc/pki/roots/secret.pem", EACCES);
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(texts{"root"}, ca_labels());
  EXPECT_EQ(
      "6: inited ca label 'root'\n"
      "3: failed to read cert /etc/pki/roots/secret.pem: Permission denied\n",
      own_log());
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, AFileWhoseReadingFailsHalfWayIsSkippedWithItsReason) {
  support::cert bad = device_root("bad", 2);
  device.write("a.pem", device_root("first", 1));
  device.write("b.pem", bad);
  device.write("c.pem", device_root("last", 3));
  break_off_reading("/etc/pki/roots/b.pem", support::pem(bad).size() / 2, EIO);
  x509_store store = make_store();
  int before = lowest_free_descriptor();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ("6: inited ca label 'root'\n3: " + unread_line("b.pem", "Input/output error") + "\n",
            log_dump());
  EXPECT_EQ((texts{"/C=US/O=Example/CN=first", "/C=US/O=Example/CN=last"}), sorted_roots());
  EXPECT_EQ(7, count_in(store));
  EXPECT_FALSE(holds(store, bad.get()));
  EXPECT_EQ(before, lowest_free_descriptor());
}

// What was read before the failure is a whole certificate, and yet is not taken.
FRESH_PROCESS_TEST(DeviceFolderDeathTest, ACertificateInFrontOfAFailureToReadIsNotTaken) {
  support::cert whole = device_root("whole");
  device.write("a.pem", support::pem(whole) + "and more\n");
  break_off_reading("/etc/pki/roots/a.pem", support::pem(whole).size(), EIO);
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_TRUE(was_logged(3, unread_line("a.pem", "Input/output error"))) << log_dump();
  EXPECT_EQ(texts{"root"}, ca_labels());
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, ADanglingLinkIsSkippedWithItsReason) {
  std::filesystem::create_symlink(device.path() + "nowhere", device.path() + "link.pem");
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(
      "6: inited ca label 'root'\n"
      "3: failed to read cert /etc/pki/roots/link.pem: No such file or directory\n",
      own_log());
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, APathOf127OctetsFitsAndALongerOneIsSkipped) {
  size_t room = 127 - strlen("/etc/pki/roots/");
  std::string fits(room, 'f'), too_long(room + 1, 'g'), longest(255, 'h');
  device.write(fits, device_root("fits", 1));
  device.write(too_long, device_root("too long", 2));
  device.write(longest, device_root("longest", 3));
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(texts{"/C=US/O=Example/CN=fits"}, root_subjects("other"));
  EXPECT_EQ(1U, count_logged(3, unread_line(too_long.substr(0, room), "File name too long")));
  EXPECT_EQ(1U, count_logged(3, unread_line(longest.substr(0, room), "File name too long")));
  EXPECT_EQ(3U, captured_log().size());
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, ACutPathLeadsToNoOtherFile) {
  // What a buffer of 128 octets would make of the longer name is there too.
  std::string cut(127 - strlen("/etc/pki/roots/"), 'f');
  device.write(cut, device_root("cut", 1));
  device.write(cut + "f", device_root("whole", 2));
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(texts{"/C=US/O=Example/CN=cut"}, root_subjects("other"));
  EXPECT_TRUE(was_logged(3, unread_line(cut, "File name too long"))) << log_dump();
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, AFifoDoesNotBlock) {
  ASSERT_EQ(0, mkfifo((device.path() + "fifo.pem").c_str(), 0600));
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_TRUE(was_logged(3, unread_line("fifo.pem", "Invalid argument"))) << log_dump();
  EXPECT_EQ(texts{"root"}, ca_labels());
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, WhatIsNoFileIsNotEvenOpened) {
  ASSERT_EQ(0, mkfifo((device.path() + "fifo").c_str(), 0600));
  std::filesystem::create_directory(device.path() + "folder");
  std::filesystem::create_symlink("/dev/zero", device.path() + "zero");
  device.write("good.pem", device_root("good"));
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(texts{"/etc/pki/roots/good.pem"}, opened_files());
  EXPECT_TRUE(was_logged(3, unread_line("zero", "Invalid argument"))) << log_dump();
  EXPECT_EQ(6, count_in(store));
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, AFileThatTurnsIntoAFifoIsSkipped) {
  std::string path = device.path() + "good.pem";
  device.write("good.pem", device_root("good"));
  after_next_stat([path] {
    std::filesystem::remove(path);
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  });
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(texts{"/etc/pki/roots/good.pem"}, opened_files());
  EXPECT_TRUE(was_logged(3, unread_line("good.pem", "Invalid argument"))) << log_dump();
  EXPECT_EQ(texts{"root"}, ca_labels());
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, AFileThatGrowsWhileItIsReadIsReadToItsLimitOnly) {
  std::string path = device.path() + "good.pem";
  device.write("good.pem", device_root("good"));
  after_next_fstat([path] { std::filesystem::resize_file(path, 2 << 20); });
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_TRUE(was_logged(3, unread_line("good.pem", "File too large"))) << log_dump();
  EXPECT_EQ(texts{"root"}, ca_labels());
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, ARenewedRootOfTheSameSerialNumberIsNotTaken) {
  support::cert old = device_root("root", 5);
  support::cert renewed(X509_dup(old.get()), X509_free);
  X509_gmtime_adj(X509_getm_notAfter(renewed.get()), 999'999'999);
  ASSERT_LT(0, X509_sign(renewed.get(), support::test_key(0).get(), EVP_sha256()));
  ASSERT_NE(support::der(old), support::der(renewed));
  x509_store first = make_store(), second = make_store();
  device.write("root.pem", old);
  EXPECT_EQ(1, pki_ver_setup_trust_roots(first.get(), 0));
  device.write("root.pem", renewed);
  clear_log();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(second.get(), 0));
  EXPECT_EQ("", log_dump());
  EXPECT_TRUE(holds(second, old.get()));
  EXPECT_FALSE(holds(second, renewed.get()));
}

FRESH_PROCESS_TEST(DeviceFolderDeathTest, DescriptorsAreClosed) {
  device.write("a.pem", device_root("good"));
  device.write("b.pem", "no PEM");
  std::filesystem::create_directory(device.path() + "c");
  ASSERT_EQ(0, mkfifo((device.path() + "fifo").c_str(), 0600));
  x509_store store = make_store();
  int before = lowest_free_descriptor();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(before, lowest_free_descriptor());
}

}  // namespace
