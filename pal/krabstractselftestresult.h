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
    /// The kind of a result, rendered by name as the "type" key when showType() is set.
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

    /// A result of type Base with the outcome @p pass; @p showType adds "type" to its JSON.
    KrAbstractSelfTestResult(const bool &pass, const bool &showType);
    /// Copies outcome, type and show-type flag, not the QObject identity.
    KrAbstractSelfTestResult(const KrAbstractSelfTestResult &other);
    /// Assigns outcome, type and show-type flag.
    KrAbstractSelfTestResult &operator=(const KrAbstractSelfTestResult &other);
    ~KrAbstractSelfTestResult() override;

    /// The outcome given at construction.
    bool didPass() const;
    /// The result's kind; each class sets its own at construction.
    SelfTestResultType type() const;
    /// Changes the kind rendered, for instance PassFail for a plain KrSelfTestResult.
    void setType(SelfTestResultType type);
    /// Whether the JSON object carries the "type" key.
    bool showType() const;
    /// Sets whether the JSON object carries the "type" key.
    void setShowType(const bool &showType);

    /// The result as a JSON object for the application's report; "type" (the enumerator's
    /// name) only when showType() is set.
    virtual QJsonObject generateJsonObject() const = 0;

private:
    SelfTestResultType m_type;
    bool m_pass;
    bool m_showType;
};

} // namespace Pal
