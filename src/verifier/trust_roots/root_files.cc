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
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "pki/internal.h"
#include "verifier/trust_roots/internal.h"

namespace pki {

namespace {

constexpr size_t path_bytes = 128;
constexpr int organization_bytes = 128;

using folder_ptr = std::unique_ptr<DIR, free_with<closedir>>;

void log_unread(const char *path, int error) {
  syslog(log_error, "failed to read cert %s: %s", path, strerror(error));
}

// A regular file, opened for reading; -1 with errno. Anything else might never end.
int open_regular_file(const char *path) {
  int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0)
    return -1;
  struct stat info;
  int reason = EINVAL;
  if (fstat(fd, &info) != 0)
    reason = errno;
  else if (S_ISREG(info.st_mode))
    return fd;
  else if (S_ISDIR(info.st_mode))
    reason = EISDIR;
  close(fd);
  errno = reason;
  return -1;
}

bio_ptr open_file(const char *path) {
  int fd = open_regular_file(path);
  if (fd < 0) {
    log_unread(path, errno);
    return nullptr;
  }
  FILE *file = fdopen(fd, "r");
  bio_ptr bio(file ? BIO_new_fp(file, BIO_CLOSE) : nullptr);
  if (bio)
    return bio;
  log_unread(path, ENOMEM);
  if (file)
    std::fclose(file);
  else
    close(fd);
  return nullptr;
}

// Nobody is there to be asked for one.
int no_password(char * /*buffer*/, int /*size*/, int /*writing*/, void * /*data*/) {
  return -1;
}

x509_ptr read_cert(const char *path) {
  bio_ptr bio = open_file(path);
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
