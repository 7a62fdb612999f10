// Data conversion of PCF messages on get.
//
// The message comes from whoever put it: every field is read with memcpy at
// an offset checked against the message length first, every length is
// computed in 64 bits, and the result may not outgrow the input by more than
// kMaxConversionGrowth.  The message is walked and checked whole before a
// byte of the result is written, so that a message that is refused costs no
// converter and a message that needs none is copied as it is.
#include "convert.h"

#include <iconv.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <iterator>
#include <mutex>

namespace vxqm {

namespace {

// Coded character set ids and their iconv names, sorted by id.  Every set is
// one byte per character or UTF-8, so that a zero byte is always the
// character 0 and padding with zero bytes means the same in all of them.
constexpr CharacterSet kCharacterSets[] = {
    {37, "IBM037"},           // EBCDIC, US and Canada
    {367, "ANSI_X3.4-1968"},  // US-ASCII
    {437, "IBM437"},          // PC, US
    {500, "IBM500"},          // EBCDIC, international
    {819, "ISO-8859-1"},      // Latin-1
    {850, "IBM850"},          // PC, Latin-1
    {923, "ISO-8859-15"},     // Latin-9
    {1047, "IBM1047"},        // EBCDIC, Latin-1 open systems
    {1208, "UTF-8"},          // Unicode
    {1252, "CP1252"},         // Windows, Latin-1
};

// The PCF layout: a 36-byte header, then the parameter structures, every
// field a 32-bit integer in the machine's order.
constexpr int32_t kHeaderLength = 36;
constexpr int32_t kHeaderVersion = 1;
constexpr int32_t kHeaderLengthOffset = 4;
constexpr int32_t kHeaderVersionOffset = 8;
constexpr int32_t kHeaderCountOffset = 32;

constexpr int32_t kTypeInteger = 3;
constexpr int32_t kTypeString = 4;
constexpr int32_t kTypeIntegerList = 5;
constexpr int32_t kTypeStringList = 6;

// Fields every structure starts with: type, structure length, identifier.
constexpr int32_t kParmTypeOffset = 0;
constexpr int32_t kParmLengthOffset = 4;
constexpr int32_t kParmIdOffset = 8;

constexpr int32_t kIntegerLength = 16;

// A string and a string list both carry their character set here.
constexpr int32_t kCcsidOffset = 12;
constexpr int32_t kStringLengthOffset = 16;
constexpr int32_t kStringDataOffset = 20;

constexpr int32_t kIntegerListCountOffset = 12;
constexpr int32_t kIntegerListDataOffset = 16;

constexpr int32_t kListCountOffset = 16;
constexpr int32_t kListStringLengthOffset = 20;
constexpr int32_t kListDataOffset = 24;

int32_t getField(const char *message, int64_t offset) {
  int32_t value;
  std::memcpy(&value, message + offset, sizeof value);
  return value;
}

int64_t roundUp4(int64_t length) { return (length + 3) & ~int64_t{3}; }

// A parameter structure that passed the checks: it lies wholly inside the
// message and its lengths agree with each other.
struct Parm {
  int32_t offset;
  int32_t type;
  int32_t length;
};

// Walks the header's count of structures from offset 36 and checks each as
// the message reader does.  False for anything the reader would refuse as a
// format error; the parameter identifiers are left to the reader.
bool walkMessage(const char *message, int32_t length, std::vector<Parm> &parms) {
  if (length < kHeaderLength || getField(message, kHeaderLengthOffset) != kHeaderLength ||
      getField(message, kHeaderVersionOffset) != kHeaderVersion) {
    return false;
  }
  const int32_t count = getField(message, kHeaderCountOffset);
  if (count < 0) {
    return false;
  }
  int64_t offset = kHeaderLength;
  for (int32_t i = 0; i < count; ++i) {
    if (offset + kParmIdOffset > length) {
      return false;
    }
    const int32_t type = getField(message, offset + kParmTypeOffset);
    const int64_t parmLength = getField(message, offset + kParmLengthOffset);
    // The smallest structure of each type is its fixed part; checking the
    // length against it first keeps every later field read inside.
    int64_t fixedLength;
    switch (type) {
      case kTypeInteger:
        fixedLength = kIntegerLength;
        break;
      case kTypeString:
        fixedLength = kStringDataOffset;
        break;
      case kTypeIntegerList:
        fixedLength = kIntegerListDataOffset;
        break;
      case kTypeStringList:
        fixedLength = kListDataOffset;
        break;
      default:
        return false;
    }
    if (parmLength < fixedLength || offset + parmLength > length) {
      return false;
    }
    if (type == kTypeInteger && parmLength != kIntegerLength) {
      return false;
    }
    if (parmLength % 4 != 0) {
      return false;
    }
    if (type == kTypeString) {
      const int64_t stringLength = getField(message, offset + kStringLengthOffset);
      if (stringLength < 0 || parmLength < kStringDataOffset + stringLength) {
        return false;
      }
    } else if (type == kTypeIntegerList) {
      const int64_t values = getField(message, offset + kIntegerListCountOffset);
      if (values < 0 || parmLength < kIntegerListDataOffset + 4 * values) {
        return false;
      }
    } else if (type == kTypeStringList) {
      const int64_t strings = getField(message, offset + kListCountOffset);
      const int64_t stringLength = getField(message, offset + kListStringLengthOffset);
      if (strings < 0 || stringLength < 0 ||
          parmLength < kListDataOffset + strings * stringLength) {
        return false;
      }
    }
    parms.push_back({static_cast<int32_t>(offset), type, static_cast<int32_t>(parmLength)});
    offset += parmLength;
  }
  return true;
}

// The character set a string structure's bytes are in: its own CCSID field,
// or the message's when that field is 0.
int32_t sourceOf(const char *message, const Parm &parm, int32_t fromCcsid) {
  const int32_t own = getField(message, parm.offset + kCcsidOffset);
  return own != 0 ? own : fromCcsid;
}

bool isStringParm(const Parm &parm) {
  return parm.type == kTypeString || parm.type == kTypeStringList;
}

// Guards the opening and closing of converters.  iconv loads a converter's
// module on first use under a lock of its own that thread checkers cannot
// see; opening and closing under this one as well orders the loading of a
// module before its use on any other thread, in a way they can check.
std::mutex &openLock() {
  static std::mutex lock;
  return lock;
}

// The converters of one message to its target set, one for each source set
// that its strings use, opened on first use and closed with the object.  An
// iconv descriptor keeps conversion state, so it is never shared: each
// conversion, on whatever thread, has its own.
class Converters {
 public:
  explicit Converters(int32_t targetCcsid) : targetCcsid_(targetCcsid) {}
  Converters(const Converters &) = delete;
  Converters &operator=(const Converters &) = delete;
  ~Converters() {
    const std::lock_guard<std::mutex> guard(openLock());
    for (const Open &open : open_) {
      iconv_close(open.descriptor);
    }
  }

