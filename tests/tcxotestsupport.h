#pragma once

#include <pal/tcxocaldevice.h>

#include <QDir>
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
    return qstrdup(QString::asprintf("{%u, %.9g, %.9g, %u, %.9g, %.9g, %.9g, %.9g, %.9g}", f.factoryTcxo,
        double(f.factoryTemperature), double(f.factoryTuningSensitivity), f.fieldTcxo, double(f.fieldTemperature),
        double(f.fieldTuningSensitivity), double(f.fieldFixTime), double(f.fixDecayTime), double(f.refSourceDisplay))
                       .toUtf8()
                       .constData());
}

} // namespace Pal

/// Makes @p path the working directory while it lives, so that relative calibration paths
/// land in a test's own temporary directory.
class ScopedCurrentDir
{
public:
    explicit ScopedCurrentDir(const QString &path)
        : m_previous(QDir::currentPath())
        , m_entered(QDir::setCurrent(path))
    {
    }
    ~ScopedCurrentDir() { QDir::setCurrent(m_previous); }
    Q_DISABLE_COPY(ScopedCurrentDir)

    bool entered() const { return m_entered; }

private:
    const QString m_previous;
    const bool m_entered;
};
