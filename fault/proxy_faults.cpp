// The file and serial device proxies under read(), write() and poll() failures that libfiu
// injects, through a pseudo-terminal whose master, the device, uses raw system calls, which
// the preload does not see: fiu-run -x proxy_faults [--seed N] [--ops N] [--fault POINT=P:ERRNO,...]...
// Checked in every run: each operation returns its size or -1 within its deadline (an alarm
// ends a hang); the device receives each write that succeeded whole and in order, of one that
// failed at most a part of its start, nothing twice; an ioctl() reply is whole, none twice;
// input is read in order, none twice, none lost but by the serial proxy's flush at a reopen;
// after the faults the proxy answers again. Exit status 1 on a violation.

#include "faultpoints.h"

#include <pal/devices/krserialdeviceproxy.h>

#include <QCoreApplication>
#include <QElapsedTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include <poll.h>
#include <pty.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

int s_violations = 0;

bool check(bool ok, const char *proxy, const std::string &what)
{
    if (!ok && ++s_violations <= 20)
        std::fprintf(stderr, "VIOLATION (%s): %s\n", proxy, what.c_str());
    return ok;
}

// Takes everything the proxy sends and answers each request "?N\n" with "=N\n". Holds the
// slave open too, so that the tty never hangs up while a proxy reopens it.
struct Device
{
    int master = -1, slave = -1;
    char name[64] = {};
    std::mutex mutex;
    std::string received;
    std::atomic<bool> stop{false};
    std::thread thread;

    Device()
    {
        termios line{};
        ::cfmakeraw(&line);
        if (::openpty(&master, &slave, name, &line, nullptr) == 0)
            thread = std::thread([this] { run(); });
    }
    ~Device()
    {
        stop = true;
        thread.join();
        ::close(master);
        ::close(slave);
    }
    void send(const std::string &bytes) { syscall(SYS_write, master, bytes.data(), bytes.size()); }
    std::string all()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return received;
    }
    void run()
    {
        std::string request;
        char chunk[4096];
        for (pollfd entry{master, POLLIN, 0}; !stop;) {
            const timespec wait{0, 10000000};
            const long count = syscall(SYS_ppoll, &entry, 1, &wait, nullptr, 0) > 0
                ? syscall(SYS_read, master, chunk, sizeof chunk)
                : 0;
            const std::lock_guard<std::mutex> lock(mutex);
            for (const char c : std::string(chunk, size_t(std::max(0L, count)))) {
                received += c;
                if (c == '\n' && request.size() > 1)
                    send("=" + request.substr(1) + "\n");
                request = c == '?' ? "?" : !request.empty() && c >= '0' && c <= '9' ? request + c : std::string();
            }
        }
    }
};

// One operation with the faults armed, bounded by its deadline and, against a hang, an alarm.
template<typename Call>
qint64 armed(const char *proxy, qint64 deadlineMs, Call call)
{
    QElapsedTimer timer;
    timer.start();
    ::alarm(20);
    FaultPoints::armed = true;
    const qint64 result = call();
    FaultPoints::armed = false;
    check(timer.elapsed() <= deadlineMs + 1000, proxy, "a call overran its deadline");
    if (result < 0) // as an application would, after the reopen interval
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    QCoreApplication::processEvents();
    return result;
}