  // The converter from sourceCcsid to the target; false when either set is
  // not in the table or iconv cannot convert between them.
  bool find(int32_t sourceCcsid, iconv_t &descriptor) {
    for (const Open &open : open_) {
      if (open.sourceCcsid == sourceCcsid) {
        descriptor = open.descriptor;
        return true;
      }
    }
    const char *from = iconvNameOf(sourceCcsid);
    const char *to = iconvNameOf(targetCcsid_);
    if (from == nullptr || to == nullptr) {
      return false;
    }
    open_.reserve(open_.size() + 1);  // so that the push below cannot throw
    {
      const std::lock_guard<std::mutex> guard(openLock());
      descriptor = iconv_open(to, from);
    }
    if (descriptor == reinterpret_cast<iconv_t>(-1)) {
      return false;
    }
    open_.push_back({sourceCcsid, descriptor});
    return true;
  }

 private:
  struct Open {
    int32_t sourceCcsid;
    iconv_t descriptor;
  };
  int32_t targetCcsid_;
  std::vector<Open> open_;
};

// Converts `length` bytes at `in` into `out` (replacing its contents), which
// may take at most `room` bytes.  False for a byte sequence with no mapping in
// the target set or cut off in the middle of a character, and for a result
// longer than `room`.
bool convertBytes(iconv_t descriptor, const char *in, int64_t length, int64_t room,
                  std::vector<char> &out) {
  out.clear();
  if (length == 0) {
    return true;
  }
  out.resize(static_cast<size_t>(std::min(length * kMaxConversionGrowth, room)));
  iconv(descriptor, nullptr, nullptr, nullptr, nullptr);
  char *inPtr = const_cast<char *>(in);  // iconv's signature; it only reads the input
  size_t inLeft = static_cast<size_t>(length);
  char *outPtr = out.data();
  size_t outLeft = out.size();
  if (iconv(descriptor, &inPtr, &inLeft, &outPtr, &outLeft) == static_cast<size_t>(-1) ||
      iconv(descriptor, nullptr, nullptr, &outPtr, &outLeft) == static_cast<size_t>(-1)) {
    return false;
  }
  out.resize(out.size() - outLeft);
  return true;
}

// The converted message being built, refused once it would pass its limit.
class Output {
 public:
  Output(std::vector<char> &bytes, int64_t limit) : bytes_(bytes), limit_(limit) { bytes_.clear(); }

