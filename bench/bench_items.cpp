// Cost of the call frame: nanoseconds per call of the exported item calls
// beside the same work done through the internal functions, on bags of 10,
// 100 and 1000 user items.  Run by hand (see README); trace stays off.
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "vxai.h"
#include "vxai_internal.h"

namespace {

using Clock = std::chrono::steady_clock;

// Runs `batch` (which does `calls` calls) until 200 ms have gone by, with
// `reset` run untimed after each batch; returns nanoseconds per call of the
// fastest batch, the one least disturbed by other work on the machine.
double nanosPerCall(
    int calls, const std::function<void()> &batch, const std::function<void()> &reset = [] {}) {
  Clock::duration spent{};
  Clock::duration fastest = Clock::duration::max();
  while (spent < std::chrono::milliseconds(200)) {
    auto start = Clock::now();
    batch();
    const Clock::duration took = Clock::now() - start;
    spent += took;
    if (took < fastest) fastest = took;
    reset();
  }
  return std::chrono::duration<double, std::nano>(fastest).count() / static_cast<double>(calls);
}

struct Row {
  std::string call;
  int items;
  double exported;
  double internal;
};

// A plain bag holding `items` integer items (selectors 1..items) or string
// items (selectors 2001..), each selector once.
VXHBAG filledBag(int items, bool strings) {
  VXHBAG bag;
  int32_t cc, rc;
  vxCreateBag(0, &bag, &cc, &rc);
  for (int i = 1; i <= items; ++i) {
    if (strings)
      vxAddString(bag, 2000 + i, 16, "0123456789ABCDEF", &cc, &rc);
    else
      vxAddInteger(bag, i, i, &cc, &rc);
  }
  return bag;
}

void measure(int items, std::vector<Row> &rows) {
  constexpr int kAdds = 100;
  int32_t cc, rc, value, length, ccsid;
  char buffer[32];

  VXHBAG integers = filledBag(items, false);
  VXHBAG strings = filledBag(items, true);
  zaiBAG *integerBag = zaiDecodeHandle(integers);
  zaiBAG *stringBag = zaiDecodeHandle(strings);
  auto truncateIntegers = [&] { vxTruncateBag(integers, items, &cc, &rc); };
  auto truncateStrings = [&] { vxTruncateBag(strings, items, &cc, &rc); };
  const int32_t last = items, lastString = 2000 + items;

  rows.push_back({"vxAddInteger", items,
                  nanosPerCall(
                      kAdds,
                      [&] {
                        for (int i = 0; i < kAdds; ++i)
                          vxAddInteger(integers, 1500 + i, i, &cc, &rc);
                      },
                      truncateIntegers),
                  nanosPerCall(
                      kAdds,
                      [&] {
                        for (int i = 0; i < kAdds; ++i)
                          zaiAddInteger(integerBag, 1500 + i, i, &cc, &rc);
                      },
                      truncateIntegers)});
  rows.push_back({"vxInquireInteger (index 0)", items,
                  nanosPerCall(1000,
                               [&] {
                                 for (int i = 0; i < 1000; ++i)
                                   vxInquireInteger(integers, last, 0, &value, &cc, &rc);
                               }),
                  nanosPerCall(1000, [&] {
                    for (int i = 0; i < 1000; ++i)
                      zaiInquireInteger(integerBag, last, 0, &value, &cc, &rc);
                  })});
  rows.push_back({"vxInquireInteger (index -1)", items,
                  nanosPerCall(1000,
                               [&] {
                                 for (int i = 0; i < 1000; ++i)
                                   vxInquireInteger(integers, last, ITEM_INDEX_NONE, &value, &cc,
                                                    &rc);
                               }),
                  nanosPerCall(1000, [&] {
                    for (int i = 0; i < 1000; ++i)
                      zaiInquireInteger(integerBag, last, ITEM_INDEX_NONE, &value, &cc, &rc);
                  })});
  rows.push_back({"vxAddString", items,
                  nanosPerCall(
                      kAdds,
                      [&] {
                        for (int i = 0; i < kAdds; ++i)
                          vxAddString(strings, 3500 + i, 16, "0123456789ABCDEF", &cc, &rc);
                      },
                      truncateStrings),
                  nanosPerCall(
                      kAdds,
                      [&] {
                        for (int i = 0; i < kAdds; ++i)
                          zaiAddString(stringBag, 3500 + i, 16, "0123456789ABCDEF", 0, &cc, &rc);
                      },
                      truncateStrings)});
  rows.push_back({"vxInquireString", items,
                  nanosPerCall(1000,
                               [&] {
                                 for (int i = 0; i < 1000; ++i)
                                   vxInquireString(strings, lastString, 0, sizeof buffer, buffer,
                                                   &length, &ccsid, &cc, &rc);
                               }),
                  nanosPerCall(1000, [&] {
                    for (int i = 0; i < 1000; ++i)
                      zaiInquireString(stringBag, lastString, 0, sizeof buffer, buffer, &length,
                                       &ccsid, &cc, &rc);
                  })});
  rows.push_back({"vxCountItems", items,
                  nanosPerCall(1000,
                               [&] {
                                 for (int i = 0; i < 1000; ++i)
                                   vxCountItems(integers, last, &value, &cc, &rc);
                               }),
                  nanosPerCall(1000, [&] {
                    for (int i = 0; i < 1000; ++i) value = zaiCountItems(integerBag, 0, last);
                  })});

  vxDeleteBag(&integers, &cc, &rc);
  vxDeleteBag(&strings, &cc, &rc);
}

}  // namespace

int main() {
  std::vector<Row> rows;
  for (int items : {10, 100, 1000}) measure(items, rows);
  std::printf("%-28s %6s %14s %14s %8s\n", "call", "items", "exported ns", "internal ns", "ratio");
  for (const Row &row : rows)
    std::printf("%-28s %6d %14.1f %14.1f %8.2f\n", row.call.c_str(), row.items, row.exported,
                row.internal, row.exported / row.internal);
  return 0;
}
