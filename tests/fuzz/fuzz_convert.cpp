// Fuzz target for the queue manager's conversion of PCF messages on get
// (platform/qm/convert.h), called directly.
//
// An input is two bytes that choose the message's character set and the
// target set (each from the ten sets of the table, or an id the table does
// not hold), followed by the message in the machine's byte order.  The format
// ("VXADMIN ", "VXPCF   ", "VXEVENT ") only decides whether a get converts
// at all; convertPcfMessage never sees it.  Each run checks:
//   1. the conversion succeeds exactly when an independent walk finds the
//      message well formed and, for any string not yet in the target set,
//      both sets are in the table;
//   2. a message whose strings are all in the target set comes back byte for
//      byte; otherwise the result is at most kMaxConversionGrowth times as
//      long as the message, holds the header and the counted structures
//      only, in order, integers untouched, every string structure in the
//      target set with lengths that agree;
//   3. the result, converted again to the target set, is copied byte for
//      byte (every string of it is in that set now);
//   4. converted back to the source set, when every string came from one set
//      and the two sets give back every byte that passes between them (found
//      with iconv at start), the strings are those of the message: single
//      strings exactly, the strings of a list up to their trailing zeros.
// A broken rule aborts, so that libFuzzer keeps the input.
#include <iconv.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "convert.h"

