/* Stands in front of the board library and writes to standard output, as careless code does. */
#include <board/board.h>
#include <stdio.h>
#include <string.h>

int board_info_serialnumber(char *buf, int size) {
  if (size < 8)
    return 1;
  printf("reading the serial number\n");
  fflush(stdout);
  strcpy(buf, "SN-LOUD");
  return 0;
}
