#define _GNU_SOURCE
#include <board/board.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define DEFAULT_DIR "/etc/board"

static int open_board_file(const char *name) {
  char path[PATH_MAX];
  const char *dir = secure_getenv("BOARD_INFO_DIR");
  int length = snprintf(path, sizeof path, "%s/%s", dir ? dir : DEFAULT_DIR, name);
  if (length < 0 || (size_t)length >= sizeof path) {
    errno = ENAMETOOLONG;
    return -1;
  }
  return open(path, O_RDONLY | O_CLOEXEC);
}

/* Reads the whole file into `buf`. A file that does not fit is an error, not a shorter secret. */
static int read_board_file(const char *name, unsigned char *buf, size_t capacity, size_t *used) {
  int fd = open_board_file(name);
  if (fd < 0)
    return errno;
  *used = 0;
  int result = 0;
  for (;;) {
    unsigned char extra;
    size_t room = capacity - *used;
    ssize_t got = room > 0 ? read(fd, buf + *used, room) : read(fd, &extra, 1);
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0)
      result = errno;
    else if (got > 0 && room == 0)
      result = EMSGSIZE;
    if (got <= 0 || result)
      break;
    *used += (size_t)got;
  }
  close(fd);
  if (!result && *used == 0)
    result = ENODATA;
  return result;
}

int board_info_serialnumber(char *buf, int size) {
  if (!buf || size < 1)
    return EINVAL;
  buf[0] = '\0';
  char text[256];
  size_t used = 0;
  int result = read_board_file("serialnumber", (unsigned char *)text, sizeof text, &used);
  if (result)
    return result;
  while (used > 0 && (text[used - 1] == '\n' || text[used - 1] == '\r'))
    used--;
  if (used == 0)
    return ENODATA;
  for (size_t i = 0; i < used; i++)
    if (text[i] <= ' ' || text[i] > '~')
      return EILSEQ;
  if (used >= (size_t)size)
    return EMSGSIZE;
  memcpy(buf, text, used);
  buf[used] = '\0';
  return 0;
}

int board_key_secret(unsigned char *buf, int *len) {
  if (!len)
    return EINVAL;
  if (!buf || *len < 0) {
    *len = 0;
    return EINVAL;
  }
  size_t used = 0;
  int result = read_board_file("secret", buf, (size_t)*len, &used);
  if (result && *len > 0)
    explicit_bzero(buf, (size_t)*len);
  *len = result ? 0 : (int)used;
  return result;
}
