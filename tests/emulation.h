// Whether this machine runs the tests' 32-bit programs through qemu's
// user-mode emulator (scripts/setup.sh registers it where the kernel cannot
// run them), and what that costs the time limits of tests.
#pragma once

#include <fstream>
#include <string>

namespace vxtest {

// True when 32-bit programs run through qemu here.
inline bool emulated() {
  std::ifstream status("/proc/sys/fs/binfmt_misc/qemu-i386");
  std::string word;
  return status >> word && word == "enabled";
}

// How many times its native limit a timed check allows: emulated code, with
// the sanitizers on top, runs several times slower.
inline int slowdown() { return emulated() ? 4 : 1; }

}  // namespace vxtest
