// Trust roots that a device keeps in a folder.
#include <dirent.h>
#include <fcntl.h>
#include <libpki/error.h>
#include <libpki/store.h>
#include <libpki/trust_roots.h>
#include <libpki/util.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/alloc.h"
#include "common/limits.h"
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "pki/internal.h"
#include "verifier/trust_roots/internal.h"

namespace pki {

namespace {

constexpr size_t path_bytes = 128;
constexpr int organization_bytes = 128;
constexpr size_t read_bytes = 4096;
// A folder on a big file system has to be readable on 32-bit machines too.
static_assert(sizeof(ino_t) == 8 && sizeof(off_t) == 8);

using folder_ptr = std::unique_ptr<DIR, free_with<closedir>>;

void log_unread(const char *path, int error) {
  syslog(log_error, "failed to read cert %s: %s", path, strerror(error));
}

// 0 for a regular file of a size that is read, else an errno.
int unusable(const struct stat &info) {
  if (S_ISDIR(info.st_mode))
    return EISDIR;
  if (!S_ISREG(info.st_mode))
    return EINVAL;
  return info.st_size > root_file_max_bytes ? EFBIG : 0;
}

// 0, or an errno. Opening alone may make a device or a FIFO do something, so the path is looked at
// before; and again what was opened, which may be another by then.
int open_regular_file(const char *path, int *opened) {
  struct stat info;
  if (stat(path, &info) != 0)
    return errno;
  if (int error = unusable(info))
    return error;
  int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0)
    return errno;
  int error = fstat(fd, &info) == 0 ? unusable(info) : errno;
  if (error)
    close(fd);
  else
    *opened = fd;
  return error;
}

// The rest of a file, which may be longer than it said; 0, or an errno.
int read_all(int fd, BIO *octets) {
  char buffer[read_bytes];
  size_t total = 0;
  while (true) {
    ssize_t length = read(fd, buffer, sizeof buffer);
    if (length == 0)
      return 0;
    if (length < 0 && errno == EINTR)
      continue;
    if (length < 0)
      return errno;
    total += static_cast<size_t>(length);
    if (total > root_file_max_bytes)
      return EFBIG;
    if (BIO_write(octets, buffer, static_cast<int>(length)) != length)
      return ENOMEM;
  }
}

bio_ptr read_file(const char *path) {
  openssl_error_mark errno_says_it_all;
  int fd = -1;
  int error = open_regular_file(path, &fd);
  bio_ptr octets(error ? nullptr : BIO_new(BIO_s_mem()));
  if (!error)
    error = octets ? read_all(fd, octets.get()) : ENOMEM;
  if (fd >= 0)
    close(fd);
  if (!error)
    return octets;
  log_unread(path, error);
  return nullptr;
}

// Nobody is there to be asked for one.
int no_password(char * /*buffer*/, int /*size*/, int /*writing*/, void * /*data*/) {
  return -1;
}

x509_ptr read_cert(const char *path) {
  bio_ptr bio = read_file(path);
  if (!bio)
    return nullptr;
  x509_ptr cert(PEM_read_bio_X509(bio.get(), nullptr, no_password, nullptr));
  // Without its key it is of no use, and would stay: OpenSSL takes it all the same when memory ran
  // out over that.
  if (cert && !X509_get0_pubkey(cert.get()))
    cert.reset();
  if (!cert) {
    const char *reason = ERR_reason_error_string(ERR_peek_last_error());
    syslog(log_error, "failed to convert cert %s: %s", path, reason ? reason : "unknown reason");
    log_openssl_errors(log_error);
  }
  return cert;
}

bool has_organization(X509 *cert) {
  char organization[organization_bytes];
  if (X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_organizationName, organization,
                                sizeof organization) >= 0)
    return true;
  syslog(log_error, "failed to get org name");
  log_openssl_errors(log_error);
  return false;
}

// The CA "other", made when it is missing; null without memory.
ca_info_ptr other_ca() {
  ca_info_ptr info(pki_find_ca_info_by_label(PKI_OTHER_CA_LABEL));
  if (info)
    return info;
  info.reset(alloc_ca_info());
  if (!info)
    return nullptr;
  info->label = pki_strdup(PKI_OTHER_CA_LABEL);
  if (!info->label || pki_add_ca_info(info.get()) != PKI_OK)
    return nullptr;
  return info;
}

void add_root_file(const char *path) {
  x509_ptr cert = read_cert(path);
  if (!cert || !has_organization(cert.get()))
    return;
  ca_info_ptr info = other_ca();
  int error = info ? pki_add_trusted_cert(cert.get(), info.get()) : PKI_OUT_OF_MEMORY;
  if (error)
    syslog(log_error, "failed to add cert %s: %s", path,
           pki_strerror(static_cast<unsigned>(error)));
}

bool is_dots(const char *name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

}  // namespace

void add_root_files(const char *folder) {
  folder_ptr entries(opendir(folder));
  if (!entries)
    return;
  while (const dirent *entry = readdir(entries.get())) {
    if (is_dots(entry->d_name))
      continue;
    char path[path_bytes];
    int length = std::snprintf(path, sizeof path, "%s%s", folder, entry->d_name);
    if (length < 0 || length >= static_cast<int>(sizeof path))
      log_unread(path, ENAMETOOLONG);
    else
      add_root_file(path);
  }
}

}  // namespace pki
