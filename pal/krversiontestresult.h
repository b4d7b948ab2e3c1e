#pragma once

#include <pal/krinfotestresult.h>
#include <pal/krpal_export.h>

namespace Pal {

/// An information result that reports a version.
class KRPAL_EXPORT KrVersionTestResult : public KrInfoTestResult
{
    Q_OBJECT
public:
    /// As KrInfoTestResult, with its own type.
    KrVersionTestResult(const QString &name, const QString &value, const bool &showType);
    /// Copies the value, the name and the base's state.
    KrVersionTestResult(const KrVersionTestResult &other);
    /// Assigns the value, the name and the base's state.
    KrVersionTestResult &operator=(const KrVersionTestResult &other);
    ~KrVersionTestResult() override;
};

} // namespace Pal
