// What every part of vxadmin shares: the exit statuses, the outcome of a
// command, and the global options.
#ifndef VXADMIN_COMMON_H
#define VXADMIN_COMMON_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>

namespace vxadmin {

using Json = nlohmann::ordered_json;

// Exit statuses: one per kind of outcome, so that a script tells "the queue
// is not there" from "the queue is empty" from "the command failed".
enum Status : int {
  kOk = 0,
  kFailure = 1,
  kUsage = 2,
  kNotFound = 3,
  kNoMessage = 4,
  kPartial = 5,
};

struct StatusRow {
  int status;
  const char *meaning;
};
// For --help and the manual page.
std::span<const StatusRow> statuses();

// The outcome of one command: its exit status, the error line(s) without
// the "vxadmin: " prefix, and what it found or did as a JSON document.
// `text` is the document for people, `bytes` what get --raw writes instead.
struct Outcome {
  Outcome() = default;
  Outcome(int status, std::string message, std::optional<Json> document = std::nullopt)
      : status(status), message(std::move(message)), document(std::move(document)) {}
  explicit Outcome(Json document) : document(std::move(document)) {}
  static Outcome ofText(std::string text) {
    Outcome outcome;
    outcome.text = std::move(text);
    return outcome;
  }

  int status = kOk;
  std::string message;
  std::optional<Json> document;
  std::string text;
  std::optional<std::string> bytes;
  bool confirmation = false;  // the text only confirms what was done: -q drops it
};

// A mistake of the user's that the tool sees before it does anything.
struct UsageError {
  std::string message;
};

struct GlobalOptions {
  std::string qmgr = "QM1";
  std::string data;
  bool dataGiven = false;  // --data was given, even as ""
  bool direct = false;     // --direct: the administration interface, not the command server
  bool json = false;
  bool quiet = false;
  // --wait: the longest a command waits, in ms (-1: no limit), for the
  // command server's reply, for a message (get) or for start's server.
  int32_t wait = 0;
  bool waitGiven = false;
  int32_t waitOr(int32_t fallback) const { return waitGiven ? wait : fallback; }
};

// A line on standard error that tells what the tool did on its own; -q
// leaves it out.
void notice(const GlobalOptions &options, const std::string &text);

}  // namespace vxadmin

#endif  // VXADMIN_COMMON_H
