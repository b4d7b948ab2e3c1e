#pragma once

#include "simulatedinstrument.h"

#include <QJsonObject>
#include <QString>

#include <memory>

class QTemporaryDir;
class RunLog;

namespace Pal {
class KrDeviceAbstraction;
class KrPalRoot;
class TcxoCalDevice;
} // namespace Pal

struct DemoSettings
{
    double durationSeconds = 3;
    int rate = 48000; // samples per second
    int bufferSize = 4096; // bytes
    QString tcxoFile; // empty: a file in a temporary directory
};

/// The demo's script: the application's flows through the library, one step each, from the
/// board built and registered to its shutdown, run against the simulated instrument.
///
/// Every step after the build reaches the board as any component of an application does:
/// through the application manager by the application's name, then by device key.
class SimBoardDemo
{
public:
    SimBoardDemo(const DemoSettings &settings, RunLog &log);
    ~SimBoardDemo();

    void run();

    static const QString applicationName;

private:
    // The steps, in the order run() takes them; each lives in steps/ with its group, and
    // compares what it sees with the values of expected.h.
    void startInstrument();
    void buildBoard();
    void sendCommand();
    void exchangeRequests();
    void hangCommand();
    void driveRegisters();
    void streamSamples();
    void createCalibration();
    void readCalibration();
    void updateFieldCalibration();
    void runSelfTest();
    void readGpsFix();
    void shutDown();

    // The device under @p key of the registered application, or null (the step fails).
    Pal::KrDeviceAbstraction *device(const QSharedPointer<Pal::KrPalRoot> &root, const char *key);
    Pal::TcxoCalDevice *tcxoDevice(const QSharedPointer<Pal::KrPalRoot> &root);
    // A request's answer as text; a null string (and a failed check) when it fails.
    QString request(Pal::KrDeviceAbstraction *frontEnd, quint16 commandId, const QString &name);
    // The ADC's registers (control, rate divider, status), once the status is @p status or
    // after a while; empty (and a failed check) when they cannot be read.
    QList<quint32> adcRegisters(Pal::KrDeviceAbstraction *control, quint32 status);

    DemoSettings m_settings;
    RunLog &m_log;
    SimulatedInstrument m_instrument;
    std::unique_ptr<QTemporaryDir> m_tcxoDirectory;
    QString m_tcxoFile;
    bool m_rootDestroyed = false;
    // What later steps report on.
    bool m_commandPathOk = false;
    bool m_streamOk = false;
    QJsonObject m_streamSummary;
    int m_fieldTcxo = -1;
};
