// A UART driver emulated on a pseudo-terminal: the line settings a pseudo-terminal ignores, the
// RS-485 mode it lacks, and drivers that refuse. This program's ioctl() comes before the C
// library's, so the proxies' requests on the tty named come here; all others pass on.
// The driver's words (any others: a UART that takes each setting):
//   eintr                              every other request on the tty meets a signal first
//   get-fails, reread-fails, set-fails the first or second read of the settings, or their change, fails
//   1-stop-bit, no-rtscts, no-xonxoff  what the UART cannot do, dropped without a word
//   even-only                          a UART wired for even parity
//   rs485                              RS-485 (delays at most 100 ms); without it the tty refuses
//   rs485-set-eio, rs485-get-einval    switching it, or reading it back, fails
//   rs485-stays-off, rs485-stays-on    transceiver control missing or wired on
//   rts-on-send                        RTS high while sending only
// The rate is always 3 MHz divided by a whole number.

#include "emulateduart.h"

#include <QFile>
#include <QList>

#include <asm/ioctls.h>
#include <asm/termbits.h>
#include <linux/serial.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>

#include <dlfcn.h>
#include <sys/stat.h>

namespace {

std::atomic<dev_t> s_node{0};
QList<QByteArray> s_words;
termios2 s_line;
serial_rs485 s_rs485;
int s_reads = 0;
bool s_interrupt = false;

bool has(const char *word)
{
    return s_words.contains(word);
}

int fail(int error)
{
    errno = error;
    return -1;
}

// The emulated driver's answer, or -2 to leave the request to the tty.
int emulate(unsigned long request, void *argument)
{
    if (has("eintr") && (s_interrupt = !s_interrupt))
        return fail(EINTR);
    auto *const line = static_cast<termios2 *>(argument);
    auto *const rs485 = static_cast<serial_rs485 *>(argument);
    switch (request) {
    case TCGETS2:
        if ((++s_reads == 1 && has("get-fails")) || (s_reads == 2 && has("reread-fails")))
            return fail(EIO);
        *line = s_line;
        return 0;
    case TCSETS2:
        if (has("set-fails"))
            return fail(EINVAL);
        s_line = *line;
        s_line.c_cflag &= ~tcflag_t((has("1-stop-bit") ? CSTOPB : 0) | (has("no-rtscts") ? CRTSCTS : 0));
        s_line.c_iflag &= ~tcflag_t(has("no-xonxoff") ? IXON | IXOFF : 0);
        s_line.c_cflag |= has("even-only") ? PARENB : 0;
        s_line.c_ospeed = s_line.c_ispeed = 3000000 / ((3000000 + s_line.c_ospeed / 2) / s_line.c_ospeed);
        return 0;
    case TIOCSRS485:
        if (!has("rs485") || has("rs485-set-eio"))
            return has("rs485") ? fail(EIO) : -2;
        s_rs485 = *rs485;
        s_rs485.flags &= ~__u32(has("rs485-stays-off") ? SER_RS485_ENABLED : 0);
        s_rs485.flags |= has("rs485-stays-on") ? SER_RS485_ENABLED : 0;
        if (has("rts-on-send"))
            s_rs485.flags = (s_rs485.flags | SER_RS485_RTS_ON_SEND) & ~__u32(SER_RS485_RTS_AFTER_SEND);
        s_rs485.delay_rts_before_send = qMin(s_rs485.delay_rts_before_send, 100u);
        s_rs485.delay_rts_after_send = qMin(s_rs485.delay_rts_after_send, 100u);
        return 0;
    case TIOCGRS485:
        if (!has("rs485") || has("rs485-get-einval"))
            return has("rs485") ? fail(EINVAL) : -2;
        *rs485 = s_rs485;
        return 0;
    }
    return -2;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    static const auto next = reinterpret_cast<int (*)(int, unsigned long, ...)>(dlsym(RTLD_NEXT, "ioctl"));
    va_list arguments;
    va_start(arguments, request);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    struct stat status;
    const dev_t node = s_node.load();
    const int result = node && ::fstat(descriptor, &status) == 0 && S_ISCHR(status.st_mode) && status.st_rdev == node
        ? emulate(request, argument)
        : -2;
    return result == -2 ? next(descriptor, request, argument) : result;
}

EmulatedUart::EmulatedUart(const QString &path, const QByteArray &driver)
{
    struct stat status;
    if (driver.isEmpty() || ::stat(QFile::encodeName(path).constData(), &status) != 0)
        return;
    s_words = driver.split(' ');
    s_line = termios2{};
    s_line.c_cflag = B9600 | CS8 | CREAD;
    s_line.c_ispeed = s_line.c_ospeed = 9600;
    s_rs485 = serial_rs485{};
    s_reads = 0;
    s_interrupt = false;
    s_node.store(status.st_rdev);
}

EmulatedUart::~EmulatedUart()
{
    s_node.store(0);
}
