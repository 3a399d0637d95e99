/* A C host that has started up and does nothing: prints its resident memory in KiB. */
#ifdef WITH_LIBPKI
#include <libpki/libpki.h>
#else
#include <openssl/ssl.h>
#endif
#include <stdio.h>

static int start_up(void) {
#ifdef WITH_LIBPKI
  return libpki_init() == PKI_OK;
#else
  return OPENSSL_init_ssl(0, NULL) == 1;
#endif
}

int main(void) {
  char line[200];
  long resident = -1;
  FILE *status;
  if (!start_up())
    return 1;
  status = fopen("/proc/self/status", "r");
  while (status && fgets(line, sizeof line, status))
    if (sscanf(line, "VmRSS: %ld kB", &resident) == 1)
      break;
  printf("%ld\n", resident);
  return resident < 0;
}
