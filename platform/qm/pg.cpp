// The layer over libpq: see pg.h.
#include "pg.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>
#include <utility>

namespace vxqm::pg {
namespace {

// Type numbers of pg_type that results carry (fixed since the first release).
constexpr Oid kBoolType = 16;
constexpr Oid kInt8Type = 20;
constexpr Oid kInt2Type = 21;
constexpr Oid kInt4Type = 23;
constexpr int kBinary = 1;

// What a session ended by the server, or a connection that broke, looks
// like: class 08 (connection exception) and the shutdowns of class 57P.
bool endsSession(const std::string &sqlState) {
  return sqlState.starts_with("08") || sqlState == "57P01" || sqlState == "57P02" ||
         sqlState == "57P03";
}

// libpq's words on one line: its messages end in a newline and may add
// indented lines ("\tIs the server running on that host ...?").
std::string oneLine(const char *message) {
  std::string line;
  for (const char *at = message; *at != 0;) {
    const char *end = std::strchr(at, '\n');
    if (end == nullptr) end = at + std::strlen(at);
    const char *start = at;
    while (start < end && (*start == ' ' || *start == '\t')) ++start;
    if (start < end) line.append(line.empty() ? "" : "; ").append(start, end);
    at = *end == 0 ? end : end + 1;
  }
  return line;
}

}  // namespace

Params &Params::text(std::string_view value) {
  values_.emplace_back(value);
  nulls_.push_back(false);
  formats_.push_back(0);
  return *this;
}

Params &Params::integer(int64_t value) { return text(std::to_string(value)); }

Params &Params::bytes(const void *data, size_t length) {
  values_.emplace_back(static_cast<const char *>(data), length);
  nulls_.push_back(false);
  formats_.push_back(kBinary);
  return *this;
}

Params &Params::null() {
  values_.emplace_back();
  nulls_.push_back(true);
  formats_.push_back(0);
  return *this;
}

int64_t Result::integer(int row, int column) const {
  const char *value = PQgetvalue(result_.get(), row, column);
  switch (PQftype(result_.get(), column)) {
    case kBoolType:
      return value[0] != 0 ? 1 : 0;
    case kInt2Type: {
      uint16_t bits;
      std::memcpy(&bits, value, sizeof bits);
      return static_cast<int16_t>(ntohs(bits));
    }
    case kInt4Type: {
      uint32_t bits;
      std::memcpy(&bits, value, sizeof bits);
      return static_cast<int32_t>(ntohl(bits));
    }
    case kInt8Type: {
      uint32_t halves[2];
      std::memcpy(halves, value, sizeof halves);
      return static_cast<int64_t>((static_cast<uint64_t>(ntohl(halves[0])) << 32) |
                                  ntohl(halves[1]));
    }
    default:
      return 0;
  }
}

std::string Result::text(int row, int column) const {
  return std::string(PQgetvalue(result_.get(), row, column),
                     static_cast<size_t>(PQgetlength(result_.get(), row, column)));
}

const char *Result::bytes(int row, int column, size_t *length) const {
  *length = static_cast<size_t>(PQgetlength(result_.get(), row, column));
  return PQgetvalue(result_.get(), row, column);
}

int64_t Result::changed() const {
  const char *count = result_ ? PQcmdTuples(result_.get()) : "";
  return count[0] == 0 ? 0 : std::strtoll(count, nullptr, 10);
}

Connection::Connection(const std::string &uri) {
  // Ours first: what the URI sets wins (libpq takes the last value).  The
  // keepalives and the user timeout make a call on a dead server fail
  // within about fifteen seconds instead of hanging.
  const char *keywords[] = {"connect_timeout",     "keepalives",       "keepalives_idle",
                            "keepalives_interval", "keepalives_count", "tcp_user_timeout",
                            "application_name",    "dbname",           nullptr};
  const char *values[] = {"5", "1", "5", "2", "3", "15000", "vxqm", uri.c_str(), nullptr};
  connection_ = PQconnectdbParams(keywords, values, 1);
  if (connection_ == nullptr) throw std::bad_alloc();
  // The server's notices ("drop cascades to ...") are not the program's
  // to read on its standard error.
  PQsetNoticeProcessor(
      connection_, [](void *, const char *) {}, nullptr);
  if (PQstatus(connection_) != CONNECTION_OK) {
    Error failure{"", oneLine(PQerrorMessage(connection_)), true};
    PQfinish(connection_);
    connection_ = nullptr;
    throw failure;
  }
}

Connection::~Connection() {
  if (connection_ != nullptr) PQfinish(connection_);
}

std::string Connection::identifier(const std::string &name) const {
  char *quoted = PQescapeIdentifier(connection_, name.data(), name.size());
  if (quoted == nullptr) throw Error{"", oneLine(PQerrorMessage(connection_)), lost()};
  std::string result = quoted;
  PQfreemem(quoted);
  return result;
}

Error Connection::error(const PGresult *result) const {
  Error failure;
  if (result != nullptr) {
    const char *state = PQresultErrorField(result, PG_DIAG_SQLSTATE);
    if (state != nullptr) failure.sqlState = state;
    // The server's own sentence, without "ERROR:" and the detail lines.
    const char *primary = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
    failure.message = oneLine(primary != nullptr ? primary : PQresultErrorMessage(result));
  }
  if (failure.message.empty()) failure.message = oneLine(PQerrorMessage(connection_));
  failure.lost = lost() || endsSession(failure.sqlState) || result == nullptr;
  return failure;
}

void Connection::queue(const Statement &statement, Params params) {
  queued_.push_back({statement, std::move(params)});
}

Result Connection::query(const Statement &statement, Params params) {
  std::vector<Pending> batch = std::exchange(queued_, {});
  batch.push_back({statement, std::move(params)});
  return run(std::move(batch));
}

void Connection::flush() {
  if (!queued_.empty()) run(std::exchange(queued_, {}));
}

void Connection::execute(const std::string &sql) {
  flush();
  PGresult *raw = PQexec(connection_, sql.c_str());
  const ExecStatusType status = PQresultStatus(raw);
  const Result result(raw);
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) throw error(raw);
}

