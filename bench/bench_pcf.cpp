// Cost of the message conversions: vxBagToBuffer (bag -> PCF message) and
// vxBufferToBag (message -> bag) on bags of 10 to 10,000 user items, beside a
// plain encoder and decoder of the same items written here without any check
// (what a program would write by hand for these very items) and a memcpy of
// the message bytes.  Run by hand (see README); trace stays off.
//
// Three kinds of bag:
// - admin: a command 13 request, its leading string 2016, then a mix of
//   integers and strings with distinct selectors, integers and strings that
//   repeat a selector (written as integer and string lists), and inquiry
//   items (written as the command's attribute list);
// - distinct: a bag with list form of integers, each under its own selector;
// - names: a bag with list form and reordering holding one list of names
//   under one selector.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "svc.h"
#include "vxai.h"
#include "vxai_internal.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int32_t kCommand = 13;        // a command with leading parameter 2016 and an inquiry list
constexpr double kTargetSeconds = 0.2;  // length of one timed run
constexpr int kRuns = 3;                // timed runs per measurement; the best one counts

// Seconds taken by `repetitions` calls of `operation`.
template <typename Operation>
double secondsFor(long repetitions, Operation &operation) {
  auto start = Clock::now();
  for (long i = 0; i < repetitions; ++i) operation();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Nanoseconds per call of `operation`, the best of kRuns runs of about
// kTargetSeconds each.  The repetition count is found by doubling until a run
// lasts 50 ms, then scaled up to the target length.
template <typename Operation>
double bestNanos(Operation operation) {
  long repetitions = 1;
  for (;;) {
    double seconds = secondsFor(repetitions, operation);
    if (seconds >= 0.05) {
      repetitions =
          std::max(repetitions, static_cast<long>(repetitions * kTargetSeconds / seconds));
      break;
    }
    repetitions *= 2;
  }
  double best = std::numeric_limits<double>::infinity();
  for (int run = 0; run < kRuns; ++run)
    best =
        std::min(best, secondsFor(repetitions, operation) * 1e9 / static_cast<double>(repetitions));
  return best;
}

// Integer selectors that the writer treats specially: the inquiry selector,
// the attribute-list selectors (always written as lists) and 20, an optional
// leading parameter of command 13.  Distinct integers stay clear of them.
bool specialIntegerSelector(int32_t selector) {
  static const int32_t special[] = {20, 1001, 1002, 1003, 1004, 1015, 1019, 1026, 1074, 1093, 1524};
  return std::find(std::begin(special), std::end(special), selector) != std::end(special);
}

// Text of `length` characters for string item `n`.
std::string text(int n, int length) {
  std::string value;
  for (int i = 0; i < length; ++i) value += static_cast<char>('A' + (n + i) % 26);
  return value;
}

bool failed(const char *what, int32_t compCode, int32_t reason) {
  if (compCode == CC_OK) return false;
  std::fprintf(stderr, "%s: CompCode %d Reason %d\n", what, compCode, reason);
  return true;
}

// An administration bag for command 13 holding `items` user items.  Every
// block of ten items holds three distinct integers, two distinct strings
// (the first one of the bag is 2016), two integers and two strings of list
// selectors (ten values per list) and one inquiry item.  An administration
// bag checks its selectors, so past 1000 items the distinct selectors start
// their range again and repeat.
VXHBAG requestBag(int items) {
  VXHBAG bag = BAG_NONE;
  int32_t cc, rc;
  vxCreateBag(BAG_OPT_ADMIN_BAG, &bag, &cc, &rc);
  if (failed("vxCreateBag", cc, rc)) return BAG_NONE;
  vxSetInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE, kCommand, &cc, &rc);
  int32_t nextInteger = 100;
  int strings = 0, integerMembers = 0, stringMembers = 0, inquiries = 0;
  for (int i = 0; i < items && cc == CC_OK; ++i) {
    switch (i % 10) {
      case 0:
      case 3:
        if (i == 0) {
          vxAddString(bag, 2016, -1, "BENCH.REQUEST.QUEUE", &cc, &rc);
        } else {
          std::string value = text(strings, 1 + (strings * 13) % 48);
          vxAddString(bag, 2100 + strings++ % 1700, static_cast<int32_t>(value.size()),
                      value.data(), &cc, &rc);
        }
        break;
      case 1:
      case 5:
      case 9:
        while (specialIntegerSelector(nextInteger)) ++nextInteger;
        vxAddInteger(bag, nextInteger, nextInteger * 7, &cc, &rc);
        if (++nextInteger > 2000) nextInteger = 100;
        break;
      case 2:
      case 7:
        vxAddInteger(bag, 30 + integerMembers / 10 % 60, integerMembers, &cc, &rc);
        ++integerMembers;
        break;
      case 4:
      case 8: {
        std::string value = text(stringMembers, 1 + (stringMembers * 5) % 24);
        vxAddString(bag, 3900 + stringMembers / 10 % 100, static_cast<int32_t>(value.size()),
                    value.data(), &cc, &rc);
        ++stringMembers;
        break;
      }
      case 6:
        vxAddInquiry(bag, 1 + (inquiries++ * 37) % 4000, &cc, &rc);
        break;
    }
  }
  if (failed("filling the bag", cc, rc)) {
    vxDeleteBag(&bag, &cc, &rc);
    return BAG_NONE;
  }
  return bag;
}

