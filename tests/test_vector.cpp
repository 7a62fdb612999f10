// The element vector: record, slot table, growth, add, remove and set, the
// checks of damaged vectors and bad indexes, memory failures, history
// markers and parameter trace.
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "vxtest.h"

namespace {

constexpr uint32_t identifierOf(int32_t function) {
  return static_cast<uint32_t>(ZAI_COMPONENT << 10 | function);
}
constexpr uint32_t entryMarker(int32_t function) { return 0xF0000000u | identifierOf(function); }
constexpr uint32_t exitMarker(int32_t result, int32_t function) {
  return static_cast<uint32_t>(result) << 16 | identifierOf(function);
}

// The record, and one slot-table entry (an address), take the width of the
// build.
constexpr int32_t kRecordBytes = sizeof(zaiVECTOR);
constexpr int32_t kEntryBytes = sizeof(void *);

// A 24-byte element, the size of a bag's item in the 32-bit build.
struct Element {
  int32_t words[6];
};

Element elementNumber(int32_t n) { return Element{{n, n * 7, -n, 0x5A5A0000 | n, n + 1000, ~n}}; }

bool sameElement(const void *place, const Element &element) {
  return std::memcmp(place, &element, sizeof element) == 0;
}

std::string hexOf(const void *address) {
  char text[32];
  std::snprintf(text, sizeof text, "%.8lX",
                static_cast<unsigned long>(reinterpret_cast<uintptr_t>(address)));
  return text;
}

// Every slot-table entry holds the address of its place, in use or not.
::testing::AssertionResult slotTableIsWhole(const zaiVECTOR *vector) {
  const auto *block = reinterpret_cast<const char *>(vector->slots);
  for (int32_t i = 0; i < vector->capacity; ++i) {
    const char *place = block + vector->capacity * kEntryBytes + i * vector->slotSize;
    if (vector->slots[i] != place)
      return ::testing::AssertionFailure()
             << "slot " << i << " of " << vector->capacity << " holds "
             << static_cast<const void *>(vector->slots[i]) << ", place is at "
             << static_cast<const void *>(place);
  }
  return ::testing::AssertionSuccess();
}

// ----- Failure reports, read back from their text -------------------------

struct DumpArea {
  std::string label;
  int32_t length = -1;
  std::vector<uint8_t> bytes;
};

struct Report {
  int32_t component = -1;
  int32_t function = -1;
  std::string functionName;
  int32_t probe = -1;
  std::string resultCode;
  std::string insertsEyeCatcher;
  int32_t numeric[4] = {-1, -1, -1, -1};
  std::vector<DumpArea> areas;
};

std::string reportText(int32_t i) {
  int32_t length = svcLatestFailureReport(i, nullptr, 0);
  if (length < 0) return {};
  std::vector<char> buffer(static_cast<size_t>(length) + 1);
  svcLatestFailureReport(i, buffer.data(), static_cast<int32_t>(buffer.size()));
  return buffer.data();
}

// The i-th latest report (0 = latest), taken apart.
Report reportNumber(int32_t i) {
  Report report;
  std::istringstream in(reportText(i));
  for (std::string line; std::getline(in, line);) {
    const size_t colon = line.find(": ");
    const std::string value = colon == std::string::npos ? "" : line.substr(colon + 2);
    if (line.rfind("Component", 0) == 0) {
      report.component = std::stoi(value);
    } else if (line.rfind("Function", 0) == 0) {
      std::istringstream(value) >> report.function >> report.functionName;
    } else if (line.rfind("Probe", 0) == 0) {
      report.probe = std::stoi(value);
    } else if (line.rfind("Result code", 0) == 0) {
      report.resultCode = value;
    } else if (line.rfind("Inserts", 0) == 0) {
      std::istringstream fields(value);
      fields >> report.insertsEyeCatcher;
      for (int32_t &number : report.numeric) fields >> number;
    } else if (line.rfind("Dump area", 0) == 0) {
      DumpArea area;
      const size_t open = value.rfind(" (");
      area.label = value.substr(0, open);
      area.length = std::stoi(value.substr(open + 2));
      report.areas.push_back(area);
    } else if (line.rfind("  ", 0) == 0 && !report.areas.empty()) {
      // "  00000010  5A564543 1C000000 ...  |ZVEC....|"
      size_t at = line.find(' ', line.find_first_not_of(' '));
      const size_t end = line.find(" |");
      for (; at < end; ++at) {
        if (line[at] == ' ') continue;
        report.areas.back().bytes.push_back(
            static_cast<uint8_t>(std::stoi(line.substr(at, 2), nullptr, 16)));
        ++at;
      }
    }
  }
  return report;
}

std::vector<uint8_t> bytesOf(const void *address, size_t length) {
  const auto *bytes = static_cast<const uint8_t *>(address);
  return std::vector<uint8_t>(bytes, bytes + length);
}

class VectorTest : public vxtest::VxTest {
 protected:
  void SetUp() override {
    VxTest::SetUp();
    svcInitialize(48, 1030, 0, 0, 0);
    anchor_ = svcThreadAnchor();
    ASSERT_NE(anchor_, nullptr);
    reportsAtStart_ = svcFailureReportCount();
  }

  void TearDown() override {
    for (zaiVECTOR *vector : vectors_) {
      std::memcpy(vector->eyeCatcher, "ZVEC", 4);
      EXPECT_EQ(zaiVectorDestroy(vector), 0);
    }
    VxTest::TearDown();
  }

  // A vector released by TearDown.
  zaiVECTOR *create(int32_t initialSpace, int32_t elementSize) {
    zaiVECTOR *vector = nullptr;
    EXPECT_EQ(zaiVectorCreate(initialSpace, elementSize, &vector), 0);
    if (vector) vectors_.push_back(vector);
    return vector;
  }

