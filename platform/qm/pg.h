// A small layer over libpq for the PostgreSQL store: a connection, the
// parameters and results of statements, and errors as values.
//
// Every statement goes through pipeline mode: the statements whose results
// nobody waits for (BEGIN, a notification) are queued and sent with the next
// one whose result is needed, so that they cost no round trip of their own.
// The statements sent between two syncs of the pipeline form one implicit
// transaction when no explicit one is open.  A named statement is prepared
// on its first use on a connection, in the same round trip.
//
// Not thread safe: one thread at a time uses a connection (the store's
// caller holds its queue manager's mutex; the waker's thread has its own).
#ifndef VX_QM_PG_H
#define VX_QM_PG_H

#include <libpq-fe.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace vxqm::pg {

// A failure of the server or of the connection to it.  lost: the
// connection is gone (or the server ended the session); the statement may
// or may not have been done.
struct Error {
  std::string sqlState;  // five characters, or empty when none came
  std::string message;
  bool lost = false;
};

// A statement: a name under which it is prepared once per connection, or
// null for one sent without preparing (transaction control).
struct Statement {
  const char *name;
  const char *sql;
};

// Parameters, by position ($1 ...): text, integers as decimal text (the
// server infers their types), bytes as binary bytea, or null.
class Params {
 public:
  Params &text(std::string_view value);
  Params &integer(int64_t value);
  Params &bytes(const void *data, size_t length);
  Params &null();

 private:
  friend class Connection;
  std::vector<std::string> values_;
  std::vector<bool> nulls_;
  std::vector<int> formats_;
};

// A result: rows of binary values.  Owns its PGresult.
class Result {
 public:
  Result() = default;
  explicit Result(PGresult *result) : result_(result, &PQclear) {}
  int rows() const { return result_ ? PQntuples(result_.get()) : 0; }
  bool null(int row, int column) const { return PQgetisnull(result_.get(), row, column) != 0; }
  // An integer column of any width (smallint, integer, bigint, boolean).
  int64_t integer(int row, int column) const;
  std::string text(int row, int column) const;
  const char *bytes(int row, int column, size_t *length) const;
  // Rows that a command changed.
  int64_t changed() const;

 private:
  std::shared_ptr<PGresult> result_;
};

// A connection to the server.  The URI (a postgresql:// or postgres://
// one, with any of libpq's parameters) is completed by a connect timeout and
// TCP keepalives unless it sets them, so that a server that went away is
// noticed in seconds rather than never.
class Connection {
 public:
  // Throws Error (lost) when the server cannot be reached.
  explicit Connection(const std::string &uri);
  ~Connection();
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  // Queued, sent with the next query or flush.
  void queue(const Statement &statement, Params params = {});
  // Sends what is queued and this statement, waits for all of them, and
  // returns this statement's result.  Throws Error when any of them failed.
  Result query(const Statement &statement, Params params = {});
  // Sends what is queued, if anything.
  void flush();
  // Runs text of one or more statements without parameters (the schema).
  void execute(const std::string &sql);
  // Drops what is queued (after a failure: the transaction is undone).
  void discardQueued() { queued_.clear(); }

  bool lost() const { return PQstatus(connection_) != CONNECTION_OK; }
  PGconn *raw() const { return connection_; }
  // A name or a text as the server quotes it.
  std::string identifier(const std::string &name) const;

 private:
  struct Pending {
    Statement statement;
    Params params;
  };
  Error error(const PGresult *result) const;
  void send(const Pending &pending);
  Result run(std::vector<Pending> batch);

  PGconn *connection_ = nullptr;
  std::vector<Pending> queued_;
  std::set<std::string> prepared_;
};

}  // namespace vxqm::pg

#endif  // VX_QM_PG_H
