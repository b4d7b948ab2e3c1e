#pragma once

#include <pal/krinfotestresult.h>
#include <pal/krpal_export.h>

namespace Pal {

/// An information result that reports the type of the board's FPGA.
class KRPAL_EXPORT KrFpgaTypeTestResult : public KrInfoTestResult
{
    Q_OBJECT
public:
    KrFpgaTypeTestResult(const QString &name, const QString &value, const bool &showType);
    KrFpgaTypeTestResult(const KrFpgaTypeTestResult &other);
    KrFpgaTypeTestResult &operator=(const KrFpgaTypeTestResult &other);
    ~KrFpgaTypeTestResult() override;
};

} // namespace Pal
