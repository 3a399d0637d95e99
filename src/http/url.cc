#include <libpki/error.h>
#include <libpki/util.h>

#include <cstring>

#include <libpki/http.h>
#include "common/alloc.h"

int parse_url(const char *url, char **copy, char **host, char **path) {
  if (!url || !copy || !host || !path)
    return PKI_INVALID_ARGS;
  *copy = *host = *path = nullptr;
  pki::malloc_ptr<char> text(pki_strdup(url));
  if (!text)
    return PKI_OUT_OF_MEMORY;
  char *colon = std::strchr(text.get(), ':');
  if (!colon || colon[1] != '/' || colon[2] != '/')
    return PKI_INVALID_URL;
  *colon = '\0';
  char *name = colon + 3;
  char *slash = std::strchr(name, '/');
  if (slash) {
    // Room for the host's NUL in front of the path's "/": the host moves over the second "/".
    size_t length = static_cast<size_t>(slash - name);
    std::memmove(name - 1, name, length);
    name--;
    name[length] = '\0';
  }
  *host = name;
  *path = slash ? slash : name + std::strlen(name);
  *copy = text.release();
  return PKI_OK;
}