  // A vector holding elements 0 .. n-1 (Element, 24 bytes).
  zaiVECTOR *filled(int32_t initialSpace, int32_t n) {
    zaiVECTOR *vector = create(initialSpace, sizeof(Element));
    for (int32_t i = 0; vector && i < n; ++i) {
      Element element = elementNumber(i);
      EXPECT_EQ(zaiVectorAdd(vector, &element), 0);
    }
    return vector;
  }

  // Destroys a vector of create() before the end of the test.
  void destroy(zaiVECTOR *vector) {
    EXPECT_EQ(zaiVectorDestroy(vector), 0);
    std::erase(vectors_, vector);
  }

  int32_t reportsSinceStart() const { return svcFailureReportCount() - reportsAtStart_; }

  // Markers recorded in the history from slot `from` up to the current one.
  std::vector<uint32_t> markersFrom(int32_t from) const {
    std::vector<uint32_t> markers;
    for (int32_t i = from; i != anchor_->historyIndex; i = (i + 1) % anchor_->historySize)
      markers.push_back(anchor_->history[i]);
    return markers;
  }

  svcTHREADANCHOR *anchor_ = nullptr;
  int32_t reportsAtStart_ = 0;
  std::vector<zaiVECTOR *> vectors_;
};

void liveBlocksAndBytes(int32_t *blocks, int32_t *bytes) {
  svcMemLive(ZAI_COMPONENT, -1, blocks, bytes);
}

// ----- Create ---------------------------------------------------------------

TEST_F(VectorTest, CreateFillsTheRecord) {
  int32_t blocksBefore, bytesBefore;
  liveBlocksAndBytes(&blocksBefore, &bytesBefore);
  zaiVECTOR *vector = create(40, 24);
  ASSERT_NE(vector, nullptr);
  EXPECT_EQ(std::memcmp(vector->eyeCatcher, "ZVEC", 4), 0);
  EXPECT_EQ(vector->recordLength, kRecordBytes);
  EXPECT_EQ(vector->capacity, 40);
  EXPECT_EQ(vector->count, 0);
  EXPECT_EQ(vector->elementSize, 24);
  EXPECT_EQ(vector->slotSize, 24);
  ASSERT_NE(vector->slots, nullptr);
  EXPECT_TRUE(slotTableIsWhole(vector));

  // One block of table and places, and the record.
  int32_t blocks, bytes;
  liveBlocksAndBytes(&blocks, &bytes);
  EXPECT_EQ(blocks - blocksBefore, 2);
  EXPECT_EQ(bytes - bytesBefore, 40 * (24 + kEntryBytes) + kRecordBytes);
  svcMemLive(ZAI_COMPONENT, ZAIFN_zaiVectorCreate, &blocks, &bytes);
  EXPECT_EQ(blocks, 2);
}

TEST_F(VectorTest, SlotSizeIsTheElementSizeRoundedUpToFour) {
  const std::pair<int32_t, int32_t> sizes[] = {{1, 4}, {3, 4}, {4, 4},   {5, 8},
                                               {6, 8}, {8, 8}, {23, 24}, {24, 24}};
  for (const auto &[elementSize, slotSize] : sizes) {
    int32_t blocksBefore, bytesBefore;
    liveBlocksAndBytes(&blocksBefore, &bytesBefore);
    zaiVECTOR *vector = create(5, elementSize);
    ASSERT_NE(vector, nullptr);
    EXPECT_EQ(vector->elementSize, elementSize);
    EXPECT_EQ(vector->slotSize, slotSize) << "element size " << elementSize;
    EXPECT_TRUE(slotTableIsWhole(vector)) << "element size " << elementSize;
    int32_t blocks, bytes;
    liveBlocksAndBytes(&blocks, &bytes);
    EXPECT_EQ(bytes - bytesBefore, 5 * (slotSize + kEntryBytes) + kRecordBytes)
        << "element size " << elementSize;
    destroy(vector);
  }
}

TEST_F(VectorTest, DestroyReleasesBlockAndRecord) {
  int32_t blocksBefore, bytesBefore;
  liveBlocksAndBytes(&blocksBefore, &bytesBefore);
  zaiVECTOR *vector = filled(4, 9);  // grown twice on the way
  destroy(vector);
  int32_t blocks, bytes;
  liveBlocksAndBytes(&blocks, &bytes);
  EXPECT_EQ(blocks, blocksBefore);
  EXPECT_EQ(bytes, bytesBefore);
  EXPECT_EQ(reportsSinceStart(), 0);
}

TEST_F(VectorTest, CreateWithSizeBeyond32BitsHasNoStorage) {
  zaiVECTOR *vector = nullptr;
  EXPECT_EQ(zaiVectorCreate(0x10000000, 4, &vector), VEC_NO_STORAGE);
  EXPECT_EQ(vector, nullptr);
}

// ----- Add and growth -----------------------------------------------------

TEST_F(VectorTest, AddKeepsInsertionOrder) {
  zaiVECTOR *vector = filled(40, 5);
  ASSERT_NE(vector, nullptr);
  EXPECT_EQ(vector->count, 5);
  EXPECT_EQ(vector->capacity, 40);
  for (int32_t i = 0; i < 5; ++i)
    EXPECT_TRUE(sameElement(vector->slots[i], elementNumber(i))) << "element " << i;
}

TEST_F(VectorTest, AddStoresACopy) {
  zaiVECTOR *vector = create(4, sizeof(Element));
  ASSERT_NE(vector, nullptr);
  Element element = elementNumber(3);
  ASSERT_EQ(zaiVectorAdd(vector, &element), 0);
  EXPECT_NE(vector->slots[0], static_cast<void *>(&element));
  element.words[0] = 99;
  EXPECT_TRUE(sameElement(vector->slots[0], elementNumber(3)));
}

TEST_F(VectorTest, FortyFirstAddGrowsToEightyKeepingTheFirstForty) {
  zaiVECTOR *vector = filled(40, 40);
  ASSERT_NE(vector, nullptr);
  ASSERT_EQ(vector->capacity, 40);
  int32_t blocksBefore, bytesBefore;
  liveBlocksAndBytes(&blocksBefore, &bytesBefore);

  Element element = elementNumber(40);
  ASSERT_EQ(zaiVectorAdd(vector, &element), 0);
  EXPECT_EQ(vector->capacity, 80);
  EXPECT_EQ(vector->count, 41);
  EXPECT_EQ(vector->elementSize, 24);
  EXPECT_EQ(vector->slotSize, 24);
  EXPECT_TRUE(slotTableIsWhole(vector));
  for (int32_t i = 0; i < 41; ++i)
    EXPECT_TRUE(sameElement(vector->slots[i], elementNumber(i))) << "element " << i;

  // The old block was replaced by one twice as large.
  int32_t blocks, bytes;
  liveBlocksAndBytes(&blocks, &bytes);
  EXPECT_EQ(blocks, blocksBefore);
  EXPECT_EQ(bytes - bytesBefore, 40 * (24 + kEntryBytes));
  EXPECT_EQ(reportsSinceStart(), 0);
}

TEST_F(VectorTest, GrowthDoublesAgainTo160) {
  zaiVECTOR *vector = filled(40, 81);
  ASSERT_NE(vector, nullptr);
  EXPECT_EQ(vector->capacity, 160);
  EXPECT_EQ(vector->count, 81);
  EXPECT_TRUE(slotTableIsWhole(vector));
  for (int32_t i = 0; i < 81; ++i)
    EXPECT_TRUE(sameElement(vector->slots[i], elementNumber(i))) << "element " << i;

  int32_t blocksBefore, bytesBefore;
  liveBlocksAndBytes(&blocksBefore, &bytesBefore);
  for (int32_t i = 81; i < 160; ++i) {
    Element element = elementNumber(i);
    ASSERT_EQ(zaiVectorAdd(vector, &element), 0);
  }
  EXPECT_EQ(vector->capacity, 160) << "grew before it was full";
  int32_t blocks, bytes;
  liveBlocksAndBytes(&blocks, &bytes);
  EXPECT_EQ(bytes, bytesBefore);
}

TEST_F(VectorTest, GrowthKeepsPaddedElements) {
  zaiVECTOR *vector = create(2, 6);
  ASSERT_NE(vector, nullptr);
  const char *elements[] = {"aaaaaa", "bbbbbb", "cccccc", "dddddd", "eeeeee"};
  for (const char *element : elements) ASSERT_EQ(zaiVectorAdd(vector, element), 0);
  EXPECT_EQ(vector->capacity, 8);
  EXPECT_EQ(vector->count, 5);
  EXPECT_TRUE(slotTableIsWhole(vector));
  for (int32_t i = 0; i < 5; ++i)
    EXPECT_EQ(std::memcmp(vector->slots[i], elements[i], 6), 0) << "element " << i;
}

TEST_F(VectorTest, VectorCreatedWithoutRoomStillTakesElements) {
  zaiVECTOR *vector = create(0, 4);
  ASSERT_NE(vector, nullptr);
  EXPECT_EQ(vector->capacity, 0);
  for (int32_t i = 0; i < 3; ++i) ASSERT_EQ(zaiVectorAdd(vector, &i), 0);
  EXPECT_EQ(vector->count, 3);
  EXPECT_GE(vector->capacity, 3);
  EXPECT_TRUE(slotTableIsWhole(vector));
  for (int32_t i = 0; i < 3; ++i) EXPECT_EQ(*static_cast<int32_t *>(vector->slots[i]), i);
}

TEST_F(VectorTest, AddCopiesTheElementSizeOnly) {
  zaiVECTOR *vector = create(3, 6);
  ASSERT_NE(vector, nullptr);
  ASSERT_EQ(vector->slotSize, 8);
  std::memset(vector->slots[0], 'x', 8);
  ASSERT_EQ(zaiVectorAdd(vector, "ABCDEFGH"), 0);
  EXPECT_EQ(std::string(static_cast<const char *>(vector->slots[0]), 8), "ABCDEFxx");
}

// ----- Set ------------------------------------------------------------------

TEST_F(VectorTest, SetCopiesTheWholeSlot) {
  zaiVECTOR *vector = create(3, 6);
  ASSERT_NE(vector, nullptr);
  ASSERT_EQ(zaiVectorAdd(vector, "ABCDEF"), 0);
  ASSERT_EQ(zaiVectorAdd(vector, "GHIJKL"), 0);
  std::memset(vector->slots[2], 'z', 8);  // the free place after them
  ASSERT_EQ(zaiVectorSetAt(vector, "abcdefgh", 1), 0);
  EXPECT_EQ(std::string(static_cast<const char *>(vector->slots[0]), 6), "ABCDEF");
  EXPECT_EQ(std::string(static_cast<const char *>(vector->slots[1]), 8), "abcdefgh");
  EXPECT_EQ(std::string(static_cast<const char *>(vector->slots[2]), 8), "zzzzzzzz");
  EXPECT_EQ(vector->count, 2);
}

TEST_F(VectorTest, SetReplacesOneElement) {
  zaiVECTOR *vector = filled(8, 5);
  ASSERT_NE(vector, nullptr);
  Element replacement = elementNumber(77);
  ASSERT_EQ(zaiVectorSetAt(vector, &replacement, 0), 0);
  ASSERT_EQ(zaiVectorSetAt(vector, &replacement, 4), 0);
  EXPECT_EQ(vector->count, 5);
  EXPECT_TRUE(sameElement(vector->slots[0], replacement));
  for (int32_t i = 1; i < 4; ++i) EXPECT_TRUE(sameElement(vector->slots[i], elementNumber(i)));
  EXPECT_TRUE(sameElement(vector->slots[4], replacement));
  EXPECT_EQ(reportsSinceStart(), 0);
}

// ----- Remove ---------------------------------------------------------------

TEST_F(VectorTest, RemovingTheLastMovesNothing) {
  zaiVECTOR *vector = filled(8, 5);
  ASSERT_NE(vector, nullptr);
  const std::vector<uint8_t> before = bytesOf(vector->slots[0], 5 * 24);
  ASSERT_EQ(zaiVectorRemoveAt(vector, 4), 0);
  EXPECT_EQ(vector->count, 4);
  // The places are as they were, the vacated one included.
  EXPECT_EQ(bytesOf(vector->slots[0], 5 * 24), before);
}

TEST_F(VectorTest, RemovingElementZeroMovesTheOthersDown) {
  zaiVECTOR *vector = filled(8, 5);
  ASSERT_NE(vector, nullptr);
  ASSERT_EQ(zaiVectorRemoveAt(vector, 0), 0);
  EXPECT_EQ(vector->count, 4);
  for (int32_t i = 0; i < 4; ++i)
    EXPECT_TRUE(sameElement(vector->slots[i], elementNumber(i + 1))) << "place " << i;
  // The vacated last place keeps its old bytes.
  EXPECT_TRUE(sameElement(vector->slots[4], elementNumber(4)));
  EXPECT_TRUE(slotTableIsWhole(vector));
}

TEST_F(VectorTest, RemovingFromTheMiddleKeepsTheOrder) {
  zaiVECTOR *vector = filled(8, 6);
  ASSERT_NE(vector, nullptr);
  ASSERT_EQ(zaiVectorRemoveAt(vector, 2), 0);
  const int32_t expected[] = {0, 1, 3, 4, 5};
  ASSERT_EQ(vector->count, 5);
  for (int32_t i = 0; i < 5; ++i)
    EXPECT_TRUE(sameElement(vector->slots[i], elementNumber(expected[i]))) << "place " << i;
  EXPECT_TRUE(sameElement(vector->slots[5], elementNumber(5)));
}

TEST_F(VectorTest, RemoveMovesWholeSlots) {
  zaiVECTOR *vector = create(4, 6);
  ASSERT_NE(vector, nullptr);
  const char *slots[] = {"AAAAAAa1", "BBBBBBb2", "CCCCCCc3"};
  for (const char *slot : slots) ASSERT_EQ(zaiVectorAdd(vector, slot), 0);
  for (int32_t i = 0; i < 3; ++i) ASSERT_EQ(zaiVectorSetAt(vector, slots[i], i), 0);
  ASSERT_EQ(zaiVectorRemoveAt(vector, 0), 0);
  EXPECT_EQ(std::string(static_cast<const char *>(vector->slots[0]), 8), "BBBBBBb2");
  EXPECT_EQ(std::string(static_cast<const char *>(vector->slots[1]), 8), "CCCCCCc3");
  EXPECT_EQ(std::string(static_cast<const char *>(vector->slots[2]), 8), "CCCCCCc3");
}

TEST_F(VectorTest, RemovingEverythingLeavesAnEmptyVectorThatTakesElements) {
  zaiVECTOR *vector = filled(2, 3);
  ASSERT_NE(vector, nullptr);
  for (int32_t i = 0; i < 3; ++i) ASSERT_EQ(zaiVectorRemoveAt(vector, 0), 0);
  EXPECT_EQ(vector->count, 0);
  EXPECT_EQ(vector->capacity, 4) << "a vector never shrinks";
  Element element = elementNumber(9);
  ASSERT_EQ(zaiVectorAdd(vector, &element), 0);
  EXPECT_TRUE(sameElement(vector->slots[0], element));
}

// ----- Bad indexes ----------------------------------------------------------

void expectIndexReport(const zaiVECTOR *vector, const std::vector<uint8_t> &record,
                       int32_t function, const char *name, int32_t index, int32_t which = 0) {
  const Report report = reportNumber(which);
  EXPECT_EQ(report.component, 25);
  EXPECT_EQ(report.function, function);
  EXPECT_EQ(report.functionName, name);
  EXPECT_EQ(report.probe, 0);
  EXPECT_EQ(report.resultCode, "0x20805453");
  EXPECT_EQ(report.insertsEyeCatcher, "XMSA");
  EXPECT_EQ(report.numeric[0], index);
  EXPECT_EQ(report.numeric[1], 0);
  EXPECT_EQ(report.numeric[2], 0);
  EXPECT_EQ(report.numeric[3], 0);
  ASSERT_EQ(report.areas.size(), 1u);
  EXPECT_EQ(report.areas[0].label, "Invalid index");
  EXPECT_EQ(report.areas[0].length, vector->recordLength);
  EXPECT_EQ(report.areas[0].bytes, record);
}

TEST_F(VectorTest, RemoveWithIndexEqualToCountIsRefused) {
  zaiVECTOR *vector = filled(8, 3);
  ASSERT_NE(vector, nullptr);
  const std::vector<uint8_t> record = bytesOf(vector, kRecordBytes);
  const std::vector<uint8_t> places = bytesOf(vector->slots[0], 8 * 24);
  EXPECT_EQ(zaiVectorRemoveAt(vector, 3), VEC_INVALID_INDEX);
  EXPECT_EQ(bytesOf(vector, kRecordBytes), record);
  EXPECT_EQ(bytesOf(vector->slots[0], 8 * 24), places);
  ASSERT_EQ(reportsSinceStart(), 1);
  expectIndexReport(vector, record, 120, "zaiVectorRemoveAt", 3);
}

TEST_F(VectorTest, RemoveWithIndexMinusOneIsRefused) {
  zaiVECTOR *vector = filled(8, 3);
  ASSERT_NE(vector, nullptr);
  const std::vector<uint8_t> record = bytesOf(vector, kRecordBytes);
  EXPECT_EQ(zaiVectorRemoveAt(vector, -1), VEC_INVALID_INDEX);
  EXPECT_EQ(bytesOf(vector, kRecordBytes), record);
  ASSERT_EQ(reportsSinceStart(), 1);
  expectIndexReport(vector, record, 120, "zaiVectorRemoveAt", -1);
}

TEST_F(VectorTest, RemoveFromAnEmptyVectorIsRefused) {
  zaiVECTOR *vector = create(8, 24);
  ASSERT_NE(vector, nullptr);
  const std::vector<uint8_t> record = bytesOf(vector, kRecordBytes);
  EXPECT_EQ(zaiVectorRemoveAt(vector, 0), VEC_INVALID_INDEX);
  EXPECT_EQ(vector->count, 0);
  ASSERT_EQ(reportsSinceStart(), 1);
  expectIndexReport(vector, record, 120, "zaiVectorRemoveAt", 0);
}

TEST_F(VectorTest, SetWithIndexEqualToCountIsRefused) {
  zaiVECTOR *vector = filled(8, 3);
  ASSERT_NE(vector, nullptr);
  const std::vector<uint8_t> record = bytesOf(vector, kRecordBytes);
  const std::vector<uint8_t> places = bytesOf(vector->slots[0], 8 * 24);
  Element element = elementNumber(50);
  EXPECT_EQ(zaiVectorSetAt(vector, &element, 3), VEC_INVALID_INDEX);
  EXPECT_EQ(bytesOf(vector, kRecordBytes), record);
  EXPECT_EQ(bytesOf(vector->slots[0], 8 * 24), places) << "a refused set wrote a place";
  ASSERT_EQ(reportsSinceStart(), 1);
  expectIndexReport(vector, record, 121, "zaiVectorSetAt", 3);
}

TEST_F(VectorTest, SetWithIndexMinusOneIsRefused) {
  zaiVECTOR *vector = filled(8, 3);
  ASSERT_NE(vector, nullptr);
  const std::vector<uint8_t> record = bytesOf(vector, kRecordBytes);
  const std::vector<uint8_t> places = bytesOf(vector->slots[0], 8 * 24);
  Element element = elementNumber(50);
  EXPECT_EQ(zaiVectorSetAt(vector, &element, -1), VEC_INVALID_INDEX);
  EXPECT_EQ(bytesOf(vector->slots[0], 8 * 24), places);
  ASSERT_EQ(reportsSinceStart(), 1);
  expectIndexReport(vector, record, 121, "zaiVectorSetAt", -1);
}

TEST_F(VectorTest, LargeIndexesAreRefused) {
  zaiVECTOR *vector = filled(8, 3);
  ASSERT_NE(vector, nullptr);
  Element element = elementNumber(50);
  EXPECT_EQ(zaiVectorSetAt(vector, &element, INT32_MAX), VEC_INVALID_INDEX);
  EXPECT_EQ(zaiVectorRemoveAt(vector, INT32_MIN), VEC_INVALID_INDEX);
  EXPECT_EQ(zaiVectorRemoveAt(vector, 7), VEC_INVALID_INDEX) << "a free place is no element";
  EXPECT_EQ(vector->count, 3);
  EXPECT_EQ(reportsSinceStart(), 3);
  EXPECT_EQ(reportNumber(0).numeric[0], 7);
  EXPECT_EQ(reportNumber(1).numeric[0], INT32_MIN);
  EXPECT_EQ(reportNumber(2).numeric[0], INT32_MAX);
}

// ----- Damaged vectors ------------------------------------------------------

void expectDamageReport(const std::vector<uint8_t> &record, int32_t function, const char *name,
                        int32_t which = 0) {
  const Report report = reportNumber(which);
  EXPECT_EQ(report.component, 25);
  EXPECT_EQ(report.function, function);
  EXPECT_EQ(report.functionName, name);
  EXPECT_EQ(report.probe, 0);
  EXPECT_EQ(report.resultCode, "0x20805452");
  EXPECT_EQ(report.insertsEyeCatcher, "XMSA");
  for (int32_t number : report.numeric) EXPECT_EQ(number, 0);
  ASSERT_EQ(report.areas.size(), 1u);
  EXPECT_EQ(report.areas[0].label, "Invalid zaiVECTOR");
  EXPECT_EQ(report.areas[0].length, 64);
  ASSERT_EQ(report.areas[0].bytes.size(), 64u);
  // The dump starts with the record as it was found.
  EXPECT_EQ(std::vector<uint8_t>(report.areas[0].bytes.begin(),
                                 report.areas[0].bytes.begin() + kRecordBytes),
            record);
}

TEST_F(VectorTest, AddToADamagedVectorIsRefused) {
  zaiVECTOR *vector = filled(8, 2);
  ASSERT_NE(vector, nullptr);
  std::memcpy(vector->eyeCatcher, "XVEC", 4);
  const std::vector<uint8_t> record = bytesOf(vector, kRecordBytes);
  const std::vector<uint8_t> places = bytesOf(vector->slots[0], 8 * 24);
  Element element = elementNumber(5);
  EXPECT_EQ(zaiVectorAdd(vector, &element), VEC_INVALID_VECTOR);
  EXPECT_EQ(bytesOf(vector, kRecordBytes), record);
  EXPECT_EQ(bytesOf(vector->slots[0], 8 * 24), places);
  ASSERT_EQ(reportsSinceStart(), 1);
  expectDamageReport(record, 119, "zaiVectorAdd");
}

TEST_F(VectorTest, FullDamagedVectorDoesNotGrow) {
  zaiVECTOR *vector = filled(2, 2);
  ASSERT_NE(vector, nullptr);
  vector->eyeCatcher[0] = '?';
  int32_t blocksBefore, bytesBefore;
  liveBlocksAndBytes(&blocksBefore, &bytesBefore);
  Element element = elementNumber(5);
  EXPECT_EQ(zaiVectorAdd(vector, &element), VEC_INVALID_VECTOR);
  EXPECT_EQ(vector->capacity, 2);
  EXPECT_EQ(vector->count, 2);
  int32_t blocks, bytes;
  liveBlocksAndBytes(&blocks, &bytes);
  EXPECT_EQ(bytes, bytesBefore);
}

TEST_F(VectorTest, RemoveFromADamagedVectorIsRefused) {
  zaiVECTOR *vector = filled(8, 3);
  ASSERT_NE(vector, nullptr);
  vector->eyeCatcher[0] = '?';
  const std::vector<uint8_t> record = bytesOf(vector, kRecordBytes);
  const std::vector<uint8_t> places = bytesOf(vector->slots[0], 8 * 24);
  EXPECT_EQ(zaiVectorRemoveAt(vector, 1), VEC_INVALID_VECTOR);
  EXPECT_EQ(bytesOf(vector, kRecordBytes), record);
  EXPECT_EQ(bytesOf(vector->slots[0], 8 * 24), places);
  ASSERT_EQ(reportsSinceStart(), 1);
  expectDamageReport(record, 120, "zaiVectorRemoveAt");
}

TEST_F(VectorTest, SetOnADamagedVectorIsRefused) {
  zaiVECTOR *vector = filled(8, 3);
  ASSERT_NE(vector, nullptr);
  std::memset(vector->eyeCatcher, 0, 4);
  const std::vector<uint8_t> record = bytesOf(vector, kRecordBytes);
  const std::vector<uint8_t> places = bytesOf(vector->slots[0], 8 * 24);
  Element element = elementNumber(5);
  EXPECT_EQ(zaiVectorSetAt(vector, &element, 1), VEC_INVALID_VECTOR);
  EXPECT_EQ(bytesOf(vector->slots[0], 8 * 24), places);
  ASSERT_EQ(reportsSinceStart(), 1);
  expectDamageReport(record, 121, "zaiVectorSetAt");
}

TEST_F(VectorTest, DamagedVectorIsNeverReleased) {
  zaiVECTOR *vector = filled(8, 3);
  ASSERT_NE(vector, nullptr);
  std::memcpy(vector->eyeCatcher, "ZVE?", 4);
  const std::vector<uint8_t> record = bytesOf(vector, kRecordBytes);
  int32_t blocksBefore, bytesBefore;
  liveBlocksAndBytes(&blocksBefore, &bytesBefore);

  EXPECT_EQ(zaiVectorDestroy(vector), VEC_INVALID_VECTOR);
  int32_t blocks, bytes;
  liveBlocksAndBytes(&blocks, &bytes);
  EXPECT_EQ(blocks, blocksBefore);
  EXPECT_EQ(bytes, bytesBefore);
  EXPECT_EQ(bytesOf(vector, kRecordBytes), record);
  ASSERT_EQ(reportsSinceStart(), 1);
  expectDamageReport(record, 118, "zaiVectorDestroy");

  // Repaired, it is released as any other.
  std::memcpy(vector->eyeCatcher, "ZVEC", 4);
  destroy(vector);
}

TEST_F(VectorTest, DamagedVectorWithABadIndexGivesTwoReports) {
  zaiVECTOR *vector = filled(8, 3);
  ASSERT_NE(vector, nullptr);
  vector->eyeCatcher[3] = 'X';
  const std::vector<uint8_t> record = bytesOf(vector, kRecordBytes);
  EXPECT_EQ(zaiVectorRemoveAt(vector, 3), VEC_INVALID_INDEX);
  ASSERT_EQ(reportsSinceStart(), 2);
  expectDamageReport(record, 120, "zaiVectorRemoveAt", 1);
  expectIndexReport(vector, record, 120, "zaiVectorRemoveAt", 3, 0);

  Element element = elementNumber(5);
  EXPECT_EQ(zaiVectorSetAt(vector, &element, -1), VEC_INVALID_INDEX);
  ASSERT_EQ(reportsSinceStart(), 4);
  expectDamageReport(record, 121, "zaiVectorSetAt", 1);
  expectIndexReport(vector, record, 121, "zaiVectorSetAt", -1, 0);
  EXPECT_EQ(bytesOf(vector, kRecordBytes), record);
}

// ----- Memory failures ------------------------------------------------------

TEST_F(VectorTest, CreateFailingAtTheBlockHasNoStorage) {
  int32_t blocksBefore, bytesBefore;
  liveBlocksAndBytes(&blocksBefore, &bytesBefore);
  auto *sentinel = reinterpret_cast<zaiVECTOR *>(&blocksBefore);
  zaiVECTOR *vector = sentinel;
  svcInjectMemFailure(1);
  EXPECT_EQ(zaiVectorCreate(40, 24, &vector), VEC_NO_STORAGE);
  EXPECT_EQ(vector, sentinel) << "the out argument was written";
  int32_t blocks, bytes;
  liveBlocksAndBytes(&blocks, &bytes);
  EXPECT_EQ(blocks, blocksBefore);
  EXPECT_EQ(bytes, bytesBefore);
  EXPECT_EQ(reportsSinceStart(), 0);
}

TEST_F(VectorTest, CreateFailingAtTheRecordReleasesTheBlock) {
  int32_t blocksBefore, bytesBefore;
  liveBlocksAndBytes(&blocksBefore, &bytesBefore);
  auto *sentinel = reinterpret_cast<zaiVECTOR *>(&blocksBefore);
  zaiVECTOR *vector = sentinel;
  svcInjectMemFailure(2);
  EXPECT_EQ(zaiVectorCreate(40, 24, &vector), VEC_NO_STORAGE);
  EXPECT_EQ(vector, sentinel) << "the out argument was written";
  int32_t blocks, bytes;
  liveBlocksAndBytes(&blocks, &bytes);
  EXPECT_EQ(blocks, blocksBefore) << "the block was left behind";
  EXPECT_EQ(bytes, bytesBefore);
}

TEST_F(VectorTest, CreateGetsExactlyTwoBlocks) {
  svcInjectMemFailure(3);
  zaiVECTOR *vector = create(40, 24);
  ASSERT_NE(vector, nullptr);
  // The third allocation from now is the next one.
  void *probe = nullptr;
  EXPECT_NE(svcGetMem(ZAI_COMPONENT, 0, 4, 0, &probe), 0);
  EXPECT_EQ(probe, nullptr);
}

TEST_F(VectorTest, FailedGrowthLeavesTheVectorAsItWas) {
  zaiVECTOR *vector = filled(4, 4);
  ASSERT_NE(vector, nullptr);
  const std::vector<uint8_t> record = bytesOf(vector, kRecordBytes);
  const std::vector<uint8_t> block = bytesOf(vector->slots, 4 * (24 + kEntryBytes));
  int32_t blocksBefore, bytesBefore;
  liveBlocksAndBytes(&blocksBefore, &bytesBefore);

  svcInjectMemFailure(1);
  Element element = elementNumber(4);
  EXPECT_EQ(zaiVectorAdd(vector, &element), VEC_NO_STORAGE);
  EXPECT_EQ(bytesOf(vector, kRecordBytes), record);
  EXPECT_EQ(bytesOf(vector->slots, 4 * (24 + kEntryBytes)), block);
  int32_t blocks, bytes;
  liveBlocksAndBytes(&blocks, &bytes);
  EXPECT_EQ(blocks, blocksBefore);
  EXPECT_EQ(bytes, bytesBefore);
  EXPECT_EQ(reportsSinceStart(), 0);

  // Once memory is there again the same add succeeds.
  ASSERT_EQ(zaiVectorAdd(vector, &element), 0);
  EXPECT_EQ(vector->capacity, 8);
  for (int32_t i = 0; i < 5; ++i) EXPECT_TRUE(sameElement(vector->slots[i], elementNumber(i)));
}

TEST_F(VectorTest, AddWithoutGrowthNeedsNoMemory) {
  zaiVECTOR *vector = filled(4, 3);
  ASSERT_NE(vector, nullptr);
  svcInjectMemFailure(1);
  Element element = elementNumber(3);
  EXPECT_EQ(zaiVectorAdd(vector, &element), 0);
  EXPECT_EQ(vector->count, 4);
}

// ----- History markers ------------------------------------------------------

TEST_F(VectorTest, EveryFunctionRecordsEntryAndExitMarkers) {
  const int32_t depth = anchor_->callDepth;
  int32_t from = anchor_->historyIndex;
  zaiVECTOR *vector = nullptr;
  ASSERT_EQ(zaiVectorCreate(2, 24, &vector), 0);
  EXPECT_EQ(markersFrom(from), (std::vector<uint32_t>{0xF0006475u, 0x00006475u}));

  from = anchor_->historyIndex;
  Element element = elementNumber(1);
  ASSERT_EQ(zaiVectorAdd(vector, &element), 0);
  EXPECT_EQ(markersFrom(from), (std::vector<uint32_t>{0xF0006477u, 0x00006477u}));

  from = anchor_->historyIndex;
  ASSERT_EQ(zaiVectorSetAt(vector, &element, 0), 0);
  EXPECT_EQ(markersFrom(from), (std::vector<uint32_t>{entryMarker(121), exitMarker(0, 121)}));

  from = anchor_->historyIndex;
  ASSERT_EQ(zaiVectorRemoveAt(vector, 0), 0);
  EXPECT_EQ(markersFrom(from), (std::vector<uint32_t>{entryMarker(120), exitMarker(0, 120)}));

  from = anchor_->historyIndex;
  ASSERT_EQ(zaiVectorDestroy(vector), 0);
  EXPECT_EQ(markersFrom(from), (std::vector<uint32_t>{entryMarker(118), exitMarker(0, 118)}));
  EXPECT_EQ(anchor_->callDepth, depth);
}

TEST_F(VectorTest, ExitMarkersCarryTheResult) {
  zaiVECTOR *vector = filled(2, 2);
  ASSERT_NE(vector, nullptr);
  int32_t from = anchor_->historyIndex;
  EXPECT_EQ(zaiVectorRemoveAt(vector, 2), VEC_INVALID_INDEX);
  EXPECT_EQ(markersFrom(from), (std::vector<uint32_t>{0xF0006478u, 0x54536478u}));

  vector->eyeCatcher[0] = '?';
  from = anchor_->historyIndex;
  Element element = elementNumber(1);
  EXPECT_EQ(zaiVectorAdd(vector, &element), VEC_INVALID_VECTOR);
  EXPECT_EQ(markersFrom(from), (std::vector<uint32_t>{0xF0006477u, 0x54526477u}));

  from = anchor_->historyIndex;
  EXPECT_EQ(zaiVectorDestroy(vector), VEC_INVALID_VECTOR);
  EXPECT_EQ(markersFrom(from),
            (std::vector<uint32_t>{entryMarker(118), exitMarker(VEC_INVALID_VECTOR, 118)}));
  vector->eyeCatcher[0] = 'Z';

  from = anchor_->historyIndex;
  zaiVECTOR *none = nullptr;
  svcInjectMemFailure(1);
  EXPECT_EQ(zaiVectorCreate(4, 4, &none), VEC_NO_STORAGE);
  EXPECT_EQ(markersFrom(from), (std::vector<uint32_t>{0xF0006475u, 0x54516475u}));
}

TEST_F(VectorTest, EntryMarkerIsPushedOnTheCallStack) {
  // The stack keeps the entry marker of a frame in the slot of its depth;
  // the slot is left as it is when the frame is popped.
  const int32_t depth = anchor_->callDepth;
  ASSERT_GE(depth, 0);
  ASSERT_LT(depth, SVC_CALL_STACK_SLOTS);
  anchor_->callStack[depth] = 0;
  zaiVECTOR *vector = create(2, 4);
  ASSERT_NE(vector, nullptr);
  EXPECT_EQ(anchor_->callStack[depth], entryMarker(117));
  EXPECT_EQ(anchor_->callDepth, depth);
}

TEST_F(VectorTest, ThreadWithoutAnAnchorStillWorks) {
  int32_t results[4] = {-1, -1, -1, -1};
  bool hadAnchor = true;
  std::thread([&] {
    hadAnchor = svcThreadAnchor() != nullptr;
    zaiVECTOR *vector = nullptr;
    int32_t value = 5;
    results[0] = zaiVectorCreate(1, 4, &vector);
    if (results[0] != 0) return;
    results[1] = zaiVectorAdd(vector, &value);
    results[2] = zaiVectorAdd(vector, &value);
    results[3] = zaiVectorDestroy(vector);
  }).join();
  EXPECT_FALSE(hadAnchor);
  for (int32_t result : results) EXPECT_EQ(result, 0);
}

// ----- Parameter trace ------------------------------------------------------

constexpr uint32_t kParmLines = 0xC0000;

TEST_F(VectorTest, ParameterLinesOfEveryFunction) {
  vxtest::TraceCapture capture(kParmLines, true);
  zaiVECTOR *vector = nullptr;
  ASSERT_EQ(zaiVectorCreate(3, 6, &vector), 0);
  const char element[8] = "abcdefg";
  ASSERT_EQ(zaiVectorAdd(vector, element), 0);
  ASSERT_EQ(zaiVectorSetAt(vector, element, 0), 0);
  ASSERT_EQ(zaiVectorRemoveAt(vector, 0), 0);
  ASSERT_EQ(zaiVectorDestroy(vector), 0);

  const std::string v = hexOf(vector), e = hexOf(element);
  const std::vector<std::string> expected = {
      "{ zaiVectorCreate",
      "InitialSpace:3, ElementSize:6",
      "} zaiVectorCreate rc=0",
      "{ zaiVectorAdd",
      "pVector:" + v + ", pElement:" + e,
      "} zaiVectorAdd rc=0",
      "{ zaiVectorSetAt",
      "pVector:" + v + ", pElement:" + e + ", index:0",
      "} zaiVectorSetAt rc=0",
      "{ zaiVectorRemoveAt",
      "pVector:" + v + ", index:0",
      "} zaiVectorRemoveAt rc=0",
      "{ zaiVectorDestroy",
      "pVector:" + v,
      "} zaiVectorDestroy rc=0",
  };
  EXPECT_EQ(capture.lines(), expected);

  // Each parameter line is written under its function's number.
  const int32_t functions[] = {117, 119, 121, 120, 118};
  const std::vector<vxtest::TraceLine> raw = capture.raw();
  ASSERT_EQ(raw.size(), expected.size());
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_FALSE(raw[3 * i + 1].isData);
    EXPECT_EQ(raw[3 * i + 1].function, functions[i]) << raw[3 * i + 1].text;
  }
}