// A bag with list form holding `items` integers, each under a selector of
// its own.
VXHBAG distinctBag(int items) {
  VXHBAG bag = BAG_NONE;
  int32_t cc, rc;
  vxCreateBag(BAG_OPT_LIST_FORM_ALLOWED, &bag, &cc, &rc);
  for (int i = 0; i < items && cc == CC_OK; ++i) vxAddInteger(bag, 5000 + i, i * 3, &cc, &rc);
  if (failed("filling the bag", cc, rc)) return BAG_NONE;
  return bag;
}

// A bag with list form and reordering holding `items` names under one
// selector: one string list.
VXHBAG namesBag(int items) {
  VXHBAG bag = BAG_NONE;
  int32_t cc, rc;
  vxCreateBag(BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST, &bag, &cc, &rc);
  for (int i = 0; i < items && cc == CC_OK; ++i) {
    std::string value = "NAME." + std::to_string(i) + "." + text(i, i % 20);
    vxAddString(bag, 3000, static_cast<int32_t>(value.size()), value.data(), &cc, &rc);
  }
  if (failed("filling the bag", cc, rc)) return BAG_NONE;
  return bag;
}

// ----- Plain encoder and decoder -----------------------------------------------------

// One parameter of a message as a hand-written encoder holds it: a single
// value or a list, the strings as pointer and length.
struct PlainParameter {
  int32_t type;  // PCF_TYPE_INTEGER ... PCF_TYPE_STRING_LIST
  int32_t selector;
  int32_t codedCharSetId;
  int32_t stringLength;  // string lists: what each string occupies
  std::vector<int32_t> integers;
  std::vector<const char *> strings;
  std::vector<int32_t> lengths;
};

// One item as a hand-written decoder keeps it: a heap copy of each string.
struct PlainItem {
  int32_t selector;
  int32_t integer;
  char *string;
  int32_t stringLength;
  int32_t codedCharSetId;
};

void put(char *&at, int32_t value) {
  std::memcpy(at, &value, sizeof value);
  at += sizeof value;
}

int32_t get(const char *&at) {
  int32_t value;
  std::memcpy(&value, at, sizeof value);
  at += sizeof value;
  return value;
}

