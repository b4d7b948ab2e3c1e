#pragma once

#include <pal/devices/krpaldevices_export.h>
#include <pal/krabstractdeviceproxy.h>

#include <QString>

#include <mutex>

class QSocketNotifier;

namespace Pal {

/// The registers and the interrupt of one FPGA block reached through Linux UIO
/// (uio_pdrv_genirq): one map of the node /dev/uioN, mapped into this process, and the node's
/// interrupt count.
///
/// The byte interface carries register access, so that command formatters stay the way to
/// describe commands (KrUioRegisters builds and reads the bytes):
/// - write() takes little-endian 32-bit (offset, value) pairs and stores each value with one
///   aligned 32-bit store, in the order given, then waits until the stores have left the CPU.
///   A batch is checked whole before the first store: one bad pair rejects it untouched.
/// - ioctl() takes little-endian 32-bit offsets and answers the registers' values, in order.
/// - read() takes the interrupt without blocking: 4 bytes, the node's interrupt count, when
///   one came since the last call, else 0. The interrupt is enabled at open and again after
///   each one taken, so a KrDataCollector on the proxy delivers one buffer per interrupt.
///   Where the proxy's thread runs an event loop, readyRead() announces each interrupt.
///
/// A block is named by its node ("/dev/uio3") or, better, by its UIO name ("axi-adc-ctrl"),
/// found in /sys/class/uio/uioN/name, since the numbers follow the probe order. A node that is
/// a plain file is taken as a register image without interrupt (a simulated block).
///
/// Register access takes no lock: write() on a command thread, ioctl() on callers' threads
/// and read() on a collector's thread may overlap. Taking an interrupt is serialised.
class KRPALDEVICES_EXPORT KrUioDeviceProxy : public KrAbstractDeviceProxy
{
    Q_OBJECT
public:
    /// No register map: a block that only signals an interrupt.
    static constexpr int NoMap = -1;

    /// Opens @p device (a node path, or a UIO name) and maps its map @p mapIndex.
    Q_INVOKABLE explicit KrUioDeviceProxy(const QString &device, int mapIndex = 0, QObject *parent = nullptr);
    /// As above, with every system path (/sys/class/uio/..., /dev/uioN) taken under @p rootDir.
    Q_INVOKABLE KrUioDeviceProxy(
        const QString &device, int mapIndex, const QString &rootDir, QObject *parent = nullptr);
    ~KrUioDeviceProxy() override;

    /// Whether the device opened and, unless NoMap, its register map is mapped.
    bool isOpen() const;
    /// The last failure: the device and the reason; empty while nothing failed.
    QString errorString() const;
    /// Bytes of registers reachable from offset 0; 0 without map.
    quint32 mapSize() const;

    qint64 write(const char *data, qint64 size) override;
    qint64 read(char *data, qint64 maxSize) override;
    qint64 ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs) override;

private:
    bool open(const QString &device, int mapIndex, const QString &rootDir);
    bool fail(const QString &reason);
    void setError(const QString &reason);
    bool checkOffset(quint32 offset);
    // -1 failure, 0 none waiting, 1 taken into @p count. Called with m_interruptLock held.
    int takeInterrupt(quint32 &count);
    void enableInterrupt();
    void onInterrupt();

    QString m_device;
    int m_fd = -1;
    uchar *m_mapping = nullptr;
    size_t m_mappingLength = 0;
    // Start of the registers within the mapping (the map's offset in its page).
    volatile uchar *m_registers = nullptr;
    quint32 m_mapSize = 0;
    bool m_hasInterrupt = false;
    // Lives on the proxy's thread; null without interrupt.
    QSocketNotifier *m_notifier = nullptr;

    // Guards the node's read and write and the interrupt taken by the event loop but not
    // yet read. Standard mutexes, which the thread sanitizer sees through.
    std::mutex m_interruptLock;
    bool m_interruptWaiting = false;
    quint32 m_waitingCount = 0;

    mutable std::mutex m_errorLock;
    QString m_errorString;
};

} // namespace Pal
