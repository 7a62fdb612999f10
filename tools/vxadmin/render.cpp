// How vxadmin writes what a command did.
#include "render.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <sstream>

namespace vxadmin {
namespace {

std::string cell(const Json &value) {
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

std::string upper(std::string text) {
  for (char &c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// The length of the UTF-8 sequence at `at`, or 0 when none begins there
// (overlong forms, surrogates and code points above U+10FFFF are none).
size_t utf8Length(const std::string &bytes, size_t at) {
  auto byte = [&](size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const unsigned char lead = byte(at);
  if (lead < 0x80) return 1;
  size_t length = 0;
  unsigned char low = 0x80, high = 0xBF;  // the range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (at + length > bytes.size()) return 0;
  if (byte(at + 1) < low || byte(at + 1) > high) return 0;
  for (size_t i = 2; i < length; ++i)
    if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) return 0;
  return length;
}

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string table(const std::vector<std::vector<std::string>> &rows) {
  std::vector<size_t> widths;
  for (const auto &row : rows)
    for (size_t c = 0; c < row.size(); ++c) {
      if (widths.size() <= c) widths.push_back(0);
      widths[c] = std::max(widths[c], row[c].size());
    }
  std::string out;
  for (const auto &row : rows) {
    std::string line;
    for (size_t c = 0; c < row.size(); ++c) {
      line += row[c];
      if (c + 1 < row.size()) line += std::string(widths[c] - row[c].size() + 2, ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out += line + "\n";
  }
  return out;
}

std::string objectTable(const Json &object) {
  std::vector<std::vector<std::string>> rows{{"ATTRIBUTE", "VALUE"}};
  for (const auto &[key, value] : object.items()) rows.push_back({key, cell(value)});
  return table(rows);
}

std::string rowsTable(const Json &objects) {
  if (objects.empty()) return "";
  std::vector<std::vector<std::string>> rows(1);
  for (const auto &[key, value] : objects[0].items()) rows[0].push_back(upper(key));
  for (const Json &object : objects) {
    rows.emplace_back();
    for (const auto &[key, value] : object.items()) rows.back().push_back(cell(value));
  }
  return table(rows);
}

bool isUtf8(const std::string &bytes) {
  for (size_t at = 0; at < bytes.size();) {
    size_t length = utf8Length(bytes, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

std::string base64Encode(const std::string &bytes) {
  std::string out;
  size_t i = 0;
  auto at = [&](size_t k) { return static_cast<uint32_t>(static_cast<unsigned char>(bytes[k])); };
  for (; i + 2 < bytes.size(); i += 3) {
    uint32_t group = at(i) << 16 | at(i + 1) << 8 | at(i + 2);
    for (int shift = 18; shift >= 0; shift -= 6) out += kBase64[(group >> shift) & 63];
  }
  if (i < bytes.size()) {
    uint32_t group = at(i) << 16 | (i + 1 < bytes.size() ? at(i + 1) << 8 : 0);
    out += kBase64[(group >> 18) & 63];
    out += kBase64[(group >> 12) & 63];
    out += i + 1 < bytes.size() ? kBase64[(group >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

bool base64Decode(const std::string &text, std::string *bytes) {
  bytes->clear();
  uint32_t group = 0;
  int bits = 0;
  size_t digits = 0, padding = 0;
  for (char c : text) {
    if (c == ' ' || c == '\n' || c == '\r' || c == '\t') continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    const char *digit = std::find(kBase64, kBase64 + 64, c);
    if (digit == kBase64 + 64 || padding > 0) return false;
    ++digits;
    group = group << 6 | static_cast<uint32_t>(digit - kBase64);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      *bytes += static_cast<char>((group >> bits) & 0xFF);
    }
  }
  // One digit left over holds no byte; pads, where given, fill the group.
  return digits % 4 != 1 && padding <= 2 && (padding == 0 || (digits + padding) % 4 == 0);
}

std::string escaped(const std::string &bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (size_t at = 0; at < bytes.size();) {
    const auto byte = static_cast<unsigned char>(bytes[at]);
    size_t length = utf8Length(bytes, at);
    if (byte == '\n' || byte == '\t' || (byte >= 0x20 && byte != 0x7F && length > 0)) {
      // C1 control characters are two bytes of UTF-8 that a terminal obeys.
      if (length == 2 && byte == 0xC2 && static_cast<unsigned char>(bytes[at + 1]) < 0xA0) {
        out += "\\xc2\\x";
        out += digits[static_cast<unsigned char>(bytes[at + 1]) >> 4];
        out += digits[static_cast<unsigned char>(bytes[at + 1]) & 0xF];
      } else {
        out.append(bytes, at, length);
      }
      at += length;
      continue;
    }
    out += "\\x";
    out += digits[byte >> 4];
    out += digits[byte & 0xF];
    ++at;
  }
  return out;
}

void render(const Outcome &outcome, const GlobalOptions &options, const Origin &origin) {
  if (origin.jsonLines) {
    Json line;
    line["line"] = origin.line;
    line["command"] = origin.command;
    line["status"] = outcome.status;
    if (outcome.document) line["result"] = *outcome.document;
    if (!outcome.message.empty()) line["error"] = outcome.message;
    std::cout << line.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
  } else if (outcome.bytes) {
    std::cout << *outcome.bytes;
  } else if (options.json && outcome.document) {
    std::cout << outcome.document->dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
  } else if (!(options.quiet && outcome.confirmation)) {
    // A terminal would obey the control bytes of a message or a
    // description: it shows them escaped.
    std::cout << (isatty(STDOUT_FILENO) ? escaped(outcome.text) : outcome.text);
  }
  // What a command wrote leaves as the command ends: whoever reads it (a
  // person at a terminal, a script at the other end of a pipe) sees what is
  // done even while later commands still run.
  std::cout.flush();
  std::istringstream lines(outcome.message);
  std::string text;
  for (bool first = true; std::getline(lines, text); first = false)
    std::cerr << "vxadmin: " << (first ? origin.prefix : "") << text << "\n";
}

}  // namespace vxadmin