void exercise(Pal::KrFileDeviceProxy &proxy, Device &device, const char *name, int ops, bool flushesAtOpen)
{
    proxy.setReopenIntervalMs(1);
    proxy.setWriteTimeoutMs(100);
    const int Whole = 0, Prefix = 1, Any = 2; // succeeded; write() failed; ioctl() failed
    std::vector<std::pair<std::string, int>> sent;
    int failed = 0, stale = 0, lastReply = -1, lost = 0;
    char reply[64];
    // Output: numbered chunks and requests in random turns, then a request with the faults off.
    for (int op = 0; op <= ops / 2; ++op) {
        const bool last = op == ops / 2;
        std::string bytes = last || FaultPoints::random() % 3 == 0 ? "?" + std::to_string(op) + "\n" : "<";
        for (unsigned long long n = bytes == "<" ? 1 + FaultPoints::random() % 300 : 0; n > 0; --n)
            bytes += char('a' + (op + bytes.size()) % 26);
        const auto call = [&] {
            return bytes[0] == '<' ? proxy.write(bytes.data(), qint64(bytes.size()))
                                   : proxy.ioctl(&bytes[0], int(bytes.size()), reply, 32, last ? 2000 : 100);
        };
        if (last) // late replies to failed requests have come by now, and are discarded
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const qint64 got = last ? call() : armed(name, 100, call);
        const int number = bytes[0] == '?' && got > 2 ? std::atoi(reply + 1) : -1;
        const std::string answer(reply, size_t(number >= 0 ? got : 0));
        check(bytes[0] == '<'
                ? got == -1 || got == qint64(bytes.size())
                : got == -1 || (answer == "=" + std::to_string(number) + "\n" && number > lastReply && number <= op),
            name, "returned " + std::to_string(got) + " " + answer + " for " + bytes.substr(0, 8));
        check(!last || number == op, name, "no recovery after the faults");
        failed += got < 0;
        stale += number >= 0 && number < op;
        lastReply = std::max(lastReply, number);
        sent.push_back({bytes, got >= 0 ? Whole : bytes[0] == '<' ? Prefix : Any});
    }
    // What the device received (all of it: it answered the last request), cut where each chunk
    // or request starts, against what was sent.
    std::vector<std::string> pieces;
    for (const char c : device.all())
        c == '<' || c == '?' || pieces.empty() ? pieces.push_back(std::string(1, c)) : void(pieces.back() += c);
    size_t next = 0;
    for (const auto &[bytes, reported] : sent) {
        const std::string piece = next < pieces.size() ? pieces[next] : std::string();
        const bool start = !piece.empty() && bytes.compare(0, piece.size(), piece) == 0;
        if (reported == Whole ? piece == bytes : start && (reported == Any || piece.size() < bytes.size()))
            ++next;
        else if (!check(reported != Whole, name, "lost or torn: " + bytes.substr(0, 20)))
            break;
    }
    check(next == pieces.size(), name, "received more than was sent: " + std::to_string(pieces.size() - next));
    // Input: bursts of numbered bytes (the position modulo 251), read in random sizes.
    for (QDeadlineTimer open(2000); proxy.read(reply, 0) < 0 && !open.hasExpired();) { }
    for (int position = 0, end = 0, op = ops / 2; op < ops;) {
        for (int n = 1 + int(FaultPoints::random() % 100); n > 0; --n, ++end)
            device.send(std::string(1, char(end % 251)));
        bool reopened = false;
        for (QDeadlineTimer deadline(2000); position < end && op < ops && !deadline.hasExpired(); ++op) {
            const qint64 got
                = armed(name, 0, [&] { return proxy.read(reply, qint64(1 + FaultPoints::random() % 64)); });
            check(got >= -1 && got <= 64, name, "read() returned " + std::to_string(got));
            failed += got < 0;
            reopened |= got < 0;
            if (got >= 0 && reopened && flushesAtOpen) // the reopen discarded what waited
                lost += end - std::exchange(position, end), reopened = false;
            for (qint64 i = 0; i < got; ++i, ++position)
                if (!check(reply[i] == char(position % 251), name, "input out of order at " + std::to_string(position)))
                    return;
        }
        if (op < ops && !check(position == end, name, "input lost at " + std::to_string(position)))
            return;
    }
    std::printf("%s: %d operations, %d failed (-1), %d late replies taken, %d bytes of input discarded at a reopen\n",
        name, ops + 1, failed, stale, lost);
}

} // namespace

int main(int argc, char *argv[])
{
    int ops = 1000;
    for (int i = 1; i + 1 < argc; i += 2)
        ops = FaultPoints::option(argv[i], argv[i + 1]) || std::strcmp(argv[i], "--ops") ? ops : std::atoi(argv[i + 1]);
    QCoreApplication application(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {}); // a warning per loss
    FaultPoints::enable();
    {
        Device device;
        Pal::KrFileDeviceProxy proxy(QString::fromLocal8Bit(device.name));
        exercise(proxy, device, "file proxy", ops, false);
    }
    {
        Device device;
        // The device's own descriptor would keep TIOCEXCL across a reopen, which only root passes.
        Pal::KrSerialDeviceProxy proxy(QString::fromLocal8Bit(device.name));
        proxy.setExclusive(false);
        exercise(proxy, device, "serial proxy", ops, true);
    }
    ::alarm(0);
    FaultPoints::disableAndReport();
    return s_violations ? 1 : 0;
}
