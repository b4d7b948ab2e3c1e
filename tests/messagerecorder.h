#pragma once

#include <QStringList>

#include <utility>

/// Records Qt's message log while it lives, one entry per message: "<level> <category>: <text>",
/// without the source that a Debug build gives some messages. Single-threaded use only.
class MessageRecorder
{
public:
    MessageRecorder()
        : m_previous(qInstallMessageHandler(&MessageRecorder::record))
    {
        s_messages.clear();
    }
    ~MessageRecorder() { qInstallMessageHandler(m_previous); }
    Q_DISABLE_COPY(MessageRecorder)

    QStringList takeMessages() { return std::exchange(s_messages, {}); }

private:
    static void record(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        static const char *const levels[] = {"debug", "warning", "critical", "fatal", "info"};
        s_messages << QString::asprintf("%s %s: ", levels[type], context.category ? context.category : "") + text;
    }

    inline static QStringList s_messages;
    QtMessageHandler m_previous;
};
