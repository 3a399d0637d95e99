/*
 * board.h: what a gateway's board tells the library about itself.
 *
 * A vendor builds its own shared library with this interface (soname libboard.so.0) and puts it
 * in the place of the reference implementation, which reads two files: "serialnumber" and
 * "secret" in the folder that the environment variable BOARD_INFO_DIR names, or in /etc/board.
 *
 * A host that calls these functions itself is linked with -lboard beside -lpki (with CMake, the
 * target libpki::board).
 */
#ifndef BOARD_BOARD_H
#define BOARD_BOARD_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define BOARD_API __attribute__((visibility("default")))
#else
#define BOARD_API
#endif

/*
 * Writes the device's serial number as NUL-terminated text into `buf` of `size` octets.
 * Returns 0, or an errno value when it is missing, unreadable, empty, does not fit, or holds other
 * characters than ASCII's from "!" to "~" (a line end behind them is dropped);
 * `buf` is then empty text (where it has room for that). Never a guess.
 */
BOARD_API int board_info_serialnumber(char *buf, int size);

/*
 * Writes the device secret into `buf`. `*len` is its capacity on entry and the octets used on
 * return. The reference implementation takes every octet of the file, a line end too.
 *
 * Returns 0, or, with `*len` 0, an errno value when it is missing, unreadable, empty or does not
 * fit.
 */
BOARD_API int board_key_secret(unsigned char *buf, int *len);

#ifdef __cplusplus
}
#endif

#endif
