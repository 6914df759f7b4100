/*
 * The update manager's results library.
 *
 * The update manager launches a patcher for one client application and takes its result
 * back. On Linux the launcher hands over two things in the patcher's environment:
 *
 *   ORVEL_KOR_CLIENT_APP_PATH  the path of the client application being updated
 *   ORVEL_KOR_RESULTS_FD       the number of an inherited descriptor: one end of an AF_UNIX
 *                              SOCK_SEQPACKET socket pair whose other end the launcher
 *                              keeps open
 *
 * The patcher counts as managed only when both are present, the descriptor is a Unix
 * socket, and the process at its other end (SO_PEERCRED) is the patcher's parent or an
 * ancestor of it. A patcher started by hand has no such socket, so it is never taken for a
 * managed one, whatever its environment says. The library reads the hand-over once and
 * removes both variables from the environment and marks the descriptor close-on-exec, so
 * programs the patcher starts never inherit the claim.
 *
 * A result travels as one packet: "<code>\n<0|1>\n<message>" (the second line tells
 * whether a message follows; the message is UTF-8, at most 64 KiB).
 */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KOR_CLIENT_APP_PATH_ENV "ORVEL_KOR_CLIENT_APP_PATH"
#define KOR_RESULTS_FD_ENV "ORVEL_KOR_RESULTS_FD"

/* Copies the client application's path, zero-terminated, into buffer (of *length bytes)
 * and returns 1. Returns 0 when the buffer is too small, with *length set to the path's
 * length (without the terminator), or when the patcher is not managed, with *length 0. */
int KORGetClientAppPath(uint32_t* length, char* buffer);

/* Hands the result code and an optional message (NULL for none) to the update manager.
 * Returns 1 when the result was sent, 0 otherwise (not managed, or the channel failed). */
int KORSetInstallerResults(int32_t code, const char* message);

#ifdef __cplusplus
}
#endif
