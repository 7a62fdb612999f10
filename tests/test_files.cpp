// Trace files and failure reports on a machine shared with other users:
// where they go, directories and files only the user can reach, links that
// are never followed, the size cap of a trace file and the number of report
// files kept.  Every test names its own directories through the environment
// and puts the environment, the umask and the process anchor back after it.
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "emulation.h"
#include "vxtest.h"

namespace {

using vxtest::integer;
using vxtest::Item;
using vxtest::itemsOf;
using vxtest::stringItem;

constexpr uint32_t kDetailOptions = 0x1 | 0xC0000 | 0x20 | 0x400 | 0x80000;
constexpr int64_t kMegabyte = 1024 * 1024;

// The environment that decides where the files go.
constexpr const char *kVariables[] = {"VXSVC_TRACE_DIR", "VXSVC_REPORT_DIR", "XDG_STATE_HOME",
                                      "HOME", "VXSVC_TRACE_MAX_MB"};

std::string readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void writeFile(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::vector<std::string> linesOf(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

bool exists(const std::string &path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

bool isLink(const std::string &path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}

bool isRegularFile(const std::string &path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// Permission bits of a file or directory, as "0700"; "none" when missing.
std::string modeOf(const std::string &path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) return "none";
  char text[8];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(info.st_mode & 07777));
  return text;
}

int64_t sizeOf(const std::string &path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 ? static_cast<int64_t>(info.st_size) : -1;
}

// Names in a directory, sorted, without "." and "..".
std::vector<std::string> namesIn(const std::string &directory) {
  std::vector<std::string> names;
  if (DIR *dir = opendir(directory.c_str())) {
    while (const dirent *entry = readdir(dir))
      if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
        names.push_back(entry->d_name);
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

int removeEntry(const char *path, const struct stat *, int, struct FTW *) {
  return std::remove(path);
}

void removeTree(const std::string &path) {
  nftw(path.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string pid() { return std::to_string(getpid()); }
std::string traceFile() { return std::string(svcTraceDirectory()) + "/vxai." + pid() + ".trc"; }
std::string olderTraceFile() { return traceFile() + ".1"; }
std::string reportFile(const std::string &directory, int32_t sequence) {
  return directory + "/VX" + pid() + "." + std::to_string(sequence) + ".FDC";
}

void traceLine(const std::string &text) { trcText(25, ZAIFN_zaiVXCreateBag, text.c_str()); }

// Raises a report and returns its number.
int32_t raiseReport() {
  svcFailureReport(25, ZAIFN_zaiVectorAdd, 0, 0x20805452u, nullptr, nullptr);
  return svcFailureReportCount();
}

// Standard error goes to a file of its own while the capture lives.
class StderrCapture {
 public:
  StderrCapture() : file_(std::tmpfile()) {
    std::fflush(stderr);
    saved_ = dup(STDERR_FILENO);
    if (file_) dup2(fileno(file_), STDERR_FILENO);
  }
  ~StderrCapture() { restore(); }
  std::vector<std::string> lines() {
    restore();
    std::string text;
    if (file_) {
      std::rewind(file_);
      char buffer[512];
      for (size_t got; (got = std::fread(buffer, 1, sizeof buffer, file_)) > 0;)
        text.append(buffer, got);
    }
    return linesOf(text);
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    std::fflush(stderr);
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    saved_ = -1;
  }
  FILE *file_;
  int saved_ = -1;
};

class FilesTest : public vxtest::VxTest {
 protected:
  void SetUp() override {
    VxTest::SetUp();
    for (const char *name : kVariables) {
      const char *value = std::getenv(name);
      saved_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
    }
    savedUmask_ = umask(022);
    savedAnchor_ = processAnchor;
    std::string pattern = ::testing::TempDir() + "vxai-files-XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr) << pattern;
    scratch_ = pattern;
  }

  void TearDown() override {
    for (const auto &[name, value] : saved_) {
      if (value)
        setenv(name, value->c_str(), 1);
      else
        unsetenv(name);
    }
    umask(savedUmask_);
    processAnchor = savedAnchor_;
    svcSetTraceFileCap(0);
    svcReadFileSettings();
    if (!scratch_.empty()) removeTree(scratch_);
    VxTest::TearDown();
  }

  // A path in the test's own directory.
  std::string at(const std::string &name) const { return scratch_ + "/" + name; }

  // Sets (or, for null, removes) a variable until the test ends.
  static void setVariable(const char *name, const char *value) {
    if (value)
      setenv(name, value, 1);
    else
      unsetenv(name);
  }

  // Trace files and reports go to directories of the test, read afresh.
  void useDirectories(const std::string &trace, const std::string &reports) {
    setVariable("VXSVC_TRACE_DIR", trace.c_str());
    setVariable("VXSVC_REPORT_DIR", reports.c_str());
    svcReadFileSettings();
  }

  // No directory named by the environment: the defaults apply.
  static void useDefaults(const char *stateHome, const char *home) {
    setVariable("VXSVC_TRACE_DIR", nullptr);
    setVariable("VXSVC_REPORT_DIR", nullptr);
    setVariable("XDG_STATE_HOME", stateHome);
    setVariable("HOME", home);
    svcReadFileSettings();
  }

  void makeDirectory(const std::string &path, mode_t mode = 0700) const {
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0) << path;
    ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
  }

  std::vector<std::pair<const char *, std::optional<std::string>>> saved_;
  mode_t savedUmask_ = 022;
  svcPROCESSANCHOR savedAnchor_;
  std::string scratch_;
};

// ----- Where the files go -------------------------------------------------

TEST_F(FilesTest, DefaultDirectoriesAreUnderTheUsersStateDirectory) {
  useDefaults(at("state").c_str(), at("home").c_str());
  EXPECT_EQ(std::string(svcTraceDirectory()), at("state/vxai/trace"));
  EXPECT_EQ(std::string(svcReportDirectory()), at("state/vxai/reports"));

  traceLine("to the state directory");
  const int32_t report = raiseReport();
  EXPECT_NE(readFile(traceFile()).find("to the state directory"), std::string::npos);
  EXPECT_TRUE(isRegularFile(reportFile(at("state/vxai/reports"), report)));
  EXPECT_FALSE(exists(at("home"))) << "the home is not used when there is a state directory";
}

TEST_F(FilesTest, WithoutAStateDirectoryTheyAreUnderTheHome) {
  makeDirectory(at("home"));
  useDefaults(nullptr, at("home").c_str());
  EXPECT_EQ(std::string(svcTraceDirectory()), at("home/.local/state/vxai/trace"));
  EXPECT_EQ(std::string(svcReportDirectory()), at("home/.local/state/vxai/reports"));

  // A state directory must be an absolute path to count.
  useDefaults("relative/state", at("home").c_str());
  EXPECT_EQ(std::string(svcTraceDirectory()), at("home/.local/state/vxai/trace"));

  traceLine("to the home");
  EXPECT_NE(readFile(traceFile()).find("to the home"), std::string::npos);
}

TEST_F(FilesTest, WithoutAHomeTheyAreInTmpUnderTheUsersNumber) {
  const std::string user = "/tmp/vxai-" + std::to_string(geteuid());
  const std::string missing = at("no-such-home");
  for (const char *home : {static_cast<const char *>(nullptr), "", missing.c_str()}) {
    useDefaults(nullptr, home);
    EXPECT_EQ(std::string(svcTraceDirectory()), user + "/trace") << (home ? home : "no HOME");
    EXPECT_EQ(std::string(svcReportDirectory()), user + "/reports") << (home ? home : "no HOME");
  }
  EXPECT_FALSE(exists(missing));

  const std::string marker = "to tmp from " + pid();
  traceLine(marker);
  EXPECT_NE(readFile(traceFile()).find(marker), std::string::npos) << traceFile();
  EXPECT_EQ(modeOf(traceFile()), "0600");
  std::remove(traceFile().c_str());
}

TEST_F(FilesTest, VariablesNameTheDirectoriesAndMissingOnesAreMade) {
  useDirectories(at("t/u/trace"), at("r/reports"));
  EXPECT_EQ(std::string(svcTraceDirectory()), at("t/u/trace"));
  EXPECT_EQ(std::string(svcReportDirectory()), at("r/reports"));
  traceLine("named by the environment");
  const int32_t report = raiseReport();
  EXPECT_NE(readFile(traceFile()).find("named by the environment"), std::string::npos);
  EXPECT_TRUE(isRegularFile(reportFile(at("r/reports"), report)));
}

// ----- Modes --------------------------------------------------------------

// With a umask that takes nothing away, directories get 0700 and files 0600.
TEST_F(FilesTest, DirectoriesAreMadeWithMode0700AndFiles0600) {
  umask(0);
  useDefaults(at("state").c_str(), nullptr);
  traceLine("mode of the trace file");
  const int32_t report = raiseReport();
  for (const char *directory : {"state", "state/vxai", "state/vxai/trace", "state/vxai/reports"})
    EXPECT_EQ(modeOf(at(directory)), "0700") << directory;
  EXPECT_EQ(modeOf(traceFile()), "0600");
  EXPECT_EQ(modeOf(reportFile(at("state/vxai/reports"), report)), "0600");

  useDirectories(at("t/u/trace"), at("r/reports"));
  traceLine("mode of the trace file");
  const int32_t named = raiseReport();
  for (const char *directory : {"t", "t/u", "t/u/trace", "r", "r/reports"})
    EXPECT_EQ(modeOf(at(directory)), "0700") << directory;
  EXPECT_EQ(modeOf(traceFile()), "0600");
  EXPECT_EQ(modeOf(reportFile(at("r/reports"), named)), "0600");
}

// A umask that takes the owner's permissions away does not keep the
// services out of their own directories.
TEST_F(FilesTest, DirectoriesMadeUnderAStrictUmaskStillTakeFiles) {
  umask(0277);
  useDirectories(at("trace"), at("reports"));
  traceLine("under a strict umask");
  const int32_t report = raiseReport();
  EXPECT_EQ(modeOf(at("trace")), "0700");
  EXPECT_EQ(modeOf(at("reports")), "0700");
  EXPECT_NE(readFile(traceFile()).find("under a strict umask"), std::string::npos);
  EXPECT_TRUE(isRegularFile(reportFile(at("reports"), report)));
}

TEST_F(FilesTest, TraceFileReadableByOthersIsMadePrivateAndKept) {
  makeDirectory(at("trace"));
  useDirectories(at("trace"), at("reports"));
  writeFile(traceFile(), "written before\n");
  ASSERT_EQ(chmod(traceFile().c_str(), 0644), 0);
  traceLine("appended");
  EXPECT_EQ(modeOf(traceFile()), "0600");
  const std::vector<std::string> lines = linesOf(readFile(traceFile()));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "written before");
  EXPECT_NE(lines[1].find("appended"), std::string::npos) << lines[1];
}

// An existing directory that only its owner may write to is used as it is.
TEST_F(FilesTest, ExistingDirectoryReadableByOthersIsUsedAsItIs) {
  makeDirectory(at("trace"), 0755);
  useDirectories(at("trace"), at("reports"));
  StderrCapture errors;
  traceLine("in a directory others may read");
  EXPECT_EQ(errors.lines(), std::vector<std::string>{});
  EXPECT_EQ(modeOf(at("trace")), "0755");
  EXPECT_TRUE(isRegularFile(traceFile()));
}

// ----- Directories that are refused ---------------------------------------

TEST_F(FilesTest, LinkInPlaceOfTheDirectoriesIsNotFollowed) {
  makeDirectory(at("elsewhere"));
  ASSERT_EQ(symlink(at("elsewhere").c_str(), at("trace").c_str()), 0);
  ASSERT_EQ(symlink(at("elsewhere").c_str(), at("reports").c_str()), 0);
  useDirectories(at("trace"), at("reports"));
  const int32_t reportsBefore = svcFailureReportCount();

  StderrCapture errors;
  traceLine("first line");
  traceLine("second line");
  raiseReport();
  raiseReport();
  EXPECT_EQ(errors.lines(),
            (std::vector<std::string>{"vxai: trace switched off for this process: " + at("trace") +
                                          " is a link, not a directory",
                                      "vxai: failure reports switched off for this process: " +
                                          at("reports") + " is a link, not a directory"}));
  EXPECT_EQ(namesIn(at("elsewhere")), std::vector<std::string>{});
  EXPECT_TRUE(isLink(at("trace")));
  // The reports are still counted and kept in memory.
  EXPECT_EQ(svcFailureReportCount(), reportsBefore + 2);
  EXPECT_GT(svcLatestFailureReport(0, nullptr, 0), 0);
}

// The directory the services make for the user is theirs to check too.
TEST_F(FilesTest, LinkInPlaceOfTheUsersOwnDirectoryIsNotFollowed) {
  makeDirectory(at("state"));
  makeDirectory(at("elsewhere"));
  makeDirectory(at("elsewhere/trace"));
  ASSERT_EQ(symlink(at("elsewhere").c_str(), at("state/vxai").c_str()), 0);
  useDefaults(at("state").c_str(), nullptr);

  StderrCapture errors;
  traceLine("not to elsewhere");
  EXPECT_EQ(errors.lines(),
            std::vector<std::string>{"vxai: trace switched off for this process: " +
                                     at("state/vxai") + " is a link, not a directory"});
  EXPECT_EQ(namesIn(at("elsewhere/trace")), std::vector<std::string>{});
}

TEST_F(FilesTest, DirectoryWritableByGroupOrOthersIsRefused) {
  for (mode_t mode : {0777, 0770, 0703, 01777}) {
    SCOPED_TRACE(mode);
    removeTree(at("trace"));
    removeTree(at("reports"));
    makeDirectory(at("trace"), mode);
    makeDirectory(at("reports"), mode);
    useDirectories(at("trace"), at("reports"));
    StderrCapture errors;
    traceLine("not in a shared directory");
    raiseReport();
    EXPECT_EQ(errors.lines(),
              (std::vector<std::string>{"vxai: trace switched off for this process: " +
                                            at("trace") + " is writable by group or others",
                                        "vxai: failure reports switched off for this process: " +
                                            at("reports") + " is writable by group or others"}));
    EXPECT_EQ(namesIn(at("trace")), std::vector<std::string>{});
    EXPECT_EQ(namesIn(at("reports")), std::vector<std::string>{});
  }
}

TEST_F(FilesTest, UsersOwnDirectoryWritableByOthersIsRefused) {
  makeDirectory(at("state"));
  makeDirectory(at("state/vxai"), 0777);
  useDefaults(at("state").c_str(), nullptr);
  StderrCapture errors;
  traceLine("not under a shared directory");
  EXPECT_EQ(errors.lines(),
            std::vector<std::string>{"vxai: trace switched off for this process: " +
                                     at("state/vxai") + " is writable by group or others"});
  EXPECT_EQ(namesIn(at("state/vxai")), std::vector<std::string>{});
}

// Run as root, the test gives its directory to another user; otherwise it
// names the root directory, which belongs to root.
TEST_F(FilesTest, DirectoryOwnedByAnotherUserIsRefused) {
  std::string directory = "/";
  if (geteuid() == 0) {
    directory = at("trace");
    makeDirectory(directory);
    ASSERT_EQ(chown(directory.c_str(), 4242, 4242), 0);
  }
  useDirectories(directory, at("reports"));
  StderrCapture errors;
  traceLine("not in a directory of another user");
  EXPECT_EQ(errors.lines(), std::vector<std::string>{"vxai: trace switched off for this process: " +
                                                     directory + " is owned by another user"});
  if (geteuid() == 0) {
    EXPECT_EQ(namesIn(directory), std::vector<std::string>{});
  }
}

TEST_F(FilesTest, TraceFileOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file to another user";
  makeDirectory(at("trace"));
  useDirectories(at("trace"), at("reports"));
  writeFile(traceFile(), "another user's\n");
  ASSERT_EQ(chown(traceFile().c_str(), 4242, 4242), 0);
  StderrCapture errors;
  traceLine("not into another user's file");
  EXPECT_EQ(errors.lines(), std::vector<std::string>{"vxai: trace switched off for this process: " +
                                                     traceFile() + " is owned by another user"});
  EXPECT_EQ(readFile(traceFile()), "another user's\n");
}

TEST_F(FilesTest, FileInPlaceOfTheDirectoryIsRefused) {
  writeFile(at("trace"), "a file\n");
  useDirectories(at("trace"), at("reports"));
  StderrCapture errors;
  traceLine("not into a file");
  EXPECT_EQ(errors.lines(), std::vector<std::string>{"vxai: trace switched off for this process: " +
                                                     at("trace") + " is not a directory"});
  EXPECT_EQ(readFile(at("trace")), "a file\n");
}

// ----- Files that are never followed --------------------------------------

TEST_F(FilesTest, LinkInPlaceOfTheTraceFileIsNotFollowed) {
  makeDirectory(at("trace"));
  writeFile(at("victim"), "the victim's own text\n");
  useDirectories(at("trace"), at("reports"));
  ASSERT_EQ(symlink(at("victim").c_str(), traceFile().c_str()), 0);

  StderrCapture errors;
  traceLine("not into the victim");
  traceLine("nor this one");
  EXPECT_EQ(errors.lines(),
            std::vector<std::string>{"vxai: trace switched off for this process: " + traceFile() +
                                     " cannot be opened (Too many levels of "
                                     "symbolic links)"});
  EXPECT_EQ(readFile(at("victim")), "the victim's own text\n");
  EXPECT_TRUE(isLink(traceFile()));
}

// A link to a file that does not exist yet would have it made.
TEST_F(FilesTest, DanglingLinkInPlaceOfTheTraceFileMakesNothing) {
  makeDirectory(at("trace"));
  useDirectories(at("trace"), at("reports"));
  ASSERT_EQ(symlink(at("made-through-a-link").c_str(), traceFile().c_str()), 0);
  StderrCapture errors;
  traceLine("nowhere");
  EXPECT_EQ(errors.lines().size(), 1u);
  EXPECT_FALSE(exists(at("made-through-a-link")));
}

TEST_F(FilesTest, LinkInPlaceOfTheNextReportFileIsNotFollowed) {
  makeDirectory(at("reports"));
  writeFile(at("victim"), "the victim's own text\n");
  useDirectories(at("trace"), at("reports"));
  const int32_t next = svcFailureReportCount() + 1;
  ASSERT_EQ(symlink(at("victim").c_str(), reportFile(at("reports"), next).c_str()), 0);
  ASSERT_EQ(symlink(at("made-through-a-link").c_str(), reportFile(at("reports"), next + 1).c_str()),
            0);

  StderrCapture errors;
  EXPECT_EQ(raiseReport(), next);
  EXPECT_EQ(raiseReport(), next + 1);
  EXPECT_EQ(raiseReport(), next + 2);
  EXPECT_EQ(errors.lines(),
            (std::vector<std::string>{
                "vxai: failure report not written: " + reportFile(at("reports"), next) +
                    " cannot be created (File exists)",
                "vxai: failure report not written: " + reportFile(at("reports"), next + 1) +
                    " cannot be created (File exists)"}));
  EXPECT_EQ(readFile(at("victim")), "the victim's own text\n");
  EXPECT_FALSE(exists(at("made-through-a-link")));
  // A name that is taken costs its report's file only: the next is written.
  EXPECT_TRUE(isLink(reportFile(at("reports"), next)));
  EXPECT_TRUE(isRegularFile(reportFile(at("reports"), next + 2)));
  const int32_t length = svcLatestFailureReport(0, nullptr, 0);
  EXPECT_EQ(sizeOf(reportFile(at("reports"), next + 2)), length);
}

TEST_F(FilesTest, LinkInPlaceOfTheOlderTraceFileIsReplacedNotFollowed) {
  makeDirectory(at("trace"));
  writeFile(at("victim"), "the victim's own text\n");
  useDirectories(at("trace"), at("reports"));
  ASSERT_EQ(symlink(at("victim").c_str(), olderTraceFile().c_str()), 0);
  svcSetTraceFileCap(200);
  for (int i = 0; i < 10; ++i) traceLine("a line to fill the file past its cap");
  EXPECT_TRUE(isRegularFile(olderTraceFile()));
  EXPECT_EQ(readFile(at("victim")), "the victim's own text\n");
}

// ----- The size cap of a trace file ---------------------------------------

// Lines of one length: "line NN" under the same function, from one thread.
class TraceCapTest : public FilesTest {
 protected:
  void SetUp() override {
    FilesTest::SetUp();
    makeDirectory(at("trace"));
    useDirectories(at("trace"), at("reports"));
  }

  static std::string numbered(int i) {
    char text[16];
    std::snprintf(text, sizeof text, "line %02d", i);
    return text;
  }

  // The numbers of the lines in a file, in order.
  static std::vector<int> numbersIn(const std::string &path) {
    std::vector<int> numbers;
    for (const std::string &line : linesOf(readFile(path))) {
      size_t at = line.rfind("line ");
      numbers.push_back(at == std::string::npos ? -1 : std::stoi(line.substr(at + 5)));
    }
    return numbers;
  }

  // Bytes of one line, measured in a file of its own.
  int64_t lineLength() {
    traceLine(numbered(0));
    const int64_t length = sizeOf(traceFile());
    svcReadFileSettings();  // closes the file
    std::remove(traceFile().c_str());
    return length;
  }
};

TEST_F(TraceCapTest, FileIsRenamedExactlyOnceEachTimeItReachesTheCap) {
  const int64_t length = lineLength();
  ASSERT_GT(length, 0);
  const int64_t cap = 3 * length;
  svcSetTraceFileCap(static_cast<int32_t>(cap));

  for (int i = 1; i <= 10; ++i) {
    SCOPED_TRACE("after line " + std::to_string(i));
    traceLine(numbered(i));
    // Three lines fill the file exactly; the fourth begins a new one.
    const int full = (i - 1) / 3;
    std::vector<int> current, older;
    for (int n = 3 * full + 1; n <= i; ++n) current.push_back(n);
    for (int n = 3 * full - 2; full > 0 && n <= 3 * full; ++n) older.push_back(n);
    EXPECT_EQ(numbersIn(traceFile()), current);
    EXPECT_LE(sizeOf(traceFile()), cap);
    if (full == 0) {
      EXPECT_FALSE(exists(olderTraceFile()));
    } else {
      EXPECT_EQ(numbersIn(olderTraceFile()), older);
      EXPECT_EQ(sizeOf(olderTraceFile()), cap);
    }
    EXPECT_EQ(namesIn(at("trace")).size(), full == 0 ? 1u : 2u);
  }
  EXPECT_EQ(modeOf(olderTraceFile()), "0600");
}

TEST_F(TraceCapTest, LineLongerThanTheCapIsCutToIt) {
  const int64_t length = lineLength();
  svcSetTraceFileCap(static_cast<int32_t>(2 * length));
  traceLine(numbered(1));
  traceLine(std::string(static_cast<size_t>(5 * length), 'x'));
  EXPECT_EQ(numbersIn(olderTraceFile()), std::vector<int>{1});
  EXPECT_EQ(sizeOf(traceFile()), 2 * length);
  const std::string cut = readFile(traceFile());
  EXPECT_EQ(cut.find('\n'), std::string::npos) << "the line is cut before its end";
  EXPECT_EQ(cut.substr(cut.size() - 10), std::string(10, 'x'));
  // The next line begins a file of its own.
  traceLine(numbered(2));
  EXPECT_EQ(numbersIn(traceFile()), std::vector<int>{2});
  EXPECT_EQ(sizeOf(olderTraceFile()), 2 * length);
}

// Reads the settings afresh and, starting from no trace file, writes lines
// of `textLength` bytes of text until the file is renamed, checking that this
// happens at the line that would take it past `cap`.
void linesUntilRenamed(int64_t cap, size_t textLength) {
  svcReadFileSettings();
  std::remove(traceFile().c_str());
  std::remove(olderTraceFile().c_str());
  const std::string text(textLength, 'y');
  traceLine(text);
  const int64_t length = sizeOf(traceFile());
  const int64_t fit = cap / length;
  for (int64_t i = 1; i < fit; ++i) traceLine(text);
  EXPECT_FALSE(exists(olderTraceFile())) << "renamed before the cap";
  EXPECT_EQ(sizeOf(traceFile()), fit * length);
  traceLine(text);
  EXPECT_EQ(sizeOf(olderTraceFile()), fit * length);
  EXPECT_EQ(sizeOf(traceFile()), length);
}

TEST_F(TraceCapTest, CapIsSetInMegabytesByTheEnvironment) {
  setVariable("VXSVC_TRACE_MAX_MB", "1");
  linesUntilRenamed(kMegabyte, 4000);
  setVariable("VXSVC_TRACE_MAX_MB", "3");
  linesUntilRenamed(3 * kMegabyte, 4000);
}

TEST_F(TraceCapTest, CapIs64MegabytesUnlessTheEnvironmentSaysOtherwise) {
#if defined(__SANITIZE_ADDRESS__)
  // Its lines of 256 KiB each are mapped afresh by the sanitizer's allocator,
  // which under the emulator is at times handed memory it cannot use.
  if (vxtest::emulated()) GTEST_SKIP() << "large blocks of the sanitizer under the emulator";
#endif
  for (const char *setting : {static_cast<const char *>(nullptr), "0", "-3", "12x"}) {
    SCOPED_TRACE(setting ? setting : "not set");
    setVariable("VXSVC_TRACE_MAX_MB", setting);
    linesUntilRenamed(64 * kMegabyte, 256 * 1024);
  }
}

TEST_F(TraceCapTest, CapSetByATestTakesThePlaceOfTheEnvironmentsUntilCleared) {
  setVariable("VXSVC_TRACE_MAX_MB", "1");
  svcSetTraceFileCap(1000);
  linesUntilRenamed(1000, 100);
  svcSetTraceFileCap(0);
  linesUntilRenamed(kMegabyte, 4000);
}

// ----- Report files kept --------------------------------------------------

TEST_F(FilesTest, LatestHundredReportFilesAreKept) {
  makeDirectory(at("reports"));
  useDirectories(at("trace"), at("reports"));
  // The report of an earlier process, older than any of this one's; and
  // files that are not reports.
  const std::string earlier = at("reports/VX1.1.FDC");
  writeFile(earlier, "an earlier report\n");
  const timespec longAgo[2] = {{978307200, 0}, {978307200, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, earlier.c_str(), longAgo, 0), 0);
  writeFile(at("reports/notes.txt"), "notes\n");
  writeFile(at("reports/VX1.2.FDC.old"), "kept aside\n");
  makeDirectory(at("reports/VX1.3.FDC"));
  ASSERT_EQ(utimensat(AT_FDCWD, at("reports/notes.txt").c_str(), longAgo, 0), 0);

  std::vector<int32_t> reports;
  for (int i = 0; i < 104; ++i) reports.push_back(raiseReport());

  // 105 reports in all: the earlier one and this process's first four go.
  std::vector<std::string> expected = {"VX1.2.FDC.old", "VX1.3.FDC", "notes.txt"};
  for (size_t i = 4; i < reports.size(); ++i)
    expected.push_back("VX" + pid() + "." + std::to_string(reports[i]) + ".FDC");
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(namesIn(at("reports")), expected);
}

// ----- The library goes on ------------------------------------------------

// With detailed trace switched on and its directory refused, every call
// still does its work and returns its codes.
class RefusedTraceTest : public FilesTest {
 protected:
  void SetUp() override {
    FilesTest::SetUp();
    makeDirectory(at("trace"), 0777);
    makeDirectory(at("reports"), 0777);
    useDirectories(at("trace"), at("reports"));
    svcInitialize(48, 1030, 0, 0, 0);
    savedThreadTrace_ = svcThreadAnchor()->traceActive;
    processAnchor.traceEnabled = 1;
    processAnchor.traceLevel = 0;
    processAnchor.traceOptions = kDetailOptions;
    svcThreadAnchor()->traceActive = 1;
  }
  void TearDown() override {
    svcThreadAnchor()->traceActive = savedThreadTrace_;
    FilesTest::TearDown();
  }
  int32_t savedThreadTrace_ = 0;
};

TEST_F(RefusedTraceTest, EveryCallCompletesWithItsCodes) {
  StderrCapture errors;
  int32_t cc = -1, rc = -1;
  VXHBAG bag = BAG_NONE, admin = BAG_NONE, copy = BAG_NONE;
  vxCreateBag(0, &bag, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxCreateBag(BAG_OPT_ADMIN_BAG, &admin, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxCreateBag(0, &copy, &cc, &rc);
  EXPECT_OK(cc, rc);

  vxAddInteger(bag, 5, 7, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxAddString(bag, 2001, 4, "ABCD", &cc, &rc);
  EXPECT_OK(cc, rc);
  vxSetInteger(bag, 5, 0, 8, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxSetString(bag, 2001, 0, -1, "WXYZ", &cc, &rc);
  EXPECT_OK(cc, rc);
  int32_t value = 0;
  vxInquireInteger(bag, 5, 0, &value, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(value, 8);
  char text[8] = {};
  int32_t length = 0, ccsid = -1;
  vxInquireString(bag, 2001, 0, 2, text, &length, &ccsid, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_WARNING, RC_STRING_TRUNCATED);
  EXPECT_EQ(length, 4);
  vxInquireInteger(bag, 6, 0, &value, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  vxAddInteger(BAG_NONE, 5, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  int32_t count = -1;
  vxCountItems(bag, 5, &count, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(count, 1);
  int32_t selector = 0, type = -1;
  vxInquireItemInfo(bag, 2001, 0, &selector, &type, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(selector, 2001);
  vxAddInquiry(bag, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_WRONG_TYPE);
  vxAddInquiry(admin, 1, &cc, &rc);
  EXPECT_OK(cc, rc);
  VXHBAG nested = BAG_NONE;
  vxInquireBag(bag, 5, 0, &nested, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);

  char message[512];
  int32_t messageLength = 0;
  vxBagToBuffer(BAG_NONE, bag, sizeof message, message, &messageLength, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxBufferToBag(BAG_NONE, messageLength, message, copy, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(copy), itemsOf(bag));
  vxBagToBuffer(BAG_NONE, bag, 10, message, &messageLength, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);

  vxDeleteItem(bag, 5, 0, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxTruncateBag(bag, 0, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxClearBag(admin, &cc, &rc);
  EXPECT_OK(cc, rc);
  char padded[6];
  vxPad("abc", sizeof padded, padded, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(std::string(padded, sizeof padded), "abc   ");
  char trimmed[7];
  vxTrim(sizeof padded, padded, trimmed, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_STREQ(trimmed, "abc");

  for (VXHBAG *handle : {&bag, &admin, &copy}) {
    vxDeleteBag(handle, &cc, &rc);
    EXPECT_OK(cc, rc);
  }
  vxDeleteBag(&bag, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);

  // Trace was wanted all along, and refused once.
  EXPECT_EQ(errors.lines(),
            std::vector<std::string>{"vxai: trace switched off for this process: " + at("trace") +
                                     " is writable by group or others"});
  EXPECT_EQ(namesIn(at("trace")), std::vector<std::string>{});
}

// The capture of a test still sees the lines of a process whose trace file
// is refused.
TEST_F(RefusedTraceTest, CaptureStillSeesTheLines) {
  StderrCapture errors;
  traceLine("refused");
  trcCaptureStart();
  traceLine("captured");
  trcCaptureStop();
  ASSERT_EQ(trcCapturedCount(), 1);
  trcCAPTURED line;
  ASSERT_EQ(trcCaptured(0, &line), 0);
  EXPECT_STREQ(line.bytes, "captured");
  EXPECT_EQ(errors.lines().size(), 1u);
}

}  // namespace
