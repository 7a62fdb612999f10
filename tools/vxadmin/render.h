// How vxadmin writes what a command did: tables for people, JSON for
// scripts, JSON Lines for a shell's, and its errors on standard error.
#ifndef VXADMIN_RENDER_H
#define VXADMIN_RENDER_H

#include <string>
#include <vector>

#include "common.h"

namespace vxadmin {

// Rows as columns separated by two blanks; the last column is not padded.
std::string table(const std::vector<std::vector<std::string>> &rows);
// An attribute-and-value table of one object.
std::string objectTable(const Json &object);
// One row per object, the keys of the first as the heading.
std::string rowsTable(const Json &objects);

bool isUtf8(const std::string &bytes);
std::string base64Encode(const std::string &bytes);
// False when `text` is not base64 (blanks and line ends are skipped).
bool base64Decode(const std::string &text, std::string *bytes);
// Bytes as a terminal shows them safely: control characters, DEL and
// bytes that are not UTF-8 as \xNN; newlines and tabs as they are.
std::string escaped(const std::string &bytes);

// Where an outcome comes from: the prefix of its error lines ("line 3: "),
// and in a shell with --json its line number and text.
struct Origin {
  std::string prefix;
  int line = 0;
  std::string command;
  bool jsonLines = false;
};

// The one place that writes an outcome: its document on standard output
// (text, JSON or a JSON line), its message on standard error.
void render(const Outcome &outcome, const GlobalOptions &options, const Origin &origin);

}  // namespace vxadmin

#endif  // VXADMIN_RENDER_H
