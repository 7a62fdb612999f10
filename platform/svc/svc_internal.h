// Pieces shared by the common-services sources; not part of the contract.
#ifndef VX_SVC_INTERNAL_H
#define VX_SVC_INTERNAL_H

#include <cstdint>
#include <string>

namespace svc {

// True when [address, address + length) lies inside a live block of
// svcGetMem: such memory is readable and writable without asking the kernel.
bool insideLiveBlock(std::uintptr_t address, std::uint32_t length);

// Environment settings, read once when the services are loaded.
const std::string &traceDirectory();
const std::string &reportDirectory();

// Name of a function number from the registered table ("function N" if none).
std::string functionName(std::int32_t function);

// "HH:MM:SS.uuuuuu pid.tid", the prefix of trace lines and report headers.
std::string timeAndThread();

// Makes the directory (and its parents) if missing; false if it cannot.
bool ensureDirectory(const std::string &path);

}  // namespace svc

#endif
