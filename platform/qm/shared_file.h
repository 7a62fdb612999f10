// The small files in memory that the processes of a queue manager share
// (wake counts, the counters of the group commit, the companion database):
// each a regular file of this user that no one else may read, never a link.
#ifndef VX_QM_SHARED_FILE_H
#define VX_QM_SHARED_FILE_H

#include <cstddef>
#include <string>

namespace vxqm {

// Whether the open file is a regular file of this user closed to others.
bool privateFile(int fd);

// Maps the file `path`, made (mode 0600, zeros) when missing and grown to
// `size` bytes when shorter, for every process to share.  Returns null when
// it cannot be made, is not private or cannot be mapped.  The open file is
// left in *fd when one is given (to lock it), else closed.
void *mapSharedFile(const std::string &path, size_t size, int *fd = nullptr);

}  // namespace vxqm

#endif  // VX_QM_SHARED_FILE_H
