#pragma once

#include <pal/krinfotestresult.h>
#include <pal/krpal_export.h>

namespace Pal {

/// An information result that reports a version.
class KRPAL_EXPORT KrVersionTestResult : public KrInfoTestResult
{
    Q_OBJECT
public:
    KrVersionTestResult(const QString &name, const QString &value, const bool &showType);
    KrVersionTestResult(const KrVersionTestResult &other);
    KrVersionTestResult &operator=(const KrVersionTestResult &other);
    ~KrVersionTestResult() override;
};

} // namespace Pal
