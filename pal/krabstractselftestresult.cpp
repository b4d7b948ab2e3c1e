#include "krabstractselftestresult.h"

namespace Pal {

KrAbstractSelfTestResult::KrAbstractSelfTestResult(const bool &pass, const bool &showType)
    : QObject(nullptr)
    , m_type(SelfTestResultType::Base)
    , m_pass(pass)
    , m_showType(showType)
{
}

// A copy is a new result of its own: no parent, name or connections come along.
KrAbstractSelfTestResult::KrAbstractSelfTestResult(const KrAbstractSelfTestResult &other)
    : QObject(nullptr)
    , m_type(other.m_type)
    , m_pass(other.m_pass)
    , m_showType(other.m_showType)
{
}

KrAbstractSelfTestResult &KrAbstractSelfTestResult::operator=(const KrAbstractSelfTestResult &other)
{
    if (this != &other) {
        m_type = other.m_type;
        m_pass = other.m_pass;
        m_showType = other.m_showType;
    }
    return *this;
}

KrAbstractSelfTestResult::~KrAbstractSelfTestResult() = default;

bool KrAbstractSelfTestResult::didPass() const
{
    return m_pass;
}

KrAbstractSelfTestResult::SelfTestResultType KrAbstractSelfTestResult::type() const
{
    return m_type;
}

void KrAbstractSelfTestResult::setType(SelfTestResultType type)
{
    m_type = type;
}

bool KrAbstractSelfTestResult::showType() const
{
    return m_showType;
}

void KrAbstractSelfTestResult::setShowType(const bool &showType)
{
    m_showType = showType;
}

} // namespace Pal