  int64_t room() const { return limit_ - static_cast<int64_t>(bytes_.size()); }
  bool fits(int64_t more) const { return more <= room(); }
  void append(const char *data, int64_t length) {
    bytes_.insert(bytes_.end(), data, data + length);
  }
  void appendField(int32_t value) {
    char field[sizeof value];
    std::memcpy(field, &value, sizeof value);
    append(field, sizeof field);
  }
  void appendZeros(int64_t length) { bytes_.insert(bytes_.end(), static_cast<size_t>(length), 0); }

 private:
  std::vector<char> &bytes_;
  int64_t limit_;
};

// A string structure with its string in the target set; the padding that
// rounds it up to 4 bytes is zero, and any surplus of the original is gone.
bool convertString(const char *message, const Parm &parm, int32_t fromCcsid, int32_t targetCcsid,
                   Converters &converters, std::vector<char> &scratch, Output &output) {
  const int32_t source = sourceOf(message, parm, fromCcsid);
  const int64_t length = getField(message, parm.offset + kStringLengthOffset);
  const char *data = message + parm.offset + kStringDataOffset;
  if (source == targetCcsid) {
    scratch.assign(data, data + length);
  } else {
    iconv_t descriptor;
    if (!converters.find(source, descriptor) ||
        !convertBytes(descriptor, data, length, output.room(), scratch)) {
      return false;
    }
  }
  const int64_t newLength = static_cast<int64_t>(scratch.size());
  const int64_t parmLength = kStringDataOffset + roundUp4(newLength);
  if (!output.fits(parmLength)) {
    return false;
  }
  output.appendField(kTypeString);
  output.appendField(static_cast<int32_t>(parmLength));
  output.appendField(getField(message, parm.offset + kParmIdOffset));
  output.appendField(targetCcsid);
  output.appendField(static_cast<int32_t>(newLength));
  output.append(scratch.data(), newLength);
  output.appendZeros(parmLength - kStringDataOffset - newLength);
  return true;
}

// A string list with every string in the target set.  Each string is
// converted without the zero bytes that pad it to the list's string length;
// the new string length is that of the longest converted string, and every
// string is padded to it with zero bytes again.  A list already in the target
// set keeps its strings and string length as they are.
bool convertStringList(const char *message, const Parm &parm, int32_t fromCcsid,
                       int32_t targetCcsid, Converters &converters, std::vector<char> &scratch,
                       Output &output) {
  const int32_t source = sourceOf(message, parm, fromCcsid);
  const int64_t count = getField(message, parm.offset + kListCountOffset);
  const int64_t stringLength = getField(message, parm.offset + kListStringLengthOffset);
  const char *data = message + parm.offset + kListDataOffset;

  // The converted strings one after the other, with their ends.  With a
  // string length of 0 every string is empty whatever the count, and the
  // loop is skipped; otherwise the count is bounded by the message length.
  std::vector<char> strings;
  std::vector<int64_t> ends;
  int64_t newLength = stringLength;
  if (source == targetCcsid) {
    strings.assign(data, data + count * stringLength);
  } else {
    iconv_t descriptor;
    if (!converters.find(source, descriptor)) {
      return false;
    }
    newLength = 0;
    if (stringLength > 0) {
      ends.reserve(static_cast<size_t>(count));
      for (int64_t i = 0; i < count; ++i) {
        const char *string = data + i * stringLength;
        int64_t used = stringLength;
        while (used > 0 && string[used - 1] == 0) {
          --used;
        }
        if (!convertBytes(descriptor, string, used, output.room(), scratch)) {
          return false;
        }
        strings.insert(strings.end(), scratch.begin(), scratch.end());
        if (!output.fits(static_cast<int64_t>(strings.size()))) {
          return false;
        }
        ends.push_back(static_cast<int64_t>(strings.size()));
        newLength = std::max(newLength, static_cast<int64_t>(scratch.size()));
      }
    }
  }

  const int64_t contentLength = count * newLength;
  const int64_t parmLength = roundUp4(kListDataOffset + contentLength);
  if (!output.fits(parmLength)) {
    return false;
  }
  output.appendField(kTypeStringList);
  output.appendField(static_cast<int32_t>(parmLength));
  output.appendField(getField(message, parm.offset + kParmIdOffset));
  output.appendField(targetCcsid);
  output.appendField(static_cast<int32_t>(count));
  output.appendField(static_cast<int32_t>(newLength));
  if (ends.empty()) {
    output.append(strings.data(), static_cast<int64_t>(strings.size()));
  } else {
    int64_t start = 0;
    for (const int64_t end : ends) {
      output.append(strings.data() + start, end - start);
      output.appendZeros(newLength - (end - start));
      start = end;
    }
  }
  output.appendZeros(parmLength - kListDataOffset - contentLength);
  return true;
}

bool convertChecked(const char *message, int32_t length, int32_t fromCcsid, int32_t targetCcsid,
                    std::vector<char> &converted) {
  if (message == nullptr || length < 0) {
    return false;
  }
  std::vector<Parm> parms;
  if (!walkMessage(message, length, parms)) {
    return false;
  }
  const bool inTarget = std::none_of(parms.begin(), parms.end(), [&](const Parm &parm) {
    return isStringParm(parm) && sourceOf(message, parm, fromCcsid) != targetCcsid;
  });
  if (inTarget) {
    converted.assign(message, message + length);
    return true;
  }

  // The limit also keeps every length of the result within 32 bits.
  converted.reserve(static_cast<size_t>(length));
  Output output(converted, std::min<int64_t>(kMaxConversionGrowth * length, INT32_MAX));
  output.append(message, kHeaderLength);
  Converters converters(targetCcsid);
  std::vector<char> scratch;
  for (const Parm &parm : parms) {
    switch (parm.type) {
      case kTypeString:
        if (!convertString(message, parm, fromCcsid, targetCcsid, converters, scratch, output)) {
          return false;
        }
        break;
      case kTypeStringList:
        if (!convertStringList(message, parm, fromCcsid, targetCcsid, converters, scratch,
                               output)) {
          return false;
        }
        break;
      default:
        if (!output.fits(parm.length)) {
          return false;
        }
        output.append(message + parm.offset, parm.length);
        break;
    }
  }
  return true;
}

}  // namespace

std::span<const CharacterSet> knownCharacterSets() { return kCharacterSets; }

const char *iconvNameOf(int32_t ccsid) {
  const auto found =
      std::lower_bound(std::begin(kCharacterSets), std::end(kCharacterSets), ccsid,
                       [](const CharacterSet &set, int32_t id) { return set.ccsid < id; });
  return found != std::end(kCharacterSets) && found->ccsid == ccsid ? found->iconvName : nullptr;
}

bool convertPcfMessage(const char *message, int32_t length, int32_t fromCcsid, int32_t targetCcsid,
                       std::vector<char> &converted) {
  // Memory for the result and the converted strings is the only thing that
  // can throw; a message that cannot have it is not converted.
  try {
    return convertChecked(message, length, fromCcsid, targetCcsid, converted);
  } catch (const std::exception &) {
    return false;
  }
}

}  // namespace vxqm
