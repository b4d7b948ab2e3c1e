// krpal-tcxocal: shows and changes the TCXO calibration file of a KrPal board.

#include "tcxocaltool.h"

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("krpal-tcxocal"));
    TcxoCalTool tool;
    return tool.run(QCoreApplication::arguments());
}