void Connection::send(const Pending &pending) {
  const Params &p = pending.params;
  std::vector<const char *> values;
  std::vector<int> lengths;
  for (size_t i = 0; i < p.values_.size(); ++i) {
    values.push_back(p.nulls_[i] ? nullptr : p.values_[i].data());
    lengths.push_back(static_cast<int>(p.values_[i].size()));
  }
  const int count = static_cast<int>(values.size());
  int sent;
  if (pending.statement.name == nullptr) {
    sent = PQsendQueryParams(connection_, pending.statement.sql, count, nullptr, values.data(),
                             lengths.data(), p.formats_.data(), kBinary);
  } else {
    sent = PQsendQueryPrepared(connection_, pending.statement.name, count, values.data(),
                               lengths.data(), p.formats_.data(), kBinary);
  }
  if (sent != 1) throw error(nullptr);
}

Result Connection::run(std::vector<Pending> batch) {
  if (connection_ == nullptr || lost()) throw Error{"", "the connection is lost", true};
  if (PQenterPipelineMode(connection_) != 1) throw error(nullptr);
  // The results to expect, in order: for each statement, its preparing
  // (when first used here) and its execution.
  struct Expected {
    const char *prepares;  // the name it prepares, or null: an execution
    bool wanted;           // the result the caller waits for
  };
  std::vector<Expected> expected;
  std::set<std::string> preparing;
  try {
    for (size_t i = 0; i < batch.size(); ++i) {
      const Statement &s = batch[i].statement;
      if (s.name != nullptr && !prepared_.contains(s.name) && !preparing.contains(s.name)) {
        if (PQsendPrepare(connection_, s.name, s.sql, 0, nullptr) != 1) throw error(nullptr);
        preparing.insert(s.name);
        expected.push_back({s.name, false});
      }
      send(batch[i]);
      expected.push_back({nullptr, i + 1 == batch.size()});
    }
    if (PQpipelineSync(connection_) != 1) throw error(nullptr);
  } catch (const Error &) {
    // What could not be sent leaves the connection unusable for a pipeline.
    PQfinish(connection_);
    connection_ = nullptr;
    throw Error{"", "the connection is lost", true};
  }
  Result wanted;
  bool failed = false;
  Error first;
  size_t next = 0;
  int nulls = 0;
  for (;;) {
    PGresult *raw = PQgetResult(connection_);
    if (raw == nullptr) {
      // One comes after each statement's result; two in a row, or one on a
      // broken connection, mean nothing more will come.
      if (lost() || ++nulls > 1) {
        if (!failed) first = error(nullptr);
        first.lost = true;
        failed = true;
        break;
      }
      continue;
    }
    nulls = 0;
    Result result(raw);
    const ExecStatusType status = PQresultStatus(raw);
    if (status == PGRES_PIPELINE_SYNC) break;
    if (next >= expected.size()) continue;
    const Expected &e = expected[next++];
    if (status == PGRES_FATAL_ERROR) {
      if (!failed) first = error(raw);
      failed = true;
    } else if (status != PGRES_PIPELINE_ABORTED) {
      if (e.prepares != nullptr) prepared_.insert(e.prepares);
      if (e.wanted) wanted = std::move(result);
    }
  }
  if (!first.lost) PQexitPipelineMode(connection_);
  if (failed) throw first;
  return wanted;
}

}  // namespace vxqm::pg
