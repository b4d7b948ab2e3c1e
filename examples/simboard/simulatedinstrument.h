#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QElapsedTimer>
#include <QList>
#include <QString>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

class QTemporaryDir;

/// The instrument that the demo runs against, on a thread of its own, with its nodes in a
/// directory of its own: a front end on a pseudo-terminal that answers commands and requests
/// line by line, as a controller on a UART does; an ADC whose control registers are a UIO
/// block (a sysfs tree and a register image) and which streams a sine wave of 16-bit samples
/// into a FIFO while enabled; a GPS receiver on a pseudo-terminal that sends an NMEA epoch
/// (GGA and RMC) once a second while its line is open, the first at once. The instrument wires
/// the board's ports "frontend", "adc", "gps" and "root" (the directory that stands for "/")
/// when it starts (see BoardWiring), so the board must be built after start().
class SimulatedInstrument
{
public:
    SimulatedInstrument();
    /// Stops the instrument.
    ~SimulatedInstrument();
    SimulatedInstrument(const SimulatedInstrument &) = delete;
    SimulatedInstrument &operator=(const SimulatedInstrument &) = delete;

    /// Creates the nodes, wires the ports and starts serving; false with @p error otherwise.
    bool start(QString *error);
    /// Stops serving, closes every line (so every proxy's wait ends at once) and unwires the
    /// ports. Idempotent.
    void stop();

    /// The front end stops answering for @p milliseconds, as a controller stuck in a long
    /// calibration does: it reads nothing meanwhile, and what is sent to it waits in the
    /// line until it answers again.
    void hangFrontEnd(int milliseconds);

    struct Received
    {
        QByteArray line;
        qint64 msecs; // since start()
    };
    /// Every line that the front end has taken in, in order.
    QList<Received> frontEndLines() const;
    /// Samples sent by the ADC since start(), over all its streams.
    quint64 samplesSent() const;
    /// Samples that the ADC dropped because nobody read its line.
    quint64 samplesDropped() const;
    /// The UTC time of every GPS epoch sent, and the sentences of the first.
    QList<QDateTime> gpsEpochsSent() const;
    QByteArray firstGpsEpoch() const;
    QString nodePath(const QByteArray &port) const;
    qint64 msecsSinceStart() const;

    /// Sample @p index of the ADC's sine wave: one period every samplesPerPeriod samples.
    static qint16 sample(quint64 index);
    static constexpr int samplesPerPeriod = 64;
    static constexpr int amplitude = 30000;
    static constexpr int minimumRate = 1;
    static constexpr int maximumRate = 1000000;

    /// The ADC's control registers: byte offsets in the block, and their bits.
    enum Register : quint32
    {
        Control = 0x00, // bit 0: enable
        RateDivider = 0x04, // the sample rate is clockHz divided by this
        Status = 0x08 // read-only: Running or BadDivider
    };
    enum StatusBit : quint32
    {
        Running = 0x1,
        BadDivider = 0x2 // enabled with a divider that gives no rate between the limits
    };
    static constexpr quint32 blockSize = 0x1000;
    static constexpr qint64 clockHz = 96000000;

private:
    struct Line;

    void run();
    void serveFrontEnd(Line &line);
    void serveGps();
    void serveRegisters();
    void stream();
    QByteArray answer(const QByteArray &line) const;
    quint32 readRegister(Register offset) const;
    void wake();

    std::unique_ptr<QTemporaryDir> m_directory;
    std::unique_ptr<Line> m_frontEnd; // the thread's own while it runs
    std::unique_ptr<Line> m_adc;
    std::unique_ptr<Line> m_gps;
    qint64 m_nextEpochNs = -1; // the thread's own; -1 while nobody holds the receiver's line
    int m_registers = -1; // the register image
    int m_wake = -1; // eventfd: hangFrontEnd() and stop() interrupt the thread's poll()
    QElapsedTimer m_clock; // started before the thread, then only read
    std::atomic<qint64> m_hangUntilNs{0};
    std::atomic<bool> m_stopping{false};
    std::atomic<quint64> m_samplesSent{0};
    std::atomic<quint64> m_samplesDropped{0};
    mutable std::mutex m_linesMutex;
    QList<Received> m_frontEndLines;
    QList<QDateTime> m_gpsEpochs;
    QByteArray m_firstGpsEpoch;
    std::thread m_thread;
    // The ADC's stream, the thread's own.
    quint32 m_status = 0;
    quint32 m_divider = 0;
    qint64 m_streamStartNs = 0;
    quint64 m_generated = 0;
};