namespace {

// The sets of the table, then two ids it does not hold.
constexpr int32_t kCcsids[] = {37, 367, 437, 500, 819, 850, 923, 1047, 1208, 1252, 0, 1200};
constexpr size_t kCcsidCount = sizeof kCcsids / sizeof kCcsids[0];
constexpr size_t kTableSets = 10;
constexpr int32_t kUtf8 = 1208;
constexpr int32_t kHeaderLength = 36;

[[noreturn]] void broken(const char *rule, int32_t from, int32_t to) {
  std::fprintf(stderr, "fuzz_convert: %s (from %d to %d)\n", rule, from, to);
  std::abort();
}

void require(bool holds, const char *rule, int32_t from, int32_t to) {
  if (!holds) broken(rule, from, to);
}

int32_t field(const std::vector<char> &bytes, int64_t offset) {
  int32_t value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

// One structure as the walk finds it.
struct Structure {
  int32_t type;
  int32_t parameter;
  int32_t ccsid;  // strings only: the structure's own field
  std::vector<int32_t> integers;
  std::vector<std::string> strings;
  int32_t length;
};

// The message's structures, or nothing when the reader would refuse its
// layout.  Written from the PCF layout, not from convert.cpp.
std::optional<std::vector<Structure>> walk(const std::vector<char> &message) {
  const int64_t length = static_cast<int64_t>(message.size());
  if (length < kHeaderLength || field(message, 4) != kHeaderLength || field(message, 8) != 1)
    return std::nullopt;
  const int32_t count = field(message, 32);
  if (count < 0) return std::nullopt;
  std::vector<Structure> structures;
  int64_t at = kHeaderLength;
  for (int32_t i = 0; i < count; ++i) {
    if (at + 8 > length) return std::nullopt;
    Structure s{field(message, at), 0, 0, {}, {}, field(message, at + 4)};
    const int64_t fixed = s.type == 3   ? 16
                          : s.type == 4 ? 20
                          : s.type == 5 ? 16
                          : s.type == 6 ? 24
                                        : -1;
    if (fixed < 0 || s.length < fixed || at + s.length > length || s.length % 4 != 0)
      return std::nullopt;
    s.parameter = field(message, at + 8);
    if (s.type == 3) {
      if (s.length != 16) return std::nullopt;
      s.integers.push_back(field(message, at + 12));
    } else if (s.type == 4) {
      s.ccsid = field(message, at + 12);
      const int64_t stringLength = field(message, at + 16);
      if (stringLength < 0 || s.length < 20 + stringLength) return std::nullopt;
      s.strings.emplace_back(message.data() + at + 20, static_cast<size_t>(stringLength));
    } else if (s.type == 5) {
      const int64_t values = field(message, at + 12);
      if (values < 0 || s.length < 16 + 4 * values) return std::nullopt;
      for (int64_t v = 0; v < values; ++v) s.integers.push_back(field(message, at + 16 + 4 * v));
    } else {
      s.ccsid = field(message, at + 12);
      const int64_t strings = field(message, at + 16), stringLength = field(message, at + 20);
      if (strings < 0 || stringLength < 0 || s.length < 24 + strings * stringLength)
        return std::nullopt;
      // A list of empty strings may claim any count; its strings are not
      // kept, only their number in `integers`.
      if (stringLength == 0) {
        s.integers.push_back(static_cast<int32_t>(strings));
      } else {
        for (int64_t v = 0; v < strings; ++v)
          s.strings.emplace_back(message.data() + at + 24 + v * stringLength,
                                 static_cast<size_t>(stringLength));
      }
    }
    structures.push_back(std::move(s));
    at += field(message, at + 4);
  }
  return structures;
}

bool isString(const Structure &s) { return s.type == 4 || s.type == 6; }

// The number of strings of a list structure.
size_t listCount(const Structure &s) {
  return s.strings.empty() && !s.integers.empty() ? static_cast<size_t>(s.integers[0])
                                                  : s.strings.size();
}

std::string withoutTrailingZeros(std::string text) {
  while (!text.empty() && text.back() == 0) text.pop_back();
  return text;
}

bool inTable(int32_t ccsid) { return vxqm::iconvNameOf(ccsid) != nullptr; }

// roundTrips[a][b]: every byte that converts from set a to set b comes back
// as itself, for a one-byte set a.  Found with iconv at start.
bool roundTrips[kTableSets][kTableSets];
// converts[a][b]: every byte of the one-byte set a has a mapping in set b,
// so that any string of a converts.
bool converts[kTableSets][kTableSets];

bool convertWithIconv(iconv_t descriptor, const std::string &in, std::string &out) {
  iconv(descriptor, nullptr, nullptr, nullptr, nullptr);
  std::vector<char> buffer(in.size() * 4 + 4);
  char *inPtr = const_cast<char *>(in.data());
  size_t inLeft = in.size(), outLeft = buffer.size();
  char *outPtr = buffer.data();
  if (iconv(descriptor, &inPtr, &inLeft, &outPtr, &outLeft) == static_cast<size_t>(-1) ||
      iconv(descriptor, nullptr, nullptr, &outPtr, &outLeft) == static_cast<size_t>(-1))
    return false;
  out.assign(buffer.data(), buffer.size() - outLeft);
  return true;
}

void findRoundTrips() {
  for (size_t a = 0; a < kTableSets; ++a) {
    for (size_t b = 0; b < kTableSets; ++b) {
      roundTrips[a][b] = converts[a][b] = false;
      if (kCcsids[a] == kUtf8 || a == b) continue;
      iconv_t there = iconv_open(vxqm::iconvNameOf(kCcsids[b]), vxqm::iconvNameOf(kCcsids[a]));
      iconv_t back = iconv_open(vxqm::iconvNameOf(kCcsids[a]), vxqm::iconvNameOf(kCcsids[b]));
      const bool opened =
          there != reinterpret_cast<iconv_t>(-1) && back != reinterpret_cast<iconv_t>(-1);
      bool all = opened, every = opened;
      for (int byte = 0; opened && byte < 256; ++byte) {
        const std::string one(1, static_cast<char>(byte));
        std::string converted, again;
        if (!convertWithIconv(there, one, converted)) {
          every = false;
          continue;
        }
        all = all && convertWithIconv(back, converted, again) && again == one;
      }
      converts[a][b] = every;
      if (there != reinterpret_cast<iconv_t>(-1)) iconv_close(there);
      if (back != reinterpret_cast<iconv_t>(-1)) iconv_close(back);
      roundTrips[a][b] = all;
    }
  }
}

size_t indexOf(int32_t ccsid) {
  for (size_t i = 0; i < kTableSets; ++i)
    if (kCcsids[i] == ccsid) return i;
  return kTableSets;
}

// The result of a conversion that succeeded: the header of the message, its
// structures in order, integers as they were, strings in the target set.
void checkResult(const std::vector<char> &message, const std::vector<Structure> &before,
                 const std::vector<char> &result, int32_t from, int32_t to) {
  require(static_cast<int64_t>(result.size()) <=
              vxqm::kMaxConversionGrowth * static_cast<int64_t>(message.size()),
          "the result outgrew the message", from, to);
  require(std::memcmp(result.data(), message.data(), kHeaderLength) == 0, "the header changed",
          from, to);
  const std::optional<std::vector<Structure>> after = walk(result);
  require(after.has_value(), "the result is not a well-formed message", from, to);
  require(after->size() == before.size(), "the result has another number of structures", from, to);
  int64_t end = kHeaderLength;
  for (size_t i = 0; i < before.size(); ++i) {
    const Structure &was = before[i], &is = (*after)[i];
    end += is.length;
    require(is.type == was.type && is.parameter == was.parameter,
            "a structure changed its type or identifier", from, to);
    if (!isString(was)) {
      require(is.integers == was.integers && is.length == was.length, "an integer changed", from,
              to);
      continue;
    }
    require(is.ccsid == to, "a converted string is not marked with the target set", from, to);
    require(listCount(is) == listCount(was), "a list changed its number of strings", from, to);
    // Only zero bytes pad a converted string or list.
    if (was.type == 4) {
      const int64_t padded = ((static_cast<int64_t>(is.strings[0].size()) + 3) & ~int64_t{3});
      require(is.length == 20 + padded, "a string structure is longer than its string", from, to);
    }
  }
  require(end == static_cast<int64_t>(result.size()),
          "the result holds bytes after its last structure", from, to);
}

// Back from the target set to the one set every string came from.
void checkRoundTrip(const std::vector<Structure> &before, const std::vector<char> &result,
                    int32_t source, int32_t from, int32_t to) {
  std::vector<char> back;
  require(
      vxqm::convertPcfMessage(result.data(), static_cast<int32_t>(result.size()), to, source, back),
      "a result could not be converted back to its source set", from, to);
  const std::optional<std::vector<Structure>> again = walk(back);
  require(again.has_value() && again->size() == before.size(),
          "the round trip changed the structures", from, to);
  for (size_t i = 0; i < before.size(); ++i) {
    const Structure &was = before[i], &is = (*again)[i];
    if (!isString(was)) continue;
    if (was.type == 4) {
      require(is.strings[0] == was.strings[0], "the round trip changed a string", from, to);
      continue;
    }
    require(listCount(is) == listCount(was), "the round trip changed a list's count", from, to);
    for (size_t s = 0; s < was.strings.size() && s < is.strings.size(); ++s)
      require(withoutTrailingZeros(is.strings[s]) == withoutTrailingZeros(was.strings[s]),
              "the round trip changed a string of a list", from, to);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  findRoundTrips();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2 || size - 2 > INT32_MAX / vxqm::kMaxConversionGrowth) return 0;
  const int32_t from = kCcsids[data[0] % kCcsidCount];
  const int32_t to = kCcsids[data[1] % kCcsidCount];
  // A block of exactly the message's length: any read past it is reported.
  const std::vector<char> message(data + 2, data + size);
  const auto length = static_cast<int32_t>(message.size());

  std::vector<char> result;
  const bool converted = vxqm::convertPcfMessage(message.data(), length, from, to, result);

  const std::optional<std::vector<Structure>> structures = walk(message);
  if (!structures) {
    require(!converted, "a message the reader refuses was converted", from, to);
    return 0;
  }
  bool allInTarget = true, setsKnown = true, mustConvert = true;
  std::optional<int32_t> onlySource;
  bool oneSource = true;
  for (const Structure &s : *structures) {
    if (!isString(s)) continue;
    const int32_t source = s.ccsid != 0 ? s.ccsid : from;
    if (source == to) continue;
    allInTarget = false;
    setsKnown = setsKnown && inTable(source) && inTable(to);
    mustConvert = mustConvert && indexOf(source) < kTableSets && indexOf(to) < kTableSets &&
                  converts[indexOf(source)][indexOf(to)];
    if (onlySource && *onlySource != source) oneSource = false;
    onlySource = source;
  }
  if (allInTarget) {
    require(converted && result == message,
            "a message already in the target set was not copied as it is", from, to);
    return 0;
  }
  if (!setsKnown) {
    require(!converted, "a message was converted from or to a set not in the table", from, to);
    return 0;
  }
  // A one-byte set whose every byte maps into the target grows at most
  // threefold (into UTF-8), within the limit.
  require(converted || !mustConvert, "a message every byte of which has a mapping was refused",
          from, to);
  if (!converted) return 0;  // bytes with no mapping, or the growth limit
  checkResult(message, *structures, result, from, to);

  std::vector<char> again;
  require(
      vxqm::convertPcfMessage(result.data(), static_cast<int32_t>(result.size()), to, to, again) &&
          again == result,
      "a result converted to its own set again changed", from, to);

  // Every string here came from a set other than the target; strings in the
  // target set already would be converted back too, which nothing promises.
  bool anyInTarget = false;
  for (const Structure &s : *structures)
    if (isString(s) && (s.ccsid != 0 ? s.ccsid : from) == to) anyInTarget = true;
  const size_t a = indexOf(onlySource.value_or(0)), b = indexOf(to);
  if (oneSource && !anyInTarget && a < kTableSets && b < kTableSets && roundTrips[a][b])
    checkRoundTrip(*structures, result, *onlySource, from, to);
  return 0;
}
