// vxPad and vxTrim: null-terminated strings to blank-padded fields and back,
// their checks in order, unusable pointers for every argument, and the two
// internal functions that do the work.
#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "vxtest.h"

namespace {

constexpr char kUntouched = '#';

size_t pageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

// Two adjacent pages, the first readable and writable (filled with '#'), the
// second not accessible at all: memory that ends at a known address.
class GuardedPage {
 public:
  GuardedPage() {
    base_ = static_cast<char *>(
        mmap(nullptr, 2 * pageSize(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    std::memset(base_, kUntouched, pageSize());
    mprotect(base_ + pageSize(), pageSize(), PROT_NONE);
  }
  ~GuardedPage() { munmap(base_, 2 * pageSize()); }
  GuardedPage(const GuardedPage &) = delete;
  GuardedPage &operator=(const GuardedPage &) = delete;

  // The last `count` usable bytes: byte `count` from here is not accessible.
  char *last(size_t count) { return base_ + pageSize() - count; }
  // Makes the usable page read-only.
  void makeReadOnly() { mprotect(base_, pageSize(), PROT_READ); }

 private:
  char *base_;
};

std::string bytes(const char *start, size_t count) { return std::string(start, count); }

bool allUntouched(const char *start, size_t count) {
  for (size_t i = 0; i < count; ++i)
    if (start[i] != kUntouched) return false;
  return true;
}

class PadTrimTest : public vxtest::VxTest {
 protected:
  int32_t cc_ = -1;
  int32_t rc_ = -1;
};

// ----- vxPad: results ------------------------------------------------------------------

TEST_F(PadTrimTest, PadFillsAShortStringWithBlanks) {
  char field[6] = "#####";
  vxPad("AB", 5, field, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(field, 6), std::string("AB   \0", 6));  // no terminator written
}

TEST_F(PadTrimTest, PadOfAStringThatFitsExactly) {
  char field[5] = "####";
  vxPad("ABCD", 4, field, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(field, 5), std::string("ABCD\0", 5));
}

TEST_F(PadTrimTest, PadTruncatesALongStringWithAWarning) {
  char field[6] = "#####";
  vxPad("ABCDEF", 4, field, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_WARNING, RC_STRING_TRUNCATED);
  EXPECT_EQ(bytes(field, 6), std::string("ABCD#\0", 6));
}

TEST_F(PadTrimTest, PadOfANullStringGivesBlanks) {
  char field[4] = "###";
  vxPad(nullptr, 3, field, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(field, 3), "   ");
}

TEST_F(PadTrimTest, PadOfAnEmptyStringGivesBlanks) {
  char field[4] = "###";
  vxPad("", 3, field, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(field, 3), "   ");
}

TEST_F(PadTrimTest, PadIntoZeroLengthWithANullBuffer) {
  vxPad(nullptr, 0, nullptr, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  vxPad("", 0, nullptr, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  vxPad("A", 0, nullptr, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_WARNING, RC_STRING_TRUNCATED);
}

TEST_F(PadTrimTest, PadIntoZeroLengthWritesNothing) {
  char field[4] = "###";
  vxPad("AB", 0, field, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_WARNING, RC_STRING_TRUNCATED);
  vxPad(nullptr, 0, field, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(field, 3), "###");
}

TEST_F(PadTrimTest, PadInPlace) {
  char field[8] = {'A', 'B', '\0', 'x', 'x', 'x', kUntouched, kUntouched};
  vxPad(field, 6, field, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(field, 8), "AB    ##");
}

TEST_F(PadTrimTest, PadInPlaceTruncating) {
  char field[7] = "ABCDEF";
  vxPad(field, 4, field, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_WARNING, RC_STRING_TRUNCATED);
  EXPECT_EQ(bytes(field, 7), std::string("ABCDEF\0", 7));
}

TEST_F(PadTrimTest, PadOfALargeField) {
  std::vector<char> field(100000, kUntouched);
  vxPad("AB", 99999, field.data(), &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(field[0], 'A');
  EXPECT_EQ(field[1], 'B');
  EXPECT_EQ(std::string(field.begin() + 2, field.end() - 1), std::string(99997, ' '));
  EXPECT_EQ(field.back(), kUntouched);
}

TEST_F(PadTrimTest, PadKeepsEveryCharacterOfTheString) {
  // Tabs, high bytes and blanks of the string are copied as they are.
  const char string[] = "\t a\xE9 ";
  char field[8];
  vxPad(string, 8, field, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(field, 8), "\t a\xE9    ");
}

TEST_F(PadTrimTest, PadOfAReadOnlyString) {
  GuardedPage page;
  std::memcpy(page.last(3), "XY", 3);
  page.makeReadOnly();
  char field[4];
  vxPad(page.last(3), 4, field, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(field, 4), "XY  ");
}

TEST_F(PadTrimTest, PadOfAStringEndingJustBeforeUnusableMemory) {
  GuardedPage page;
  std::memcpy(page.last(4), "ABC", 4);
  char field[5];
  vxPad(page.last(4), 5, field, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(field, 5), "ABC  ");
}

TEST_F(PadTrimTest, PadIntoAFieldEndingJustBeforeUnusableMemory) {
  GuardedPage page;
  vxPad("AB", 7, page.last(7), &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(page.last(7), 7), "AB     ");
}

// ----- vxPad: checks -------------------------------------------------------------------

TEST_F(PadTrimTest, PadRefusesANegativeLength) {
  char field[4] = "###";
  for (int32_t length : {-1, -4, INT32_MIN}) {
    SCOPED_TRACE(length);
    vxPad("AB", length, field, &cc_, &rc_);
    EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
    EXPECT_EQ(bytes(field, 3), "###");
  }
}

TEST_F(PadTrimTest, PadRefusesANullBuffer) {
  vxPad("AB", 4, nullptr, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_ERROR);
  vxPad(nullptr, 1, nullptr, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_ERROR);
}

TEST_F(PadTrimTest, PadRefusesABufferItCannotWrite) {
  vxtest::ProtectedPages pages;
  const struct {
    const char *what;
    void *buffer;
  } cases[] = {
      {"not accessible", pages.none},
      {"read-only", pages.readOnly},
      {"unmapped", pages.unmapped},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    vxPad("AB", 4, static_cast<char *>(c.buffer), &cc_, &rc_);
    EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_ERROR);
  }
  EXPECT_EQ(bytes(static_cast<char *>(pages.readOnly), 4), "RRRR");
}

TEST_F(PadTrimTest, PadRefusesABufferThatRunsIntoUnusableMemory) {
  GuardedPage page;
  vxPad("AB", 8, page.last(7), &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_ERROR);
  EXPECT_TRUE(allUntouched(page.last(7), 7));
}

TEST_F(PadTrimTest, PadRefusesAStringItCannotRead) {
  vxtest::ProtectedPages pages;
  char field[4] = "###";
  vxPad(static_cast<const char *>(pages.none), 3, field, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STRING_ERROR);
  vxPad(static_cast<const char *>(pages.unmapped), 3, field, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STRING_ERROR);
  EXPECT_EQ(bytes(field, 3), "###");
}

TEST_F(PadTrimTest, PadRefusesAStringWithoutATerminatorBeforeUnusableMemory) {
  GuardedPage page;
  std::memcpy(page.last(4), "ABCD", 4);
  char field[8] = "#######";
  vxPad(page.last(4), 7, field, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STRING_ERROR);
  EXPECT_EQ(bytes(field, 7), "#######");
}

TEST_F(PadTrimTest, PadChecksLengthThenBufferThenString) {
  vxtest::ProtectedPages pages;
  char field[4] = "###";
  const char *badString = static_cast<const char *>(pages.none);
  auto *badBuffer = static_cast<char *>(pages.none);
  vxPad(badString, -1, nullptr, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  vxPad(badString, -1, badBuffer, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  vxPad(badString, 3, badBuffer, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_ERROR);
  vxPad(badString, 3, static_cast<char *>(pages.readOnly), &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_ERROR);
  vxPad(badString, 3, nullptr, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_ERROR);
  vxPad(badString, 3, field, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STRING_ERROR);
  EXPECT_EQ(bytes(field, 3), "###");
}

TEST_F(PadTrimTest, PadIntoZeroLengthDoesNotLookAtTheBuffer) {
  vxtest::ProtectedPages pages;
  vxPad("AB", 0, static_cast<char *>(pages.none), &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_WARNING, RC_STRING_TRUNCATED);
  vxPad("", 0, static_cast<char *>(pages.readOnly), &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  // The string is still checked.
  vxPad(static_cast<const char *>(pages.none), 0, static_cast<char *>(pages.none), &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STRING_ERROR);
}

TEST_F(PadTrimTest, PadClearsTheCodesOfAnEarlierCall) {
  char field[4];
  vxPad("ABCDEF", 3, field, &cc_, &rc_);
  ASSERT_OUTCOME(cc_, rc_, CC_WARNING, RC_STRING_TRUNCATED);
  vxPad("AB", 3, field, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
}

// ----- vxTrim: results -----------------------------------------------------------------

TEST_F(PadTrimTest, TrimDropsTrailingBlanksOnly) {
  char string[8] = "#######";
  vxTrim(6, "AB  C ", string, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(string, 8), std::string("AB  C\0#\0", 8));
}

TEST_F(PadTrimTest, TrimKeepsLeadingBlanks) {
  char string[8] = "#######";
  vxTrim(6, "  AB  ", string, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_STREQ(string, "  AB");
}

TEST_F(PadTrimTest, TrimOfAFieldOfBlanksGivesTheEmptyString) {
  char string[6] = "#####";
  vxTrim(4, "    ", string, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(string[0], '\0');
  vxTrim(1, " ", string, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(string[0], '\0');
}

TEST_F(PadTrimTest, TrimOfZeroLengthGivesTheEmptyString) {
  char string[3] = "##";
  vxTrim(0, "AB", string, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(string, 3), std::string("\0#\0", 3));
  string[0] = kUntouched;
  vxTrim(0, nullptr, string, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(string[0], '\0');
}

TEST_F(PadTrimTest, TrimKeepsTrailingNulls) {
  const char field[4] = {'A', 'B', '\0', '\0'};
  char string[7] = "######";
  vxTrim(4, field, string, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(string, 6), std::string("AB\0\0\0#", 6));
}

TEST_F(PadTrimTest, TrimStopsAtAnyOtherCharacter) {
  char string[8];
  vxTrim(5, "AB\t  ", string, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_STREQ(string, "AB\t");
  vxTrim(4, "AB\n ", string, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_STREQ(string, "AB\n");
  vxTrim(4, "AB \0", string, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(string, 5), std::string("AB \0\0", 5));
}

TEST_F(PadTrimTest, TrimOfAFullFieldAddsOnlyTheTerminator) {
  char string[7] = "######";
  vxTrim(4, "ABCD", string, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(string, 6), std::string("ABCD\0#", 6));
}

TEST_F(PadTrimTest, TrimInPlace) {
  char field[8] = {'A', 'B', ' ', ' ', 'C', ' ', kUntouched, kUntouched};
  vxTrim(6, field, field, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(bytes(field, 8), std::string("AB  C\0##", 8));
  char blanks[5] = {' ', ' ', ' ', ' ', kUntouched};
  vxTrim(4, blanks, blanks, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(blanks[0], '\0');
}

TEST_F(PadTrimTest, TrimOfALongField) {
  std::string field = std::string(5000, 'x') + std::string(1000, ' ');
  std::vector<char> string(field.size() + 2, kUntouched);
  vxTrim(static_cast<int32_t>(field.size()), field.data(), string.data(), &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(std::strlen(string.data()), 5000u);
  EXPECT_EQ(string.back(), kUntouched);
}

TEST_F(PadTrimTest, TrimOfAReadOnlyField) {
  vxtest::ProtectedPages pages;
  char string[5];
  vxTrim(4, static_cast<const char *>(pages.readOnly), string, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_STREQ(string, "RRRR");
}

TEST_F(PadTrimTest, TrimIntoAStringThatJustFits) {
  GuardedPage page;
  vxTrim(6, "AB    ", page.last(7), &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_STREQ(page.last(7), "AB");
}

TEST_F(PadTrimTest, TrimOfAFieldEndingJustBeforeUnusableMemory) {
  GuardedPage page;
  std::memcpy(page.last(4), "AB  ", 4);
  char string[5];
  vxTrim(4, page.last(4), string, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_STREQ(string, "AB");
}

TEST_F(PadTrimTest, TrimNeverWarns) {
  const std::vector<std::string> fields = {"",
                                           " ",
                                           "A",
                                           "AB  C ",
                                           std::string(3, '\0'),
                                           "\t\t  ",
                                           "  A",
                                           "ABC",
                                           std::string(300, 'Z'),
                                           std::string(300, ' ')};
  for (const std::string &field : fields) {
    SCOPED_TRACE(field.size());
    std::vector<char> string(field.size() + 1);
    vxTrim(static_cast<int32_t>(field.size()), field.data(), string.data(), &cc_, &rc_);
    EXPECT_OK(cc_, rc_);
  }
}

// ----- vxTrim: checks ------------------------------------------------------------------

TEST_F(PadTrimTest, TrimRefusesANegativeLength) {
  char string[4] = "###";
  for (int32_t length : {-1, -4, INT32_MIN}) {
    SCOPED_TRACE(length);
    vxTrim(length, "AB ", string, &cc_, &rc_);
    EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
    EXPECT_EQ(bytes(string, 3), "###");
  }
}

TEST_F(PadTrimTest, TrimRefusesANullBuffer) {
  char string[5] = "####";
  vxTrim(4, nullptr, string, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_ERROR);
  EXPECT_EQ(bytes(string, 4), "####");
}

TEST_F(PadTrimTest, TrimRefusesABufferItCannotRead) {
  vxtest::ProtectedPages pages;
  char string[5] = "####";
  vxTrim(4, static_cast<const char *>(pages.none), string, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_ERROR);
  vxTrim(4, static_cast<const char *>(pages.unmapped), string, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_ERROR);
  EXPECT_EQ(bytes(string, 4), "####");
}

TEST_F(PadTrimTest, TrimRefusesABufferThatRunsIntoUnusableMemory) {
  GuardedPage page;
  std::memcpy(page.last(3), "AB ", 3);
  char string[6] = "#####";
  vxTrim(4, page.last(3), string, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_ERROR);
  EXPECT_EQ(bytes(string, 5), "#####");
}

TEST_F(PadTrimTest, TrimRefusesANullString) {
  vxTrim(4, "AB  ", nullptr, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STRING_ERROR);
  // Even an empty result needs room for its terminator.
  vxTrim(0, "AB  ", nullptr, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STRING_ERROR);
}

TEST_F(PadTrimTest, TrimRefusesAStringItCannotWrite) {
  vxtest::ProtectedPages pages;
  const struct {
    const char *what;
    void *string;
  } cases[] = {
      {"not accessible", pages.none},
      {"read-only", pages.readOnly},
      {"unmapped", pages.unmapped},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    vxTrim(4, "AB  ", static_cast<char *>(c.string), &cc_, &rc_);
    EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STRING_ERROR);
  }
  EXPECT_EQ(bytes(static_cast<char *>(pages.readOnly), 5), "RRRRR");
}

TEST_F(PadTrimTest, TrimRefusesAStringWithoutRoomForItsTerminator) {
  GuardedPage page;
  // Six bytes of field and its terminator need seven; the seventh would lie
  // on the page that cannot be written.
  vxTrim(6, "AB    ", page.last(6), &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STRING_ERROR);
  EXPECT_TRUE(allUntouched(page.last(6), 6));
  vxTrim(0, "", page.last(0), &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STRING_ERROR);
}

TEST_F(PadTrimTest, TrimChecksLengthThenBufferThenString) {
  vxtest::ProtectedPages pages;
  const char *badBuffer = static_cast<const char *>(pages.none);
  auto *badString = static_cast<char *>(pages.readOnly);
  vxTrim(-1, nullptr, nullptr, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  vxTrim(-1, badBuffer, badString, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  vxTrim(4, nullptr, nullptr, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_ERROR);
  vxTrim(4, badBuffer, badString, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_ERROR);
  vxTrim(0, nullptr, nullptr, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STRING_ERROR);
  vxTrim(0, badBuffer, badString, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STRING_ERROR);
  EXPECT_EQ(bytes(static_cast<char *>(pages.readOnly), 4), "RRRR");
}

TEST_F(PadTrimTest, TrimClearsTheCodesOfAnEarlierCall) {
  char string[4];
  vxTrim(-1, "AB ", string, &cc_, &rc_);
  ASSERT_OUTCOME(cc_, rc_, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  vxTrim(3, "AB ", string, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_STREQ(string, "AB");
}

// ----- Pad then trim -------------------------------------------------------------------

TEST_F(PadTrimTest, TrimUndoesPad) {
  for (const char *text : {"", "A", " lead", "in side", "QUEUE.NAME.48"}) {
    SCOPED_TRACE(text);
    char field[48];
    char string[49];
    vxPad(text, 48, field, &cc_, &rc_);
    ASSERT_OK(cc_, rc_);
    vxTrim(48, field, string, &cc_, &rc_);
    ASSERT_OK(cc_, rc_);
    EXPECT_STREQ(string, text);
  }
}

// ----- The internal functions ------------------------------------------------------------

TEST_F(PadTrimTest, PadStringFillsTruncatesAndReturnsTheBuffer) {
  char field[8] = "#######";
  EXPECT_EQ(zaiPadString("AB", field, 5), field);
  EXPECT_EQ(bytes(field, 7), "AB   ##");
  EXPECT_EQ(zaiPadString("ABCDEFGH", field, 3), field);
  EXPECT_EQ(bytes(field, 7), "ABC  ##");
  EXPECT_EQ(zaiPadString(nullptr, field, 2), field);
  EXPECT_EQ(bytes(field, 7), "  C  ##");
}

TEST_F(PadTrimTest, PadStringWritesNothingForALengthNotAboveZero) {
  char field[4] = "###";
  EXPECT_EQ(zaiPadString("AB", field, 0), field);
  EXPECT_EQ(zaiPadString("AB", field, -5), field);
  EXPECT_EQ(zaiPadString(nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(bytes(field, 3), "###");
}

TEST_F(PadTrimTest, PadStringInPlace) {
  char field[8] = {'X', 'Y', 'Z', '\0', 'q', 'q', kUntouched, kUntouched};
  EXPECT_EQ(zaiPadString(field, field, 6), field);
  EXPECT_EQ(bytes(field, 8), "XYZ   ##");
}

TEST_F(PadTrimTest, TrimBufferTrimsAndReturnsTheString) {
  char string[8] = "#######";
  EXPECT_EQ(zaiTrimBuffer("AB  C ", 6, string), string);
  EXPECT_EQ(bytes(string, 8), std::string("AB  C\0#\0", 8));
  EXPECT_EQ(zaiTrimBuffer("     ", 5, string), string);
  EXPECT_EQ(string[0], '\0');
  EXPECT_EQ(zaiTrimBuffer(nullptr, 0, string), string);
  EXPECT_EQ(string[0], '\0');
  const char nulls[3] = {'A', '\0', ' '};
  EXPECT_EQ(zaiTrimBuffer(nulls, 3, string), string);
  EXPECT_EQ(bytes(string, 3), std::string("A\0\0", 3));
}

TEST_F(PadTrimTest, TrimBufferWritesNothingForANegativeLength) {
  // Room for length + 1 bytes is no room at all: not even a terminator, and
  // certainly nothing before the string.
  char string[4] = "###";
  EXPECT_EQ(zaiTrimBuffer("AB", -1, string + 1), string + 1);
  EXPECT_EQ(zaiTrimBuffer("AB", -2, string + 2), string + 2);
  EXPECT_EQ(bytes(string, 4), std::string("###\0", 4));
}

TEST_F(PadTrimTest, TrimBufferInPlace) {
  char field[6] = {' ', 'A', ' ', ' ', kUntouched, kUntouched};
  EXPECT_EQ(zaiTrimBuffer(field, 4, field), field);
  EXPECT_EQ(bytes(field, 6), std::string(" A\0 ##", 6));
}

TEST_F(PadTrimTest, InternalFunctionsRecordOnlyTheirOwnFrame) {
  char field[4];
  vxPad("A", 4, field, &cc_, &rc_);  // the thread is set up by now
  const svcTHREADANCHOR *anchor = svcThreadAnchor();
  ASSERT_NE(anchor, nullptr);
  ASSERT_GE(anchor->historySize, 4);
  const int32_t depth = anchor->callDepth;
  auto recent = [anchor](int32_t count) {
    std::vector<uint32_t> markers;
    for (int32_t back = count; back >= 1; --back)
      markers.push_back(anchor->history[(anchor->historyIndex - back + anchor->historySize) %
                                        anchor->historySize]);
    return markers;
  };
  zaiPadString("AB", field, 4);
  EXPECT_EQ(recent(2), (std::vector<uint32_t>{0xF0006473u, 0x00006473u}));
  char string[5];
  zaiTrimBuffer("AB  ", 4, string);
  EXPECT_EQ(recent(2), (std::vector<uint32_t>{0xF0006474u, 0x00006474u}));
  EXPECT_EQ(anchor->callDepth, depth);
}

TEST_F(PadTrimTest, InternalFunctionsDoNotSetAThreadUp) {
  bool anchorAfter = true;
  std::string padded, trimmed;
  std::thread thread([&] {
    char field[4];
    char string[5];
    zaiPadString("AB", field, 4);
    zaiTrimBuffer("CD  ", 4, string);
    padded.assign(field, 4);
    trimmed = string;
    anchorAfter = svcThreadAnchor() != nullptr;
  });
  thread.join();
  EXPECT_FALSE(anchorAfter);
  EXPECT_EQ(padded, "AB  ");
  EXPECT_EQ(trimmed, "CD");
}

}  // namespace
