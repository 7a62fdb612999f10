// Pieces shared by the common-services sources; not part of the contract.
#ifndef VX_SVC_INTERNAL_H
#define VX_SVC_INTERNAL_H

#include <cstdint>
#include <string>

namespace svc {

// Environment settings, read once when the services are loaded.
const std::string &traceDirectory();
const std::string &reportDirectory();

// Name of a function number from the registered table ("function N" if none).
std::string functionName(std::int32_t function);

// "HH:MM:SS.uuuuuu pid.tid", the prefix of trace lines and report headers.
std::string timeAndThread();

// Bytes as lines of 16: offset, hex in groups of four, characters; each line
// starts with `indent` and ends with a newline.
std::string hexLines(const unsigned char *data, std::int32_t length, const char *indent);

// Makes the directory (and its parents) if missing; false if it cannot.
bool ensureDirectory(const std::string &path);

}  // namespace svc

#endif
