#pragma once

#include <QStringList>

#include <utility>

/// Records Qt's message log while it lives, one entry per message: "<level> <category>: <text>",
/// followed by " @<file>" when the message carries a source context. Single-threaded use only.
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
        s_messages << QString::asprintf("%s %s: ", levels[type], context.category ? context.category : "") + text
                + (context.file ? QStringLiteral(" @") + QString::fromLatin1(context.file) : QString());
    }

    inline static QStringList s_messages;
    QtMessageHandler m_previous;
};
