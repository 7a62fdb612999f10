// Data conversion of PCF messages on get.
//
// A get with the convert option delivers a PCF message ("VXADMIN ",
// "VXEVENT ", "VXPCF   ") with every string in the character set that the
// caller's descriptor asks for.  The conversion rewrites only what the new
// string lengths change: string and string-list structures get their new
// lengths and the target character set id; the header, integers and integer
// lists pass through as they are.
//
// Everything here may be called from any thread at once: the table is
// constant, and every conversion opens its own converters and closes them
// before it returns.  The only lock taken is an internal one around the
// opening and closing of converters, with nothing else taken under it, so a
// caller may hold its own locks while converting.  Nothing throws.
#ifndef VX_QM_CONVERT_H
#define VX_QM_CONVERT_H

#include <cstdint>
#include <span>
#include <vector>

namespace vxqm {

// A coded character set id and the name under which iconv knows the set.
struct CharacterSet {
  int32_t ccsid;
  const char *iconvName;
};

// Every character set that messages may be converted from and to.
std::span<const CharacterSet> knownCharacterSets();

// The iconv name of a coded character set id, or null for an id that is not
// in the table (0 included: the caller resolves 0 first).
const char *iconvNameOf(int32_t ccsid);

// A converted message is at most this many times as long as the original: a character of the
// table's sets takes at most 3 bytes in UTF-8 and one byte in any other of them.
inline constexpr int64_t kMaxConversionGrowth = 4;

// Converts every string of the PCF message `message` (native encoding) from its character set to
// `targetCcsid`; fromCcsid is the message's coded character set id (never 0: the caller resolves 0
// to the queue manager's), targetCcsid likewise. Returns true with the converted message in
// `converted` (string and list structure lengths, string lengths and CCSID fields rewritten), or
// false when the message cannot be converted (unknown character set, bytes with no mapping,
// malformed PCF); then `converted` is unspecified.
//
// A string structure's own non-zero CCSID is its source set, else fromCcsid.  A message whose
// strings are all in targetCcsid already is copied byte for byte.  Otherwise the result holds the
// header and the counted structures only (bytes after the last one are dropped), and is refused
// (false) when it would exceed kMaxConversionGrowth times the input.
bool convertPcfMessage(const char *message, int32_t length, int32_t fromCcsid, int32_t targetCcsid,
                       std::vector<char> &converted);

}  // namespace vxqm

#endif  // VX_QM_CONVERT_H