TEST_F(VectorTest, ParameterLinesShowRefusedArguments) {
  zaiVECTOR *vector = create(2, 4);
  ASSERT_NE(vector, nullptr);
  std::vector<std::string> parms;
  {
    vxtest::TraceCapture capture(kParmLines, true);
    EXPECT_EQ(zaiVectorRemoveAt(vector, -1), VEC_INVALID_INDEX);
    EXPECT_EQ(zaiVectorSetAt(vector, nullptr, 2), VEC_INVALID_INDEX);
    zaiVECTOR *none = nullptr;
    EXPECT_EQ(zaiVectorCreate(0x10000000, 4, &none), VEC_NO_STORAGE);
    for (const std::string &line : capture.lines())
      if (line.rfind("{ ", 0) != 0) parms.push_back(line);
  }
  const std::string v = hexOf(vector);
  EXPECT_EQ(parms, (std::vector<std::string>{
                       "pVector:" + v + ", index:-1",
                       "} zaiVectorRemoveAt rc=545281107",
                       "pVector:" + v + ", pElement:00000000, index:2",
                       "} zaiVectorSetAt rc=545281107",
                       "InitialSpace:268435456, ElementSize:4",
                       "} zaiVectorCreate rc=545281105",
                   }));
}

TEST_F(VectorTest, EitherParameterOptionBitSuffices) {
  for (uint32_t options : {0x40000u, 0x80000u}) {
    std::vector<std::string> lines;
    {
      vxtest::TraceCapture capture(options, true);
      zaiVECTOR *vector = create(2, 4);
      ASSERT_NE(vector, nullptr);
      destroy(vector);
      lines = capture.lines();
    }
    EXPECT_EQ(lines.size(), 6u) << "options " << std::hex << options;
  }
}

