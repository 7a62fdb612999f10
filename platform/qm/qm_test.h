// Test hooks of the queue manager: a test scripts the queue manager that the
// code under test talks to.  It can make the next calls of an entry fail,
// hold or delay the messages put to a queue, reset a queue manager between
// tests, and count what the queue manager holds.  Exported from libvxqm.so;
// programs other than tests never call them.
//
// Every hook may be called from any thread and never throws.  qmName names a
// queue manager as a connect does ("" or blanks: the default, "QM1").
#ifndef VX_QM_TEST_H
#define VX_QM_TEST_H

#include <cstdint>
#include <string>

#define QM_TEST_EXPORT __attribute__((visibility("default")))

namespace vxqm::test {

// The next `calls` calls of the entry named `entry` ("qmCONN" ... "qmBEGIN")
// do nothing but return compCode and reason; calls 0 cancels.  Returns false
// for a name that is not an entry.
QM_TEST_EXPORT bool failNext(const std::string &entry, int32_t calls, int32_t compCode,
                             int32_t reason);

// The nth call of the entry made by the calling thread from now does
// nothing but return compCode and reason (1: the next one); 0 cancels.
// Other threads' calls are not counted nor affected, so that a test can fail
// one call of its own conversation while a server answers on another thread.
// Returns false for a name that is not an entry.
QM_TEST_EXPORT bool failNthOnThisThread(const std::string &entry, int32_t nth, int32_t compCode,
                                        int32_t reason);
// The calling thread's calls of the entry still to go before its scripted
// failure: 0 once it has happened (or when none is scripted).
QM_TEST_EXPORT int32_t callsBeforeFailureOnThisThread(const std::string &entry);

// The next call of the entry throws inside the queue manager, as a failure
// of memory (kOutOfMemory) or an unforeseen one (kUnexpected) would; the entry
// reports it as RC_STORAGE_NOT_AVAILABLE or RC_UNEXPECTED_ERROR.
enum class Fault { kOutOfMemory, kUnexpected };
QM_TEST_EXPORT bool throwNext(const std::string &entry, Fault fault);

// While held, messages put to the queue are kept invisible (they count in its
// depth); releasing (hold false) makes them available and wakes waiting gets.
// Held messages wait in a unit of work of the queue manager of the process:
// a reset, or the end of the process, discards them.
// Returns 0 or the reason (RC_UNKNOWN_OBJECT_NAME, RC_Q_MGR_NAME_ERROR).
QM_TEST_EXPORT int32_t holdMessages(const std::string &qmName, const std::string &queue, bool hold);
// Messages put to the queue from now on become visible `milliseconds` after
// their put (0: at once).
QM_TEST_EXPORT int32_t delayMessages(const std::string &qmName, const std::string &queue,
                                     int32_t milliseconds);

// Puts the queue manager back to its initial objects, with no messages: its
// connections end (their handles then get RC_HCONN_ERROR, and waiting gets
// return it) and the hooks of its queues are lifted.  The failNext and
// throwNext scripts are cancelled as well.  The new queue manager reads
// VXQM_DATA again: with a data directory, a reset opens the shared queue
// manager again (the connections' units of work back out, and everything
// else it holds is kept); a test that wants a fresh one names a new
// directory first.  When the new one cannot be made (its database cannot be
// opened), there is none until the next call that names it.
QM_TEST_EXPORT void reset(const std::string &qmName);
// A reset that also empties what a queue manager with a data directory keeps
// in memory (non-persistent messages, open handles, temporary queues), as a
// restart of the machine does: only definitions and persistent messages are
// left.  For a queue manager that no other process uses.
QM_TEST_EXPORT void restart(const std::string &qmName);

// Counts, or -1 for a queue manager that does not exist (messageCount: or a
// queue that does not exist).
QM_TEST_EXPORT int32_t queueCount(const std::string &qmName);
QM_TEST_EXPORT int32_t temporaryQueueCount(const std::string &qmName);
QM_TEST_EXPORT int32_t connectionCount(const std::string &qmName);
QM_TEST_EXPORT int32_t messageCount(const std::string &qmName, const std::string &queue);

}  // namespace vxqm::test

#endif  // VX_QM_TEST_H
