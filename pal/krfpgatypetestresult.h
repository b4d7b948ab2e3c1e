#pragma once

#include <pal/krinfotestresult.h>
#include <pal/krpal_export.h>

namespace Pal {

/// An information result that reports the type of the board's FPGA.
class KRPAL_EXPORT KrFpgaTypeTestResult : public KrInfoTestResult
{
    Q_OBJECT
public:
    /// As KrInfoTestResult, with its own type.
    KrFpgaTypeTestResult(const QString &name, const QString &value, const bool &showType);
    /// Copies the value, the name and the base's state.
    KrFpgaTypeTestResult(const KrFpgaTypeTestResult &other);
    /// Assigns the value, the name and the base's state.
    KrFpgaTypeTestResult &operator=(const KrFpgaTypeTestResult &other);
    ~KrFpgaTypeTestResult() override;
};

} // namespace Pal
