// Fuzz target for the lines that vxadmin's shell reads.
//
// The tool's own source is compiled into the target with its main renamed,
// unchanged otherwise, and each input runs
//
//     vxadmin --data DIR --wait 200 shell [--keep-going] [--echo] [--json]
//
// with standard input replaced by the input's lines.  The queue manager is
// the one in memory of this process: the target connects before the tool
// does, with VXQM_DATA empty, so the directory the tool makes and names
// (DIR, a fresh one under $TMPDIR) holds nothing.  Each input hosts the
// tool's command server for its lines, as vxadmin does without a running
// one.
//
// Byte 0 of an input chooses the shell's options (bit 0 --keep-going, bit 1
// --echo, bit 2 --json); the rest is the lines, at most kLargestLineCount of
// them.  A line is left out, before the shell sees any, when it would only
// make the run wait or read what is not the input's: a --wait (of the tool or
// of get) of other than 0 to kLargestWait ms, and a --file that names other
// than a small regular file of the working directory.  Lines are split for
// that with the shell's own splitLine.
//
// After each input, whatever its exit status:
//   - no block of the library (components 25 and 32) is live, the tool's
//     connections and its command server are gone, and no temporary queue is
//     left;
//   - no failure report was raised.
// The queue manager is then put back as it was at start (queues made are
// deleted, changed ones changed back, deleted ones made again, messages
// cleared), so that an input that inhibits gets from the command queue
// spoils no other.
#include <sys/stat.h>
#include <unistd.h>

// Everything main.cpp includes, first, so that renaming main below touches
// vxadmin's main only.  The other sources of vxadmin are linked as they are.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"
#include "fuzz_queues.h"
#include "qm_admin.h"
#include "qm_test.h"
#include "render.h"
#include "svc.h"
#include "vxai.h"
#include "vxqi.h"

#define main vxadmin_main
#include "main.cpp"
#undef main

namespace fuzz {

constexpr char kQm[] = "QM1";
constexpr int32_t kLibraryComponents[] = {25, 32};
constexpr size_t kLargestLineCount = 8;
constexpr long kLargestWait = 200;
constexpr off_t kLargestFile = 64 * 1024;

[[noreturn]] void broken(const char *rule, long value = 0) {
  std::fprintf(stderr, "fuzz_vxadmin_shell: %s (%ld)\n", rule, value);
  std::abort();
}

void require(bool holds, const char *rule, long value = 0) {
  if (!holds) broken(rule, value);
}

// ----- The queue manager as it was at start ------------------------------------------

int32_t hconn = 0;
std::string dataDirectory;
std::unique_ptr<fuzzing::QueueSnapshot> initialQueues;  // as they were at start

// ----- Lines -------------------------------------------------------------------------------

// The value of an option word: after '=', else the next word.
std::optional<std::string> valueOf(const std::vector<std::string> &words, size_t i) {
  const size_t equals = words[i].find('=');
  if (equals != std::string::npos) return words[i].substr(equals + 1);
  if (i + 1 < words.size()) return words[i + 1];
  return std::nullopt;
}

bool quickWait(const std::string &value) {
  errno = 0;
  char *end = nullptr;
  const long long wait = std::strtoll(value.c_str(), &end, 10);
  // What the tool does not take as a number it refuses without waiting.
  if (value.empty() || *end != '\0' || errno != 0) return true;
  return wait >= 0 && wait <= kLargestWait;
}

bool smallLocalFile(const std::string &value) {
  if (value.empty() || value.find('/') != std::string::npos || value == "." || value == "..")
    return false;
  struct stat info;
  if (stat(value.c_str(), &info) != 0) return true;  // the tool reports it missing
  return S_ISREG(info.st_mode) && info.st_size <= kLargestFile;
}

// The line may run: it waits for nothing long and reads no other file.
bool harmless(const std::string &line) {
  std::vector<std::string> words;
  try {
    words = vxadmin::splitLine(line);
  } catch (const vxadmin::UsageError &) {
    return true;  // the shell refuses it as a whole
  }
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string &word = words[i];
    const bool wait = word.rfind("--wait", 0) == 0, file = word.rfind("--file", 0) == 0;
    if (!wait && !file) continue;
    const std::optional<std::string> value = valueOf(words, i);
    if (!value) continue;  // the tool reports the value missing
    if (wait && !quickWait(*value)) return false;
    if (file && !smallLocalFile(*value)) return false;
  }
  return true;
}

