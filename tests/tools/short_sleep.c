/* Stands in front of the C library: a sleep is told on stderr and over at once. With
 * SLEEP_SIGNAL=N in the environment signal N ends it, with all of the time left; with
 * SLEEP_COMMAND=TEXT the shell runs that meanwhile. */
#define _POSIX_C_SOURCE 200112L
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

unsigned int sleep(unsigned int seconds) {
  const char *number = getenv("SLEEP_SIGNAL");
  const char *command = getenv("SLEEP_COMMAND");
  fprintf(stderr, "sleep %u\n", seconds);
  unsetenv("LD_PRELOAD"); /* the shell may be one of another machine */
  if (command && system(command) != 0)
    fprintf(stderr, "failed: %s\n", command);
  if (!number)
    return 0;
  raise(atoi(number));
  return seconds;
}
