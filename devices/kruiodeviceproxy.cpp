#include "kruiodeviceproxy.h"

#include "krdeviceslogging_p.h"

#include <QDir>
#include <QFile>
#include <QSocketNotifier>
#include <QtEndian>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Pal {

namespace {

// Waits until every register store issued so far has completed at the device. A UIO map is
// device memory, which keeps the stores' order but lets the CPU go on before they land; a dsb
// waits for them (and orders everything a dmb would).
inline void completeStores()
{
#if defined(__aarch64__)
    asm volatile("dsb sy" ::: "memory");
#elif defined(__arm__) && defined(__ARM_ARCH) && __ARM_ARCH >= 7
    asm volatile("dsb" ::: "memory");
#elif defined(__x86_64__) || defined(__i386__)
    __sync_synchronize();
#else
    std::atomic_thread_fence(std::memory_order_seq_cst);
#endif
}

QString hex(quint64 value)
{
    return QStringLiteral("0x%1").arg(value, 0, 16);
}

QString systemError(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// A sysfs attribute: its text without the final newline; null when it cannot be read.
QByteArray attribute(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    const QByteArray text = file.readAll().trimmed();
    return text.isNull() ? QByteArray("") : text;
}

int uioNumber(const QString &entry)
{
    bool ok = false;
    const int number = entry.mid(3).toInt(&ok);
    return entry.startsWith(QLatin1String("uio")) && ok && number >= 0 ? number : -1;
}

} // namespace

KrUioDeviceProxy::KrUioDeviceProxy(const QString &device, int mapIndex, QObject *parent)
    : KrUioDeviceProxy(device, mapIndex, QStringLiteral("/"), parent)
{
}

KrUioDeviceProxy::KrUioDeviceProxy(const QString &device, int mapIndex, const QString &rootDir, QObject *parent)
    : KrAbstractDeviceProxy(parent)
    , m_device(device)
{
    // Mapping is the last step of open() that can fail: nothing is mapped after a failure.
    if (!open(device, mapIndex, rootDir)) {
        m_mapSize = 0;
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
        qCWarning(Internal::lcDevices).noquote() << m_errorString;
    }
}

KrUioDeviceProxy::~KrUioDeviceProxy()
{
    // The notifier watches the node: it goes before the node is closed.
    delete m_notifier;
    if (m_mapping)
        ::munmap(m_mapping, m_mappingLength);
    if (m_fd >= 0)
        ::close(m_fd);
}

bool KrUioDeviceProxy::open(const QString &device, int mapIndex, const QString &rootDir)
{
    const QString classDir = QDir::cleanPath(rootDir + QLatin1String("/sys/class/uio"));
    QString uio;
    QString node;
    if (device.contains(QLatin1Char('/'))) {
        node = QDir::cleanPath(rootDir + QLatin1Char('/') + device);
        uio = device.mid(device.lastIndexOf(QLatin1Char('/')) + 1);
        if (uioNumber(uio) < 0)
            return fail(QStringLiteral("%1 is no UIO node (/dev/uioN)").arg(node));
    } else {
        QStringList entries = QDir(classDir).entryList({QStringLiteral("uio*")}, QDir::Dirs | QDir::NoDotAndDotDot);
        // uio2 before uio10: with two blocks of one name, the first probed one is taken.
        std::sort(entries.begin(), entries.end(),
            [](const QString &a, const QString &b) { return uioNumber(a) < uioNumber(b); });
        for (const QString &entry : qAsConst(entries)) {
            if (uioNumber(entry) >= 0
                && attribute(classDir + QLatin1Char('/') + entry + QLatin1String("/name")) == device.toUtf8()) {
                uio = entry;
                break;
            }
        }
        if (uio.isEmpty())
            return fail(QStringLiteral("no UIO device of this name in %1").arg(classDir));
        node = QDir::cleanPath(rootDir + QLatin1String("/dev/") + uio);
    }

    quint64 pageOffset = 0;
    if (mapIndex != NoMap) {
        const QString mapDir = QStringLiteral("%1/%2/maps/map%3").arg(classDir, uio).arg(mapIndex);
        const QByteArray sizeText = attribute(mapDir + QLatin1String("/size"));
        if (mapIndex < 0 || sizeText.isNull())
            return fail(QStringLiteral("%1 has no map %2").arg(uio).arg(mapIndex));
        bool ok = false;
        const quint64 size = sizeText.toULongLong(&ok, 0);
        if (!ok || size < 4 || size > 0xffffffffu)
            return fail(QStringLiteral("map %1 of %2 has no usable size (\"%3\")")
                            .arg(mapIndex)
                            .arg(uio, QString::fromUtf8(sizeText)));
        // A block that does not start on a page boundary starts this far into the mapping.
        const QByteArray offsetText = attribute(mapDir + QLatin1String("/offset"));
        if (!offsetText.isNull()) {
            pageOffset = offsetText.toULongLong(&ok, 0);
            if (!ok || pageOffset >= quint64(::sysconf(_SC_PAGESIZE)))
                return fail(QStringLiteral("map %1 of %2 has no usable offset (\"%3\")")
                                .arg(mapIndex)
                                .arg(uio, QString::fromUtf8(offsetText)));
        }
        m_mapSize = quint32(size & ~quint64(3));
    }

    m_fd = ::open(QFile::encodeName(node).constData(), O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (m_fd < 0)
        return fail(QStringLiteral("cannot open %1: %2").arg(node, systemError(errno)));
    struct stat status = {};
    ::fstat(m_fd, &status);

    if (mapIndex != NoMap) {
        // The kernel selects a UIO map by the mmap offset: map N at N pages.
        const off_t mapOffset = off_t(mapIndex) * ::sysconf(_SC_PAGESIZE);
        m_mappingLength = size_t(pageOffset + m_mapSize);
        const QString cannotMap
            = QStringLiteral("cannot map %1 bytes of map %2 from %3: ").arg(m_mapSize).arg(mapIndex).arg(node);
        // Past the end of a register image a store would kill the process with SIGBUS.
        if (S_ISREG(status.st_mode) && quint64(status.st_size) < quint64(mapOffset) + m_mappingLength)
            return fail(cannotMap + QStringLiteral("the file holds %1 bytes").arg(status.st_size));
        void *mapping = ::mmap(nullptr, m_mappingLength, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, mapOffset);
        if (mapping == MAP_FAILED)
            return fail(cannotMap + systemError(errno));
        m_mapping = static_cast<uchar *>(mapping);
        m_registers = m_mapping + pageOffset;
    }

    // A plain file is a register image: it has no interrupt, and a write would change it.
    if (!S_ISCHR(status.st_mode))
        return true;
    const quint32 enable = 1;
    if (::write(m_fd, &enable, sizeof enable) != qint64(sizeof enable)) {
        qCDebug(Internal::lcDevices).noquote()
            << QStringLiteral("UIO device \"%1\": no interrupt (%2)").arg(m_device, systemError(errno));
        return true;
    }
    m_hasInterrupt = true;
    m_notifier = new QSocketNotifier(m_fd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &KrUioDeviceProxy::onInterrupt);
    return true;
}

bool KrUioDeviceProxy::isOpen() const
{
    return m_fd >= 0;
}

QString KrUioDeviceProxy::errorString() const
{
    const std::lock_guard<std::mutex> locker(m_errorLock);
    return m_errorString;
}

quint32 KrUioDeviceProxy::mapSize() const
{
    return m_mapSize;
}

bool KrUioDeviceProxy::fail(const QString &reason)
{
    setError(reason);
    return false;
}

void KrUioDeviceProxy::setError(const QString &reason)
{
    const std::lock_guard<std::mutex> locker(m_errorLock);
    m_errorString = QStringLiteral("UIO device \"%1\": %2").arg(m_device, reason);
}

bool KrUioDeviceProxy::checkOffset(quint32 offset)
{
    if (m_mapSize < 4 || offset > m_mapSize - 4) {
        setError(QStringLiteral("register offset %1 is outside the map of %2 bytes").arg(hex(offset), hex(m_mapSize)));
        return false;
    }
    if (offset % 4) {
        setError(QStringLiteral("register offset %1 is not a multiple of 4").arg(hex(offset)));
        return false;
    }
    return true;
}

qint64 KrUioDeviceProxy::write(const char *data, qint64 size)
{
    if (!isOpen())
        return -1;
    if (size < 0 || size % 8 || (size && !data)) {
        setError(QStringLiteral("a register batch of %1 bytes is no whole number of (offset, value) pairs").arg(size));
        return -1;
    }
    // The whole batch first: a rejected batch leaves every register as it was. Flags gathered
    // without branches let the compiler vectorise the pass; the first bad offset is looked for
    // only when there is one.
    const quint32 last = m_mapSize < 4 ? 0 : m_mapSize - 4;
    quint32 outside = m_mapSize < 4 ? 1 : 0;
    quint32 lowBits = 0;
    for (qint64 at = 0; at < size; at += 8) {
        const quint32 offset = qFromLittleEndian<quint32>(data + at);
        outside |= quint32(offset > last);
        lowBits |= offset;
    }
    const bool bad = size > 0 && (outside != 0 || (lowBits & 3) != 0);
    if (bad) {
        for (qint64 at = 0; at < size; at += 8) {
            if (!checkOffset(qFromLittleEndian<quint32>(data + at)))
                break;
        }
        return -1;
    }
    for (qint64 at = 0; at < size; at += 8) {
        const quint32 offset = qFromLittleEndian<quint32>(data + at);
        *reinterpret_cast<volatile quint32 *>(m_registers + offset) = qFromLittleEndian<quint32>(data + at + 4);
    }
    completeStores();
    return size;
}

qint64 KrUioDeviceProxy::ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs)
{
    Q_UNUSED(timeoutMs) // register loads do not wait
    if (!isOpen())
        return -1;
    if (requestSize < 0 || requestSize % 4 || (requestSize && !request)) {
        setError(QStringLiteral("a register request of %1 bytes is no whole number of offsets").arg(requestSize));
        return -1;
    }
    if ((requestSize && !reply) || replySize < quint32(requestSize)) {
        setError(QStringLiteral("a reply of %1 bytes cannot hold the %2 registers asked for")
                     .arg(reply ? replySize : 0)
                     .arg(requestSize / 4));
        return -1;
    }
    for (int at = 0; at < requestSize; at += 4) {
        if (!checkOffset(qFromLittleEndian<quint32>(request + at)))
            return -1;
    }
    for (int at = 0; at < requestSize; at += 4) {
        const quint32 offset = qFromLittleEndian<quint32>(request + at);
        qToLittleEndian<quint32>(*reinterpret_cast<volatile const quint32 *>(m_registers + offset), reply + at);
    }
    return requestSize;
}

qint64 KrUioDeviceProxy::read(char *data, qint64 maxSize)
{
    if (!isOpen())
        return -1;
    if (maxSize < 4 || !data) {
        setError(QStringLiteral("an interrupt count needs 4 bytes, the buffer holds %1").arg(data ? maxSize : 0));
        return -1;
    }
    if (!m_hasInterrupt)
        return 0;
    quint32 count = 0;
    {
        const std::lock_guard<std::mutex> locker(m_interruptLock);
        if (m_interruptWaiting) {
            m_interruptWaiting = false;
            count = m_waitingCount;
        } else {
            const int taken = takeInterrupt(count);
            if (taken <= 0)
                return taken;
        }
    }
    qToLittleEndian(count, data);
    return 4;
}

int KrUioDeviceProxy::takeInterrupt(quint32 &count)
{
    // The node is non-blocking: without an interrupt since the last one taken, the read
    // fails with EAGAIN at once.
    ssize_t got;
    do {
        got = ::read(m_fd, &count, sizeof count);
    } while (got < 0 && errno == EINTR);
    if (got < 0 && errno == EAGAIN) // which Linux also names EWOULDBLOCK
        return 0;
    if (got != qint64(sizeof count)) {
        setError(got < 0 ? QStringLiteral("cannot take the interrupt: %1").arg(systemError(errno))
                         : QStringLiteral("the interrupt count came as %1 bytes").arg(got));
        return -1;
    }
    enableInterrupt();
    return 1;
}

void KrUioDeviceProxy::enableInterrupt()
{
    const quint32 enable = 1;
    if (::write(m_fd, &enable, sizeof enable) != qint64(sizeof enable))
        qCWarning(Internal::lcDevices).noquote()
            << QStringLiteral("UIO device \"%1\": cannot enable the interrupt again: %2")
                   .arg(m_device, systemError(errno));
}

void KrUioDeviceProxy::onInterrupt()
{
    // Taken here, not left for read(): the node stays readable until its count is read, and
    // the notifier would fire without end meanwhile. A later interrupt replaces an unread
    // one; its count tells how many came.
    int taken;
    {
        const std::lock_guard<std::mutex> locker(m_interruptLock);
        quint32 count = 0;
        taken = takeInterrupt(count);
        if (taken > 0) {
            m_waitingCount = count;
            m_interruptWaiting = true;
        }
    }
    if (taken < 0) {
        m_notifier->setEnabled(false);
        qCWarning(Internal::lcDevices).noquote() << errorString();
    } else if (taken > 0) {
        Q_EMIT readyRead();
    }
}

} // namespace Pal
