// Reading of small files. A thread that is cancelled meanwhile leaves no descriptor behind: read_file lets no
// cancellation in, and who calls open_regular has to see to it until the descriptor is closed.
#ifndef KZ_CU_FILES_H
#define KZ_CU_FILES_H

#include <stddef.h>
#include <sys/types.h>

// Opens a file for reading; a cancellation point. Anything but a regular file is refused, and a FIFO under that name
// doesn't make the caller wait. Returns the descriptor, or -1.
int open_regular(const char *pPath);

// Reads a file's beginning, at most size - 1 bytes (size is at least 1), and puts a zero byte behind them.
// Returns the length without that byte, or -1.
ssize_t read_file(const char *pPath, char *pBuffer, size_t size);

#endif
