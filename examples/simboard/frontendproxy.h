#pragma once

#include "portproxy.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

/// The proxy of the board's front end, a controller on a serial line that takes one text
/// line per command or request and answers each with one line: "OK" or "ERR ..." for a
/// command, the value for a request.
///
/// A command (write) and a request (ioctl) are both an exchange of a line for a line, so the
/// proxy runs one exchange at a time: write() comes on the device abstraction's command
/// thread, ioctl() on the caller's, and their answers share one line. A request waits for a
/// running command no longer than its own time-out.
class FrontEndProxy : public PortProxy
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit FrontEndProxy(QObject *parent = nullptr);
    ~FrontEndProxy() override;

    /// Sends a command line and waits for its answer: @p size when the front end answered
    /// "OK", -2 when it refused the command, -1 when the line failed or no answer came
    /// within commandLimitMs.
    qint64 write(const char *data, qint64 size) override;
    /// The front end sends nothing unasked; its answers belong to the exchange that asked.
    qint64 read(char *data, qint64 maxSize) override;
    /// Sends a request line and copies the answer, without its line feed, into @p reply:
    /// the answer's length, -2 when the front end answered "ERR ...", -1 when the line failed,
    /// no answer came within @p timeoutMs or the answer does not fit.
    qint64 ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs) override;

    /// How long a command may wait for its answer. The device abstraction stops waiting much
    /// earlier, but its command thread, and with it the abstraction's destructor, waits for
    /// this call: the limit keeps a front end that never answers from holding them for ever.
    static constexpr int commandLimitMs = 10000;

private:
    class Exchange;

    // Sends one line and reads its answer until @p deadline; the caller holds the line.
    Io exchange(const char *data, qint64 size, QDeadlineTimer deadline, QByteArray *answer);
    Io readLine(QByteArray *line, QDeadlineTimer deadline);

    // Who holds the line: a flag under a mutex, waited for with a time-out. (A timed
    // std::timed_mutex would do as well, but the thread sanitizer of this tool chain does
    // not see its timed lock and reports every unlock.)
    std::mutex m_lineMutex;
    std::condition_variable m_lineFree;
    bool m_lineTaken = false;
    // Owned with the line: bytes read beyond the last answer, and how many answers are
    // still due to exchanges that gave up waiting. The front end answers every line in
    // order, so skipping that many answers keeps each exchange with its own.
    QByteArray m_input;
    int m_unanswered = 0;
};
