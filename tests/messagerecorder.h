#pragma once

#include <QStringList>
#include <QtGlobal>

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

    QStringList takeMessages()
    {
        const QStringList messages = s_messages;
        s_messages.clear();
        return messages;
    }

private:
    static void record(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        static const char *const levels[] = {"debug", "warning", "critical", "fatal", "info"};
        QString entry = QString::fromLatin1(levels[type]) + QLatin1Char(' ')
            + QString::fromLatin1(context.category ? context.category : "") + QLatin1String(": ") + text;
        if (context.file)
            entry += QLatin1String(" @") + QString::fromLatin1(context.file);
        s_messages << entry;
    }

    inline static QStringList s_messages;
    QtMessageHandler m_previous;
};