// Writes the header and the parameters, with no check of any kind.
int32_t plainEncode(const PCFHeader &header, const std::vector<PlainParameter> &parameters,
                    char *buffer) {
  char *at = buffer;
  std::memcpy(at, &header, sizeof header);
  at += sizeof header;
  for (const PlainParameter &p : parameters) {
    switch (p.type) {
      case PCF_TYPE_INTEGER:
        put(at, p.type), put(at, 16), put(at, p.selector), put(at, p.integers[0]);
        break;
      case PCF_TYPE_STRING: {
        const int32_t length = p.lengths[0];
        put(at, p.type), put(at, 20 + zaiRoundUp4(length)), put(at, p.selector);
        put(at, p.codedCharSetId), put(at, length);
        std::memcpy(at, p.strings[0], static_cast<size_t>(length));
        at += zaiRoundUp4(length);
        break;
      }
      case PCF_TYPE_INTEGER_LIST: {
        const auto count = static_cast<int32_t>(p.integers.size());
        put(at, p.type), put(at, 16 + 4 * count), put(at, p.selector), put(at, count);
        std::memcpy(at, p.integers.data(), 4 * p.integers.size());
        at += 4 * count;
        break;
      }
      default: {
        const auto count = static_cast<int32_t>(p.strings.size());
        const int32_t length = zaiRoundUp4(24 + count * p.stringLength);
        put(at, p.type), put(at, length), put(at, p.selector), put(at, p.codedCharSetId);
        put(at, count), put(at, p.stringLength);
        for (int32_t i = 0; i < count; ++i) {
          std::memcpy(at, p.strings[i], static_cast<size_t>(p.lengths[i]));
          std::memset(at + p.lengths[i], 0, static_cast<size_t>(p.stringLength - p.lengths[i]));
          at += p.stringLength;
        }
        at = buffer + zaiRoundUp4(static_cast<int32_t>(at - buffer));
        break;
      }
    }
  }
  return static_cast<int32_t>(at - buffer);
}

// Reads every value of the message into items, with no check of any kind.
void plainDecode(const char *message, std::vector<PlainItem> &items) {
  const char *at = message + offsetof(PCFHeader, parameterCount);
  const int32_t parameters = get(at);
  items.clear();
  for (int32_t n = 0; n < parameters; ++n) {
    const char *structure = at;
    const int32_t type = get(at), length = get(at), selector = get(at);
    switch (type) {
      case PCF_TYPE_INTEGER:
        items.push_back({selector, get(at), nullptr, 0, 0});
        break;
      case PCF_TYPE_STRING: {
        const int32_t ccsid = get(at), stringLength = get(at);
        char *copy = static_cast<char *>(std::malloc(static_cast<size_t>(stringLength)));
        std::memcpy(copy, at, static_cast<size_t>(stringLength));
        items.push_back({selector, 0, copy, stringLength, ccsid});
        break;
      }
      case PCF_TYPE_INTEGER_LIST: {
        const int32_t count = get(at);
        for (int32_t i = 0; i < count; ++i) items.push_back({selector, get(at), nullptr, 0, 0});
        break;
      }
      default: {
        const int32_t ccsid = get(at), count = get(at), stringLength = get(at);
        for (int32_t i = 0; i < count; ++i, at += stringLength) {
          char *copy = static_cast<char *>(std::malloc(static_cast<size_t>(stringLength)));
          std::memcpy(copy, at, static_cast<size_t>(stringLength));
          items.push_back({selector, 0, copy, stringLength, ccsid});
        }
        break;
      }
    }
    at = structure + length;
  }
}

void releasePlain(std::vector<PlainItem> &items) {
  for (PlainItem &item : items) std::free(item.string);
  items.clear();
}

// The parameters of a message as the plain encoder takes them, read from a
// message the library wrote (untimed set-up): the same values, the same
// grouping into lists, so that both write the same bytes.
std::vector<PlainParameter> parametersOf(const char *message) {
  std::vector<PlainParameter> parameters;
  const char *at = message + offsetof(PCFHeader, parameterCount);
  const int32_t count = get(at);
  for (int32_t n = 0; n < count; ++n) {
    const char *structure = at;
    PlainParameter p = {};
    p.type = get(at);
    const int32_t length = get(at);
    p.selector = get(at);
    switch (p.type) {
      case PCF_TYPE_INTEGER:
        p.integers.push_back(get(at));
        break;
      case PCF_TYPE_STRING:
        p.codedCharSetId = get(at);
        p.lengths.push_back(get(at));
        p.strings.push_back(at);
        break;
      case PCF_TYPE_INTEGER_LIST:
        for (int32_t i = 0, values = get(at); i < values; ++i) p.integers.push_back(get(at));
        break;
      default: {
        p.codedCharSetId = get(at);
        const int32_t strings = get(at);
        p.stringLength = get(at);
        for (int32_t i = 0; i < strings; ++i) {
          p.strings.push_back(at + i * p.stringLength);
          p.lengths.push_back(p.stringLength);
        }
        break;
      }
    }
    parameters.push_back(std::move(p));
    at = structure + length;
  }
  return parameters;
}

