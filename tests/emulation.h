// Whether this test program runs through qemu's user-mode emulator (a
// 32-bit program on a machine where scripts/setup.sh registered it because
// the kernel cannot run them), and what that costs the time limits of tests.
#pragma once

#include <fstream>
#include <string>

namespace vxtest {

// True when this program, being 32-bit, runs through qemu here.
inline bool emulated() {
  if (sizeof(void *) != 4) return false;
  std::ifstream status("/proc/sys/fs/binfmt_misc/qemu-i386");
  std::string word;
  return status >> word && word == "enabled";
}

// How many times its native limit a timed check allows: emulated code, with
// the sanitizers on top, runs several times slower.
inline int slowdown() { return emulated() ? 4 : 1; }

}  // namespace vxtest
