// Files shared in memory: see shared_file.h.
#include "shared_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vxqm {

bool privateFile(int fd) {
  struct stat info;
  return fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid() &&
         (info.st_mode & 077) == 0;
}

void *mapSharedFile(const std::string &path, size_t size, int *fd) {
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (file < 0) return nullptr;
  struct stat info;
  const bool usable = privateFile(file) && fstat(file, &info) == 0 &&
                      (info.st_size >= static_cast<off_t>(size) || ftruncate(file, size) == 0);
  void *mapped =
      usable ? mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0) : MAP_FAILED;
  if (mapped != MAP_FAILED && fd != nullptr) {
    *fd = file;
  } else {
    close(file);
  }
  return mapped == MAP_FAILED ? nullptr : mapped;
}

}  // namespace vxqm