struct Row {
  const char *kind;
  int items;
  int32_t bytes;
  double write;   // ns per message, bag -> message
  double read;    // ns per message, message -> bag
  double encode;  // ns per message, plain encoder
  double decode;  // ns per message, plain decoder
  double copy;    // ns per memcpy of the message bytes
};

bool measure(const char *kind, VXHBAG (*makeBag)(int), int items, Row &row) {
  int32_t cc, rc, length = 0, count = 0, options = 0;
  VXHBAG bag = makeBag(items);
  if (bag == BAG_NONE) return false;
  vxInquireInteger(bag, SEL_BAG_OPTIONS, 0, &options, &cc, &rc);
  VXHBAG readBag = BAG_NONE;
  vxCreateBag(options & 0x1F, &readBag, &cc, &rc);
  if (failed("vxCreateBag", cc, rc)) return false;

  // A call with no buffer measures the message; a too short buffer is
  // reported as such, with the length the message needs.
  vxBagToBuffer(BAG_NONE, bag, 0, nullptr, &length, &cc, &rc);
  if (cc != CC_FAILED || rc != RC_BUFFER_LENGTH_ERROR) {
    failed("vxBagToBuffer measuring", cc, rc);
    return false;
  }
  std::vector<char> message(length), copy(length), plain(length);
  vxBagToBuffer(BAG_NONE, bag, length, message.data(), &length, &cc, &rc);
  if (failed("vxBagToBuffer", cc, rc)) return false;
  vxBufferToBag(BAG_NONE, length, message.data(), readBag, &cc, &rc);
  if (failed("vxBufferToBag", cc, rc)) return false;
  vxCountItems(readBag, SEL_ANY_USER_SELECTOR, &count, &cc, &rc);
  if (count != items) {
    std::fprintf(stderr, "%d items read back from a bag of %d\n", count, items);
    return false;
  }
  PCFHeader header;
  std::memcpy(&header, message.data(), sizeof header);
  const std::vector<PlainParameter> parameters = parametersOf(message.data());
  if (plainEncode(header, parameters, plain.data()) != length ||
      std::memcmp(plain.data(), message.data(), static_cast<size_t>(length)) != 0) {
    std::fprintf(stderr, "%s: the plain encoder writes another message\n", kind);
    return false;
  }
  std::vector<PlainItem> decoded;
  decoded.reserve(static_cast<size_t>(items));
  plainDecode(message.data(), decoded);
  if (decoded.size() != static_cast<size_t>(items)) {
    std::fprintf(stderr, "%s: the plain decoder reads %zu items\n", kind, decoded.size());
    return false;
  }
  releasePlain(decoded);

  int failures = 0;
  row.kind = kind;
  row.items = items;
  row.bytes = length;
  row.write = bestNanos([&] {
    int32_t dataLength;
    vxBagToBuffer(BAG_NONE, bag, length, message.data(), &dataLength, &cc, &rc);
    failures += cc != CC_OK;
  });
  row.read = bestNanos([&] {
    vxBufferToBag(BAG_NONE, length, message.data(), readBag, &cc, &rc);
    failures += cc != CC_OK;
  });
  row.encode = bestNanos([&] {
    plainEncode(header, parameters, plain.data());
    asm volatile("" : : "r"(plain.data()) : "memory");
  });
  // The decoder's items are released as a bag's are when it is read again.
  row.decode = bestNanos([&] {
    releasePlain(decoded);
    plainDecode(message.data(), decoded);
  });
  releasePlain(decoded);
  row.copy = bestNanos([&] {
    std::memcpy(copy.data(), message.data(), static_cast<size_t>(length));
    // Makes the copy count as used, so that the compiler keeps it.
    asm volatile("" : : "r"(copy.data()) : "memory");
  });

  vxDeleteBag(&bag, &cc, &rc);
  vxDeleteBag(&readBag, &cc, &rc);
  if (failures != 0) std::fprintf(stderr, "%d conversions failed while timed\n", failures);
  return failures == 0;
}

