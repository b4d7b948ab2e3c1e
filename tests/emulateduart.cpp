// A UART driver emulated on a pty: this program's ioctl() comes before the C library's, so the
// proxies' line and RS-485 requests on the tty named come here. The words of a driver: eintr (every
// other request meets a signal first), get-fails, reread-fails, set-fails, 1-stop-bit, no-rtscts,
// no-xonxoff, even-only, rs485 (delays held to 100 ms), rs485-set-eio, rs485-get-einval,
// rs485-stays-off, rs485-stays-on, rts-on-send. Its rate is 3 MHz over a whole divisor.

#include <QFile>

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
QByteArrayList s_words;
termios2 s_line;
serial_rs485 s_rs485;
int s_reads;
bool s_interrupted;

// The driver's answer, or -2 to leave the request to the tty.
int emulate(unsigned long request, void *argument)
{
    const auto has = [](const char *word) { return s_words.contains(word); };
    const auto fail = [](int error) { return errno = error, -1; };
    auto *const line = static_cast<termios2 *>(argument);
    auto *const rs485 = static_cast<serial_rs485 *>(argument);
    if (has("eintr") && (s_interrupted = !s_interrupted))
        return fail(EINTR);
    if (request == TCGETS2 && ((++s_reads == 1 && has("get-fails")) || (s_reads == 2 && has("reread-fails"))))
        return fail(EIO);
    if (request == TCGETS2)
        return *line = s_line, 0;
    if (request == TCSETS2 && has("set-fails"))
        return fail(EINVAL);
    if (request == TCSETS2) {
        s_line = *line;
        s_line.c_cflag &= ~tcflag_t((has("1-stop-bit") ? CSTOPB : 0) | (has("no-rtscts") ? CRTSCTS : 0));
        s_line.c_cflag |= has("even-only") ? PARENB : 0;
        s_line.c_iflag &= ~tcflag_t(has("no-xonxoff") ? IXON | IXOFF : 0);
        s_line.c_ospeed = s_line.c_ispeed = 3000000 / ((3000000 + line->c_ospeed / 2) / line->c_ospeed);
        return 0;
    }
    if ((request != TIOCSRS485 && request != TIOCGRS485) || !has("rs485"))
        return -2;
    if (request == TIOCGRS485)
        return has("rs485-get-einval") ? fail(EINVAL) : (*rs485 = s_rs485, 0);
    if (has("rs485-set-eio"))
        return fail(EIO);
    s_rs485 = *rs485;
    s_rs485.flags &= ~__u32(has("rs485-stays-off") ? SER_RS485_ENABLED : 0);
    s_rs485.flags |= has("rs485-stays-on") ? SER_RS485_ENABLED : 0;
    if (has("rts-on-send"))
        s_rs485.flags = (s_rs485.flags | SER_RS485_RTS_ON_SEND) & ~__u32(SER_RS485_RTS_AFTER_SEND);
    s_rs485.delay_rts_before_send = qMin(rs485->delay_rts_before_send, 100u);
    s_rs485.delay_rts_after_send = qMin(rs485->delay_rts_after_send, 100u);
    return 0;
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

// Emulates the driver that @p driver's words describe on the tty at @p path; none when empty.
void emulateUart(const QString &path, const QByteArray &driver)
{
    struct stat status;
    s_node.store(0);
    s_words = driver.split(' ');
    s_reads = s_interrupted = 0;
    if (!driver.isEmpty() && ::stat(QFile::encodeName(path).constData(), &status) == 0)
        s_node.store(status.st_rdev);
}
