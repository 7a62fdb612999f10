// What the store benchmarks time: one process puts messages on a queue of
// its own through the queue manager, then gets them all.
#ifndef VX_BENCH_PUT_THEN_GET_H
#define VX_BENCH_PUT_THEN_GET_H

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qm.h"
#include "qm_admin.h"
#include "vxqi_records.h"

namespace bench {

struct PutThenGet {
  std::chrono::steady_clock::duration put, get;
};

// Puts `count` messages of `length` bytes with `persistence` on a new queue
// BENCH of the queue manager `qmName` (made in this process, with the
// environment as it is), then gets them; ends the run when a call fails.
inline PutThenGet putThenGet(const std::string &qmName, int32_t persistence, long count,
                             int32_t length) {
  using Clock = std::chrono::steady_clock;
  const auto check = [](bool good, const char *what) {
    if (good) return;
    std::fprintf(stderr, "%s failed\n", what);
    std::exit(1);
  };
  vxqm::QueueChanges changes;
  changes.maxDepth = static_cast<int32_t>(count);
  check(vxqm::admin::createQueue(qmName, "BENCH", changes) == RC_NONE, "create queue");
  char name[QM_NAME_LENGTH] = {};
  std::memcpy(name, qmName.data(), qmName.size());
  int32_t hconn = 0, cc = 0, rc = 0;
  qmCONN(name, &hconn, &cc, &rc, 0);
  check(cc == CC_OK, "connect");
  vxOBJDESC od = OD_DEFAULT;
  std::memcpy(od.objectName, "BENCH", 5);
  int32_t hobj = 0;
  qmOPEN(hconn, &od, OPEN_OUTPUT | OPEN_INPUT_SHARED, &hobj, &cc, &rc);
  check(cc == CC_OK, "open");
  std::vector<char> data(static_cast<size_t>(length), 'x');

  const Clock::time_point putStart = Clock::now();
  for (long i = 0; i < count; ++i) {
    vxMSGDESC md = MD_DEFAULT;
    md.persistence = persistence;
    vxPUTOPTS pmo = PMO_DEFAULT;
    qmPUT(hconn, hobj, &md, &pmo, length, data.data(), 0, &cc, &rc);
    check(cc == CC_OK, "put");
  }
  const Clock::time_point getStart = Clock::now();
  for (long i = 0; i < count; ++i) {
    vxMSGDESC md = MD_DEFAULT;
    vxGETOPTS gmo = GMO_DEFAULT;
    int32_t got = 0;
    qmGET(hconn, hobj, &md, &gmo, length, data.data(), &got, 0, &cc, &rc);
    check(cc == CC_OK, "get");
  }
  const Clock::time_point end = Clock::now();
  qmCLOSE(hconn, &hobj, 0, &cc, &rc);
  qmDISC(&hconn, 0, &cc, &rc);
  return {getStart - putStart, end - getStart};
}

}  // namespace bench

#endif  // VX_BENCH_PUT_THEN_GET_H