// Output of the tool goes nowhere: only what it does to the queue manager and
// to memory is checked.
class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char *, std::streamsize n) override { return n; }
};

void libraryBlocks(int32_t *blocks) {
  for (size_t i = 0; i < 2; ++i) {
    int32_t bytes = 0;
    svcMemLive(kLibraryComponents[i], -1, &blocks[i], &bytes);
  }
}

}  // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  // The queue manager of this process lives in memory: it is made by the
  // first connect, before the tool names a data directory.
  unsetenv("VXQM_DATA");
  char name[QM_NAME_LENGTH + 1] = "QM1";
  int32_t cc, rc;
  VXCONN(name, &fuzz::hconn, &cc, &rc);
  fuzz::require(cc != CC_FAILED, "the queue manager cannot be connected", rc);
  const char *tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && tmp[0] ? tmp : "/tmp") + "/fuzz_vxadmin_shell.XXXXXX";
  fuzz::require(mkdtemp(pattern.data()) != nullptr, "no directory for the tool's data", errno);
  fuzz::dataDirectory = pattern;
  setenv("VXQM_MEMORY_DIR", pattern.c_str(), 1);
  fuzz::initialQueues = std::make_unique<fuzzing::QueueSnapshot>(fuzz::kQm, "fuzz_vxadmin_shell");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const int32_t reportsBefore = svcFailureReportCount();
  std::string lines;
  size_t count = 0;
  std::istringstream text(std::string(reinterpret_cast<const char *>(data + 1), size - 1));
  for (std::string line; count < fuzz::kLargestLineCount && std::getline(text, line); ++count)
    if (fuzz::harmless(line)) lines += line + "\n";

  // The shell's wait is every line's, get's too: no longer than a line's own.
  std::vector<std::string> words = {"vxadmin", "--data", fuzz::dataDirectory,
                                    "--wait",  "200",    "shell"};
  if (data[0] & 1) words.push_back("--keep-going");
  if (data[0] & 2) words.push_back("--echo");
  if (data[0] & 4) words.push_back("--json");
  std::vector<char *> argv;
  for (std::string &word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  std::stringbuf input(lines);
  fuzz::NullBuffer output;
  std::streambuf *in = std::cin.rdbuf(&input);
  std::streambuf *out = std::cout.rdbuf(&output);
  std::streambuf *err = std::cerr.rdbuf(&output);
  const int status = vxadmin_main(static_cast<int>(argv.size() - 1), argv.data());
  std::cin.rdbuf(in);
  std::cin.clear();
  std::cout.rdbuf(out);
  std::cout.clear();
  std::cerr.rdbuf(err);
  std::cerr.clear();
  fuzz::require(status >= vxadmin::kOk && status <= vxadmin::kPartial,
                "the shell ended with an unknown status", status);

  int32_t blocks[2];
  fuzz::libraryBlocks(blocks);
  fuzz::require(blocks[0] == 0 && blocks[1] == 0, "blocks of the library are left", blocks[0]);
  fuzz::require(vxqm::test::connectionCount(fuzz::kQm) == 1, "the tool left a connection",
                vxqm::test::connectionCount(fuzz::kQm));
  fuzz::require(vxqm::test::temporaryQueueCount(fuzz::kQm) == 0, "a temporary queue is left",
                vxqm::test::temporaryQueueCount(fuzz::kQm));
  fuzz::initialQueues->restore();
  fuzz::require(svcFailureReportCount() == reportsBefore, "a failure report was raised");
  return 0;
}
