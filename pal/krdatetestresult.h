#pragma once

#include <pal/krinfotestresult.h>
#include <pal/krpal_export.h>

namespace Pal {

/// An information result that reports a date, such as a build or calibration date.
class KRPAL_EXPORT KrDateTestResult : public KrInfoTestResult
{
    Q_OBJECT
public:
    KrDateTestResult(const QString &name, const QString &value, const bool &showType);
    KrDateTestResult(const KrDateTestResult &other);
    KrDateTestResult &operator=(const KrDateTestResult &other);
    ~KrDateTestResult() override;
};

} // namespace Pal
