#pragma once

#include <pal/tcxocaldevice.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <cstring>

Q_DECLARE_METATYPE(Pal::TcxoCalDevice::TcxoCalFactors)

namespace Pal {

// Bit for bit: a record handed over must come back unchanged, not merely close.
inline bool operator==(const TcxoCalDevice::TcxoCalFactors &a, const TcxoCalDevice::TcxoCalFactors &b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

inline char *toString(const TcxoCalDevice::TcxoCalFactors &f)
{
    return qstrdup(qPrintable(QString::asprintf("{%u, %.9g, %.9g, %u, %.9g, %.9g, %.9g, %.9g, %.9g}", f.factoryTcxo,
        double(f.factoryTemperature), double(f.factoryTuningSensitivity), f.fieldTcxo, double(f.fieldTemperature),
        double(f.fieldTuningSensitivity), double(f.fieldFixTime), double(f.fixDecayTime), double(f.refSourceDisplay))));
}

} // namespace Pal

/// The calibration of the TCXO tests, and its exact file text.
inline const Pal::TcxoCalDevice::TcxoCalFactors example{2048, 25.5f, 0.0125f, 2051, 31.75f, 0.0124f, 1.7e12f, 3600, 1};
inline const QByteArray exampleBytes
    = "FACTORY_TCXO=2048\nFACTORY_TEMPERATURE=25.5\nFACTORY_TUNING_SENSITIVITY=0.0125\n"
      "FIELD_TCXO=2051\nFIELD_TEMPERATURE=31.75\nFIELD_TUNING_SENSITIVITY=0.0124\n"
      "FIELD_FIX_TIME=1.7e+12\nFIX_DECAY_TIME=3600\nREF_SOURCE_DISPLAY=1";

/// The bytes of a file; null when it cannot be read.
inline QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// What getValue() gives for each of the nine keys, in file order; "<null>" marks a null string.
inline QStringList valueTexts(const Pal::TcxoCalDevice &device)
{
    QStringList texts;
    for (const char *key : {Pal::factoryTcxoKey, Pal::factoryTemperatureKey, Pal::factoryTuningSensitivityKey,
             Pal::fieldTcxoKey, Pal::fieldTemperatureKey, Pal::fieldTuningSensitivityKey, Pal::fieldFixTimeKey,
             Pal::fixDecayTimeKey, Pal::refSourceDisplayKey}) {
        const QString text = device.getValue(QString::fromLatin1(key), false);
        texts << (text.isNull() ? QStringLiteral("<null>") : text);
    }
    return texts;
}

/// A new temporary directory that is the working directory while it lives, so that relative
/// calibration paths land in a test's own directory.
class TemporaryWorkingDir
{
public:
    TemporaryWorkingDir()
        : m_previous(QDir::currentPath())
        , m_entered(QDir::setCurrent(m_dir.path()))
    {
    }
    ~TemporaryWorkingDir() { QDir::setCurrent(m_previous); }
    Q_DISABLE_COPY(TemporaryWorkingDir)

    bool entered() const { return m_entered; }

private:
    QTemporaryDir m_dir;
    const QString m_previous;
    const bool m_entered;
};
