// A machine of its own for a child process: an empty "/var/kz" in memory. Nothing of the real machine changes; all of it
// goes with the child.
#pragma once

#include <cstdint>
#include <string>

// Moves the calling child (see run_in_child) into a private mount namespace: as root, or in a user namespace where the
// kernel lets users. There "/var" holds what it holds outside, except that "/var/kz" is an empty file system in memory.
// Where neither way works, the child ends and the running test is skipped. Call it before the child starts threads.
void enter_private_machine();

// Mounts an empty file system in memory of `size` bytes over a directory of the private machine: a disk that fills up.
void mount_memory(const std::string &dir, uint64_t size);
