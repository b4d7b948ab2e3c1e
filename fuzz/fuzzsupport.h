// Shared by the fuzz targets: checks that stop the run on a broken invariant, a record of
// Qt's message log, and the C library's number texts that the file and JSON rules are
// written in.
#pragma once

#include <QByteArray>
#include <QDebug>
#include <QString>
#include <QStringList>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace FuzzSupport {

template<typename T>
QByteArray describe(const T &value)
{
    QString text;
    QDebug(&text).nospace() << value;
    return text.toUtf8();
}

// Aborts, so that libFuzzer stores the input as a crash artifact and prints its stack.
[[noreturn]] inline void fail(const char *file, int line, const char *what, const QByteArray &details)
{
    std::fprintf(stderr, "\n%s:%d: invariant broken: %s\n%s\n", file, line, what, details.constData());
    std::abort();
}

template<typename A, typename E>
void compare(const A &actual, const E &expected, const char *what, const char *file, int line)
{
    if (!(actual == expected))
        fail(file, line, what, "  actual:   " + describe(actual) + "\n  expected: " + describe(expected));
}

#define FUZZ_CHECK(condition)                                                                                          \
    do {                                                                                                               \
        if (!(condition))                                                                                              \
            FuzzSupport::fail(__FILE__, __LINE__, #condition, QByteArray());                                           \
    } while (false)

#define FUZZ_COMPARE(actual, expected)                                                                                 \
    FuzzSupport::compare((actual), (expected), #actual " == " #expected, __FILE__, __LINE__)

/// Qt's message log, one "<level>: <text>" entry per message. The fuzz targets run on one
/// thread.
class MessageLog
{
public:
    static void install() { qInstallMessageHandler(&MessageLog::record); }
    static QStringList take()
    {
        QStringList taken;
        taken.swap(s_messages);
        return taken;
    }

private:
    static void record(QtMsgType type, const QMessageLogContext &, const QString &text)
    {
        static const char *const levels[] = {"debug", "warning", "critical", "fatal", "info"};
        s_messages << QLatin1String(levels[type]) + QLatin1String(": ") + text;
    }
    inline static QStringList s_messages;
};

// Whether the exact decimal expansion @p digits continues, after @p kept digits, with a 5 and
// nothing else: the value lies exactly halfway between two texts of that precision.
inline bool halfway(const char *digits, int kept)
{
    if (int(std::strlen(digits)) <= kept || digits[kept] != '5')
        return false;
    for (const char *rest = digits + kept + 1; *rest; ++rest) {
        if (*rest != '0')
            return false;
    }
    return true;
}

/// The texts that @p value may be written as in a form of the C library's printf (@p format
/// is "%g" or "%.2f"): the C library's own text, and for a value exactly halfway also the
/// text of its neighbour away from zero, since Qt rounds such ties away from zero where the
/// C library rounds them to even. Zero is written without sign and non-finite values as
/// inf, -inf and nan, as Qt writes them.
inline QStringList cNumberTexts(double value, const char *format)
{
    const bool fixed = std::strcmp(format, "%.2f") == 0;
    if (std::isnan(value))
        return {QStringLiteral("nan")};
    if (std::isinf(value))
        return {QLatin1String(value < 0 ? "-inf" : "inf")};
    if (value == 0)
        return {QLatin1String(fixed ? "0.00" : "0")};

    // A double has at most 309 integer digits, and an exact expansion of at most 767
    // significant digits.
    static char text[400];
    static char exact[1600];
    std::snprintf(text, sizeof text, format, value);
    QStringList texts{QString::fromLatin1(text)};

    bool isHalfway = false;
    if (fixed) {
        std::snprintf(exact, sizeof exact, "%.1100f", std::fabs(value));
        isHalfway = halfway(std::strchr(exact, '.') + 1, 2);
    } else {
        std::snprintf(exact, sizeof exact, "%.800e", std::fabs(value));
        *std::strchr(exact, 'e') = '\0';
        std::memmove(exact + 1, exact + 2, std::strlen(exact + 2) + 1); // drop the point
        isHalfway = halfway(exact, 6);
    }
    if (isHalfway) {
        std::snprintf(text, sizeof text, format, std::nextafter(value, value < 0 ? -INFINITY : INFINITY));
        texts << QString::fromLatin1(text);
    }
    return texts;
}

} // namespace FuzzSupport
