// Cost of the message conversions: vxBagToBuffer (bag -> PCF message) and
// vxBufferToBag (message -> bag) on administration bags of 10, 100 and 1000
// user items, beside a plain memcpy of the same number of message bytes.
// Run by hand (see README); trace stays off.
//
// Each bag is a command 13 request: its leading string 2016, then a mix of
// integers and strings with distinct selectors, integers and strings that
// repeat a selector (written as integer and string lists), and inquiry items
// (written as the command's attribute list).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "svc.h"
#include "vxai.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int32_t kCommand = 13;        // a command with leading parameter 2016 and an inquiry list
constexpr double kTargetSeconds = 0.3;  // length of one timed run
constexpr int kRuns = 5;                // timed runs per measurement; the best one counts

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
// selectors (ten values per list) and one inquiry item.
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
          vxAddString(bag, 2100 + strings++, static_cast<int32_t>(value.size()), value.data(), &cc,
                      &rc);
        }
        break;
      case 1:
      case 5:
      case 9:
        while (specialIntegerSelector(nextInteger)) ++nextInteger;
        vxAddInteger(bag, nextInteger, nextInteger * 7, &cc, &rc);
        ++nextInteger;
        break;
      case 2:
      case 7:
        vxAddInteger(bag, 30 + integerMembers / 10, integerMembers, &cc, &rc);
        ++integerMembers;
        break;
      case 4:
      case 8: {
        std::string value = text(stringMembers, 1 + (stringMembers * 5) % 24);
        vxAddString(bag, 3900 + stringMembers / 10, static_cast<int32_t>(value.size()),
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

struct Row {
  int items;
  int32_t bytes;
  double write;  // ns per message, bag -> message
  double read;   // ns per message, message -> bag
  double copy;   // ns per memcpy of the message bytes
};

bool measure(int items, Row &row) {
  int32_t cc, rc, length = 0, count = 0;
  VXHBAG bag = requestBag(items);
  if (bag == BAG_NONE) return false;
  VXHBAG readBag = BAG_NONE;
  vxCreateBag(BAG_OPT_ADMIN_BAG, &readBag, &cc, &rc);
  if (failed("vxCreateBag", cc, rc)) return false;

  // A call with no buffer measures the message; a too short buffer is
  // reported as such, with the length the message needs.
  vxBagToBuffer(BAG_NONE, bag, 0, nullptr, &length, &cc, &rc);
  if (cc != CC_FAILED || rc != RC_BUFFER_LENGTH_ERROR) {
    failed("vxBagToBuffer measuring", cc, rc);
    return false;
  }
  std::vector<char> message(length), copy(length);
  vxBagToBuffer(BAG_NONE, bag, length, message.data(), &length, &cc, &rc);
  if (failed("vxBagToBuffer", cc, rc)) return false;
  vxBufferToBag(BAG_NONE, length, message.data(), readBag, &cc, &rc);
  if (failed("vxBufferToBag", cc, rc)) return false;
  vxCountItems(readBag, SEL_ANY_USER_SELECTOR, &count, &cc, &rc);
  if (count != items) {
    std::fprintf(stderr, "%d items read back from a bag of %d\n", count, items);
    return false;
  }

  int failures = 0;
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

}  // namespace

int main() {
  if (processAnchor.traceEnabled) {
    std::fprintf(stderr, "trace is switched on: unset the VXSVC_TRACE variables first\n");
    return 1;
  }
  std::vector<Row> rows;
  for (int items : {10, 100, 1000}) {
    Row row;
    if (!measure(items, row)) return 1;
    rows.push_back(row);
  }
  std::printf("command %d, administration bags; write = vxBagToBuffer, read = vxBufferToBag\n",
              kCommand);
  std::printf(
      "best of %d runs of ~%.1f s each; MB = 10^6 message bytes; ratio = time / memcpy time\n\n",
      kRuns, kTargetSeconds);
  std::printf("%6s %9s | %10s %10s | %10s %10s | %10s | %9s %9s\n", "items", "msg bytes",
              "write ns/i", "read ns/i", "write MB/s", "read MB/s", "memcpy ns", "write/cpy",
              "read/cpy");
  for (const Row &row : rows) {
    double bytes = static_cast<double>(row.bytes);
    std::printf("%6d %9d | %10.1f %10.1f | %10.1f %10.1f | %10.1f | %9.1f %9.1f\n", row.items,
                row.bytes, row.write / row.items, row.read / row.items, bytes * 1e3 / row.write,
                bytes * 1e3 / row.read, row.copy, row.write / row.copy, row.read / row.copy);
  }
  return 0;
}