TEST_F(VectorTest, NoParameterLinesWithTheOptionBitsClear) {
  std::vector<std::string> lines;
  {
    vxtest::TraceCapture capture(0x1, true);
    zaiVECTOR *vector = create(2, 4);
    ASSERT_NE(vector, nullptr);
    int32_t value = 1;
    EXPECT_EQ(zaiVectorAdd(vector, &value), 0);
    EXPECT_EQ(zaiVectorSetAt(vector, &value, 0), 0);
    EXPECT_EQ(zaiVectorRemoveAt(vector, 0), 0);
    destroy(vector);
    lines = capture.lines();
  }
  // Entry and exit lines only.
  ASSERT_EQ(lines.size(), 10u);
  for (const std::string &line : lines)
    EXPECT_TRUE(line.rfind("{ ", 0) == 0 || line.rfind("} ", 0) == 0) << line;
}

TEST_F(VectorTest, NoTraceLinesWhenTheThreadTraceIsOff) {
  std::vector<std::string> lines;
  {
    vxtest::TraceCapture capture(kParmLines, false);
    zaiVECTOR *vector = create(2, 4);
    ASSERT_NE(vector, nullptr);
    destroy(vector);
    lines = capture.lines();
  }
  EXPECT_TRUE(lines.empty()) << lines.size() << " lines, first: " << lines.front();
}

}  // namespace
