// A benchmark's second process: a copy of the same program, started with
// other arguments, its standard output read line by line.
#ifndef VX_BENCH_CHILD_H
#define VX_BENCH_CHILD_H

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char **environ;

namespace bench {

struct Child {
  pid_t pid = -1;
  FILE *output = nullptr;

  // A line of its output, without the newline; empty at its end.
  std::string line() {
    char text[256];
    if (output == nullptr || std::fgets(text, sizeof text, output) == nullptr) return {};
    std::string s = text;
    if (!s.empty() && s.back() == '\n') s.pop_back();
    return s;
  }

  // Waits for its end: true when it exited with 0.  Its resource usage goes
  // in *usage when one is given.
  bool finish(rusage *usage = nullptr) {
    int status = 0;
    rusage used{};
    while (wait4(pid, &status, 0, &used) < 0 && errno == EINTR) {
    }
    std::fclose(output);
    output = nullptr;
    if (usage != nullptr) *usage = used;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }
};

// Starts this program again as `name` with `arguments`; ends the benchmark
// when it cannot.
inline Child spawnSelf(const char *name, std::vector<std::string> arguments) {
  int fds[2];
  if (pipe(fds) != 0) {
    std::perror("pipe");
    std::exit(1);
  }
  arguments.insert(arguments.begin(), name);
  std::vector<char *> argv;
  for (std::string &a : arguments) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  posix_spawn_file_actions_addclose(&actions, fds[1]);
  Child child;
  const int failed =
      posix_spawn(&child.pid, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  if (failed != 0) {
    std::fprintf(stderr, "posix_spawn: %s\n", std::strerror(failed));
    std::exit(1);
  }
  child.output = fdopen(fds[0], "r");
  return child;
}

}  // namespace bench

#endif  // VX_BENCH_CHILD_H