struct Kind {
  const char *kind;
  VXHBAG (*makeBag)(int);
};
constexpr Kind kKinds[] = {{"admin", requestBag}, {"distinct", distinctBag}, {"names", namesBag}};

// "--calls KIND ITEMS N": N untimed calls of each of the four conversions on
// one bag, for counting instructions with a profiler (valgrind --tool=
// callgrind --toggle-collect=zaiVXBagToBuffer, and so on).  Two runs with
// different N give the cost of one call, set-up left out.
int countCalls(const char *kindName, int items, long calls) {
  for (const Kind &kind : kKinds) {
    if (std::strcmp(kind.kind, kindName) != 0) continue;
    int32_t cc, rc, length = 0, options = 0;
    VXHBAG bag = kind.makeBag(items), readBag = BAG_NONE;
    if (bag == BAG_NONE) return 1;
    vxInquireInteger(bag, SEL_BAG_OPTIONS, 0, &options, &cc, &rc);
    vxCreateBag(options & 0x1F, &readBag, &cc, &rc);
    vxBagToBuffer(BAG_NONE, bag, 0, nullptr, &length, &cc, &rc);
    std::vector<char> message(length), plain(length);
    vxBagToBuffer(BAG_NONE, bag, length, message.data(), &length, &cc, &rc);
    PCFHeader header;
    std::memcpy(&header, message.data(), sizeof header);
    const std::vector<PlainParameter> parameters = parametersOf(message.data());
    std::vector<PlainItem> decoded;
    decoded.reserve(static_cast<size_t>(items));
    for (long i = 0; i < calls; ++i) {
      vxBagToBuffer(BAG_NONE, bag, length, message.data(), &length, &cc, &rc);
      vxBufferToBag(BAG_NONE, length, message.data(), readBag, &cc, &rc);
      plainEncode(header, parameters, plain.data());
      releasePlain(decoded);
      plainDecode(message.data(), decoded);
    }
    releasePlain(decoded);
    vxDeleteBag(&bag, &cc, &rc);
    vxDeleteBag(&readBag, &cc, &rc);
    return cc == CC_OK ? 0 : 1;
  }
  std::fprintf(stderr, "no bag of kind %s\n", kindName);
  return 1;
}

}  // namespace

int main(int argc, char **argv) {
  if (processAnchor.traceEnabled) {
    std::fprintf(stderr, "trace is switched on: unset the VXSVC_TRACE variables first\n");
    return 1;
  }
  if (argc == 5 && std::strcmp(argv[1], "--calls") == 0)
    return countCalls(argv[2], std::atoi(argv[3]), std::atol(argv[4]));
  // An optional argument limits the run to one kind of bag.
  const char *only = argc > 1 ? argv[1] : nullptr;
  const auto &kinds = kKinds;
  std::printf("write = vxBagToBuffer, read = vxBufferToBag, enc/dec = plain encoder/decoder\n");
  std::printf("best of %d runs of ~%.1f s each; ns/i = nanoseconds per item\n\n", kRuns,
              kTargetSeconds);
  std::printf("%-8s %6s %9s | %9s %9s | %9s %9s | %9s | %7s %7s\n", "bag", "items", "msg bytes",
              "write ns/i", "read ns/i", "enc ns/i", "dec ns/i", "memcpy ns", "wri/enc",
              "read/dec");
  for (const auto &kind : kinds) {
    if (only && std::strcmp(only, kind.kind) != 0) continue;
    for (int items : {10, 100, 1000, 10000}) {
      Row row;
      if (!measure(kind.kind, kind.makeBag, items, row)) return 1;
      const double n = row.items;
      std::printf("%-8s %6d %9d | %9.1f %9.1f | %9.1f %9.1f | %9.1f | %7.2f %7.2f\n", row.kind,
                  row.items, row.bytes, row.write / n, row.read / n, row.encode / n, row.decode / n,
                  row.copy, row.write / row.encode, row.read / row.decode);
      std::fflush(stdout);
    }
  }
  return 0;
}
