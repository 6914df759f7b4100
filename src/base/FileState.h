#pragma once

#include <sys/stat.h>

// True when two stat results show the same file with the same contents as far as the file
// system tells: device, inode, size, modification and change times. What the patcher knows
// of a file it read (a checksum, a history made ahead) holds while this stays true.
inline bool SameFileState(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
           a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}
