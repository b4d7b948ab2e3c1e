#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QString>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class QTemporaryDir;

/// The instrument that the demo runs against, on a thread of its own: a front end that
/// answers commands and requests line by line, and an ADC that streams a sine wave of 16-bit
/// samples once told to. Each sits behind a device node, a Unix socket in a directory of its
/// own, and the instrument wires the board's ports "frontend" and "adc" to those nodes when it
/// starts (see BoardWiring), so the board must be built after start().
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
    QString nodePath(const QByteArray &port) const;
    qint64 msecsSinceStart() const;

    /// Sample @p index of the ADC's sine wave: one period every samplesPerPeriod samples.
    static qint16 sample(quint64 index);
    static constexpr int samplesPerPeriod = 64;
    static constexpr int amplitude = 30000;
    static constexpr int minimumRate = 1;
    static constexpr int maximumRate = 1000000;

private:
    enum class Port
    {
        FrontEnd,
        Adc
    };
    struct Connection;

    void run();
    void accept(int listener, Port port);
    bool takeInput(Connection &connection);
    void serveFrontEnd(Connection &connection);
    void serveAdc(Connection &connection);
    void stream(Connection &connection);
    bool flush(Connection &connection);
    QByteArray answer(const QByteArray &line) const;
    void wake();

    std::unique_ptr<QTemporaryDir> m_directory;
    int m_frontEndListener = -1;
    int m_adcListener = -1;
    int m_wake = -1; // eventfd: hangFrontEnd() and stop() interrupt the thread's poll()
    std::vector<Connection> m_connections; // the thread's own
    QElapsedTimer m_clock; // started before the thread, then only read
    std::atomic<qint64> m_hangUntilNs{0};
    std::atomic<bool> m_stopping{false};
    std::atomic<quint64> m_samplesSent{0};
    std::atomic<quint64> m_samplesDropped{0};
    mutable std::mutex m_linesMutex;
    QList<Received> m_frontEndLines;
    std::thread m_thread;
};
