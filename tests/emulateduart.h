#pragma once

#include <QByteArray>
#include <QString>

/// While it lives, the tty at @p path answers the line and RS-485 requests as the UART driver
/// that @p driver's words describe (see emulateduart.cpp); other requests reach the tty itself.
struct EmulatedUart
{
    EmulatedUart(const QString &path, const QByteArray &driver);
    ~EmulatedUart();
    Q_DISABLE_COPY(EmulatedUart)
};
