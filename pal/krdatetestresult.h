#pragma once

#include <pal/krinfotestresult.h>
#include <pal/krpal_export.h>

namespace Pal {

/// An information result that reports a date, such as a build or calibration date.
class KRPAL_EXPORT KrDateTestResult : public KrInfoTestResult
{
    Q_OBJECT
public:
    /// As KrInfoTestResult, with its own type.
    KrDateTestResult(const QString &name, const QString &value, const bool &showType);
    /// Copies the value, the name and the base's state.
    KrDateTestResult(const KrDateTestResult &other);
    /// Assigns the value, the name and the base's state.
    KrDateTestResult &operator=(const KrDateTestResult &other);
    ~KrDateTestResult() override;
};

} // namespace Pal
