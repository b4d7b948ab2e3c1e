#pragma once

#include <pal/krpal_export.h>

#include <QObject>

class QJsonObject;

namespace Pal {

/// Root of the self-test results: a typed outcome that renders itself as a JSON object.
/// Results are parentless QObjects with value semantics; every class of the family copies
/// with its own copy constructor and assignment.
class KRPAL_EXPORT KrAbstractSelfTestResult : public QObject
{
    Q_OBJECT
public:
    enum class SelfTestResultType
    {
        Base = 0,
        PassFail = 1,
        NumericPassFail = 2,
        Info = 3,
        Voltage = 4,
        Temperature = 5,
        Current = 6,
        Version = 7,
        Date = 8,
        FpgaType = 9,
        Json = 10
    };
    Q_ENUM(SelfTestResultType)

    KrAbstractSelfTestResult(const bool &pass, const bool &showType);
    KrAbstractSelfTestResult(const KrAbstractSelfTestResult &other);
    KrAbstractSelfTestResult &operator=(const KrAbstractSelfTestResult &other);
    ~KrAbstractSelfTestResult() override;

    bool didPass() const;
    SelfTestResultType type() const;
    void setType(SelfTestResultType type);
    bool showType() const;
    void setShowType(const bool &showType);

    virtual QJsonObject generateJsonObject() const = 0;

private:
    SelfTestResultType m_type;
    bool m_pass;
    bool m_showType;
};

} // namespace Pal
