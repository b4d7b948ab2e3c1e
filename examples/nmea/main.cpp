// krpal-nmea: prints the GPS fixes of an NMEA 0183 log, of standard input or of a receiver on a
// serial line, one line per epoch.

#include "nmeatool.h"

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("krpal-nmea"));
    NmeaTool tool;
    return tool.run(QCoreApplication::arguments());
}
